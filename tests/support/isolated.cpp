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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <kest/utils/string_utils.h>

#include "support/temp_dir.h"

// There in programs with AddressSanitizer only.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace kest::test {

namespace fs = std::filesystem;
using utils::format;

namespace {

// What the children tell the test: "<type>\0<file>\0<line>\0<message>\0" for each result, and
// kDone when the function has come to its end.
constexpr const char* kDone = "done";

void send(int pipe, const std::string& type, const char* file, int line, const char* message) {
    dprintf(pipe, "%s%c%s%c%d%c%s%c", type.c_str(), 0, file == nullptr ? "" : file, 0, line, 0,
            message, 0);
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

void skip(const std::string& what) {
    GTEST_SKIP() << "no private namespaces here: " << what << ": " << strerror(errno);
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
    std::istringstream fields(told);
    const auto next = [&](std::string& field) -> bool { return !!getline(fields, field, '\0'); };
    for (std::string type, file, line, message;
         next(type) && next(file) && next(line) && next(message);) {
        if (type != kDone) repeat(type, file, std::stoi(line), message);
    }
}

int wait(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR)
        continue;
    return status;
}

// Leaves at once: nothing of the test program's own clean-up belongs here.
[[noreturn]] void leave() {
    fflush(nullptr);
    _exit(0);
}

// Root of a user namespace, for those who are not root yet.
bool becomeRoot() {
    const auto put = [](const char* path, const std::string& text) {
        return !(std::ofstream(path) << text << std::flush).fail();
    };
    const std::string user = format("0 %u 1", geteuid()), group = format("0 %u 1", getegid());
    return unshare(CLONE_NEWUSER) == 0 && put("/proc/self/uid_map", user) &&
           put("/proc/self/setgroups", "deny") && put("/proc/self/gid_map", group);
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

// The function itself. An exception must not get back to the test.
[[noreturn]] void runFunction(const std::function<void()>& function, int pipe) noexcept {
    setsid();  // a signal to the process group must not reach the test
    function();
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0)
        ADD_FAILURE() << "memory leaked, see above";
    send(pipe, kDone, "", 0, "");
    leave();
}

// Waits for the function and reaps orphans meanwhile.
void supervise(pid_t function) {
    signal(SIGCHLD, SIG_DFL);
    int status = 0;
    while (waitpid(-1, &status, 0) != function)
        continue;
    if (WIFSIGNALED(status)) ADD_FAILURE() << "killed: " << strsignal(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        ADD_FAILURE() << "ended with status " << WEXITSTATUS(status);
}

// Ends this process after a time, whatever it inherited.
void dieAfter(unsigned seconds) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGALRM);
    signal(SIGALRM, SIG_DFL);
    sigprocmask(SIG_UNBLOCK, &mask, nullptr);
    alarm(seconds);
}

}  // namespace

// The private file system. Its functions report what fails.
class Isolated::Folders {
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

    static std::string pathOf(int fd) { return format("/proc/self/fd/%d", fd); }

    static bool check(bool ok, const std::string& what) {
        if (!ok) ADD_FAILURE() << what << ": " << strerror(errno);
        return ok;
    }

    bool isPrivate(const fs::path& folder) const {
        const auto covers = [&](const fs::path& known) {
            return utils::startsWith((folder / "").string(), (known / "").string());
        };
        return std::any_of(private_.begin(), private_.end(), covers);
    }

    bool mountTmpfs(const fs::path& folder) {
        const auto mode = static_cast<unsigned>(fs::status(folder).permissions());
        private_.push_back(folder);
        return check(
            mount("tmpfs", folder.c_str(), "tmpfs", 0, format("mode=%o", mode).c_str()) == 0,
            folder);
    }

    // The upper layer lives in a tmpfs that the overlay then hides: no folder of the machine is
    // needed for it.
    bool overlay(const fs::path& folder) {
        if (folder == "/") return ADD_FAILURE() << "the root folder cannot be made private", false;
        // A device in a copy would still be the machine's own.
        if (folder == "/dev") return empty(folder);
        const fs::perms mode = fs::status(folder).permissions();
        const int original = openFolder(folder);
        if (!mountTmpfs(folder)) return false;
        const std::string upper = folder / "upper", work = folder / "work";
        fs::create_directory(upper);
        fs::create_directory(work);
        fs::permissions(upper, mode);
        const std::string options = format("lowerdir=%s,upperdir=%s,workdir=%s",
                                           pathOf(original).c_str(), upper.c_str(), work.c_str());
        const bool done = mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) == 0;
        if (!done) skip("overlay on " + folder.string());
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

Isolated& Isolated::empty(const std::string& folder) {
    steps_.push_back([=](Folders& folders) { return folders.empty(folder); });
    return *this;
}

Isolated& Isolated::copy(const std::string& folder) {
    steps_.push_back([=](Folders& folders) { return folders.makePrivate(folder); });
    return *this;
}

Isolated& Isolated::file(const std::string& path, const std::string& text, unsigned mode) {
    steps_.push_back([=](Folders& folders) { return folders.file(path, text, mode); });
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

// Process 1. When it ends, the kernel kills everything that is left in its namespace.
void Isolated::runFirst(const std::function<void()>& function, int pipe) const noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", 0, nullptr) != 0 || !raiseLoopback()) {
        skip("mount of /proc, or loopback");
        leave();
    }
    Folders folders;
    for (const auto& prepare : steps_) {
        if (!prepare(folders)) leave();
    }
    const pid_t child = fork();
    if (child == 0) runFunction(function, pipe);
    supervise(child);
    leave();
}

// Enters the namespaces; the pid namespace is that of its children only.
void Isolated::runOutside(const std::function<void()>& function, int pipe) const noexcept {
    Reporter::install(pipe);
    constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET;
    if (unshare(kSpaces) != 0 && !(becomeRoot() && unshare(kSpaces) == 0)) {
        skip("unshare");
        leave();
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a killed test program takes its children along
    const pid_t child = fork();
    if (child == 0) runFirst(function, pipe);
    dieAfter(limitSeconds_);
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
    const std::string told = child > 0 ? readFile(format("/proc/self/fd/%d", ends[0])) : "";
    ::close(ends[0]);
    const int status = child > 0 ? wait(child) : -1;
    const bool late = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
    if (late) ADD_FAILURE() << "still running after " << limitSeconds_ << " s";
    if (told.empty() && !late) ADD_FAILURE() << "the function left the process before its end";
    repeatAll(told);
}

}  // namespace kest::test
