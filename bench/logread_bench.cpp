// Reading the whole of a 1 MiB log ring, beside a plain copy of it.
//
// Cases are named "<pattern>/<contestant>/<bytes per message>".
#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include <kest/utils/logread.h>

#include "require.h"

namespace {

constexpr key_t kKey = 0x414E4547;
constexpr uint32_t kArea = 1 << 20;

// A ring full of messages of one length, in an ipc namespace where the machine's own is not.
class Ring {
  public:
    explicit Ring(uint32_t message) : message_(message), size_(kArea / message * message) {
        static const bool isolated =
            unshare(CLONE_NEWIPC) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0;
        require(isolated, "unshare");
        segment_ = shmget(kKey, kArea + 8, IPC_CREAT | 0600);
        semaphores_ = semget(kKey, 2, IPC_CREAT | 0600);
        require(segment_ != -1 && semaphores_ != -1, "shmget, semget");
        bytes_ = static_cast<char*>(shmat(segment_, nullptr, 0));
        memset(data(), 'x', size_);
        for (uint32_t i = message - 1; i < size_; i += message)
            data()[i] = '\0';
        memcpy(bytes_, &size_, 4);
        turn();
    }
    ~Ring() {
        shmdt(bytes_);
        shmctl(segment_, IPC_RMID, nullptr);
        semctl(semaphores_, 0, IPC_RMID);
    }
    Ring(const Ring&) = delete;
    Ring& operator=(const Ring&) = delete;

    char* data() const { return bytes_ + 8; }
    uint32_t size() const { return size_; }
    // All but one message: what can be unread at a time.
    uint32_t unread() const { return size_ - message_; }

    // Puts the tail one message back, so that a reader at the old one has the rest before it.
    void turn() {
        tail_ = (tail_ == 0 ? size_ : tail_) - message_;
        memcpy(bytes_ + 4, &tail_, 4);
    }

  private:
    uint32_t message_;
    uint32_t size_;
    uint32_t tail_ = 0;
    int segment_ = -1;
    int semaphores_ = -1;
    char* bytes_ = nullptr;
};

void count(const char* text, unsigned int length, void* ctx) {
    benchmark::DoNotOptimize(text);
    *static_cast<uint64_t*>(ctx) += length + 1;
}

void readOurs(benchmark::State& state) {
    Ring ring(static_cast<uint32_t>(state.range(0)));
    kest::utils::Logread reader;
    require(reader.Initialize() && reader.SeekToTail(), "Initialize");
    uint64_t bytes = 0, expected = 0;
    for (auto _ : state) {
        ring.turn();
        reader.ForEach(count, &bytes);
        expected += ring.unread();
    }
    require(bytes == expected, "messages are missing");
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void copyRing(benchmark::State& state) {
    const Ring ring(static_cast<uint32_t>(state.range(0)));
    const std::unique_ptr<char[]> copy(new char[ring.size()]);
    for (auto _ : state) {
        memcpy(copy.get(), ring.data(), ring.unread());
        benchmark::DoNotOptimize(copy.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * ring.unread());
}

BENCHMARK(readOurs)->Name("ring/ours")->Arg(40)->Arg(100)->Arg(256);
BENCHMARK(copyRing)->Name("ring/copy")->Arg(40)->Arg(100)->Arg(256);

}  // namespace
