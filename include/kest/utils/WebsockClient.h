/// @file
/// A websocket client (RFC 6455) that lives on a daemon's Scheduler: connects, pins the server's
/// certificate, sends from a bounded queue and hands over what arrives. Everything belongs to the
/// thread that calls Scheduler::Service(); nothing here takes a lock.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <kest/utils/api.h>

struct lws;
struct lws_ring;

namespace kest::variant {
class URI;
}

namespace kest::utils {

class Scheduler;

namespace websock {

class Session;

/// The connection that the callbacks of a WebsockClient get, and through which the daemon sends. It
/// is there from WebsockClient::connect() until the client is cancelled, moved over or destroyed:
/// a kept pointer is good that long, and sending through it after the end is refused.
class KEST_API Connection {
  public:
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Queues a copy of the bytes as one text message; they must be UTF-8. Goes out when the
    /// connection can take it, after everything queued before. Never waits.
    /// @return false, after one log line, when there is no established connection, a close was
    ///         asked for, there are no data or the queue is full: that message is lost.
    bool send(const void* data, unsigned int length);

    /// Closes with status 1000 (1001 after WebsockClient::cancel()) once the queue is empty.
    /// @return false, after one log line, when there is no established connection; true at once
    ///         when the close was asked for already.
    bool sendClose();

    /// Inside onMessage: true when the data end a message, false when there is more of it to come.
    bool isLastPart() const;

  private:
    friend class Session;

    KEST_LOCAL explicit Connection(lws** wsi);
    KEST_LOCAL ~Connection();

    KEST_LOCAL bool isUsable(const char* caller) const;
    KEST_LOCAL bool enqueue(const void* data, unsigned int length);
    KEST_LOCAL bool open(unsigned int queueLength);
    KEST_LOCAL int writeNext();
    KEST_LOCAL int writeClose();
    KEST_LOCAL void destroyQueue();

    lws** wsi_;  // the session's slot: always the current one, null after the end
    bool connected_ = false;
    bool goingAway_ = false;
    bool closing_ = false;
    lws_ring* queue_ = nullptr;
};

/// A client for one connection at a time.
///
///     WebsockClient client(&scheduler);
///     client.addPinnedCert("/etc/camera/controller.pem");
///     client.onConnect([](Connection& connection) { connection.send("hello", 5); });
///     client.onMessage([](Connection&, const unsigned char* data, unsigned int size) { ... });
///     client.onClose([&](Connection&, const std::string& reason) { client.cancel(); ... });
///     client.onError([&](Connection&, const std::string& reason) { client.cancel(); ... });
///     if (!client.connect(uri)) client.cancel();
///
/// After a connect() that gave true the daemon hears exactly once how it went, through onConnect or
/// onError, and after onConnect exactly once of the end, through onClose; but a client that is
/// destroyed or moved over says no more. A reason is the text of the peer or the library, or
/// "null".
///
/// After the end, whichever it was, cancel() makes the client ready for the next connect().
///
/// **Callbacks** may call everything here: send, close, cancel, connect again, replace callbacks,
/// move or destroy the client. They must not throw: there is C code between them and Service().
///
/// The scheduler must outlive the client, and must not be stopped or initialised anew under it.
class KEST_API WebsockClient {
  public:
    /// Forms of the callbacks. The connection stays the client's.
    using ConnectionCallback = std::function<void(Connection&)>;
    using MessageCallback =
        std::function<void(Connection&, const unsigned char* data, unsigned int length)>;
    using ReasonCallback = std::function<void(Connection&, const std::string& reason)>;

    /// @param scheduler  watches the descriptors and keeps the time-outs; with a null pointer the
    ///                   owner calls service() in a loop instead.
    explicit WebsockClient(Scheduler* scheduler);

    /// Ends a live connection at once, without a closing handshake and without a callback.
    ~WebsockClient();

    /// Takes everything along, a live connection included. What is moved from has neither settings
    /// nor connection and can be used again; what is moved to ends its own as the destructor does.
    WebsockClient(WebsockClient&& other) noexcept;
    WebsockClient& operator=(WebsockClient&& other) noexcept;

    // Settings, for the next connect(). None of them logs unless it says so.

    /// Sub-protocol asked for, or several separated by commas, up to 500 bytes; none when empty.
    void setProtocolName(const std::string& name);

    /// A further field of the handshake; names compare without regard to case, in whose order the
    /// fields are sent. The whole handshake has to fit into 4096 bytes, and neither name nor value
    /// may hold control characters: otherwise the connection fails.
    void setHeader(const std::string& name, const std::string& value);

    /// Time limit of each step of connecting: TCP, TLS, handshake. 0 or less, the default, stands
    /// for the library's own 5 seconds.
    void setTimeout(int secs);

    /// TLS, on by default. Without it nothing is known of the server, whatever is pinned.
    void setUseSsl(bool useSsl);

    /// PEM files of the client's own certificate and key; unreadable ones fail connect(). The file
    /// of authorities is only offered to the TLS library: pinning alone decides.
    void setCertFile(const std::string& path);
    void setKeyFile(const std::string& path);
    void setCaFile(const std::string& path);

    /// Adds the first certificate of a PEM file to those that the server may have. With none any
    /// certificate passes; with some only exactly one of these, whoever signed it and whatever name
    /// and dates it bears.
    /// @return false, after one log line, when the file holds none.
    bool addPinnedCert(const std::string& pemPath);

    /// Slots of the queue for outgoing messages, 1024 by default. One of them stays free, so N
    /// slots take N - 1 messages; with 0, or more than fit into 2 GiB, connections fail.
    void setQueueLength(unsigned int slots);

    // Callbacks; each replaces the one before.

    /// The handshake is done: messages may be sent.
    void onConnect(ConnectionCallback callback);
    /// A long message comes in parts of up to 4096 bytes, see Connection::isLastPart(). Text and
    /// binary messages come alike; whether a text is UTF-8 is not looked at.
    void onMessage(MessageCallback callback);
    /// The end of a connection that was established, or of an attempt; `reason` is for the log.
    void onClose(ReasonCallback callback);
    void onError(ReasonCallback callback);
    /// Kept for libraries that report pings; the one underneath answers them without a word.
    void onPing(ConnectionCallback callback);
    void onPong(ConnectionCallback callback);

    /// Starts to connect to "host", "port" and "fullDocumentPath" of the URI; a missing one is
    /// created empty. Waits for the resolution of the name, for nothing else.
    /// @return false, after one or two log lines, when a connection exists or existed and was not
    ///         cancelled since, or when the start fails; no callback comes then.
    bool connect(kest::variant::URI& uri);

    /// Without scheduler: serves what is ready, waiting for it up to `timeoutMs` milliseconds.
    /// @return false, after one log line, without a connection and when the library fails.
    bool service(int timeoutMs);

    /// Serves a descriptor with its ready epoll events, as the scheduler's callback does.
    /// @return false, after one log line, without a connection and when the library reports a
    ///         failure, as which it counts the end of the connection and often a close that begins.
    bool serviceFd(int fd, int events);

    /// Closes an established connection with status 1001 once the queue is empty; drops anything
    /// else, so that connect() may be called again. A connection that was still being established
    /// fails, and onError is called before cancel() returns.
    /// @return true.
    bool cancel();

  private:
    struct KEST_LOCAL State;

    KEST_LOCAL State& state();
    KEST_LOCAL void drop();

    Scheduler* scheduler_;
    std::unique_ptr<State> state_;
};

}  // namespace websock
}  // namespace kest::utils
