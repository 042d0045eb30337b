/// @file
/// Child processes: SysExec runs one program with its standard streams on pipes, and a handful of
/// functions wrap it for the usual cases. No shell is involved unless shellExec() is called.
///
/// One thread owns a SysExec; the functions may be called from any thread. No signal handler may
/// use any of it.
#pragma once

#include <signal.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

namespace detail {
struct ExecState;
}

/// Runs one program: polled, without a thread of its own.
///
/// @code
///     kest::utils::SysExec exec;
///     exec.setExe("/bin/ls").pushArg("/tmp").setOut(&text);
///     if (!exec.start()) return exec.code();
///     while ((exec.status() & SysExec::Finished) == 0) exec.service();
///     const int result = exec.waitStatus();  // read before stop(), which forgets it
///     exec.stop();                           // now the text is complete
/// @endcode
///
/// **Streams.** One that no setter mentioned is /dev/null in the program. Input is written as the
/// program takes it, but its pipe stays open until stop(): a program that reads to end-of-file sees
/// that only then. Output beyond a threshold is not read, so a program that writes on can block;
/// stop() ends it all the same.
///
/// **Exit statuses 121 to 127** mean that the program could not be started: 121 not executable, 122
/// to 124 a standard stream and 125 /dev/null not to be had, 126 and 127 no daemon.
///
/// **Signals.** A reader that left raises no `SIGPIPE` here. Children must be left to this class:
/// where `SIGCHLD` is ignored, or a handler reaps them all, a run ends with WaitFailed.
class KEST_API SysExec {
  public:
    /// Bits of status(). All clear: never started, or stopped.
    enum StatusBit : int {
        Running = 1,      ///< started; no other bit is set
        Finished = 2,     ///< nothing is left to service; set with one of the bits below
        OutOverflow = 4,  ///< standard output reached its threshold
        ErrOverflow = 8,  ///< standard error reached its threshold
        Failed = 16,      ///< a step failed, see code(), or a signal killed the program
        Exited = 32,      ///< the program exited; waitStatus() tells how
    };

    /// Values of code(): the step that was refused or failed.
    enum StepCode : int {
        NotFresh = 10,         ///< start() of an instance that was started and not stopped
        NoProgram = 20,        ///< start() without a program
        NoMemory = 30,         ///< start(): no memory for the arguments
        NoProcess = 40,        ///< start(): no pipe or no process to be had
        DaemonNotReaped = 50,  ///< start() of a daemon: the process in between was lost
        DaemonFailed = 60,     ///< start() of a daemon: the process in between failed
        DaemonNoPid = 70,      ///< start() of a daemon: its pid did not arrive
        StillBlocking = 80,    ///< start(): a pipe end could not be made non-blocking
        NotRunning = 90,       ///< service() of an instance that is not running
        WaitFailed = 100,      ///< service(): the program was lost or killed by a signal
        InputFailed = 110,     ///< service(): the program takes no more input
        Overflowed = 120,      ///< service(): a threshold was reached that stops the run
        ReadFailed = 130,      ///< service(): reading a pipe failed
        ForwardFailed = 140,   ///< service(): the descriptor given to setOut() took no more
    };

    SysExec();

    /// Calls stop().
    virtual ~SysExec();

    SysExec(const SysExec&) = delete;
    SysExec& operator=(const SysExec&) = delete;

    /// @name Setters
    /// Accepted while status() is 0. Otherwise they change nothing and log an error.
    /// @{

    /// Label for log lines; survives stop().
    SysExec& setName(const std::string& name);
    /// Bytes for standard input, copied.
    SysExec& setIn(const std::string& in);
    /// Appends standard output to `out`, which is the caller's and must live until stop(), so
    /// declare it before the SysExec. Null drops the output.
    SysExec& setOut(std::vector<char>* out);
    /// Forwards standard output, unless it goes to a vector, to a descriptor of the caller's. While
    /// that takes nothing (`EAGAIN`), service() tries again without a pause.
    SysExec& setOut(int fd);
    /// Most bytes of standard output to take; 0: no limit. Output of exactly this length counts as
    /// having reached it.
    SysExec& setOutThreshold(unsigned threshold);
    /// Whether reaching the threshold fails the run (the default) or only ends the reading.
    SysExec& setOutOverflowStop(bool stop);
    /// The same for standard error.
    SysExec& setErr(std::vector<char>* err);
    SysExec& setErrThreshold(unsigned threshold);
    SysExec& setErrOverflowStop(bool stop);
    /// Path of the program; `PATH` is not searched.
    SysExec& setExe(const std::string& exe);
    /// Arguments after the program's name; setArgs() replaces them all.
    SysExec& setArgs(const std::vector<std::string>& args);
    SysExec& pushArg(const std::string& arg);
    /// The signal mask that the program starts with, copied. Null: the calling thread's.
    SysExec& setMaskSignals(const sigset_t* mask);
    /// Starts the program detached, in a session of its own. It is never serviced, reaped or killed
    /// here: after start() only pid() and stop() are of use.
    SysExec& setDaemon(bool daemon);
    /// @}

