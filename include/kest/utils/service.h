/// @file
/// Switches the camera's optional services on and off: the key of a service in the configuration
/// store, and its daemon's line in "/etc/inittab".
///
/// | service | daemon | key |
/// |---|---|---|
/// | "ble" | kest_btadopt | bled.status |
/// | "http" | lighttpd | httpd.status |
/// | "ssh" | dropbear | sshd.status |
///
/// The functions may be called from any thread, not from a signal handler. Edits of the table from
/// one process follow one another; of two processes that edit it at the same moment one loses its
/// change, so leave it to one daemon. Every function that returns bool gives false after a log
/// line.
#pragma once

#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// Names of the services: "ble", "http", "ssh".
KEST_API const std::vector<std::string>& ListServices();

/// @name Services
/// The store is changed first and only when the value is another; a failure after that leaves it
/// changed. The daemon's line is edited in any case, see enableDaemon() and disableDaemon().
/// @param service  a name from ListServices(); null and any other name are refused.
/// @{
KEST_API bool EnableService(const char* service);
KEST_API bool EnableService(const std::string& service);

/// Also sends `SIGTERM` to the daemon, so it gives false when none is running: see disableDaemon().
KEST_API bool DisableService(const char* service);
KEST_API bool DisableService(const std::string& service);

/// Reads what the store says: 1 enabled, 0 disabled. Whether the daemon runs is another question.
/// @param status  left alone on failure, a key that is missing included.
KEST_API bool ServiceStatus(const char* service, int& status);
KEST_API bool ServiceStatus(const std::string& service, int& status);
/// @}

/// @name Daemons
/// Edit "/etc/inittab" and send `SIGHUP` to process 1, which then reads it again, also when no line
/// was changed. Starting the daemon is left to init.
///
/// **Which lines.** Those whose program, from the last ":" to the first blank after it, has a last
/// path component as long as `daemon`, and in which `daemon` stands there or **further on**: with
/// "dropbear" the line "::respawn:/bin/launcher dropbear" is meant, too. Lines that are commented
/// out count; so does any comment that happens to look like this.
///
/// **How the file is replaced.** The new table is written to "/tmp/inittab-XXXXXX", with mode and
/// owner of the old one, and renamed: at every moment the old or the new table is there, whole.
/// **Where "/tmp" and "/etc" are different file systems the rename fails**, and so does the
/// function, with "Failed to overwrite /etc/inittab". The last line gets a line break if it has
/// none. A symbolic link in the table's place is replaced, not followed.
///
/// **A missing "/etc/inittab" is replaced by an empty one**, with success: call this on devices
/// that have one. One that is there and cannot be read is left alone.
/// @param daemon  name of the program without its folder. An empty one is refused.
/// @{

/// Removes every "#" in front of the daemon's lines.
KEST_API bool enableDaemon(const std::string& daemon);

/// Puts one "#" in front of the daemon's lines, also of those that have one already.
/// @param killIt  sends `SIGTERM` to the daemon afterwards, see kill_process_by_name(). That fails
///                when no process has the name.
KEST_API bool disableDaemon(const std::string& daemon, bool killIt);
/// @}

}  // namespace kest::utils
