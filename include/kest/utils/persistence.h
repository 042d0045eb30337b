/// @file
/// Asks the control daemon, "kest_ctlserver", to save the configuration to flash or to reboot the
/// device. Both functions run the command-line IPC client "/bin/kest_ipc_cli" without a shell and
/// wait for it. They keep no state and may be called from any thread, though not from a signal
/// handler, nor where an event loop must answer: the client gives the daemon 20 seconds, and
/// nothing here limits the client.
#pragma once

#include <kest/utils/api.h>

namespace kest::utils {

/// Asks for the configuration to be saved to flash; logs "Enqueued persist" at info level.
///
/// The client gets the arguments `-z -T=kest_ctlserver -t=20000`, the message
/// `-m={"functionName":"SaveToFlash","sync":true}` and `-r=1`; without `sync` it is `false` and
/// `-r=0`.
/// @param sync  whether to wait until the daemon has answered, instead of until it was asked.
/// @return true when the client exited with status 0. Failures are not logged, but for a client
///         that cannot be started or is killed.
KEST_API bool enqueuePersist(bool sync);

/// Asks for a reboot, and **reboots the device itself when nobody takes the request**.
///
/// The client gets the arguments `-z -T=kest_ctlserver -t=20000` and the message
/// `-m={"functionName":"Reboot","delayMs":5000}`. When it exits with another status than 0, is
/// missing or is killed, the calling thread sleeps for the delay, undisturbed by signal handlers,
/// and runs "/usr/bin/reboot"; should that fail too, it has the kernel restart the machine at once
/// (`reboot(RB_AUTOBOOT)`), without stopping a service or writing back a file.
/// @param delayMs  milliseconds until the reboot. A negative delay is passed on as it stands; here
///                 it means at once.
/// @return true when the daemon has taken over or "/usr/bin/reboot" succeeded, **and also when even
///         the kernel refused** (no privilege): it tells that each way was tried, not that the
///         device restarts. Does not log, but for a program that cannot be started or is killed.
KEST_API bool enqueueReboot(int delayMs);

}  // namespace kest::utils
