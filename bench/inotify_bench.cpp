// Taking events from inotify: ours, with a pattern that matches every name, beside a bare loop of
// read that looks at each event's name and mask.
//
// Cases are named "<pattern>/<contestant>/<events at a time>". "all" includes the system calls that
// cause the events, in processor time; "take" is what follows alone, in wall time.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include <kest/utils/inode_listener.h>

#include "require.h"

namespace {

namespace fs = std::filesystem;

// A folder with files to touch, removed with its object.
class Folder {
  public:
    explicit Folder(long files) : files_(files) {
        std::string name = fs::temp_directory_path() / "kest-inotify-bench-XXXXXX";
        require(::mkdtemp(name.data()) != nullptr, "mkdtemp");
        path_ = name;
        folder_ = ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (long i = 0; i < files; ++i)
            ::close(::openat(folder_, fileName(i).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    ~Folder() {
        ::close(folder_);
        fs::remove_all(path_);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& path() const { return path_; }

    void touch() const {
        for (long i = 0; i < files_; ++i)
            require(::fchmodat(folder_, fileName(i).c_str(), 0600, 0) == 0, "fchmodat");
    }

  private:
    static std::string fileName(long i) { return "snapshot-" + std::to_string(i) + ".jpg"; }

    long files_;
    std::string path_;
    int folder_ = -1;
};

// Each takes what is there.
class Bare {
  public:
    explicit Bare(const Folder& folder) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        require(::inotify_add_watch(fd_, folder.path().c_str(), IN_ATTRIB) >= 0, "inotify");
    }
    ~Bare() { ::close(fd_); }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void take() {
        alignas(inotify_event) static char buffer[16384];
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd_, &readable);
        timeval timeout = {};
        require(::select(fd_ + 1, &readable, nullptr, nullptr, &timeout) == 1, "select");
        const ssize_t size = ::read(fd_, buffer, sizeof(buffer));
        for (ssize_t at = 0; at < size; ++taken) {
            const auto* const event = reinterpret_cast<const inotify_event*>(buffer + at);
            const std::string_view name(event->name);
            benchmark::DoNotOptimize(name.size() + event->mask);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }

    long taken = 0;

  private:
    int fd_;
};

class Ours : private kest::utils::IInodeNotifier {
  public:
    explicit Ours(const Folder& folder) {
        require(listener_.start(folder.path(), "\\.jpg$", IN_ATTRIB, this), "start");
    }
    void take() { listener_.service(0); }

    long taken = 0;

  private:
    void onInodeEvent(const std::string& name, uint32_t mask) override {
        benchmark::DoNotOptimize(name.size() + mask);
        ++taken;
    }

    kest::utils::InodeListener listener_;
};

template <class Contestant>
void events(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const Folder folder(state.range(0));
    Contestant contestant(folder);
    long expected = 0;
    for (auto _ : state) {
        folder.touch();
        expected += state.range(0);
        const auto touched = Clock::now();
        while (contestant.taken < expected)
            contestant.take();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - touched).count());
    }
    state.SetItemsProcessed(contestant.taken);
}

BENCHMARK_TEMPLATE(events, Ours)->Name("all/ours")->Arg(1)->Arg(256);
BENCHMARK_TEMPLATE(events, Bare)->Name("all/read")->Arg(1)->Arg(256);
BENCHMARK_TEMPLATE(events, Ours)->Name("take/ours")->Arg(1)->Arg(256)->UseManualTime();
BENCHMARK_TEMPLATE(events, Bare)->Name("take/read")->Arg(1)->Arg(256)->UseManualTime();

}  // namespace
