#include <kest/utils/lowlevelsocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <limits>

#include "log.h"

namespace kest::utils {
namespace {

std::atomic<bool> sigpipeIgnored{false};

bool setOption(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof(value)) == 0;
}

bool setTimeout(int fd, int option, unsigned int seconds, unsigned int microseconds) {
    // Where time_t has 32 bits, a greater value would turn negative, which the kernel takes for
    // "do not wait at all".
    constexpr auto kMaxSeconds = static_cast<uint64_t>(std::numeric_limits<time_t>::max());
    timeval time = {};
    time.tv_sec = static_cast<time_t>(std::min<uint64_t>(seconds, kMaxSeconds));
    time.tv_usec = static_cast<suseconds_t>(microseconds);
    return setsockopt(fd, SOL_SOCKET, option, &time, sizeof(time)) == 0;
}

bool setNonBlocking(int fd, bool nonBlocking, const char* function) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        KEST_LOG_AS(function, KEST_ERROR, errno, "Unable to get socket flags");
        return false;
    }
    const int wanted = nonBlocking ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (fcntl(fd, F_SETFL, wanted) == -1) {
        KEST_LOG_AS(function, KEST_ERROR, errno, "Unable to set socket flags");
        return false;
    }
    return true;
}

bool setExpedited(int fd) {
    return SetFdTos(fd, TosExpeditedForwarding);
}

struct Option {
    unsigned int bit;
    bool (*set)(int fd);
};

constexpr Option kOptions[] = {
    {FdNonBlock, SetFdNonBlock}, {FdBlock, SetFdBlock},         {FdReuseIpPort, SetFdReuseIpPort},
    {FdLowDelay, SetFdLowDelay}, {FdNoSIGPIPE, SetFdNoSIGPIPE}, {FdCloseOnExec, SetFdCloseOnExec},
    {FdTcpCork, SetFdTcpCork},   {FdTos, setExpedited},
};

}  // namespace

bool SetFdNonBlock(int fd) {
    return setNonBlocking(fd, true, __func__);
}

bool SetFdBlock(int fd) {
    return setNonBlocking(fd, false, __func__);
}

bool SetFdReuseIpPort(int fd) {
    if (setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to reuse address");
    return false;
}

bool SetFdLowDelay(int fd) {
    if (setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to set TCP_NODELAY");
    return false;
}

bool SetFdNoSIGPIPE(int /*fd*/) {
    if (sigpipeIgnored.load()) return true;
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        KEST_LOG(KEST_ERROR, 0, "Unable to ignore SIGPIPE signal");
        return false;
    }
    // Set last: who sees the flag may write at once.
    sigpipeIgnored.store(true);
    return true;
}

bool SetFdCloseOnExec(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags != -1 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != -1) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to set FD_CLOEXEC");
    return false;
}

bool SetFdTcpCork(int fd) {
    if (setOption(fd, IPPROTO_TCP, TCP_CORK, 1)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to set TCP_CORK");
    return false;
}

bool SetFdTos(int fd, unsigned char tos) {
    int applied = 0;
    socklen_t length = sizeof(applied);
    if (!setOption(fd, IPPROTO_IP, IP_TOS, tos) ||
        getsockopt(fd, IPPROTO_IP, IP_TOS, &applied, &length) != 0) {
        KEST_LOG(KEST_ERROR, errno, "Unable to set/get IP_TOS");
        return false;
    }
    if (applied != tos) {
        KEST_LOG(KEST_WARNING, 0, "TOS mismatch. Wanted value: %u; Applied value: %d",
                 static_cast<unsigned int>(tos), applied);
    }
    return true;
}

bool SetSendTimeout(int fd, unsigned int seconds, unsigned int microseconds) {
    if (setTimeout(fd, SO_SNDTIMEO, seconds, microseconds)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to set SO_SNDTIMEO");
    return false;
}

bool SetRecvTimeout(int fd, unsigned int seconds, unsigned int microseconds) {
    if (setTimeout(fd, SO_RCVTIMEO, seconds, microseconds)) return true;
    KEST_LOG(KEST_ERROR, errno, "Unable to set SO_RCVTIMEO");
    return false;
}

bool SetFdOptions(int fd, unsigned int flags) {
    return std::all_of(std::begin(kOptions), std::end(kOptions), [&](const Option& option) {
        return (flags & option.bit) == 0 || option.set(fd);
    });
}

}  // namespace kest::utils
