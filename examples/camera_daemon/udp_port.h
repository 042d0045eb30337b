// Datagrams on a loopback port.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>

#include <kest/utils/iobuffer.h>
#include <kest/utils/scheduler.h>

#include "descriptor.h"

class UdpPort {
  public:
    using OnDatagram = std::function<void(const std::string& text, const sockaddr_in& from)>;

    UdpPort(kest::utils::Scheduler& scheduler, OnDatagram onDatagram);
    ~UdpPort();
    UdpPort(const UdpPort&) = delete;
    UdpPort& operator=(const UdpPort&) = delete;

    bool start(unsigned short port);
    unsigned short port() const;

    // Sends one datagram; text beyond what a datagram holds is cut.
    void send(const std::string& text, const sockaddr_in& to) const;

  private:
    void receive();

    kest::utils::Scheduler& scheduler_;
    const OnDatagram onDatagram_;
    Descriptor fd_;
    kest::utils::IOBuffer buffer_{"datagrams"};
    unsigned long long ioTask_ = 0;
};
