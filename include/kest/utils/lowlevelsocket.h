/// @file
/// Options of descriptors and sockets, set one at a time or together from a bit set.
///
/// All functions may be called from any thread. Each returns true, or false after one log line at
/// error level with the `errno` of the call that was refused.
#pragma once

#include <kest/utils/api.h>

namespace kest::utils {

/// Bits of SetFdOptions(), in the order in which they are applied. Bits 0 to 23 have no meaning.
constexpr unsigned int FdNonBlock = 1U << 31;
constexpr unsigned int FdBlock = 1U << 30;
constexpr unsigned int FdReuseIpPort = 1U << 29;
constexpr unsigned int FdLowDelay = 1U << 28;
constexpr unsigned int FdNoSIGPIPE = 1U << 27;
constexpr unsigned int FdCloseOnExec = 1U << 26;
constexpr unsigned int FdTcpCork = 1U << 25;
constexpr unsigned int FdTos = 1U << 24;

/// Type of service of traffic that must not wait: expedited forwarding (RFC 3246), DSCP 46.
constexpr unsigned char TosExpeditedForwarding = 0xB8;

/// Makes reads and writes return `EAGAIN` instead of waiting. Other status flags stay.
KEST_API bool SetFdNonBlock(int fd);

/// Makes reads and writes wait. Other status flags stay.
KEST_API bool SetFdBlock(int fd);

/// Allows to bind to an address that closed connections still hold (`SO_REUSEADDR`). The port
/// cannot be shared by several listeners, despite the name.
KEST_API bool SetFdReuseIpPort(int fd);

/// Sends small TCP segments at once (`TCP_NODELAY`).
KEST_API bool SetFdLowDelay(int fd);

/// Ignores `SIGPIPE` in the **whole process**, so that writing to a closed connection fails with
/// `EPIPE`. Done by the first successful call; later calls leave alone what the program installed
/// meanwhile.
/// @param fd  not used, any value will do.
/// @return false, logged without `errno`, when the signal cannot be ignored; the next call tries
///         again.
KEST_API bool SetFdNoSIGPIPE(int fd);

/// Closes the descriptor in programs that the process executes. Where another thread may execute
/// one meanwhile, create the descriptor that way instead (`SOCK_CLOEXEC`, `O_CLOEXEC`).
KEST_API bool SetFdCloseOnExec(int fd);

/// Sends full TCP segments only (`TCP_CORK`); the kernel holds a partial one back for 200 ms at
/// most.
KEST_API bool SetFdTcpCork(int fd);

/// Sets the IPv4 type-of-service byte of what is sent (`IP_TOS`).
/// @return true also when the kernel applied another value, as it does with the two lowest bits of
///         a TCP socket; that is logged as a warning.
KEST_API bool SetFdTos(int fd, unsigned char tos);

/// Limits the time that one send waits; it then fails with `EAGAIN`. 0 and 0 wait for ever.
/// @param microseconds  up to 999999, more is refused with `EDOM`.
KEST_API bool SetSendTimeout(int fd, unsigned int seconds, unsigned int microseconds);

/// The same for receiving.
KEST_API bool SetRecvTimeout(int fd, unsigned int seconds, unsigned int microseconds);

/// Applies an option for each bit, the highest first: with FdNonBlock and FdBlock together the
/// descriptor ends up blocking. FdTos stands for TosExpeditedForwarding.
/// @return false when an option fails; those after it are not tried, those before it stay.
KEST_API bool SetFdOptions(int fd, unsigned int flags);

}  // namespace kest::utils
