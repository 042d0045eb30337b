/// @file
/// Records how a process dies: on a fatal signal a report with the stack trace and the memory map
/// goes into a dump folder, the program "/usr/bin/collect" gets 10 seconds to add to it, and the
/// signal takes its course. See docs/crash-dumps.md for the way from a report to a source line.
///
/// Install once, early, on the main thread; a daemon that goes into the background installs after
/// that. Other threads call InstallCrashDumpStack() at their start.
#pragma once

#include <dirent.h>
#include <signal.h>

#include <string>

#include <kest/utils/api.h>
#include <kest/utils/memorymap.h>

namespace kest::utils {

/// Takes over `SIGSEGV`, `SIGABRT`, `SIGFPE`, `SIGILL` and `SIGBUS`, takes a snapshot of the memory
/// map, creates the dump folder and the file "stack" in it, and gives the calling thread an
/// alternate signal stack. Nothing of this is ever undone.
///
/// A second call is not needed; it begins a new report in another folder.
/// @param folder  existing folder to use; null for a new one below "/tmp/crashdumps/<program>/",
///                see CrashDumpHandler::GetCrashDumpFolder().
/// @return false after a log line when a step fails; earlier steps stay done, and the process can
///         run on.
KEST_API bool InstallCrashDumpHandler(const char* folder);

/// Gives the calling thread an alternate signal stack until it ends, so that running out of stack
/// is reported there, too; without one the process then dies without a report. All other crashes
/// are reported on any thread. A thread that has such a stack already keeps it.
/// @return false after a log line when it cannot be set up.
KEST_API bool InstallCrashDumpStack();

/// The handler of the five signals: writes the report, runs the collector, hands the signal on to
/// the action that was there before. Where that was the default, or to ignore the signal, the
/// process ends on this same signal.
///
/// May also be called as a function: with 0 as `signo` it writes a report without its signal line,
/// runs the collector and returns. For signal handlers; `errno` is kept. When two threads crash at
/// once, the second one waits for the first one's report, 12 seconds at the most.
KEST_API void DumpStackWrapper(int signo, siginfo_t* info, void* context);

/// State of the crash handler, all of it prepared by InstallCrashDumpHandler(), since the handler
/// itself allocates nothing. There is one object, gCrashDumper.
class KEST_API CrashDumpHandler {
  public:
    constexpr CrashDumpHandler() = default;
    virtual ~CrashDumpHandler();
    CrashDumpHandler(const CrashDumpHandler&) = delete;
    CrashDumpHandler& operator=(const CrashDumpHandler&) = delete;

    /// The dump folder of this run.
    ///
    /// Of the numbered folders "/tmp/crashdumps/<program>/0000000001" and so on, the environment
    /// variable "CRASH_DUMPS_COUNT" says how many are kept (3 when it is not set, 100 at the most);
    /// the oldest ones are deleted, and one with the next number is created. Logs failures.
    /// @param folder  null for a numbered folder, else just normalised.
    /// @param out     its path.
    /// @return false when the program's name is not known or a folder cannot be created or listed.
    bool GetCrashDumpFolder(const char* folder, std::string& out);

    /// `scandir` filter that keeps the numbered dump folders: directories whose names are ten
    /// digits. @return 1 to keep the entry, else 0.
    static int crash_dump_folder_filer(const dirent* entry);

    /// The process's memory map as it was at the installation; empty before.
    const MemoryMap& memoryMap() const { return map_; }

  private:
    friend KEST_API bool InstallCrashDumpHandler(const char* folder);
    friend KEST_API void DumpStackWrapper(int signo, siginfo_t* info, void* context);

    static constexpr int kSignals = 5;
    struct Slot {
        struct sigaction previous;
        int signo;
    };

    KEST_LOCAL bool openReport(const std::string& path);
    KEST_LOCAL void keepTexts(const std::string& folder);
    KEST_LOCAL bool installStack();
    KEST_LOCAL bool installSignals();
    KEST_LOCAL void report(int signo, const void* frame, const void* context);
    KEST_LOCAL bool endsProcess(int signo) const;
    KEST_LOCAL void runCollector() const;
    KEST_LOCAL void handOn(int signo, siginfo_t* info, void* context) const;

    int stackFd_ = -1;
    Slot slots_[kSignals] = {};
    MemoryMap map_;
    stack_t stack_ = {};
    char* pidText_ = nullptr;
    char* folderText_ = nullptr;
    unsigned reports_ = 0;
};

/// The one crash handler of the process.
extern KEST_API CrashDumpHandler gCrashDumper;

}  // namespace kest::utils
