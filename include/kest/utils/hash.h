/// @file
/// Bytes as text and back, digests, random bytes and texts, password hashes. All functions are free
/// of state and may be called from any thread, except generateSalt(); none is for signal handlers.
#pragma once

#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// Encodes as base64 with padding (RFC 4648, section 4): no line breaks, no terminating NUL.
///
/// Four characters for every started group of three bytes. When `out` is null or `outLen` smaller
/// than that, `outLen` becomes the size needed and nothing is written: the way to ask for it.
/// @param out     must not overlap `in`.
/// @param outLen  room in `out`; touched by the size query only.
/// @return characters written; 0 for the size query and on failure, which leaves `outLen` alone:
///         `in` null or empty, or a text of 4 GiB or more. Does not log.
KEST_API unsigned int b64(const unsigned char* in, unsigned int inLen, unsigned char* out,
                          unsigned int& outLen);

/// Decodes base64 with padding (RFC 4648, section 4), less strictly than that demands.
///
/// Three bytes of room for every four characters, asked for as with b64(), even where padding makes
/// the result shorter.
///
/// Odd, and not to be built upon: padding at the third or fourth place of any group ends the
/// decoding there, successfully, with the rest of the input not looked at. "=" at the first or
/// second place of a group counts as the digit 62, as "+" does. Unused bits before padding may have
/// any value.
/// @param out  may be `in`. On failure it holds the bytes of the groups before the bad one.
/// @return bytes written; 0 for the size query and on failure, which leaves `outLen` alone: `in`
///         null, a length of 0 or not divisible by 4, a character that is not base64 (white space
///         and line breaks included). Does not log.
KEST_API unsigned int unb64(const unsigned char* in, unsigned int inLen, unsigned char* out,
                            unsigned int& outLen);

/// Bytes as lower-case hexadecimal digits.
/// @param separator  stands between two bytes.
/// @param fill       stands in front of a byte below 16, whose first digit is not written: '0' for
///                   the usual form.
/// @return the text; empty for no bytes, for null, and when no string can be so long.
KEST_API std::string bin2hex(const unsigned char* data, unsigned int len,
                             const std::string& separator, char fill);

/// Replaces `out` by the digits without anything between: "0aff". @return true, always.
KEST_API bool bin2Hex(const unsigned char* data, unsigned int len, std::string& out);

/// Decodes nothing: the result is always empty, at most with memory reserved. It stands for the
/// programs that are linked against it; do not use it for data.
KEST_API std::vector<unsigned char> hex2bin(std::string hex);

/// MD5 digest (RFC 1321), with OpenSSL. A checksum; no protection against anybody who means harm.
/// @param data    may be null when `len` is 0.
/// @param digest  room for 16 bytes.
/// @return false, with one log line and `digest` untouched or without meaning, on a null argument
///         and when OpenSSL refuses.
KEST_API bool MD5(const char* data, unsigned int len, unsigned char* digest);

/// Fills `buf` with random bytes of the kernel, fit for keys. Needs a free descriptor.
/// @return false when `buf` is null or `len` 0, or when "/dev/urandom" cannot be opened or ends;
///         `buf` is not to be used then. Does not log.
KEST_API bool randomBytes(unsigned char* buf, unsigned int len);

/// `prefix` and `count` characters out of 0-9, A-Z and a-z. Names for things, not secrets: they
/// follow from the nanoseconds of the clock and can be guessed. Leaves the C library's generators
/// alone.
KEST_API std::string randomAlphaNumericString(const std::string& prefix, unsigned int count);

/// A salt for SHA-512 crypt: "$6$", 16 letters and digits, "$".
///
/// Two calls within one second give the same salt, in all processes, and whoever knows the second
/// knows the salt. Seeds the C library's `rand` anew: not while other threads use that.
KEST_API std::string generateSalt();

/// What the C library's `crypt` gives for a password and a salt (crypt(5)); with a salt of
/// generateSalt() the salt and 86 characters of hash. Takes milliseconds on purpose; a salt with
/// "rounds=" takes as long as that says.
///
/// One call at a time: others wait. Code that calls `crypt` itself shares its buffer with us.
/// @param key   the password. Does not end up in any log.
/// @param salt  a salt or a whole hash, up to its first NUL.
/// @return empty when `crypt` gives nothing or `key` is null. Some C libraries give an error token
///         ("*0") instead. Neither is ever to be taken for a match.
KEST_API std::string generateHash(const char* key, const std::string& salt);

}  // namespace kest::utils
