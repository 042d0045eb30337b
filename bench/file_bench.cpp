// Whole-file reading and typed reads and writes, beside stdio and plain system calls.
//
// Cases are named "<pattern>/<contestant>/<bytes>". `one_read` is a single read into memory that is
// ready and warm: what no reader of a whole file can beat.
#include <benchmark/benchmark.h>
#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <kest/utils/file.h>

#include "require.h"

namespace {

using kest::utils::ByteOrder;
using kest::utils::File;

constexpr unsigned int kValues = 16384;  // in the file of a typed case

// A file of the case's size, or of room for the typed values; gone with its object.
class Sample {
  public:
    explicit Sample(benchmark::State& state)
        : size_(static_cast<size_t>(state.range(0)) * (state.range(0) == 4 ? kValues : 1)) {
        const int fd = ::mkstemp(path_);
        const std::vector<char> content(size_, 'x');
        require(::write(fd, content.data(), size_) == static_cast<ssize_t>(size_), "sample file");
        ::close(fd);
    }
    ~Sample() { ::unlink(path_); }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;
    char const* path() const { return path_; }
    size_t size() const { return size_; }

  private:
    size_t size_;
    char path_[32] = "/tmp/kest-file-bench-XXXXXX";
};

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using StdioFile = std::unique_ptr<FILE, FileCloser>;

StdioFile openStdio(char const* path, char const* mode) {
    StdioFile file(std::fopen(path, mode));
    require(file != nullptr, "fopen");
    return file;
}

// A text of the file's size, as a reader by hand would make it.
std::string textFor(int fd) {
    struct stat now = {};
    require(::fstat(fd, &now) == 0, "fstat");
    return std::string(static_cast<size_t>(now.st_size), '\0');
}

void oneRead(benchmark::State& state) {
    const Sample sample(state);
    std::vector<char> buffer(sample.size());
    const int fd = ::open(sample.path(), O_RDONLY);
    for (auto _ : state) {
        ::lseek(fd, 0, SEEK_SET);
        require(::read(fd, buffer.data(), buffer.size()) == state.range(0), "read");
    }
    ::close(fd);
}

void plainText(benchmark::State& state) {
    const Sample sample(state);
    const int fd = ::open(sample.path(), O_RDONLY);
    for (auto _ : state) {
        std::string text = textFor(fd);
        ::lseek(fd, 0, SEEK_SET);
        require(::read(fd, text.data(), text.size()) == state.range(0), "read");
    }
    ::close(fd);
}

void stdioText(benchmark::State& state) {
    const Sample sample(state);
    const StdioFile file = openStdio(sample.path(), "rb");
    for (auto _ : state) {
        std::string text = textFor(::fileno(file.get()));
        std::rewind(file.get());
        require(std::fread(text.data(), 1, text.size(), file.get()) == text.size(), "fread");
    }
}

void oursNewText(benchmark::State& state) {
    const Sample sample(state);
    File file;
    require(file.Initialize(sample.path(), File::Read), "Initialize");
    for (auto _ : state) {
        std::string text;
        require(file.ReadStringAll(text), "ReadStringAll");
    }
}

void oursSameText(benchmark::State& state) {
    const Sample sample(state);
    File file;
    require(file.Initialize(sample.path(), File::Read), "Initialize");
    std::string text;
    for (auto _ : state) {
        require(file.ReadStringAll(text), "ReadStringAll");
    }
}

void oneReadByPath(benchmark::State& state) {
    const Sample sample(state);
    std::vector<char> buffer(sample.size());
    for (auto _ : state) {
        const int fd = ::open(sample.path(), O_RDONLY | O_CLOEXEC);
        require(::read(fd, buffer.data(), buffer.size()) == state.range(0), "read");
        ::close(fd);
    }
}

void plainByPath(benchmark::State& state) {
    const Sample sample(state);
    for (auto _ : state) {
        const int fd = ::open(sample.path(), O_RDONLY | O_CLOEXEC);
        std::string text = textFor(fd);
        require(::read(fd, text.data(), text.size()) == state.range(0), "read");
        ::close(fd);
    }
}

void stdioByPath(benchmark::State& state) {
    const Sample sample(state);
    for (auto _ : state) {
        const StdioFile file = openStdio(sample.path(), "rbe");
        std::string text = textFor(::fileno(file.get()));
        require(std::fread(text.data(), 1, text.size(), file.get()) == text.size(), "fread");
    }
}

void oursByPath(benchmark::State& state) {
    const Sample sample(state);
    for (auto _ : state) {
        std::string text;
        require(File::ReadStringAll(sample.path(), text), "ReadStringAll");
    }
}

// One iteration writes, or reads, one value; the file starts afresh when it is full or read.

template <typename Rewind, typename Transfer>
void forEachValue(benchmark::State& state, Rewind rewind, Transfer transfer) {
    unsigned int index = 0;
    for (auto _ : state) {
        if (index++ % kValues == 0) rewind();
        require(transfer(index), "transfer");
    }
}

void writeOurs(benchmark::State& state) {
    const Sample sample(state);
    File file;
    require(file.Initialize(sample.path(), File::ReadWrite), "Initialize");
    forEachValue(
        state, [&] { file.SeekBegin(); },
        [&](unsigned int value) { return file.WriteUI32(value, ByteOrder::Big); });
}

void writePlain(benchmark::State& state) {
    const Sample sample(state);
    const int fd = ::open(sample.path(), O_RDWR);
    forEachValue(
        state, [fd] { ::lseek(fd, 0, SEEK_SET); },
        [fd](unsigned int value) {
            const uint32_t wire = htobe32(value);
            return ::write(fd, &wire, sizeof(wire)) == sizeof(wire);
        });
    ::close(fd);
}

void writeStdio(benchmark::State& state) {
    const Sample sample(state);
    const StdioFile file = openStdio(sample.path(), "r+b");
    forEachValue(
        state, [&] { std::rewind(file.get()); },
        [&](unsigned int value) {
            const uint32_t wire = htobe32(value);
            return std::fwrite(&wire, sizeof(wire), 1, file.get()) == 1;
        });
}

void readOurs(benchmark::State& state) {
    const Sample sample(state);
    File file;
    require(file.Initialize(sample.path(), File::Read), "Initialize");
    forEachValue(
        state, [&] { file.SeekBegin(); },
        [&](unsigned int value) {
            benchmark::DoNotOptimize(value);
            return file.ReadUI32(&value, ByteOrder::Big);
        });
}

void readPlain(benchmark::State& state) {
    const Sample sample(state);
    const int fd = ::open(sample.path(), O_RDONLY);
    forEachValue(
        state, [fd] { ::lseek(fd, 0, SEEK_SET); },
        [fd](uint32_t wire) {
            const bool read = ::read(fd, &wire, sizeof(wire)) == sizeof(wire);
            benchmark::DoNotOptimize(be32toh(wire));
            return read;
        });
    ::close(fd);
}

void readStdio(benchmark::State& state) {
    const Sample sample(state);
    const StdioFile file = openStdio(sample.path(), "rb");
    forEachValue(
        state, [&] { std::rewind(file.get()); },
        [&](uint32_t wire) {
            const bool read = std::fread(&wire, sizeof(wire), 1, file.get()) == 1;
            benchmark::DoNotOptimize(be32toh(wire));
            return read;
        });
}

void sizes(benchmark::internal::Benchmark* each) {
    each->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20)->Arg(16 << 20);
}

