/// @file
/// Logging and deliberate crash, which every device provides in its own way. The functions declared
/// here have C linkage, so that a program or a device library can define them itself; whoever
/// defines them first in link order wins over the default of libkest_platform.
#pragma once

#if defined(__cplusplus)
extern "C" {
#endif

/// Writes one log line.
///
/// The default prints it to standard error, or hands it to syslog(3) when the environment variable
/// `KEST_LOG` is "syslog". Lines above the threshold `KEST_LOG_LEVEL` (0 to 7, default 6) are
/// dropped. Control characters other than tabs come out as "?", so that a line stays one line,
/// whatever stands in it. Thread-safe; keeps `errno`; not for signal handlers.
///
/// @param module      Tag of the library or daemon, such as "kest_utils".
/// @param sourceFile  Name of the source file without its extension.
/// @param function    Name of the function that logs.
/// @param line        Line in that file.
/// @param level       syslog level: 3 error, 4 warning, 6 information, 7 debugging.
/// @param errnoValue  `errno` of the system call that failed, else 0.
/// @param reserved    0.
/// @param format      printf format of the message, without line break at its end.
void logInternal(const char* module, const char* sourceFile, const char* function, int line,
                 int level, int errnoValue, int reserved, const char* format, ...)
    __attribute__((format(printf, 8, 9), visibility("default")));

/// Ends the process on purpose so that the crash handler records it. The default calls `abort()`.
/// A device's own may return: callers go on in a safe way then.
void forceCrash(void) __attribute__((visibility("default")));

#if defined(__cplusplus)
}
#endif
