#include <kest/ipc/messages.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include <kest/utils/file.h>
#include <kest/utils/string_utils.h>

#include "../ipc_peer/ipc_peer.h"

namespace {

constexpr char kUsage[] =
    "usage: ctlserver FILE\n"
    "\n"
    "Stands in for the control daemon: answers \"SaveToFlash\" and \"Reboot\" at kest_ctlserver "
    "until\n"
    "SIGINT or SIGTERM, and adds a line to FILE for each. It saves nothing and reboots nothing.\n";

// What was asked for, as a line; empty for what is not answered here.
std::string lineFor(kest::ipc::messages::BaseRequestMessage& request) {
    const std::string name = request.functionName();
    if (name == "SaveToFlash") {
        const bool sync = request["sync"];
        return kest::utils::format("SaveToFlash sync=%s", sync ? "true" : "false");
    }
    if (name == "Reboot") {
        const int delayMs = request["delayMs"];
        return kest::utils::format("Reboot delayMs=%d", delayMs);
    }
    return {};
}

bool record(const std::string& path, const std::string& line) {
    kest::utils::File file;
    return file.Initialize(path, kest::utils::File::Append) && file.WriteString(line + "\n") &&
           file.Flush();
}

}  // namespace

int main(int argc, char** argv) {
    const bool help = argc == 2 && strcmp(argv[1], "--help") == 0;
    if (argc != 2 || help) {
        fputs(kUsage, help ? stdout : stderr);
        return help ? 0 : 2;
    }
    const std::string path = argv[1];
    return answerUntilEnded("kest_ctlserver",
                            [&path](kest::variant::Variant& request, kest::variant::Variant&) {
                                kest::ipc::messages::BaseRequestMessage message(std::move(request));
                                const std::string line = lineFor(message);
                                if (line.empty()) return ENOSYS;
                                printf("asked: %s\n", line.c_str());
                                return record(path, line) ? 0 : EIO;
                            });
}
