#include <kest/utils/auth.h>

#include <openssl/crypto.h>
#include <pwd.h>
#include <regex.h>

#include <kest/ipc/BlockingIpcHandler.h>
#include <kest/ipc/messages.h>
#include <kest/utils/exec.h>

#include "log.h"

namespace kest::utils {
namespace {

// A backslash is an ordinary character between brackets.
constexpr char kAcceptedForm[] = R"(^\$[156]\$[0-9a-zA-Z/\.]+\$)";
// Where the salt begins, behind "$6$".
constexpr size_t kSaltStart = 3;
// More than any passwd takes. The time that crypt needs grows with the length, and on small C
// libraries so does its stack.
constexpr size_t kLongestPassword = 512;
constexpr int kIpcTimeoutMs = 5000;

int refused(const char* function, AuthStatus status) {
    const char* const reasons[] = {"Unknown user", "Stored hash does not have the accepted form",
                                   "Given hash does not have the accepted form",
                                   "Password is empty", "Token is empty"};
    KEST_LOG_AS(function, KEST_WARNING, 0, "%s", reasons[-status - 1]);
    return status;
}

bool holdsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

bool hasAcceptedForm(const std::string& hash) {
    regex_t pattern;
    if (regcomp(&pattern, kAcceptedForm, REG_EXTENDED | REG_NOSUB) != 0) return false;
    const bool matches = regexec(&pattern, hash.c_str(), 0, nullptr, 0) == 0;
    regfree(&pattern);
    return matches;
}

AuthStatus findUser(const std::string& user, std::string& hash) {
    struct Database {
        Database() { setpwent(); }
        ~Database() { endpwent(); }
    } database;
    while (const passwd* entry = getpwent()) {
        if (user != entry->pw_name) continue;
        hash = entry->pw_passwd != nullptr ? entry->pw_passwd : "";
        return AuthDone;
    }
    return AuthUnknownUser;
}

AuthStatus readStoredHash(const std::string& user, std::string& hash) {
    const AuthStatus status = findUser(user, hash);
    if (status != AuthDone) return status;
    return hasAcceptedForm(hash) ? AuthDone : AuthStoredForm;
}

// The time taken tells nothing about where they differ.
bool sameHash(const std::string& a, const std::string& b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

bool runPasswd(const char* function, const char* option, const std::string& user) {
    if (user.empty() || user.front() == '-' || holdsNul(user)) {
        KEST_LOG_AS(function, KEST_WARNING, 0, "Invalid user name");
        return false;
    }
    return sysExecSimple("/usr/bin/passwd", option, user.c_str()) == 0;
}

bool succeeded(int result, const char* failure) {
    if (result != 0) KEST_LOG_AS("authenticateToken", KEST_ERROR, result, "%s", failure);
    return result == 0;
}

bool exchange(ipc::BlockingIpcHandler& handler, const ipc::messages::ValidateAuthToken& message) {
    return succeeded(handler.init(), "Unable to create BlockingIpcHandler instance") &&
           succeeded(handler.sendRequest("kest_avclient", message), "Unable to send request") &&
           succeeded(handler.waitAllRequestsSent(kIpcTimeoutMs),
                     "Error on waiting requests sent") &&
           succeeded(handler.waitAllResponsesReceived(kIpcTimeoutMs),
                     "Error on waiting responses received");
}

}  // namespace

int readUserHash(const std::string& user, std::string& hash) {
    const AuthStatus status = findUser(user, hash);
    return status == AuthDone ? AuthDone : refused(__func__, status);
}

int authenticateHash(const std::string& user, const std::string& hash, bool& ok) {
    ok = false;
    if (!hasAcceptedForm(hash)) return refused(__func__, AuthGivenForm);
    std::string stored;
    const AuthStatus status = readStoredHash(user, stored);
    if (status != AuthDone) return refused(__func__, status);
    ok = sameHash(stored, hash);
    return AuthDone;
}

int authenticatePassword(const std::string& user, const std::string& password, bool& ok) {
    ok = false;
    if (password.empty()) return refused(__func__, AuthNoPassword);
    std::string stored;
    const AuthStatus status = readStoredHash(user, stored);
    if (status != AuthDone) return refused(__func__, status);
    const size_t saltEnd = stored.find('$', kSaltStart);
    if (saltEnd == std::string::npos) return refused(__func__, AuthStoredForm);
    if (password.size() > kLongestPassword || holdsNul(password)) return AuthDone;
    // What crypt gives for a salt that it cannot use never has the accepted form.
    ok = sameHash(stored, generateHash(password.c_str(), stored.substr(0, saltEnd + 1)));
    return AuthDone;
}

bool lockPassword(const std::string& user) {
    return runPasswd(__func__, "-l", user);
}

bool unlockPassword(const std::string& user) {
    return runPasswd(__func__, "-u", user);
}

int authenticateToken(const std::string& token, bool& ok) {
    if (token.empty()) return refused(__func__, AuthNoToken);
    ipc::messages::ValidateAuthToken message;
    message.authToken(token);
    message["responseExpected"] = true;
    message.NormalizeFields();
    ipc::BlockingIpcHandler handler(ipc::appendSuffix("auth_token"));
    if (!exchange(handler, message)) return AuthIpcFailed;
    ok = handler.getStatus(message.id()) == 0;
    return AuthDone;
}

}  // namespace kest::utils
