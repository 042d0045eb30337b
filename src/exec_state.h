// What a SysExec knows of its run, and the steps that its operations are made of.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <kest/utils/exec.h>

#include "unique_fd.h"

namespace kest::utils::detail {

constexpr uint32_t kExecChunk = 16384;
constexpr int kFirstOrdinaryFd = 3;

// Indices of ExecState::pipes, and the descriptors that the pipes become in the program.
enum ExecStream : int { kStdin = 0, kStdout = 1, kStderr = 2 };

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;

    // Both ends close-on-exec and above the standard descriptors: in a process that started with
    // those closed they would otherwise be in each other's way when the child puts them in place.
    bool open();
    void close();
};

struct ExecInput {
    std::string text;
    size_t offset = 0;  // bytes written
    bool use = false;   // there is something to write
};

struct ExecOutput {
    std::vector<char>* target = nullptr;  // not owned
    std::string* text = nullptr;          // in its place for the one-call functions, not owned
    int fd = -1;                          // where the bytes go without a target; not owned
    uint32_t threshold = 0;
    bool overflowStop = true;
    bool use = false;  // not yet ended
    std::vector<char> buf;
    uint32_t pending = 0;  // bytes in buf that are not delivered
    uint32_t total = 0;    // bytes delivered
    size_t owed = 0;       // bytes that were in the pipe when stop() came and are not read yet

    bool captures() const { return target != nullptr || text != nullptr; }
    bool forwards() const { return !captures() && fd != -1; }
};

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

struct ExecState {
    std::string name;
    ExecInput in;
    ExecOutput out;
    ExecOutput err;
    std::string exe;
    std::vector<std::string> args;
    bool maskSignals = false;
    bool daemon = false;
    int status = 0;
    int code = 0;
    int waitStatus = 0;
    std::unique_ptr<const char*[], FreeDeleter> argv;
    std::string cmd;
    bool sigMasked = false;
    sigset_t sigSet{};
    sigset_t oldSigSet{};
    Pipe pipes[3];
    int pid = -1;
    int64_t drainUntil = 0;  // in nowMs(); set by stop(), which does not wait longer for anything

    static ExecState& of(SysExec& exec) { return *exec.state_; }

    // Ends the run as failed in the given step. @return false.
    bool fail(int step);
    bool uses(ExecStream stream) const;

    // From the settings to a child with its pipes; 0 or the step that failed.
    int launch();
    void sigMask();
    void sigUnmask();

    bool writeIn();
    bool readOut();
    bool readErr();
    // Reads until the pipes have ended; false when time ran out. What the pipes hold from the start
    // is taken in any case, however slow the machine is.
    bool drain(unsigned ms);

  private:
    bool xread(ExecOutput& stream, int pipeFd, int overflowBit);
    bool deliver(ExecOutput& stream);
    bool forward(ExecOutput& stream);
    void awaitOutput() const;
};

// The rest of start() in the forked child.
[[noreturn]] void runExecChild(ExecState& state, Pipe& pidPipe);

}  // namespace kest::utils::detail
