/// @file
/// Switches a process to real-time scheduling. May be called from any thread.
#pragma once

#include <kest/utils/api.h>

namespace kest::utils {

/// Puts a process under the scheduling policy `SCHED_RR` (POSIX round robin); needs the privilege
/// to do so (`CAP_SYS_NICE` or `RLIMIT_RTPRIO`). Linux schedules threads, not processes: what
/// changes is the thread whose number is `pid`, that is the main thread of that process, and the
/// threads that it starts afterwards.
/// @param pid       process number; 0 for the calling process.
/// @param priority  1 to 99, higher runs first; negative for the highest there is.
/// @return true after an information line in the log, false after an error line.
KEST_API bool SetRealTimePriority(int pid, int priority);

}  // namespace kest::utils
