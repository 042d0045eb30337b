// The byte queue beside libevent's evbuffer, Asio's streambuf and a vector used as a queue. The
// contestant "memcpy" only copies into a buffer that is ready: the limit.
#include <benchmark/benchmark.h>
#include <event2/buffer.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/streambuf.hpp>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <kest/utils/iobuffer.h>

#include "require.h"

namespace {

constexpr size_t kGrowth = 256U << 20;
constexpr size_t kFramedBytes = 1U << 20;

// Every contestant appends, shows its first bytes in one piece, consumes, and moves its bytes
// through a descriptor, each in the way that its library means to be used.

class Ours {
  public:
    explicit Ours(size_t) { buffer_.SetFreeSpaceLimit(0); }
    void append(const unsigned char* data, size_t n) {
        buffer_.ReadFromBuffer(data, static_cast<unsigned int>(n));
    }
    size_t size() const { return buffer_.Available(); }
    const unsigned char* front(size_t) { return buffer_.Begin(); }
    void consume(size_t n) { buffer_.Ignore(static_cast<unsigned int>(n)); }
    void send(int fd, size_t n) {
        int written = 0;
        buffer_.WriteToFd(fd, static_cast<unsigned int>(n), written);
    }
    void receive(int fd, size_t n) {
        int got = 0;
        buffer_.ReadFromFd(fd, static_cast<unsigned int>(n), got);
    }

  private:
    kest::utils::IOBuffer buffer_{"bench"};
};

class Evbuffer {
  public:
    explicit Evbuffer(size_t) {}
    Evbuffer(const Evbuffer&) = delete;
    Evbuffer& operator=(const Evbuffer&) = delete;
    ~Evbuffer() { evbuffer_free(buffer_); }
    void append(const unsigned char* data, size_t n) { evbuffer_add(buffer_, data, n); }
    size_t size() const { return evbuffer_get_length(buffer_); }
    const unsigned char* front(size_t n) {
        return evbuffer_pullup(buffer_, static_cast<ev_ssize_t>(n));
    }
    void consume(size_t n) { evbuffer_drain(buffer_, n); }
    void send(int fd, size_t n) { evbuffer_write_atmost(buffer_, fd, static_cast<ev_ssize_t>(n)); }
    void receive(int fd, size_t n) { evbuffer_read(buffer_, fd, static_cast<int>(n)); }

  private:
    evbuffer* const buffer_ = evbuffer_new();
};

class Streambuf {
  public:
    explicit Streambuf(size_t) {}
    void append(const unsigned char* data, size_t n) {
        buffer_.commit(asio::buffer_copy(buffer_.prepare(n), asio::buffer(data, n)));
    }
    size_t size() const { return buffer_.size(); }
    const unsigned char* front(size_t) {
        return static_cast<const unsigned char*>(buffer_.data().data());
    }
    void consume(size_t n) { buffer_.consume(n); }
    void send(int fd, size_t n) { buffer_.consume(moved(::write(fd, front(n), n))); }
    void receive(int fd, size_t n) {
        buffer_.commit(moved(::read(fd, buffer_.prepare(n).data(), n)));
    }

  private:
    static size_t moved(ssize_t count) { return count < 0 ? 0 : static_cast<size_t>(count); }

    asio::streambuf buffer_;
};

class Vector {
  public:
    explicit Vector(size_t) {}
    void append(const unsigned char* data, size_t n) {
        bytes_.insert(bytes_.end(), data, data + n);
    }
    size_t size() const { return bytes_.size(); }
    const unsigned char* front(size_t) {
        return reinterpret_cast<const unsigned char*>(bytes_.data());
    }
    void consume(size_t n) { bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<long>(n)); }
    void send(int fd, size_t n) {
        const ssize_t written = ::write(fd, bytes_.data(), n);
        if (written > 0) consume(static_cast<size_t>(written));
    }
    void receive(int fd, size_t n) {
        const size_t before = bytes_.size();
        bytes_.resize(before + n);
        const ssize_t got = ::read(fd, bytes_.data() + before, n);
        bytes_.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    }

  private:
    std::vector<char> bytes_;
};

// Pages that are in memory already.
unsigned char* readyMemory(size_t bytes) {
    void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    require(pages != MAP_FAILED, "mmap");
    return static_cast<unsigned char*>(pages);
}

// Copies into a buffer that is large enough and ready, and does nothing else: positions are those
// of the source, which every pattern reads from its start to its end.
class Memcpy {
  public:
    explicit Memcpy(size_t capacity) : capacity_(capacity) {}
    void append(const unsigned char* data, size_t n) {
        if (at_ + n > capacity_) at_ = 0;
        memcpy(memory_ + at_, data, n);
        at_ += n;
        if (begin_ == end_) begin_ = data;
        end_ = data + n;
    }
    size_t size() const { return static_cast<size_t>(end_ - begin_); }
    const unsigned char* front(size_t) { return begin_; }
    void consume(size_t n) { begin_ += n; }
    void send(int fd, size_t n) {
        require(::write(fd, memory_, n) == static_cast<ssize_t>(n), "write");
        begin_ = end_;
    }
    void receive(int fd, size_t n) {
        const ssize_t got = ::read(fd, memory_, n);
        end_ = begin_ + (got > 0 ? got : 0);
    }

  private:
    inline static unsigned char* const memory_ = readyMemory(kGrowth);
    const size_t capacity_;
    size_t at_ = 0;
    const unsigned char* begin_ = memory_;
    const unsigned char* end_ = memory_;
};