    /// Starts the program. Descriptors from 3 to 255 are closed in it; higher ones of the caller
    /// that are not close-on-exec stay open.
    /// @return false with code() set and nothing left open.
    bool start();

    /// One pass: up to 16384 bytes of each stream, then a look whether the program has ended. Takes
    /// about 10 ms while the program runs.
    /// @return false when the run has failed, with status() and code() set. The program may then
    ///         still be running; stop() ends it.
    bool service();

    /// Ends the run: kills a program that does not end within 10 ms, takes what its pipes hold, and
    /// makes the instance as new, except for its name. Logs a warning when the program cannot be
    /// waited for, or when its pipes are still open after 100 ms because a process that it left
    /// behind has them, too.
    void stop();

    /// Waits until the program has ended, at most `timeoutMs` milliseconds, and reaps it. Each
    /// result may be null; without an end they are false and 0.
    /// @param timedOut    the program is still running; this is no failure.
    /// @param exited      it exited by itself.
    /// @param signalled   a signal killed it.
    /// @param waitStatus  as `waitpid` gives it.
    /// @return false when there is no child to wait for, or `waitpid` failed (`errno`).
    bool waitPid(unsigned timeoutMs, bool* timedOut = nullptr, bool* exited = nullptr,
                 bool* signalled = nullptr, int* waitStatus = nullptr);

    int status() const;              ///< bits of StatusBit
    int code() const;                ///< a StepCode; 0: nothing was refused or failed
    int waitStatus() const;          ///< as `waitpid` gives it: exit code 3 is 768
    const std::string& cmd() const;  ///< program and arguments, for messages; set by start()
    int pid() const;                 ///< the program or daemon; -1: none, or reaped
    uint32_t outTotal() const;       ///< bytes delivered so far, modulo 2^32
    uint32_t errTotal() const;       ///< the same for standard error

  private:
    friend struct detail::ExecState;

    KEST_LOCAL bool settable(const char* setter) const;
    KEST_LOCAL void reapOrKill();

    std::unique_ptr<detail::ExecState> state_;
};

/// @name Running a program to its end
/// Standard input comes from `in`, output goes to `out` and `err`; a null one is /dev/null.
/// Captured text is trimmed; where nothing was captured the string is **left as it was**. Text
/// beyond a threshold is not read (0: no limit). After `timeoutMs` (0: never) the program is
/// killed, and what it wrote until then is delivered. Give one with every threshold, as a program
/// that writes beyond it stands still, and with every `in`: a program that reads it to end-of-file
/// waits for ever, and one that ends without taking it may fail the run (InputFailed).
/// @return the status as `waitpid` gives it (0 success, exit code n is n * 256), or -1 and a line
///         logged: not started, killed by a signal, out of time, or a pipe failed.
/// @{

/// Takes up to `count` further `const char*` arguments, but none after a null one.
KEST_API int sysExec(const std::string* in, std::string* out, std::string* err, unsigned timeoutMs,
                     unsigned outThreshold, unsigned errThreshold, const std::string& exe,
                     int count, ...);
KEST_API int sysExec(const std::string* in, std::string* out, std::string* err, unsigned timeoutMs,
                     unsigned outThreshold, unsigned errThreshold, const std::string& exe,
                     const std::vector<std::string>& args);

/// Without streams and time-out. The first null argument ends the list.
KEST_API int sysExecSimple(const char* exe, const char* arg1 = nullptr, const char* arg2 = nullptr,
                           const char* arg3 = nullptr, const char* arg4 = nullptr);
KEST_API int sysExecSimple(const char* exe, const std::vector<std::string>& args);

/// Runs `command` with "/bin/sh -c".
KEST_API int shellExec(const std::string& command, const std::string* in, std::string* out,
                       std::string* err, unsigned timeoutMs, unsigned outThreshold,
                       unsigned errThreshold);
/// @}

/// @name Starting a daemon
/// The program gets a session of its own, /dev/null as its streams and the signal mask `mask`
/// (null: the calling thread's). It is never reaped or killed by this process.
/// @param name    not used.
/// @param pidOut  its process id; may be null; left alone on failure.
/// @return false with one line logged when it could not be started. That a program cannot be
///         executed goes unnoticed.
/// @{
KEST_API bool runDaemon(const std::string* name, const sigset_t* mask, int* pidOut,
                        const std::string& exe, const std::vector<std::string>& args);
/// Takes up to `count` further `const char*` arguments, but none after a null one.
KEST_API bool runDaemon(const std::string* name, const sigset_t* mask, int* pidOut,
                        const std::string& exe, int count, ...);
/// With no signal blocked.
KEST_API bool sysExecAsyncSimple(const char* exe, const std::vector<std::string>& args);
/// @}

}  // namespace kest::utils
