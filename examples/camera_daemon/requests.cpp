#include "requests.h"

#include <kest/utils/auth.h>
#include <kest/utils/persistence.h>
#include <kest/utils/string_utils.h>

#include "firmware_check.h"
#include "tool_runner.h"

namespace {

const std::string kRun = "run ";
const std::string kToken = "token ";
// Long enough for the answer to get back to the controller.
constexpr int kRebootDelayMs = 500;

std::string checkToken(const std::string& token) {
    bool valid = false;
    const int status = kest::utils::authenticateToken(token, valid);
    if (status != kest::utils::AuthDone)
        return kest::utils::format("token unknown, status %d", status);
    return valid ? "token valid" : "token not valid";
}

std::string persist() {
    return kest::utils::enqueuePersist(true) ? "persist done" : "persist failed";
}

// Without a control daemon this reboots the device by itself: see persistence.h.
std::string reboot() {
    return kest::utils::enqueueReboot(kRebootDelayMs) ? "reboot on its way" : "reboot failed";
}

std::string refuse() {
    return "not allowed, see --control";
}

}  // namespace

bool asksForTool(const std::string& text) {
    return kest::utils::startsWith(text, kRun);
}

std::function<std::string()> workFor(const std::string& text, const RequestSettings& settings) {
    if (asksForTool(text)) return [command = text.substr(kRun.size())] { return runTool(command); };
    if (kest::utils::startsWith(text, kToken))
        return [token = text.substr(kToken.size())] { return checkToken(token); };
    if (text == "firmware") return [file = settings.firmwareFile] { return checkFirmware(file); };
    if (text == "persist") return settings.control ? persist : refuse;
    if (text == "reboot") return settings.control ? reboot : refuse;
    return nullptr;
}

std::string printable(const std::string& text) {
    return kest::utils::startsWith(text, kToken) ? kToken + "..." : text;
}
