#include "support/isolated.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <kest/utils/timer.h>

#include "support/temp_dir.h"
#if defined(__SANITIZE_ADDRESS__)
#define KEST_TEST_LEAK_CHECK
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_TEST_LEAK_CHECK
#endif
#endif
#ifdef KEST_TEST_LEAK_CHECK
#include <sanitizer/lsan_interface.h>
#endif

namespace kest::test {
namespace {

namespace fs = std::filesystem;

// What the children tell the test: "<type>\0<file>\0<line>\0<message>\0" for each result, and
// kDone when the function has come to its end.
constexpr const char* kDone = "done";

void send(int pipe, const std::string& type, const char* file, int line, const char* message) {
    const std::string text = type + '\0' + (file == nullptr ? "" : file) + '\0' +
                             std::to_string(line) + '\0' + message + '\0';
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count = ::write(pipe, text.data() + sent, text.size() - sent);
        if (count == -1 && errno != EINTR) return;
        if (count > 0) sent += static_cast<size_t>(count);
    }
}

// Takes the place of the listener that prints, so that each result is printed once, by the test.
class Reporter : public ::testing::EmptyTestEventListener {
  public:
    explicit Reporter(int pipe) : pipe_(pipe) {}

    void OnTestPartResult(const ::testing::TestPartResult& result) override {
        if (result.passed()) return;
        send(pipe_, std::to_string(result.type()), result.file_name(), result.line_number(),
             result.message());
    }

    static void install(int pipe) {
        auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
        listeners.Append(new Reporter(pipe));
    }

  private:
    int pipe_;
};

std::string reason(const std::string& what) {
    return what + ": " + strerror(errno);
}

void skip(const std::string& why) {
    GTEST_SKIP() << "no private namespaces here: " << why;
}

void repeat(const std::string& type, const std::string& file, int line,
            const std::string& message) {
    if (type == std::to_string(::testing::TestPartResult::kSkip)) {
        GTEST_SKIP() << message;
    }
    ADD_FAILURE_AT(file.c_str(), line) << message;
}

// Passes on what the children told.
void repeatAll(const std::string& told) {
    std::vector<std::string> fields;
    for (size_t start = 0, end = 0; (end = told.find('\0', start)) != std::string::npos;
         start = end + 1) {
        fields.push_back(told.substr(start, end - start));
    }
    for (size_t i = 0; i + 4 <= fields.size(); i += 4) {
        if (fields[i] == kDone) continue;
        repeat(fields[i], fields[i + 1], std::atoi(fields[i + 2].c_str()), fields[i + 3]);
    }
}

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof(buffer));
        if (count == 0 || (count == -1 && errno != EINTR)) return text;
        if (count > 0) text.append(buffer, static_cast<size_t>(count));
    }
}

void wait(pid_t pid) {
    while (waitpid(pid, nullptr, 0) == -1 && errno == EINTR) {
    }
}

// Leaves at once: nothing of the test program's own clean-up belongs here.
[[noreturn]] void leave() {
    fflush(nullptr);
    _exit(0);
}

bool writeText(const char* path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    return static_cast<bool>(out.flush());
}

// Root of a user namespace, for those who are not root yet.
bool becomeRoot() {
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    return unshare(CLONE_NEWUSER) == 0 && writeText("/proc/self/uid_map", user) &&
           writeText("/proc/self/setgroups", "deny") && writeText("/proc/self/gid_map", group);
}

bool raiseLoopback() {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = fd >= 0 && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    if (fd >= 0) ::close(fd);
    return up;
}

// The private file system. Its functions report what fails.
class Folders {
  public:
    bool empty(const fs::path& folder) {
        const fs::path place = fs::weakly_canonical(folder);
        if (!fs::is_directory(place) && !makePrivate(place)) return false;
        const int original = openFolder(place);
        const bool done = mountTmpfs(place) && (place != "/dev" || keepHarmlessDevices(original));
        ::close(original);
        return done;
    }

    // Makes the folder exist and keeps from the machine what is written to it.
    bool makePrivate(const fs::path& folder) {
        const fs::path place = fs::weakly_canonical(folder);
        fs::path existing = place;
        while (!fs::is_directory(existing))
            existing = existing.parent_path();
        if (!isPrivate(existing) && !overlay(existing)) return false;
        fs::create_directories(place);
        return true;
    }

    bool file(const fs::path& path, const std::string& text, unsigned mode) {
        if (!makePrivate(path.parent_path())) return false;
        // Replaced, not changed: it may be a link to elsewhere, or somebody else's.
        fs::remove(path);
        writeFile(path, text);
        return check(chmod(path.c_str(), mode) == 0, path);
    }

  private:
    static int openFolder(const fs::path& folder) {
        return ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }

    static std::string pathOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

    static bool check(bool ok, const std::string& what) {
        if (!ok) ADD_FAILURE() << reason(what);
        return ok;
    }

    bool isPrivate(const fs::path& folder) const {
        const auto covers = [&](const fs::path& known) {
            return std::mismatch(known.begin(), known.end(), folder.begin(), folder.end()).first ==
                   known.end();
        };
        return std::any_of(private_.begin(), private_.end(), covers);
    }

    bool mountTmpfs(const fs::path& folder) {
        const std::string mode = "mode=" + octal(fs::status(folder).permissions());
        private_.push_back(folder);
        return check(mount("tmpfs", folder.c_str(), "tmpfs", 0, mode.c_str()) == 0, folder);
    }

    static std::string octal(fs::perms mode) {
        char text[16];
        snprintf(text, sizeof(text), "%o", static_cast<unsigned>(mode));
        return text;
    }

