#include <kest/ipc/messages.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "../ipc_peer/ipc_peer.h"
#include "token_store.h"

namespace {

constexpr char kUsage[] =
    "usage: avclient [--add | --revoke | --help]\n"
    "\n"
    "Tells other daemons whether an access token is valid: answers \"ValidateAuthToken\" at\n"
    "kest_avclient until SIGINT or SIGTERM. The configuration store has the tokens.\n"
    "\n"
    "  --add     make the tokens on standard input valid, one a line, and end\n"
    "  --revoke  make them invalid, and end\n"
    "  --help    this text\n";

constexpr size_t kLongestToken = 512;
constexpr size_t kMostInput = 1 << 20;

// The store may keep us waiting for another who has it open: here nobody else waits meanwhile.
int onRequest(kest::variant::Variant& request, kest::variant::Variant& /*response*/) {
    kest::ipc::messages::ValidateAuthToken message(std::move(request));
    if (message.functionName() != "ValidateAuthToken") return ENOSYS;
    const std::string token = message.authToken();
    bool valid = false;
    if (token.size() <= kLongestToken && !isTokenValid(token, valid)) return EIO;
    // Who asks may be told; the token may not.
    printf("token: %s, asked by %s\n", valid ? "valid" : "not valid", message.from().c_str());
    return valid ? 0 : EACCES;
}

// From standard input: arguments of programs can be seen by everybody.
int change(bool valid) {
    std::string lines;
    char chunk[4096];
    for (size_t got = 0; (got = fread(chunk, 1, sizeof(chunk), stdin)) > 0;) {
        lines.append(chunk, got);
        if (lines.size() > kMostInput) return 1;
    }
    return setTokens(lines, valid) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) return answerUntilEnded("kest_avclient", onRequest);
    if (argc == 2 && strcmp(argv[1], "--add") == 0) return change(true);
    if (argc == 2 && strcmp(argv[1], "--revoke") == 0) return change(false);
    const bool help = argc == 2 && strcmp(argv[1], "--help") == 0;
    fputs(kUsage, help ? stdout : stderr);
    return help ? 0 : 2;
}
