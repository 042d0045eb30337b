// TCP connections on a loopback port, each of which gets back what it sends.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include <kest/utils/iobuffer.h>
#include <kest/utils/scheduler.h>

#include "descriptor.h"

class TcpEcho {
  public:
    // Called after the connection with this number has closed, with the bytes that it was sent.
    using OnClosed = std::function<void(unsigned number, unsigned long long echoed)>;
    using OnConnected = std::function<void(unsigned number)>;

    TcpEcho(kest::utils::Scheduler& scheduler, OnConnected onConnected, OnClosed onClosed);
    ~TcpEcho();
    TcpEcho(const TcpEcho&) = delete;
    TcpEcho& operator=(const TcpEcho&) = delete;

    bool start(unsigned short port);
    unsigned short port() const;

  private:
    struct Connection {
        Descriptor fd;
        kest::utils::IOBuffer buffer{"echo"};
        unsigned long long ioTask = 0;
        unsigned long long echoed = 0;
        bool inputEnded = false;
    };

    void accept();
    void serve(unsigned number, int events);
    bool transfer(Connection& connection, uint32_t events);
    void close(unsigned number);

    kest::utils::Scheduler& scheduler_;
    const OnConnected onConnected_;
    const OnClosed onClosed_;
    Descriptor listener_;
    unsigned long long ioTask_ = 0;
    unsigned lastNumber_ = 0;
    std::map<unsigned, std::unique_ptr<Connection>> connections_;
};
