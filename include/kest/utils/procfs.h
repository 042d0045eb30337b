/// @file
/// Reads and writes small files of /proc and /sys, reads the command lines of the process and of
/// the kernel, and finds processes by any part of their command line. All functions are
/// synchronous and keep no state: they may be called from any thread, but not from a signal
/// handler.
///
/// None of them waits for a path that is a FIFO or a device: such a file is opened non-blocking,
/// so that a misconfigured path cannot stop a daemon.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// Absolute path of the running program. When its file was replaced or removed meanwhile, the
/// kernel appends " (deleted)". Does not log.
/// @return 0, or -1 with `out` left alone when /proc/self/exe cannot be read.
KEST_API int getModulePath(std::string& out);

/// Folder of the running program, without a slash at its end. Results as getModulePath().
KEST_API int getModuleDir(std::string& out);

/// Finds processes whose command line contains `name` anywhere: a loose match that also looks at
/// arguments, crosses from one argument to the next (they are separated by NUL bytes) and finds
/// the caller itself if its own command line contains `name`. An empty name matches every process
/// that has a command line; kernel threads have none. For a match on the program's name see
/// pidof().
///
/// The scan pauses for 2 ms at every entry of /proc, so as not to take the processor from others:
/// expect 300 ms and more. Only the first line of a command line is searched, without white space
/// at both ends. Does not log.
/// @param pids     room for `maxPids` numbers; the rest is left alone.
/// @param maxPids  the scan stops when so many are found; nothing is stored, and 0 returned, when
///                 it is not positive or `pids` is null.
/// @return number of pids stored, or -1 when /proc cannot be opened.
KEST_API int getPidsByName(const std::string& name, int* pids, int maxPids);

/// Reads a small file with a single `read`. Does not log.
/// @param out      emptied first; the bytes read on success.
/// @param maxSize  size of the buffer in bytes. The file must be shorter than that.
/// @return 0 (also for an empty file), -1 when the file cannot be opened or is given descriptor 0
///         (which is closed again), -2 when it cannot be read, -3 when it fills the buffer.
KEST_API int readProc(const std::string& path, std::string& out, unsigned short maxSize);

/// Writes `text` and a NUL byte behind it with a single `write`, creating (mode 0666) or emptying
/// the file first. Does not log.
/// @return 0, -1 when the file cannot be opened or is given descriptor 0 (which is closed again),
///         -2 when not all bytes were taken.
KEST_API int writeProc(const std::string& path, const std::string& text);

/// Reads a file to its end or up to `maxSize` bytes; what is beyond is left out without a message.
///
/// A limit above 16 MiB, in particular the value ~0U for "no limit", counts as 16 MiB: far more
/// than any file of /proc that a daemon reads, and little enough to survive a path such as
/// /dev/zero.
/// @param path     null is treated as a file that does not exist.
/// @param out      emptied first (but not when `maxSize` is 0); after a read error it holds what
///                 was read so far.
/// @param maxSize  in bytes, at least 1.
/// @return false after one log line when `maxSize` is 0 or the file cannot be opened or read.
KEST_API bool ReadProcFile(const char* path, std::string& out, unsigned maxSize);

/// Command line of this process.
/// @param exe   the program as it was called.
/// @param args  each argument is appended; what the vector held stays.
/// @return false, with both left alone, when it cannot be read (ReadProcFile() logs).
KEST_API bool ReadCommandLine(std::string& exe, std::vector<std::string>& args);

/// Adds the kernel's command line to `out` as key and value: "console=ttyS0" gives "console" ->
/// "ttyS0", "quiet" gives "quiet" -> "". The first of several equal keys wins, and keys that `out`
/// holds already keep their values. Quotes are not understood, two spaces in a row give an empty
/// key, and only the first 1024 bytes of the command line are looked at.
/// @return false when it cannot be read (ReadProcFile() logs).
KEST_API bool ReadKernelCommandLine(std::map<std::string, std::string>& out);

/// The number of "KEST_runmode" on the kernel's command line; a text that is no number counts as 0.
/// @return false, with `mode` left alone, when the key is missing (no log) or the command line
///         cannot be read (ReadProcFile() logs).
KEST_API bool GetRunMode(int& mode);

}  // namespace kest::utils
