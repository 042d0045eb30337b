#include <kest/utils/exec.h>

#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "exec_state.h"
#include "log.h"

namespace kest::utils {

using detail::ExecState;

namespace {

constexpr unsigned kPollMs = 10;
constexpr unsigned kGraceMs = 10;
constexpr unsigned kKillWaitMs = 5000;
constexpr unsigned kDrainMs = 100;

template <typename Value>
void assign(Value* target, Value value) {
    if (target != nullptr) *target = value;
}

}  // namespace

SysExec::SysExec() : state_(std::make_unique<ExecState>()) {}

SysExec::~SysExec() {
    stop();
}

bool SysExec::settable(const char* setter) const {
    if (state_->status == 0) return true;
    KEST_LOG_AS(setter, KEST_ERROR, 0, "Setter applicable only to never serviced instance");
    return false;
}

SysExec& SysExec::setName(const std::string& name) {
    if (settable(__func__)) state_->name = name;
    return *this;
}

SysExec& SysExec::setIn(const std::string& in) {
    if (!settable(__func__)) return *this;
    state_->in.text = in;
    state_->in.use = true;
    return *this;
}

SysExec& SysExec::setOut(std::vector<char>* out) {
    if (!settable(__func__)) return *this;
    state_->out.target = out;
    state_->out.use = true;
    return *this;
}

SysExec& SysExec::setOut(int fd) {
    if (!settable(__func__)) return *this;
    state_->out.fd = fd;
    state_->out.use = true;
    return *this;
}

SysExec& SysExec::setOutThreshold(unsigned threshold) {
    if (settable(__func__)) state_->out.threshold = threshold;
    return *this;
}

SysExec& SysExec::setOutOverflowStop(bool stop) {
    if (settable(__func__)) state_->out.overflowStop = stop;
    return *this;
}

SysExec& SysExec::setErr(std::vector<char>* err) {
    if (!settable(__func__)) return *this;
    state_->err.target = err;
    state_->err.use = true;
    return *this;
}

SysExec& SysExec::setErrThreshold(unsigned threshold) {
    if (settable(__func__)) state_->err.threshold = threshold;
    return *this;
}

SysExec& SysExec::setErrOverflowStop(bool stop) {
    if (settable(__func__)) state_->err.overflowStop = stop;
    return *this;
}

SysExec& SysExec::setExe(const std::string& exe) {
    if (settable(__func__)) state_->exe = exe;
    return *this;
}

SysExec& SysExec::setArgs(const std::vector<std::string>& args) {
    if (settable(__func__)) state_->args = args;
    return *this;
}

SysExec& SysExec::pushArg(const std::string& arg) {
    if (settable(__func__)) state_->args.push_back(arg);
    return *this;
}

SysExec& SysExec::setMaskSignals(const sigset_t* mask) {
    if (!settable(__func__)) return *this;
    if (mask != nullptr) state_->sigSet = *mask;
    state_->maskSignals = mask != nullptr;
    return *this;
}

SysExec& SysExec::setDaemon(bool daemon) {
    if (settable(__func__)) state_->daemon = daemon;
    return *this;
}

bool SysExec::start() {
    if (state_->status != 0 || state_->exe.empty()) {
        state_->code = state_->status != 0 ? NotFresh : NoProgram;
        return false;
    }
    const int failed = state_->launch();
    if (failed == 0) {
        state_->status = Running;
        return true;
    }
    // What is left of the pipes would never end: this process may still hold their other ends.
    for (detail::Pipe& pipe : state_->pipes)
        pipe.close();
    state_->in.use = state_->out.use = state_->err.use = false;
    return state_->fail(failed);
}

bool SysExec::service() {
    ExecState& state = *state_;
    if (state.status != Running) {
        state.code = NotRunning;
        return false;
    }
    if (!state.writeIn() || !state.readOut() || !state.readErr()) return false;
    bool exited = false;
    bool signalled = false;
    if (!waitPid(0, nullptr, &exited, &signalled, &state.waitStatus) || signalled) {
        return state.fail(WaitFailed);
    }
    if (exited) state.status = Finished | Exited;
    return true;
}

bool SysExec::waitPid(unsigned timeoutMs, bool* timedOut, bool* exited, bool* signalled,
                      int* waitStatus) {
    if (state_->pid == -1) return false;
    assign(timedOut, false);
    assign(exited, false);
    assign(signalled, false);
    assign(waitStatus, 0);
    const int64_t deadline = nowMs() + timeoutMs;
    while (true) {
        int status = 0;
        const pid_t reaped = waitpid(state_->pid, &status, WNOHANG);
        if (reaped > 0) {
            assign(waitStatus, status);
            assign(exited, WIFEXITED(status));
            assign(signalled, WIFSIGNALED(status));
            state_->pid = -1;
            return true;
        }
        if (reaped < 0 && errno != EINTR) return false;
        if (nowMs() > deadline) {
            assign(timedOut, true);
            return true;
        }
        sleepMs(kPollMs);
    }
}

// A program that does not end by itself is not asked twice.
void SysExec::reapOrKill() {
    bool timedOut = false;
    if (!waitPid(kGraceMs, &timedOut)) {
        KEST_LOG_AS("stop", KEST_WARNING, errno, "Failed to wait for pid=%d", state_->pid);
    }
    if (timedOut) {
        kill(state_->pid, SIGKILL);
        if (!waitPid(kKillWaitMs)) {
            KEST_LOG_AS("stop", KEST_WARNING, errno, "Failed to wait for pid=%d", state_->pid);
        }
    }
    state_->status |= Finished;
}

void SysExec::stop() {
    ExecState& state = *state_;
    if (state.status == 0) return;
    if (!state.daemon && (state.status & Exited) == 0 && state.pid != -1) reapOrKill();
    state.sigUnmask();
    if ((state.status & Finished) != 0 && !state.drain(kDrainMs)) {
        KEST_LOG(KEST_WARNING, 0, "Timeout reading from stopped process pipes, name '%s'",
                 state.name.c_str());
    }
    std::string name = std::move(state.name);
    state = ExecState();
    state.name = std::move(name);
}

int SysExec::status() const {
    return state_->status;
}

int SysExec::code() const {
    return state_->code;
}

int SysExec::waitStatus() const {
    return state_->waitStatus;
}

const std::string& SysExec::cmd() const {
    return state_->cmd;
}

int SysExec::pid() const {
    return state_->pid;
}

uint32_t SysExec::outTotal() const {
    return state_->out.total;
}

uint32_t SysExec::errTotal() const {
    return state_->err.total;
}

namespace {

void capture(detail::ExecOutput& stream, std::string* text) {
    stream.text = text;
    stream.use = true;
}

// An empty capture leaves the caller's string as it was.
void deliver(std::string& captured, std::string* text) {
    if (text == nullptr || captured.empty()) return;
    *text = std::move(trim(captured));
}

// Time-out and limits of a run; 0: none.
struct Limits {
    unsigned timeoutMs;
    unsigned outThreshold;
    unsigned errThreshold;
};

int universalExec(const std::string& exe, const std::vector<std::string>& args,
                  const std::string* in, std::string* out, std::string* err, const Limits& limits) {
    std::string outText;
    std::string errText;
    // Made behind the strings, which it still fills when it goes.
    SysExec exec;
    exec.setExe(exe).setArgs(args).setOutOverflowStop(false).setErrOverflowStop(false);
    exec.setOutThreshold(limits.outThreshold).setErrThreshold(limits.errThreshold);
    if (in != nullptr) exec.setIn(*in);
    if (out != nullptr) capture(ExecState::of(exec).out, &outText);
    if (err != nullptr) capture(ExecState::of(exec).err, &errText);

    const int64_t deadline = nowMs() + limits.timeoutMs;
    if (!exec.start()) {
        KEST_LOG(KEST_ERROR, 0, "Failed to start SysExec with code=%d, cmd='%s'", exec.code(),
                 exec.cmd().c_str());
        return -1;
    }
    // However short the time, the program gets one pass.
    for (bool first = true; (exec.status() & SysExec::Finished) == 0; first = false) {
        if (!first && limits.timeoutMs != 0 && nowMs() > deadline) {
            const std::string cmd = exec.cmd();  // stop() forgets it
            exec.stop();
            deliver(outText, out);
            deliver(errText, err);
            KEST_LOG(KEST_WARNING, 0, "Timeout executing, cmd='%s'", cmd.c_str());
            return -1;
        }
        if (!exec.service()) {
            KEST_LOG(KEST_ERROR, 0, "Failed to service SysExec code=%d, cmd='%s'", exec.code(),
                     exec.cmd().c_str());
            return -1;
        }
        sleepMs(kPollMs);
    }
    const bool exited = (exec.status() & SysExec::Exited) != 0;
    const int result = exited ? exec.waitStatus() : exec.code();
    exec.stop();
    deliver(outText, out);
    deliver(errText, err);
    return result;
}

std::vector<std::string> collect(int count, va_list list) {
    std::vector<std::string> args;
    for (int i = 0; i < count; ++i) {
        const char* const arg = va_arg(list, const char*);
        if (arg == nullptr) break;
        args.push_back(arg);
    }
    return args;
}

// A null path is as good as none.
std::string pathOf(const char* exe) {
    return exe != nullptr ? exe : "";
}

}  // namespace

int sysExec(const std::string* in, std::string* out, std::string* err, unsigned timeoutMs,
            unsigned outThreshold, unsigned errThreshold, const std::string& exe,
            const std::vector<std::string>& args) {
    return universalExec(exe, args, in, out, err, {timeoutMs, outThreshold, errThreshold});
}

int sysExec(const std::string* in, std::string* out, std::string* err, unsigned timeoutMs,
            unsigned outThreshold, unsigned errThreshold, const std::string& exe, int count, ...) {
    va_list list;
    va_start(list, count);
    const std::vector<std::string> args = collect(count, list);
    va_end(list);
    return universalExec(exe, args, in, out, err, {timeoutMs, outThreshold, errThreshold});
}

int sysExecSimple(const char* exe, const char* arg1, const char* arg2, const char* arg3,
                  const char* arg4) {
    return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, pathOf(exe), 4, arg1, arg2, arg3, arg4);
}

