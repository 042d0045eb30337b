// What both sides of the IPC have in common: where sockets are, owners of ZeroMQ's objects, frames.
#pragma once

#include <sys/types.h>
#include <unistd.h>
#include <zmq.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include <kest/variant/variant.h>

namespace kest::ipc::detail {

constexpr size_t kMaxMessage = variant::JsonLimits().bytes;
// Above this libzmq cuts the connection before it takes the message in. Higher than the former, so
// that what is merely too large can be logged.
constexpr int kTransportLimit = 4 * int{kMaxMessage};

// Finds the folder of the sockets, makes it if it is missing and checks that nobody else can put a
// socket there; logs what is wrong with it.
// @return 0 or an errno value.
int findFolder(std::string& folder);

// Whether the name can be a file in the folder.
bool isEndpointName(const std::string& name);

// The path of an endpoint's socket.
// @return 0, EINVAL, or ENAMETOOLONG when it does not fit into a socket address.
int socketPath(const std::string& folder, const std::string& name, std::string& path);

// Milliseconds of CLOCK_MONOTONIC.
long long nowMs();

// Owner of a ZeroMQ socket; a copy of it in a child made by fork owns nothing.
class Socket {
  public:
    Socket() = default;
    explicit Socket(void* socket) : socket_(socket), owner_(getpid()) {}
    Socket(Socket&& other) noexcept
        : socket_(std::exchange(other.socket_, nullptr)), owner_(other.owner_) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(socket_, other.socket_);
        std::swap(owner_, other.owner_);
        return *this;
    }
    ~Socket() {
        if (socket_ != nullptr && owner_ == getpid()) zmq_close(socket_);
    }

    void* get() const { return socket_; }

    // Sends all parts or none, without waiting. False with errno.
    bool send(std::initializer_list<std::string_view> parts) const;

  private:
    void* socket_ = nullptr;
    pid_t owner_ = 0;
};

// Owner of a ZeroMQ context with its threads. They exist in the process that made them only: in a
// child, ending the context would wait for them for ever.
class Context {
  public:
    Context() = default;
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    // @return 0 or an errno value.
    int start();

    // Whether it has been started, by this process.
    bool running() const;

    // A socket with the options that all of ours have.
    // @return 0 or an errno value.
    int open(int type, Socket& socket) const;

  private:
    void* context_ = nullptr;
    pid_t owner_ = 0;
};

// One part of a message.
class Frame {
  public:
    Frame() { zmq_msg_init(&message_); }
    ~Frame() { zmq_msg_close(&message_); }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    zmq_msg_t* get() { return &message_; }
    std::string_view text() {
        return {static_cast<const char*>(zmq_msg_data(&message_)), zmq_msg_size(&message_)};
    }

  private:
    zmq_msg_t message_;
};

// Takes one message of exactly `count` parts; waits for it up to `waitMs` milliseconds. One with
// fewer or more parts is taken and dropped.
// @return 0; EBADMSG for a message that was dropped; EAGAIN when there is none, EINTR when a signal
//         came while waiting; another errno value.
int receive(const Socket& socket, Frame* frames, size_t count, int waitMs = 0);

// Reads an object with an integer "id".
// @return what is wrong with the text, or null pointer.
const char* parseMessage(std::string_view text, variant::Variant& message, uint64_t& id);

}  // namespace kest::ipc::detail
