#include <kest/utils/terminate.h>

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <tuple>

#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "log.h"
#include "sleep_until.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

constexpr int kMaxAnnounceSeconds = 10;

// sleep() alone would be cut short by a signal handler, and its rest in whole seconds would never
// run down when signals come several times a second.
void sleepWholly(int seconds) {
    const int64_t end = nowMs() + int64_t{1000} * seconds;
    if (sleep(static_cast<unsigned int>(seconds)) == 0) return;
    detail::sleepUntil(end);
}

void announceRepeatedly(int fd, sockaddr_in& address, int total, int intervalSecs, bool reboot,
                        int reasonCode, const char* description) {
    const int interval = intervalSecs >= 1 && intervalSecs <= total ? intervalSecs : total;
    int elapsed = 0;
    do {
        announce(fd, address, reboot, reasonCode, description);
        const int remaining = total - elapsed;
        if (remaining < 1) break;
        const int step = std::min(remaining, interval);
        elapsed += step;
        sleepWholly(step);
    } while (elapsed < total);
}

bool saveAndReboot() {
    // With SIGCHLD ignored, or a handler that reaps every child, system() could not tell how the
    // command ended.
    signal(SIGCHLD, SIG_DFL);
    // A configuration that cannot be saved must not keep the device from rebooting.
    std::ignore = system("nvsave -p /etc/ -m -w");
    return system("reboot") == 0;
}

}  // namespace

void openUdp(int& fd, sockaddr_in& address, const char* ip, unsigned short port) {
    fd = -1;
    if (ip == nullptr || port == 0) return;
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = inet_addr(ip);
    if (address.sin_addr.s_addr == INADDR_NONE) return;

    fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd == -1) return;
    const int allowed = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &allowed, sizeof(allowed));
}

void announce(int fd, sockaddr_in& address, bool reboot, int reasonCode, const char* description) {
    const std::string text =
        format("Announce %s. reason code: %08x; reason description: %s\n",
               reboot ? "reboot" : "app restart", static_cast<unsigned int>(reasonCode),
               description != nullptr ? description : "");
    KEST_LOG(KEST_INFO, 0, "%s", text.c_str());
    if (fd < 0) return;
    // A full send buffer must not keep a process from ending.
    sendto(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

void announceTerminate(const char* ip, unsigned short port, int durationSecs, int intervalSecs,
                       int exitStatus, const char* description, bool reboot) {
    {
        int fd = -1;
        sockaddr_in address = {};
        openUdp(fd, address, ip, port);
        const detail::UniqueFd owner(fd);
        announceRepeatedly(fd, address, std::min(durationSecs, kMaxAnnounceSeconds), intervalSecs,
                           reboot, exitStatus, description);
    }
    if (reboot && !saveAndReboot()) abort();
    exit(exitStatus);
}

}  // namespace kest::utils
