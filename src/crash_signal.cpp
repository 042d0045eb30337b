// What runs when the process crashes. The heap may be corrupt, its locks held, the stack smashed:
// only system calls, nothing allocated, nothing formatted by the C library.
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include <kest/utils/crashdumps.h>

#include "backtrace.h"
#include "keep_errno.h"
#include "uninterrupted.h"

namespace kest::utils {
namespace {

constexpr int kCollectorPolls = 10;
constexpr int kTurnPolls = 12;  // longer than a report with its collector takes
// A previous handler that returns to a fault makes it happen again, for ever: reports about that
// must not fill the medium.
constexpr unsigned kMaxReports = 16;

// Not those of the C library, which may remember them from before a fork of its own.
pid_t processId() {
    return static_cast<pid_t>(syscall(SYS_getpid));
}
pid_t threadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// One report at a time: other threads go on while the collector runs, and often crash, too.
class Turn {
  public:
    Turn() {
        for (int polls = 0; polls < kTurnPolls; ++polls) {
            pid_t nobody = 0;
            taken_ = owner_.compare_exchange_strong(nobody, threadId());
            if (taken_) return;
            sleep(1);
        }
    }
    ~Turn() {
        if (taken_) owner_ = 0;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    bool taken() const { return taken_; }

    // For good: the process is about to end.
    void keep() { taken_ = false; }

  private:
    static std::atomic<pid_t> owner_;
    bool taken_ = false;
};

std::atomic<pid_t> Turn::owner_;

// Keeps the daemon's other handlers from running on the small alternate stack, and from cutting
// short the wait for the collector.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_ = {};
};

void writeSignal(int fd, int signo) {
    char digits[detail::kHexLength];
    detail::formatHex(digits, static_cast<uint32_t>(signo));
    detail::writeAll(fd, "SIGNAL: ", 8);
    detail::writeAll(fd, digits, sizeof(digits));
    detail::writeAll(fd, "\n\n", 2);
}

// The C library's fork runs at-fork handlers and takes the locks of the heap.
pid_t bareFork() {
    return static_cast<pid_t>(syscall(SYS_clone, static_cast<long>(SIGCHLD), 0L, 0L, 0L, 0L));
}

// In the child. Without a collector it ends here: it must not go on as a second daemon.
void becomeCollector(char* pidText, char* folderText) {
    char program[] = "/usr/bin/collect";
    char* const arguments[] = {program, pidText, folderText, nullptr};
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    execve(program, arguments, environ);
    syscall(SYS_kill, static_cast<long>(processId()), static_cast<long>(SIGKILL));
}

void waitForCollector(pid_t child) {
    for (int polls = 0; polls < kCollectorPolls; ++polls) {
        // An error means that somebody else reaped it: its number may already be another's.
        if (waitpid(child, nullptr, WNOHANG) != 0) return;
        sleep(1);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, WNOHANG);
}

// Ends the process on the signal, in the act of returning from its handler.
void endOn(int signo) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signo, &action, nullptr);
    // A fault comes back by itself, a signal that was sent does not.
    syscall(SYS_tgkill, static_cast<long>(processId()), static_cast<long>(threadId()),
            static_cast<long>(signo));
}

}  // namespace

void CrashDumpHandler::report(int signo, const void* frame, const void* context) {
    const SignalsBlocked blocked;
    Turn turn;
    if (!turn.taken() || reports_ >= kMaxReports) return;
    ++reports_;
    if (signo != 0) writeSignal(stackFd_, signo);
    detail::writeBacktrace(stackFd_, map_, frame, context);
    runCollector();
    // A second thread must not begin a report that the end of the process cuts off.
    if (endsProcess(signo)) turn.keep();
}

bool CrashDumpHandler::endsProcess(int signo) const {
    for (const Slot& slot : slots_) {
        if (signo == 0 || slot.signo != signo) continue;
        return slot.previous.sa_handler == SIG_DFL || slot.previous.sa_handler == SIG_IGN;
    }
    return false;
}

void CrashDumpHandler::runCollector() const {
    if (pidText_ == nullptr || folderText_ == nullptr) return;
    const pid_t child = bareFork();
    if (child == 0) becomeCollector(pidText_, folderText_);
    if (child > 0) waitForCollector(child);
}

void CrashDumpHandler::handOn(int signo, siginfo_t* info, void* context) const {
    for (const Slot& slot : slots_) {
        if (signo == 0 || slot.signo != signo) continue;
        const struct sigaction& previous = slot.previous;
        if (endsProcess(signo)) return endOn(signo);
        if ((previous.sa_flags & SA_SIGINFO) == 0) return previous.sa_handler(signo);
        return previous.sa_sigaction(signo, info, context);
    }
}

// The trace begins with the frame of this function, which therefore has one of its own and is still
// there when it is read.
__attribute__((noinline)) void DumpStackWrapper(int signo, siginfo_t* info, void* context) {
    const detail::KeepErrno keep;
    gCrashDumper.report(signo, __builtin_frame_address(0), context);
    gCrashDumper.handOn(signo, info, context);
}

}  // namespace kest::utils
