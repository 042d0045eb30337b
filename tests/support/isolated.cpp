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

#include <kest/utils/string_utils.h>

#include "support/temp_dir.h"

// There in programs with AddressSanitizer only.
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace kest::test {

namespace fs = std::filesystem;
using utils::format;

namespace {

// How the processes of a run end once they have told their failures; a function that leaves its
// process, or that a signal kills, ends otherwise.
enum Outcome : int { kPassed = 100, kFailed, kSkipped };

// Leaves at once: nothing of the test program's own clean-up belongs here.
[[noreturn]] void leave() {
    fflush(nullptr);
    const Outcome passed = ::testing::Test::IsSkipped() ? kSkipped : kPassed;
    _exit(::testing::Test::HasFailure() ? kFailed : passed);
}

[[noreturn]] void leaveSkipped(const std::string& what) {
    [&] { GTEST_SKIP() << "no private namespaces here: " << what << ": " << strerror(errno); }();
    leave();
}

// Waits for a child and reaps orphans meanwhile.
[[noreturn]] void leaveAs(pid_t child) {
    int status = 0;
    while (waitpid(-1, &status, 0) != child)
        continue;
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
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
[[noreturn]] void runFunction(const std::function<void()>& function) noexcept {
    setsid();  // a signal to the process group must not reach the test
    function();
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0)
        ADD_FAILURE() << "memory leaked, see above";
    leave();
}

}  // namespace

// The private file system. Its functions end the process if something fails.
class Isolated::Folders {
  public:
    void empty(const fs::path& folder) {
        const fs::path place = fs::weakly_canonical(folder);
        if (!fs::is_directory(place)) makePrivate(place);
        const int original = openFolder(place);
        mountTmpfs(place);
        if (place == "/dev") keepHarmlessDevices(original);
        ::close(original);
    }

    // Makes the folder exist and keeps from the machine what is written to it.
    void makePrivate(const fs::path& folder) {
        const fs::path place = fs::weakly_canonical(folder);
        fs::path existing = place;
        while (!fs::is_directory(existing))
            existing = existing.parent_path();
        if (!isPrivate(existing)) overlay(existing);
        fs::create_directories(place);
    }

    void file(const fs::path& path, const std::string& text, unsigned mode) {
        makePrivate(path.parent_path());
        // Replaced, not changed: it may be a link to elsewhere, or somebody else's.
        fs::remove(path);
        writeFile(path, text);
        check(chmod(path.c_str(), mode) == 0, path);
    }

  private:
    static int openFolder(const fs::path& folder) {
        return ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }

    static std::string pathOf(int fd) { return format("/proc/self/fd/%d", fd); }

    static void check(bool ok, const std::string& what) {
        if (ok) return;
        ADD_FAILURE() << what << ": " << strerror(errno);
        leave();
    }

    bool isPrivate(const fs::path& folder) const {
        return std::any_of(private_.begin(), private_.end(), [&](const fs::path& known) {
            return utils::startsWith((folder / "").string(), (known / "").string());
        });
    }

    void mountTmpfs(const fs::path& folder) {
        const auto mode = format("mode=%o", unsigned(fs::status(folder).permissions()));
        private_.push_back(folder);
        check(mount("tmpfs", folder.c_str(), "tmpfs", 0, mode.c_str()) == 0, folder);
    }

    // The upper layer lives in a tmpfs that the overlay then hides: no folder of the machine is
    // needed for it.
    void overlay(const fs::path& folder) {
        check(folder != "/", "the root folder cannot be made private");
        // A device in a copy would still be the machine's own.
        if (folder == "/dev") return empty(folder);
        const fs::perms mode = fs::status(folder).permissions();
        const int original = openFolder(folder);
        mountTmpfs(folder);
        const std::string upper = folder / "upper", work = folder / "work";
        fs::create_directory(upper);
        fs::create_directory(work);
        fs::permissions(upper, mode);
        const std::string options = format("lowerdir=%s,upperdir=%s,workdir=%s",
                                           pathOf(original).c_str(), upper.c_str(), work.c_str());
        if (mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) != 0)
            leaveSkipped("overlay on " + folder.string());
        ::close(original);
    }

    static void keepHarmlessDevices(int original) {
        for (const std::string name : {"/null", "/zero", "/full", "/random", "/urandom"}) {
            const std::string source = pathOf(original) + name, target = "/dev" + name;
            writeFile(target, "");
            check(mount(source.c_str(), target.c_str(), "", MS_BIND, nullptr) == 0, target);
        }
    }

    std::vector<fs::path> private_;
};

Isolated& Isolated::empty(const std::string& folder) {
    steps_.push_back([=](Folders& folders) { folders.empty(folder); });
    return *this;
}

Isolated& Isolated::copy(const std::string& folder) {
    steps_.push_back([=](Folders& folders) { folders.makePrivate(folder); });
    return *this;
}

Isolated& Isolated::file(const std::string& path, const std::string& text, unsigned mode) {
    steps_.push_back([=](Folders& folders) { folders.file(path, text, mode); });
    return *this;
}

Isolated& Isolated::program(const std::string& path, const std::string& script) {
    const bool complete = script.compare(0, 2, "#!") == 0;
    return file(path, complete ? script : "#!/bin/sh\n" + script + "\n", 0755);
}

// Process 1. When it ends, the kernel kills everything that is left in its namespace.
void Isolated::runFirst(const std::function<void()>& function) const noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("proc", "/proc", "proc", 0, nullptr) != 0 || !raiseLoopback()) {
        leaveSkipped("mount of /proc, or loopback");
    }
    Folders folders;
    for (const auto& prepare : steps_)
        prepare(folders);
    if (::testing::Test::HasFailure()) leave();
    const pid_t child = fork();
    if (child == 0) runFunction(function);
    leaveAs(child);
}

// Enters the namespaces; the pid namespace is that of its children only.
void Isolated::runOutside(const std::function<void()>& function) const noexcept {
    constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET;
    if (unshare(kSpaces) != 0 && !(becomeRoot() && unshare(kSpaces) == 0)) leaveSkipped("unshare");
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a killed test program takes its children along
    signal(SIGCHLD, SIG_DFL);
    const pid_t child = fork();
    if (child == 0) runFirst(function);
    leaveAs(child);
}

void Isolated::run(const std::function<void()>& function) const {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) runOutside(function);
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR)
        continue;
    const int outcome = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (outcome == kSkipped) GTEST_SKIP() << "see above";
    EXPECT_EQ(kPassed, outcome) << (outcome == kFailed ? "failed, see above"
                                    : outcome > 128    ? strsignal(outcome - 128)
                                                       : "the process ended before the function");
}

}  // namespace kest::test