int sysExecSimple(const char* exe, const std::vector<std::string>& args) {
    return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, pathOf(exe), args);
}

int shellExec(const std::string& command, const std::string* in, std::string* out, std::string* err,
              unsigned timeoutMs, unsigned outThreshold, unsigned errThreshold) {
    return universalExec("/bin/sh", {"-c", command}, in, out, err,
                         {timeoutMs, outThreshold, errThreshold});
}

bool runDaemon(const std::string* /*name*/, const sigset_t* mask, int* pidOut,
               const std::string& exe, const std::vector<std::string>& args) {
    SysExec exec;
    exec.setMaskSignals(mask).setExe(exe).setArgs(args).setDaemon(true);
    if (!exec.start()) {
        KEST_LOG(KEST_ERROR, 0, "Failed to start SysExec with code=%d, cmd='%s'", exec.code(),
                 exec.cmd().c_str());
        return false;
    }
    if (pidOut != nullptr) *pidOut = exec.pid();
    return true;
}

bool runDaemon(const std::string* name, const sigset_t* mask, int* pidOut, const std::string& exe,
               int count, ...) {
    va_list list;
    va_start(list, count);
    const std::vector<std::string> args = collect(count, list);
    va_end(list);
    return runDaemon(name, mask, pidOut, exe, args);
}

bool sysExecAsyncSimple(const char* exe, const std::vector<std::string>& args) {
    sigset_t none;
    if (sigemptyset(&none) == -1) return false;
    return runDaemon(nullptr, &none, nullptr, pathOf(exe), args);
}

}  // namespace kest::utils
