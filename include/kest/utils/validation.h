/// @file
/// Checks of what users type into the settings. Each is one POSIX extended regular expression
/// (POSIX.1-2017, Base Definitions, 9.4), compiled anew for each call: that costs well under a
/// millisecond, whereas the compiled forms would keep hundreds of kilobytes for ever. All functions
/// may be called from any thread, none from a signal handler.
///
/// A value with a NUL byte in it is never valid. What counts as a character is the locale's affair:
/// a byte in the "C" locale, in which a program starts; in a UTF-8 locale a character, and bytes
/// that are no UTF-8 are none.
///
/// A value that does not match is logged, in one line at level 3 that shows the value up to its
/// first NUL, unless `silent` is set. So set it where the value is a secret.
#pragma once

#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// Wi-Fi pass phrase: 8 to 64 printable ASCII characters. Keep it out of the log with `silent`.
KEST_API bool psk_valid(const std::string& value, bool silent);

/// Wi-Fi network name: 1 to 32 characters of any kind.
KEST_API bool ssid_valid(const std::string& value, bool silent);

/// Domain name of at least two labels, 253 characters at most; the last label has 1 to 6 letters.
/// A longer value is refused without a log line.
///
/// Odd: a backslash is taken within a label wherever a hyphen is. Do not hand a valid name to a
/// shell unquoted.
KEST_API bool domain_name_valid(const std::string& value, bool silent);

/// IPv4 address in dotted form; leading zeroes are taken ("01.02.03.04").
/// @param allowAllZeroes  takes "0.0.0.0" too, which otherwise has a log line of its own.
KEST_API bool ipv4_address_valid(const std::string& value, bool silent, bool allowAllZeroes);

/// IPv4 netmask in dotted form, from 128.0.0.0 to 255.255.255.254.
///
/// Odd: any text may follow, and from 255.0.0.0 on any may stand in front: a search, no check of
/// the whole value. Do not rely on it for what becomes part of a command or a file.
KEST_API bool ipv4_netmask_valid(const std::string& value, bool silent);

/// UUID with lower-case digits (RFC 4122, section 3).
///
/// Odd: any text may stand around it. Do not rely on it for what becomes part of a command or a
/// file.
KEST_API bool uuid_valid(const std::string& value, bool silent);

/// User name: a lower-case letter, then up to 63 lower-case letters, digits and hyphens.
KEST_API bool username_valid(const std::string& value, bool silent);

}  // namespace kest::utils
