/// @file
/// Formatting, trimming, joining, splitting, quoting and converting of text. All functions work on
/// bytes, keep no state and may be called from any thread, though not from a signal handler. An
/// output may be one of the inputs.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// printf into a string of any length.
///
/// A format that the C library refuses (a null one, a wide character that the locale lacks, more
/// than 2 GB of text) or memory that has run out is a defect of the caller: logs "Invalid state"
/// and calls `forceCrash()`. Should that return, the result is empty.
KEST_API std::string format(const char* fmt, ...) KEST_PRINTF(1, 2);

/// Removes white space from the front of `s`: blank, tab, line feed and carriage return, nothing
/// else. @return `s`.
KEST_API std::string& lTrim(std::string& s);

/// Removes the same white space from the end of `s`. @return `s`.
KEST_API std::string& rTrim(std::string& s);

/// lTrim() and rTrim(). @return `s`.
KEST_API std::string& trim(std::string& s);

/// `s` with each byte mapped through the C library's `tolower` (`lower` set) or `toupper`.
KEST_API std::string changeCase(std::string s, bool lower);
KEST_API std::string upperCase(std::string s);
KEST_API std::string lowerCase(std::string s);

/// Replaces `out` by the parts with `sep` between them; empty for no parts.
KEST_API void join(std::string& out, const std::string& sep, const std::vector<std::string>& parts);

/// The same for up to `count` further arguments, each a `const char*`; a null one ends the list
/// (`nullptr`: a plain 0 is an `int` here).
KEST_API void join(std::string& out, const std::string& sep, int count, ...);

/// The first IPv4 address of a host as dotted text; empty when it has none or is unknown. Blocks
/// for as long as the resolver takes; does not log.
KEST_API std::string getHostByName(const std::string& host);

/// An empty prefix or suffix matches every string.
KEST_API bool startsWith(const std::string& s, const std::string& prefix);
KEST_API bool endsWith(const std::string& s, const std::string& suffix);

/// Replaces each occurrence of `from` in `s`, found from left to right without overlap; what `to`
/// brings in is not searched again. An empty `from` changes nothing.
KEST_API void replaceAll(std::string& s, const std::string& from, const std::string& to);

/// `arg` in single quotes, so that a POSIX shell takes it as one word that is exactly `arg`
/// (POSIX.1-2017, Shell Command Language, 2.2.2). The string form ends at the first NUL, which no
/// argument of a program can hold; null counts as empty.
KEST_API std::string escapeShellArg(const char* arg);
KEST_API std::string escapeShellArg(const std::string& arg);

/// Converts with the C library's iconv from "UTF-8" to "UTF-32".
///
/// The units are what the platform's converter writes for that name, a leading byte-order mark
/// included if it writes one.
/// @param out  the units on success; `in.size() + 1` units without meaning on failure.
/// @return false, with one log line that shows the input, when that is not valid UTF-8 (RFC 3629)
///         or ends within a character, or when the platform has no such converter.
KEST_API bool utf8_to_utf32(const std::string& in, std::vector<uint32_t>& out);

/// Cuts `s` at every byte that occurs in `delimiters` and appends the tokens to `out`, which is not
/// cleared. The text behind the last delimiter is a token too, so an empty `s` gives one empty
/// token.
/// @param skipEmpty  leaves empty tokens out.
KEST_API void tokenize(const std::string& s, std::vector<std::string>& out,
                       const std::string& delimiters, bool skipEmpty);

/// Cuts `s` at every occurrence of the whole of `delimiter` and replaces `out` by the fields, empty
/// ones included; there is always at least one. An empty delimiter cuts nowhere.
KEST_API void split(const std::string& s, const std::string& delimiter,
                    std::vector<std::string>& out);

/// Fills `tv` with the wall-clock time (`gettimeofday`); null is left alone. @return `tv`.
KEST_API timeval* now(timeval* tv);

/// A time as 29 characters of ISO 8601 in UTC with milliseconds, truncated:
/// "1970-01-01T00:00:00.999+00:00". Empty for null and for years that the form cannot hold.
KEST_API std::string timevalToString(const timeval* tv);

/// Reads the same form, with any offset up to 29:59 either way: "2020-01-01T12:00:00.250+02:00".
/// @param text    need not be terminated; nothing beyond `length` is read.
/// @param length  must be 29.
/// @param tv      the time in UTC; untouched on failure.
/// @return false when the text has another form, or when the time does not fit into `time_t`.
KEST_API bool stringToTimeval(const char* text, unsigned int length, timeval* tv);

/// The text of the on-screen time: the local time while the clock was synchronised within the last
/// 24 hours (see isTimeSyncedLately()), else the time since boot as "1 days 02:03:04".
/// @param fmt  strftime format of the local time; null or empty means "2020-01-01  12:00:00", two
///             blanks between. An expansion of 256 bytes or more gives an empty text.
KEST_API std::string generateOsdTimeString(const char* fmt);

}  // namespace kest::utils
