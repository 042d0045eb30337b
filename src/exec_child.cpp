// What a SysExec does between fork and execve. Other threads may have held any lock at the moment
// of the fork, so everything here is limited to async-signal-safe calls: no allocation, no logging.

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include "exec_state.h"

namespace kest::utils::detail {
namespace {

constexpr int kLastClosedFd = 255;

enum ExitStatus : int {
    kNoExec = 121,
    kNoStderr = 122,
    kNoStdout = 123,
    kNoStdin = 124,
    kNoDevNull = 125,
    kPidNotSent = 126,
    kNoDaemon = 127,
};

// Forks once more and lets the process in between tell the caller the pid and go; only the
// grandchild returns.
void detach(Pipe& pidPipe) {
    const pid_t pid = fork();
    if (pid == -1) {
        pidPipe.close();
        _exit(kNoDaemon);
    }
    if (pid == 0) {
        pidPipe.close();
        setsid();
        return;
    }
    pidPipe.readEnd.reset();
    const int number = pid;
    if (::write(pidPipe.writeEnd.get(), &number, sizeof(number)) < 0) _exit(kPidNotSent);
    pidPipe.writeEnd.reset();
    _exit(0);
}

// A standard descriptor that is closed would be returned first and then be overwritten; those that
// fill up on the way get their stream afterwards.
int openDevNull() {
    int fd = -1;
    do {
        fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd < kFirstOrdinaryFd);
    return fd;
}

// Puts the pipe, or the given descriptor when the stream is not used, at the stream's place.
bool remapFds(ExecState& state, ExecStream stream, int fallbackFd) {
    if (!state.uses(stream)) return dup2(fallbackFd, stream) != -1;
    Pipe& pipe = state.pipes[stream];
    const UniqueFd& end = stream == kStdin ? pipe.readEnd : pipe.writeEnd;
    const bool placed = dup2(end.get(), stream) != -1;
    const bool readClosed = ::close(pipe.readEnd.release()) == 0;
    const bool writeClosed = ::close(pipe.writeEnd.release()) == 0;
    return placed && readClosed && writeClosed;
}

}  // namespace

void ExecState::sigMask() {
    if (!maskSignals || sigMasked) return;
    sigprocmask(SIG_SETMASK, &sigSet, &oldSigSet);
    sigMasked = true;
}

void ExecState::sigUnmask() {
    if (!sigMasked) return;
    sigprocmask(SIG_SETMASK, &oldSigSet, nullptr);
    sigMasked = false;
}

void runExecChild(ExecState& state, Pipe& pidPipe) {
    state.sigMask();
    if (state.daemon) detach(pidPipe);
    const int devNull = openDevNull();
    if (devNull == -1) _exit(kNoDevNull);
    if (!remapFds(state, kStdin, devNull)) _exit(kNoStdin);
    if (!remapFds(state, kStdout, devNull)) _exit(kNoStdout);
    if (!remapFds(state, kStderr, devNull)) _exit(kNoStderr);
    ::close(devNull);
    for (int fd = kFirstOrdinaryFd; fd <= kLastClosedFd; ++fd)
        ::close(fd);
    execve(state.exe.c_str(), const_cast<char* const*>(state.argv.get()), environ);
    _exit(kNoExec);
}

}  // namespace kest::utils::detail
