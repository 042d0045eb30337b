#include <kest/utils/timer.h>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "unique_fd.h"

namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;

}  // namespace

timespec moment() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

int64_t momentsDiffMs(timespec const& from, timespec const& to) {
    const int64_t seconds = static_cast<int64_t>(to.tv_sec) - static_cast<int64_t>(from.tv_sec);
    const auto nanoseconds = static_cast<int32_t>(to.tv_nsec - from.tv_nsec);
    return static_cast<int64_t>(static_cast<double>(seconds * kMsPerSecond) +
                                static_cast<double>(nanoseconds) / 1000000.0);
}

int64_t nowMs() {
    const timespec now = moment();
    return now.tv_sec * kMsPerSecond + now.tv_nsec / 1000000;
}

int64_t nowUs() {
    const timespec now = moment();
    return now.tv_sec * kUsPerSecond + now.tv_nsec / 1000;
}

int64_t nowNs() {
    const timespec now = moment();
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

int64_t nowWallMs() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now.tv_sec * kMsPerSecond + now.tv_usec / 1000;
}

int sleepMs(unsigned int ms) {
    return usleep(1000 * ms);
}

int sleepNs(unsigned int n) {
    return usleep(n);
}

std::string timeToString(int seconds) {
    char text[48];
    snprintf(text, sizeof(text), "%02d:%02d:%02d", seconds / 3600, (seconds / 60) % 60,
             seconds % 60);
    return text;
}

namespace kest::utils {
namespace {

constexpr size_t kResolverBufferSize = 4096;
constexpr int kConnectRetransmissions = 2;

// First IPv4 address of the host. On failure `error` holds the resolver's code, on success it is
// left alone, although the resolver's own output is not.
bool resolveFirst(char const* host, in_addr& address, int& error) {
    hostent entry = {};
    hostent* found = nullptr;
    char buffer[kResolverBufferSize];
    int code = HOST_NOT_FOUND;
    // A look-up may succeed and still name no host.
    if (host == nullptr || host[0] == '\0' ||
        gethostbyname_r(host, &entry, buffer, sizeof(buffer), &found, &code) != 0 ||
        found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
        error = code == NETDB_SUCCESS ? HOST_NOT_FOUND : code;
        return false;
    }
    memcpy(&address, found->h_addr_list[0], sizeof(address));
    return true;
}

}  // namespace

bool hostReachable(char const* host, unsigned short port, int& error) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (!resolveFirst(host, address.sin_addr, error)) return false;

    const detail::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid() ||
        setsockopt(fd.get(), IPPROTO_TCP, TCP_SYNCNT, &kConnectRetransmissions,
                   sizeof(kConnectRetransmissions)) != 0 ||
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        error = errno;
        return false;
    }
    return true;
}

bool hostReachable(std::string const& host, unsigned short port, int& error) {
    return hostReachable(host.c_str(), port, error);
}

}  // namespace kest::utils
