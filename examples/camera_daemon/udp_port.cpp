#include "udp_port.h"

#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include <kest/utils/lowlevelsocket.h>

#include "loopback.h"

namespace {

constexpr size_t kLargestDatagram = 65507;

}  // namespace

UdpPort::UdpPort(kest::utils::Scheduler& scheduler, OnDatagram onDatagram)
    : scheduler_(scheduler), onDatagram_(std::move(onDatagram)) {}

UdpPort::~UdpPort() {
    if (ioTask_ != 0) scheduler_.RemoveIOTask(ioTask_);
}

bool UdpPort::start(unsigned short port) {
    fd_ = bindLoopback(SOCK_DGRAM, port);
    if (!fd_.valid() || !kest::utils::SetFdNonBlock(fd_.get())) return false;
    ioTask_ = scheduler_.AddIOTask(
        fd_.get(), EPOLLIN,
        [this](int, int, void*) {
            receive();
            return true;
        },
        nullptr);
    return ioTask_ != 0;
}

unsigned short UdpPort::port() const {
    return boundPort(fd_.get());
}

void UdpPort::receive() {
    int got = 0;
    sockaddr_in from = {};
    if (!buffer_.ReadFromUDPFd(fd_.get(), got, from)) return;
    const std::string text(reinterpret_cast<const char*>(buffer_.Begin()), buffer_.Available());
    buffer_.IgnoreAll();
    onDatagram_(text, from);
}

void UdpPort::send(const std::string& text, const sockaddr_in& to) const {
    // A datagram may get lost anyway: a refused one is no failure of the daemon.
    (void)::sendto(fd_.get(), text.data(), std::min(text.size(), kLargestDatagram), MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&to), sizeof(to));
}