// A processor takes a load for dependent on an earlier store when their addresses differ in the
// upper bits only. That copies run into this or not is chance; the bytes to append and the queues
// stand in the middle of a page, so that copies to the start of one do not.
const unsigned char* source() {
    static const unsigned char* const bytes = readyMemory(kFramedBytes) + 2048;
    return bytes;
}

template <typename Queue>
struct Placed {
    explicit Placed(size_t capacity) : queue(capacity) {}
    alignas(4096) char lead[2048];
    Queue queue;
};

void countBytes(benchmark::State& state, size_t perIteration) {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(perIteration));
}

// A chunk in, a chunk out.
template <typename Queue>
void streamMemory(benchmark::State& state, size_t chunk) {
    Placed<Queue> placed(chunk);
    Queue& queue = placed.queue;
    const unsigned char* const data = source();
    for (auto _ : state) {
        queue.append(data, chunk);
        benchmark::DoNotOptimize(queue.front(1));
        benchmark::ClobberMemory();
        queue.consume(chunk);
    }
    countBytes(state, chunk);
}

// A chunk into one queue, through a socket, and out of another queue.
template <typename Queue>
void streamSocket(benchmark::State& state, size_t chunk) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    {
        Placed<Queue> outPlaced(chunk), inPlaced(chunk);
        Queue &out = outPlaced.queue, &in = inPlaced.queue;
        const unsigned char* const data = source();
        for (auto _ : state) {
            out.append(data, chunk);
            out.send(ends[0], chunk);
            while (in.size() < chunk)
                in.receive(ends[1], chunk - in.size());
            benchmark::DoNotOptimize(in.front(1));
            in.consume(chunk);
        }
    }
    countBytes(state, chunk);
    close(ends[0]);
    close(ends[1]);
}

// From nothing to 256 MiB, and released again.
template <typename Queue>
void growth(benchmark::State& state, size_t chunk) {
    const unsigned char* const data = source();
    for (auto _ : state) {
        Queue queue(kGrowth);
        for (size_t filled = 0; filled < kGrowth; filled += chunk)
            queue.append(data, chunk);
        benchmark::DoNotOptimize(queue.front(1));
    }
    countBytes(state, kGrowth);
}

// Frames of 100 to 1500 bytes, each led by its length in two bytes, the same ones in every run.
const std::vector<unsigned char>& frames() {
    static const std::vector<unsigned char> stream = [] {
        std::vector<unsigned char> bytes;
        std::mt19937 random(1);
        while (bytes.size() < kFramedBytes) {
            const size_t length = 100 + random() % 1401;
            bytes.push_back(static_cast<unsigned char>(length >> 8));
            bytes.push_back(static_cast<unsigned char>(length & 0xFF));
            bytes.resize(bytes.size() + length - 2, 'f');
        }
        return bytes;
    }();
    return stream;
}

template <typename Queue>
void takeFrames(Queue& queue, unsigned& checksum) {
    while (queue.size() >= 2) {
        const unsigned char* const header = queue.front(2);
        const size_t length = static_cast<size_t>(header[0]) << 8 | header[1];
        if (queue.size() < length) return;
        checksum += queue.front(length)[length - 1];
        queue.consume(length);
    }
}

// Sizes of half to one and a half times the mean, so that the copies begin at all addresses.
std::vector<size_t> portions(size_t total, size_t mean) {
    std::vector<size_t> sizes;
    std::mt19937 random(2);
    for (size_t left = total; left > 0; left -= sizes.back())
        sizes.push_back(std::min(left, mean / 2 + random() % mean));
    return sizes;
}

// Portions of a few KiB in, whole frames out; the rest waits for the next portion.
template <typename Queue>
void framing(benchmark::State& state, size_t meanPortion) {
    Placed<Queue> placed(16384);
    Queue& queue = placed.queue;
    const std::vector<unsigned char>& stream = frames();
    const std::vector<size_t> sizes = portions(stream.size(), meanPortion);
    unsigned checksum = 0;
    for (auto _ : state) {
        const unsigned char* data = stream.data();
        for (const size_t size : sizes) {
            queue.append(data, size);
            data += size;
            takeFrames(queue, checksum);
        }
        benchmark::DoNotOptimize(checksum);
    }
    countBytes(state, stream.size());
}

template <typename Queue>
void add(const std::string& contestant) {
    const auto name = [&](const char* pattern, size_t parameter) {
        return pattern + ("/" + contestant) + "/" + std::to_string(parameter);
    };
    const auto enter = [&](const char* pattern, void (*run)(benchmark::State&, size_t),
                           const std::vector<size_t>& parameters) {
        for (const size_t parameter : parameters) {
            benchmark::RegisterBenchmark(name(pattern, parameter).c_str(),
                                         [=](benchmark::State& state) { run(state, parameter); });
        }
    };
    enter("stream_memory", streamMemory<Queue>, {64, 1024, 16384, 65536});
    enter("stream_socket", streamSocket<Queue>, {64, 1024, 16384, 65536});
    enter("growth", growth<Queue>, {1024, 16384, 65536});
    enter("framing", framing<Queue>, {2048, 4096, 8192});
}

const bool registered = [] {
    add<Ours>("ours");
    add<Evbuffer>("evbuffer");
    add<Streambuf>("streambuf");
    add<Vector>("vector");
    add<Memcpy>("memcpy");
    return true;
}();

}  // namespace