BENCHMARK(oursSameText)->Name("whole_file_again/ours")->Apply(sizes);
BENCHMARK(oneRead)->Name("whole_file_again/one_read")->Apply(sizes);
BENCHMARK(oursNewText)->Name("whole_file_new_text/ours")->Apply(sizes);
BENCHMARK(plainText)->Name("whole_file_new_text/plain")->Apply(sizes);
BENCHMARK(stdioText)->Name("whole_file_new_text/stdio")->Apply(sizes);
BENCHMARK(oursByPath)->Name("whole_file_by_path/ours")->Apply(sizes);
BENCHMARK(oneReadByPath)->Name("whole_file_by_path/one_read")->Apply(sizes);
BENCHMARK(plainByPath)->Name("whole_file_by_path/plain")->Apply(sizes);
BENCHMARK(stdioByPath)->Name("whole_file_by_path/stdio")->Apply(sizes);
BENCHMARK(writeOurs)->Name("write_typed/ours")->Arg(4);
BENCHMARK(writePlain)->Name("write_typed/plain")->Arg(4);
BENCHMARK(writeStdio)->Name("write_typed/stdio")->Arg(4);
BENCHMARK(readOurs)->Name("read_typed/ours")->Arg(4);
BENCHMARK(readPlain)->Name("read_typed/plain")->Arg(4);
BENCHMARK(readStdio)->Name("read_typed/stdio")->Arg(4);

}  // namespace
