/// @file
/// Sets the system's time zone. Callers in several threads and processes do not disturb each other;
/// the last one wins.
#pragma once

#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// Makes a zone of the database under "/usr/share/zoneinfo/" the system's own: writes its POSIX TZ
/// rule, the last line of the compiled zone file (RFC 8536, section 3.3), to "/etc/TZ" and points
/// the link "/etc/localtime" at the zone file.
///
/// Each of the two is replaced at once and whole, "/etc/TZ" first; a failure in between leaves the
/// new rule with the old link. Running programs notice when they call `tzset` the next time.
/// @param zone  path in the database, such as "Europe/Berlin"; one that leads out of it is refused.
/// @return false, with one log line and without any temporary file left, when the zone is unknown,
///         when it has no rule, or when "/etc" cannot be written.
KEST_API bool setTimeZone(const std::string& zone);

}  // namespace kest::utils
