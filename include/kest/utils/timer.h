/// @file
/// Clock readings, sleeps, intervals and duration text, and a test whether a TCP endpoint accepts
/// connections. All functions are reentrant and may be called from any thread; the clock readings
/// are also safe in signal handlers. The time functions stand in the global namespace.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include <kest/utils/api.h>

/// The current reading of `CLOCK_MONOTONIC`: time since an arbitrary start that wall-clock changes
/// do not move.
KEST_API timespec moment();

/// Milliseconds from `from` to `to`, truncated toward zero; negative when `to` is the earlier one.
/// Both are readings of the same clock, with `tv_nsec` in 0..999999999.
KEST_API int64_t momentsDiffMs(timespec const& from, timespec const& to);

/// `CLOCK_MONOTONIC` in whole milliseconds, truncated.
KEST_API int64_t nowMs();

/// `CLOCK_MONOTONIC` in whole microseconds, truncated.
KEST_API int64_t nowUs();

/// `CLOCK_MONOTONIC` in nanoseconds.
KEST_API int64_t nowNs();

/// Wall-clock time in whole milliseconds since 1970-01-01 00:00:00 UTC. Jumps when the clock is
/// set.
KEST_API int64_t nowWallMs();

/// Suspends the calling thread for `ms` milliseconds.
///
/// The microsecond count is computed in 32 bits, so `ms` above 4294967 (71.6 minutes) wraps round
/// to a shorter sleep.
/// @return 0, or -1 with `errno` (`EINTR` when a signal cut the sleep short), as `usleep` does.
KEST_API int sleepMs(unsigned int ms);

/// Suspends the calling thread for `n` **microseconds**: the name is historical.
/// @return as sleepMs().
KEST_API int sleepNs(unsigned int n);

/// A duration as "HH:MM:SS", at least two digits each, hours without upper limit: 3725 gives
/// "01:02:05". A negative duration shows the minus sign in each field that is not zero.
KEST_API std::string timeToString(int seconds);

/// Tells whether the system clock was synchronised within the last `seconds` seconds.
///
/// The moment of the last synchronisation, in milliseconds on the scale of nowMs(), stands as
/// decimal text in "/etc/last_timesync_monotonic_ts", which another component writes; changes of
/// the wall clock do not matter. Without the file the answer is no. Negative `seconds` move the
/// window into the past. Logs when the file cannot be read or holds no moment.
KEST_API bool isTimeSyncedLately(int seconds);

namespace kest::utils {

/// Tells whether a TCP server accepts connections at the first IPv4 address of `host`.
///
/// Blocks for the name look-up and the connect; an unanswered connect is given up after two
/// retransmissions (about seven seconds). Does not log.
/// @param host   name or dotted address; null or empty is unreachable.
/// @param port   TCP port, host byte order.
/// @param error  on failure the resolver's code (`h_errno` values) or the `errno` of the failed
///               socket call; left alone on success.
KEST_API bool hostReachable(char const* host, unsigned short port, int& error);
KEST_API bool hostReachable(std::string const& host, unsigned short port, int& error);

}  // namespace kest::utils
