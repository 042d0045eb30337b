/// @file
/// Checks passwords and password hashes of local users against the user database, locks passwords,
/// and asks the daemon that knows whether an access token is valid.
///
/// The functions that take a user's name read the C library's one user database, so only one
/// thread of a process may be in any of them, or in `getpwent`, at a time. authenticateToken() may
/// be called from any thread at any time.
#pragma once

#include <string>

#include <kest/utils/api.h>
#include <kest/utils/hash.h>

namespace kest::utils {

/// What the checks return: whether they could be made. The verdict is their `bool` argument.
enum AuthStatus : int {
    AuthDone = 0,           ///< the check ran, see the verdict
    AuthUnknownUser = -1,   ///< no user of that name
    AuthStoredForm = -2,    ///< the user's stored hash does not have the accepted form
    AuthGivenForm = -3,     ///< the given hash does not have the accepted form
    AuthNoPassword = -4,    ///< the given password is empty
    AuthNoToken = -5,       ///< the given token is empty
    AuthIpcFailed = -9000,  ///< no answer from the daemon that knows
};

/// @name Local users
/// The accepted form of a hash is that of crypt(5) for MD5, SHA-256 and SHA-512: "$1$", "$5$" or
/// "$6$", a salt of letters, digits, slash, dot and backslash, "$", and anything. One with a number
/// of rounds ("$6$rounds=...") does not have it; neither has that of a user who is locked or has no
/// password, or whose hash is kept in a shadow file.
///
/// generateHash() and generateSalt() of hash.h make hashes of this form.
///
/// Each status but AuthDone is logged, without names, passwords or hashes. Names are compared
/// exactly.
/// @{

/// Gives a user's password field as it stands, in whatever form.
/// @param hash  left alone unless the result is AuthDone.
/// @return AuthDone or AuthUnknownUser.
KEST_API int readUserHash(const std::string& user, std::string& hash);

/// Whether a hash is the user's stored one.
/// @param ok  the verdict; false on every failure.
/// @return AuthDone, AuthGivenForm, AuthUnknownUser or AuthStoredForm, looked for in this order.
KEST_API int authenticateHash(const std::string& user, const std::string& hash, bool& ok);

/// Whether a password is the user's. Takes as long as `crypt` does, milliseconds at least; the
/// comparison takes the same time wherever the hashes differ.
///
/// A password that holds a NUL or has more than 512 bytes is never right: `crypt` would see a part
/// of it only, or take for ever.
/// @param ok  the verdict; false on every failure.
/// @return AuthDone, AuthNoPassword, AuthUnknownUser or AuthStoredForm, looked for in this order.
KEST_API int authenticatePassword(const std::string& user, const std::string& password, bool& ok);
/// @}

/// @name Locking
/// Run "/usr/bin/passwd" with "-l" or "-u" and wait for its end, without a time limit.
/// @return false when it did not exit with 0, or, with one log line, when it could not be run or
///         when the name is empty, begins with "-" or holds a NUL: such a name would lock somebody
///         else's password or be an option.
/// @{
KEST_API bool lockPassword(const std::string& user);
KEST_API bool unlockPassword(const std::string& user);
/// @}

/// Asks the daemon "kest_avclient" whether an access token is valid, with the message
/// ipc::messages::ValidateAuthToken: it is when the answer's status is 0. Blocks for 5 seconds at
/// most until the request is sent, and as long again for the answer.
///
/// Whatever goes wrong with the other daemon (not there, silent, gone in between, answering
/// something else) ends as AuthIpcFailed or as an invalid token. Nothing of the exchange is left
/// afterwards.
/// @param ok  the verdict; left alone unless the result is AuthDone.
/// @return AuthDone, or after one log line AuthNoToken or AuthIpcFailed.
KEST_API int authenticateToken(const std::string& token, bool& ok);

}  // namespace kest::utils
