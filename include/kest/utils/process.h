/// @file
/// Finds and kills processes by the name of their program. All functions are synchronous and keep
/// no state: they may be called from any thread, but not from a signal handler.
#pragma once

#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// Finds the processes that were started under `name`: the first word of the command line equals
/// `name`, or `name` is the last component of that path.
///
/// The first word is looked at only up to its first "0" or backslash, and up to 1023 bytes: a
/// program "/usr/bin/cam01" is found as "cam", not as "cam01". Kernel threads and processes that
/// have ended but are not reaped have no command line and are never found. For a search in
/// arguments see getPidsByName().
/// @param pids  replaced by the process numbers found; left alone on failure.
/// @return how many were found, or a negated `errno` value after one log line: -EINVAL when `name`
///         is empty, or what opening /proc gave.
KEST_API int pidof(const std::string& name, std::vector<int>& pids);

/// As above; failure gives an empty vector.
KEST_API std::vector<int> pidof(const std::string& name);

/// Runs "/bin/pkill -<signo> <name>" and waits for it, without a time limit. `name` is an extended
/// regular expression that pkill looks for in the names of processes: "cam" also kills
/// "camera_daemon", and the caller itself if its name matches.
/// @param name  an empty name, which would match every process of the system, one with a hyphen in
///              front, which pkill would take for an option, and one with a NUL byte, which would
///              cut it short, are refused with one log line.
/// @return true when a process was signalled; false when none matched or pkill failed.
KEST_API bool kill_process_by_name(const std::string& name, int signo);

}  // namespace kest::utils