    // The upper layer lives in a tmpfs that the overlay then hides: no folder of the machine is
    // needed for it.
    bool overlay(const fs::path& folder) {
        if (folder == "/") {
            ADD_FAILURE() << "the root folder cannot be made private";
            return false;
        }
        // A device in a copy would still be the machine's own.
        if (folder == "/dev") return empty(folder);
        const fs::perms mode = fs::status(folder).permissions();
        const int original = openFolder(folder);
        if (!mountTmpfs(folder)) return false;
        fs::create_directory(folder / "upper");
        fs::create_directory(folder / "work");
        fs::permissions(folder / "upper", mode);
        const std::string options = "lowerdir=" + pathOf(original) +
                                    ",upperdir=" + (folder / "upper").string() +
                                    ",workdir=" + (folder / "work").string();
        const bool done = mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) == 0;
        if (!done) skip(reason("overlay on " + folder.string()));
        ::close(original);
        return done;
    }

    static bool keepHarmlessDevices(int original) {
        for (const char* name : {"null", "zero", "full", "random", "urandom"}) {
            const std::string source = pathOf(original) + "/" + name;
            const std::string target = std::string("/dev/") + name;
            writeFile(target, "");
            if (!check(mount(source.c_str(), target.c_str(), "", MS_BIND, nullptr) == 0, target)) {
                return false;
            }
        }
        return true;
    }

    std::vector<fs::path> private_;
};

// The function itself. An exception must not get back to the test.
[[noreturn]] void runFunction(const std::function<void()>& function, int pipe) noexcept {
    setsid();  // a signal to the process group must not reach the test
    function();
#ifdef KEST_TEST_LEAK_CHECK
    if (__lsan_do_recoverable_leak_check() != 0) ADD_FAILURE() << "memory leaked, see above";
#endif
    send(pipe, kDone, "", 0, "");
    leave();
}

void reportEnd(int status) {
    if (WIFSIGNALED(status)) ADD_FAILURE() << "killed: " << strsignal(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        ADD_FAILURE() << "ended with status " << WEXITSTATUS(status);
    }
}

// Waits for the function and reaps orphans meanwhile.
void supervise(pid_t function, unsigned limitSeconds) {
    signal(SIGCHLD, SIG_DFL);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGCHLD);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const int64_t deadline = nowMs() + int64_t{1000} * limitSeconds;
    for (;;) {
        int status = 0;
        const pid_t ended = waitpid(-1, &status, WNOHANG);
        if (ended == function) return reportEnd(status);
        if (ended > 0) continue;
        const int64_t left = deadline - nowMs();
        if (left <= 0) break;
        timespec time = {};
        time.tv_sec = static_cast<time_t>(left / 1000);
        time.tv_nsec = static_cast<long>(left % 1000) * 1000000;
        sigtimedwait(&mask, nullptr, &time);
    }
    ADD_FAILURE() << "still running after " << limitSeconds << " s";
}

}  // namespace

Isolated& Isolated::empty(const std::string& folder) {
    steps_.push_back({Step::kEmpty, folder, "", 0});
    return *this;
}

Isolated& Isolated::copy(const std::string& folder) {
    steps_.push_back({Step::kCopy, folder, "", 0});
    return *this;
}

Isolated& Isolated::file(const std::string& path, const std::string& text, unsigned mode) {
    steps_.push_back({Step::kFile, path, text, mode});
    return *this;
}

Isolated& Isolated::program(const std::string& path, const std::string& script) {
    const bool complete = script.compare(0, 2, "#!") == 0;
    return file(path, complete ? script : "#!/bin/sh\n" + script + "\n", 0755);
}

Isolated& Isolated::limit(unsigned seconds) {
    limitSeconds_ = seconds;
    return *this;
}

bool Isolated::prepare() const {
    Folders folders;
    return std::all_of(steps_.begin(), steps_.end(), [&](const Step& step) {
        if (step.kind == Step::kEmpty) return folders.empty(step.path);
        if (step.kind == Step::kCopy) return folders.makePrivate(step.path);
        return folders.file(step.path, step.text, step.mode);
    });
}

// Process 1. When it ends, the kernel kills everything that is left in its namespace.
void Isolated::runFirst(const std::function<void()>& function, int pipe) const noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", 0, nullptr) != 0 || !raiseLoopback()) {
        skip(reason("mount of /proc, or loopback"));
        leave();
    }
    if (!prepare()) leave();
    const pid_t child = fork();
    if (child == 0) runFunction(function, pipe);
    supervise(child, limitSeconds_);
    leave();
}

// Enters the namespaces; the pid namespace is that of its children only.
void Isolated::runOutside(const std::function<void()>& function, int pipe) const noexcept {
    Reporter::install(pipe);
    constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET;
    if (unshare(kSpaces) != 0 && !(becomeRoot() && unshare(kSpaces) == 0)) {
        skip(reason("unshare"));
        leave();
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a killed test program takes its children along
    const pid_t child = fork();
    if (child == 0) runFirst(function, pipe);
    wait(child);
    leave();
}

void Isolated::run(const std::function<void()>& function) const {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC)) << strerror(errno);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        ::close(ends[0]);
        runOutside(function, ends[1]);
    }
    ::close(ends[1]);
    const std::string told = child > 0 ? readAll(ends[0]) : "";
    ::close(ends[0]);
    if (child > 0) wait(child);
    if (told.empty()) ADD_FAILURE() << "the function left the process before its end";
    repeatAll(told);
}

}  // namespace kest::test
