#include "tcp_echo.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include <kest/utils/lowlevelsocket.h>

#include "loopback.h"

namespace {

constexpr unsigned kReadSize = 16384;
// With so much unsent, a connection is not read until its peer has taken some.
constexpr unsigned kMostUnsent = 65536;
constexpr size_t kMostConnections = 64;

}  // namespace

TcpEcho::TcpEcho(kest::utils::Scheduler& scheduler, OnConnected onConnected, OnClosed onClosed)
    : scheduler_(scheduler), onConnected_(std::move(onConnected)), onClosed_(std::move(onClosed)) {}

TcpEcho::~TcpEcho() {
    for (const auto& entry : connections_)
        scheduler_.RemoveIOTask(entry.second->ioTask);
    if (ioTask_ != 0) scheduler_.RemoveIOTask(ioTask_);
}

bool TcpEcho::start(unsigned short port) {
    listener_ = bindLoopback(SOCK_STREAM, port);
    if (!listener_.valid() || !kest::utils::SetFdNonBlock(listener_.get()) ||
        ::listen(listener_.get(), SOMAXCONN) != 0) {
        return false;
    }
    ioTask_ = scheduler_.AddIOTask(
        listener_.get(), EPOLLIN,
        [this](int, int, void*) {
            accept();
            return true;
        },
        nullptr);
    return ioTask_ != 0;
}

unsigned short TcpEcho::port() const {
    return boundPort(listener_.get());
}

void TcpEcho::accept() {
    auto connection = std::make_unique<Connection>();
    connection->fd =
        Descriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!connection->fd.valid() || connections_.size() >= kMostConnections) return;
    kest::utils::SetFdLowDelay(connection->fd.get());

    const unsigned number = ++lastNumber_;
    connection->ioTask = scheduler_.AddIOTask(
        connection->fd.get(), EPOLLIN,
        [this, number](int, int events, void*) {
            serve(number, events);
            return true;
        },
        nullptr);
    if (connection->ioTask == 0) return;
    connections_.emplace(number, std::move(connection));
    onConnected_(number);
}

void TcpEcho::serve(unsigned number, int events) {
    Connection& connection = *connections_.at(number);
    if (!transfer(connection, static_cast<uint32_t>(events))) {
        close(number);
        return;
    }
    const unsigned unsent = connection.buffer.Available();
    if (connection.inputEnded && unsent == 0) {
        close(number);
        return;
    }
    int mode = 0;
    if (unsent > 0) mode |= EPOLLOUT;
    if (!connection.inputEnded && unsent < kMostUnsent) mode |= EPOLLIN;
    scheduler_.ChangeIOTaskMode(connection.ioTask, mode);
}

bool TcpEcho::transfer(Connection& connection, uint32_t events) {
    const int fd = connection.fd.get();
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !connection.inputEnded) {
        int got = 0;
        if (!connection.buffer.ReadFromTCPFd(fd, kReadSize, got)) return false;
        connection.inputEnded = got == 0 && errno == 0;
        if (got == 0 && (events & EPOLLERR) != 0) return false;
    }
    int written = 0;
    if (!connection.buffer.WriteToFd(fd, connection.buffer.Available(), written)) return false;
    connection.echoed += static_cast<unsigned long long>(written);
    return true;
}

void TcpEcho::close(unsigned number) {
    const auto entry = connections_.find(number);
    const unsigned long long echoed = entry->second->echoed;
    scheduler_.RemoveIOTask(entry->second->ioTask);
    connections_.erase(entry);
    onClosed_(number, echoed);
}
