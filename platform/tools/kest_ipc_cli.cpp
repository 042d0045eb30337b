// Sends one request to a daemon, for shell scripts and for programs that must not block;
// docs/ipc.md.
#include <fcntl.h>
#include <kest/ipc/BlockingIpcHandler.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using kest::ipc::BlockingIpcHandler;
using kest::variant::JsonStyle;
using kest::variant::Variant;
using kest::variant::VariantType;
using Clock = std::chrono::steady_clock;

constexpr int kFailed = 1;
constexpr int kBadUse = 2;
constexpr size_t kLongestShown = 32;

struct Options {
    std::string destination;
    int timeoutMs = -1;
    Variant message;
    bool quiet = false;
    bool awaitAnswer = true;
};

bool parseTimeout(const std::string& text, int& milliseconds) {
    if (text.empty() || text.size() > 9) return false;
    if (text.find_first_not_of("0123456789") != std::string::npos) return false;
    milliseconds = atoi(text.c_str());
    return true;
}

// One of "-z", "-T=...", "-t=...", "-m=..." and "-r=...".
bool parseOption(std::string_view argument, Options& options) {
    if (argument == "-z") return options.quiet = true;
    if (argument.size() < 3 || argument[0] != '-' || argument[2] != '=') return false;
    const std::string value(argument.substr(3));
    switch (argument[1]) {
        case 'T':
            options.destination = value;
            return !value.empty();
        case 't':
            return parseTimeout(value, options.timeoutMs);
        case 'm':
            return Variant::FromJson(value, options.message) &&
                   options.message == VariantType::Object;
        case 'r':
            options.awaitAnswer = value == "1";
            return value == "0" || value == "1";
        default:
            return false;
    }
}

// Prints what is wrong.
bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        if (!parseOption(argv[i], options)) {
            // Without its value: that may be a message with a secret in it.
            const size_t length = std::min<size_t>(strcspn(argv[i], "="), kLongestShown);
            fprintf(stderr, "kest_ipc_cli: bad option: %.*s\n", static_cast<int>(length), argv[i]);
            return false;
        }
    }
    if (!options.destination.empty() && options.timeoutMs >= 0 &&
        options.message == VariantType::Object) {
        return true;
    }
    fputs("usage: kest_ipc_cli [-z] -T=DEST -t=MS -m=JSON [-r=0 or 1]\n", stderr);
    return false;
}

// @return 0 or an errno value.
int ask(BlockingIpcHandler& handler, const Options& options, int& status, Variant& response) {
    const auto end = Clock::now() + std::chrono::milliseconds(options.timeoutMs);
    const auto left = [end] {
        const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        return std::max(static_cast<int>(rest.count()), 0);
    };
    int failure = handler.init();
    if (failure == 0) failure = handler.sendRequest(options.destination, options.message);
    if (failure == 0) failure = handler.waitAllRequestsSent(left());
    if (failure == 0) failure = handler.waitAllResponsesReceived(left());
    if (failure != 0) return failure;
    const uint64_t id = options.message["id"];
    status = handler.getStatus(id);
    response = handler.getResponse(id);
    return 0;
}

// Otherwise a socket might become standard error, and a log line go there.
void fillStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = open("/dev/null", O_RDWR);
    if (fd >= 0) close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    Options options;
    if (!parse(argc, argv, options)) return kBadUse;
    Variant& message = options.message;
    if (message.Find("id") == nullptr) message["id"] = static_cast<unsigned>(getpid());
    message["responseExpected"] = options.awaitAnswer;

    int status = 0;
    Variant response;
    BlockingIpcHandler handler(kest::ipc::appendSuffix("kest_ipc_cli"));
    const int failure = ask(handler, options, status, response);
    if (failure != 0) {
        fprintf(stderr, "kest_ipc_cli: %s: %s\n", options.destination.c_str(), strerror(failure));
        return kFailed;
    }
    if (!options.quiet && options.awaitAnswer) {
        printf("%d %s\n", status, response.ToJson(JsonStyle::Plain).c_str());
    }
    return 0;
}
