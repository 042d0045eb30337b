/// @file
/// The last words of a daemon: UDP datagrams that tell listeners on the network why it exits or why
/// the device reboots.
///
/// openUdp() and announce() may be called from any thread; announceTerminate() from one thread of
/// the process, and not from an `atexit` function, because it ends in `exit`.
#pragma once

#include <netinet/in.h>

#include <kest/utils/api.h>

namespace kest::utils {

/// Opens a UDP socket (close-on-exec, broadcast allowed) and fills in the address to send to.
/// Does not log.
/// @param fd       the socket, which becomes the caller's, or -1: `ip` null or no address, `port`
///                 0, or no socket to be had.
/// @param address  filled in unless `ip` is null or `port` is 0; left alone then.
/// @param ip       dotted IPv4 address. 255.255.255.255 counts as none: name the broadcast address
///                 of a network instead.
/// @param port     UDP port, host byte order.
KEST_API void openUdp(int& fd, sockaddr_in& address, const char* ip, unsigned short port);

/// Logs "Announce app restart. reason code: 00000007; reason description: text" with its line feed
/// at info level ("reboot" in place of "app restart" when `reboot` is true, the code in
/// hexadecimal) and sends the same text, without a terminating zero, as one datagram.
///
/// Never waits: a datagram that cannot be sent at once is lost, like any other that fails.
/// @param fd           socket from openUdp(); negative to log only. Stays the caller's.
/// @param description  null stands for an empty one.
KEST_API void announce(int fd, sockaddr_in& address, bool reboot, int reasonCode,
                       const char* description);

/// Announces, repeatedly for up to ten seconds, and ends the process. **Does not return.**
///
/// Sends at once and then every `intervalSecs` seconds for `durationSecs` seconds, at least one
/// datagram in any case; signal handlers that run meanwhile do not shorten it. Then:
/// - without `reboot` it calls `exit(exitStatus)`;
/// - with `reboot` it runs the shell commands `nvsave -p /etc/ -m -w`, whose result does not
///   matter, and `reboot`, each for as long as it takes, and calls `exit(exitStatus)` when the
///   latter succeeded, else `abort()`. `SIGCHLD` is set to its default for that.
/// @param ip            as for openUdp(); without a valid address it only logs.
/// @param durationSecs  10 at the most; 0 and less announce once.
/// @param intervalSecs  a value below 1 or above the duration stands for the whole duration.
/// @param exitStatus    also the reason code of the announcement.
[[noreturn]] KEST_API void announceTerminate(const char* ip, unsigned short port, int durationSecs,
                                             int intervalSecs, int exitStatus,
                                             const char* description, bool reboot);

}  // namespace kest::utils
