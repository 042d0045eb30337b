// The parent's side of starting a program.

#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "exec_state.h"
#include "uninterrupted.h"

namespace kest::utils::detail {
namespace {

constexpr int kWidePipe = 1 << 20;  // what the system allows everybody unless told otherwise

// The program's argument list, and the same as text for messages.
bool buildCommand(ExecState& state) {
    const size_t count = state.args.size() + 2;
    state.argv.reset(static_cast<const char**>(calloc(count, sizeof(const char*))));
    if (state.argv == nullptr) return false;
    state.argv[0] = state.exe.c_str();
    state.cmd = state.exe;
    for (size_t i = 0; i < state.args.size(); ++i) {
        state.argv[i + 1] = state.args[i].c_str();
        state.cmd.append(" ").append(state.args[i]);
    }
    return true;
}

// A program whose output is captured whole runs ahead as far as the system allows, instead of
// waiting for the next pass every few pages. A limited stream keeps its size: how far a program
// gets behind its limit would depend on it. A refusal leaves what works as well.
void widen(const ExecOutput& stream, const Pipe& pipe) {
    if (!stream.use || !stream.captures() || stream.threshold != 0) return;
#ifdef F_SETPIPE_SZ
    fcntl(pipe.writeEnd.get(), F_SETPIPE_SZ, kWidePipe);
#endif
}

bool openPipes(ExecState& state, Pipe& pidPipe) {
    if (state.daemon && !pidPipe.open()) return false;
    for (const auto stream : {kStdin, kStdout, kStderr}) {
        if (state.uses(stream) && !state.pipes[stream].open()) return false;
    }
    widen(state.out, state.pipes[kStdout]);
    widen(state.err, state.pipes[kStderr]);
    return true;
}

bool waitFor(pid_t pid, int& waitStatus) {
    return uninterrupted([&] { return waitpid(pid, &waitStatus, 0); }) != -1;
}

bool readPid(int fd, int& pid) {
    int number = 0;
    size_t have = 0;
    while (have < sizeof(number)) {
        char* const place = reinterpret_cast<char*>(&number) + have;
        const ssize_t got = uninterrupted([&] { return ::read(fd, place, sizeof(number) - have); });
        if (got <= 0) return false;
        have += static_cast<size_t>(got);
    }
    pid = number;
    return true;
}

// Reaps the process between this one and the daemon, and learns the daemon's pid from it.
// @return 0 or the step that failed.
int adoptDaemon(int& pid, Pipe& pidPipe) {
    const int intermediate = std::exchange(pid, -1);
    int waitStatus = 0;
    if (!waitFor(intermediate, waitStatus)) return SysExec::DaemonNotReaped;
    if (WEXITSTATUS(waitStatus) != 0) return SysExec::DaemonFailed;
    // Without a writer left, a number that was never sent ends in end-of-file.
    pidPipe.writeEnd.reset();
    return readPid(pidPipe.readEnd.get(), pid) ? 0 : SysExec::DaemonNoPid;
}

// Leaves the parent its own ends of the pipes, which never block it.
bool keepParentEnds(ExecState& state) {
    auto& [in, out, err] = state.pipes;
    in.readEnd.reset();
    out.writeEnd.reset();
    err.writeEnd.reset();
    for (const int fd : {in.writeEnd.get(), out.readEnd.get(), err.readEnd.get()}) {
        if (fd != -1 && fcntl(fd, F_SETFL, O_NONBLOCK) == -1) return false;
    }
    return true;
}

}  // namespace

int ExecState::launch() {
    if (!buildCommand(*this)) return SysExec::NoMemory;
    if (out.use) out.buf.resize(kExecChunk);
    if (err.use) err.buf.resize(kExecChunk);

    Pipe pidPipe;
    if (!openPipes(*this, pidPipe)) return SysExec::NoProcess;
    pid = fork();
    if (pid == -1) return SysExec::NoProcess;
    if (pid == 0) runExecChild(*this, pidPipe);
    if (daemon) {
        const int failed = adoptDaemon(pid, pidPipe);
        if (failed != 0) return failed;
    }
    return keepParentEnds(*this) ? 0 : SysExec::StillBlocking;
}

}  // namespace kest::utils::detail
