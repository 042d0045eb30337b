#include <kest/utils/persistence.h>

#include <sys/reboot.h>

#include <string>

#include <kest/utils/exec.h>
#include <kest/utils/timer.h>

#include "log.h"
#include "sleep_until.h"

namespace kest::utils {
namespace {

constexpr char kClient[] = "/bin/kest_ipc_cli";
constexpr char kDestination[] = "-T=kest_ctlserver";
constexpr char kReplyTimeout[] = "-t=20000";

}  // namespace

bool enqueuePersist(bool sync) {
    KEST_LOG(KEST_INFO, 0, "Enqueued persist");
    const char* const message = sync ? R"(-m={"functionName":"SaveToFlash","sync":true})"
                                     : R"(-m={"functionName":"SaveToFlash","sync":false})";
    return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, kClient,
                   {"-z", kDestination, kReplyTimeout, message, sync ? "-r=1" : "-r=0"}) == 0;
}

bool enqueueReboot(int delayMs) {
    const std::string message =
        "-m={\"functionName\":\"Reboot\",\"delayMs\":" + std::to_string(delayMs) + "}";
    if (sysExecSimple(kClient, "-z", kDestination, kReplyTimeout, message.c_str()) == 0) {
        return true;
    }
    detail::sleepUntil(nowMs() + delayMs);
    if (sysExecSimple("/usr/bin/reboot") == 0) return true;
    return ::reboot(RB_AUTOBOOT) != 0;
}

}  // namespace kest::utils
