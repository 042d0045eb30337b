/// @file
/// The asking side of the messages between daemons. An object belongs to one thread; appendSuffix()
/// may be called from any.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <kest/platform/api.h>
#include <kest/variant/variant.h>

namespace kest::ipc {

/// Makes an endpoint name unique: "auth_token" becomes "auth_token_1234_1" with the process id and
/// a number that counts the calls. Does not log.
KEST_PLATFORM_API std::string appendSuffix(const std::string& name);

/// Sends requests to other daemons and waits for their answers; docs/ipc.md describes what goes
/// over the wire. Made for one exchange: construct, ask, wait, look, destroy.
///
/// @code
///     kest::ipc::BlockingIpcHandler handler(kest::ipc::appendSuffix("auth_token"));
///     if (handler.init() != 0) return false;
///     if (handler.sendRequest("kest_avclient", request) != 0) return false;
///     if (handler.waitAllRequestsSent(5000) != 0) return false;
///     if (handler.waitAllResponsesReceived(5000) != 0) return false;
///     return handler.getStatus(request["id"]) == 0;
/// @endcode
///
/// The functions return 0 or an `errno` value, and log only what such a value cannot tell: a folder
/// that is not safe, and each message that is dropped. Every handler runs two threads of ZeroMQ,
/// which take no signals, from init() until its destructor returns; its descriptors are
/// close-on-exec. In a child made by `fork` a handler of the parent does nothing and fails with
/// `ENOTCONN`.
class KEST_PLATFORM_API BlockingIpcHandler {
  public:
    /// getStatus() of a request that has no answer.
    static constexpr int kUnanswered = -1;

    /// Does nothing yet.
    /// @param endpointName  tells the answering side who asks ("from"); letters, digits and "._-:",
    ///                      without a dot in front.
    explicit BlockingIpcHandler(std::string endpointName);

    /// Gives up what is not answered. What was handed over is still delivered, for which it waits
    /// up to a second if the other side does not read.
    ~BlockingIpcHandler();

    BlockingIpcHandler(const BlockingIpcHandler&) = delete;
    BlockingIpcHandler& operator=(const BlockingIpcHandler&) = delete;

    /// Checks the folder of the sockets, makes it if it is missing, and starts ZeroMQ.
    /// @return 0; `EINVAL` for a name that is not allowed; `EPERM` when the folder is not this
    /// user's
    ///         alone; `EMFILE` when there are too few descriptors; the value of a failed system
    ///         call.
    int init();

    /// Queues a request; the waiting functions send it.
    ///
    /// An empty "from" or "to" is filled in on the way. An answer is awaited when
    /// "responseExpected" is true. When "queueIfDestUnavailable" is false, the call fails unless
    /// somebody listens at the destination now; otherwise the request waits for the destination to
    /// come.
    /// @param dest     endpoint name of the daemon to ask.
    /// @param message  an object with an integer "id" that no request still waiting for its answer
    ///                 has; at most 1 MiB as JSON.
    /// @return 0; `EINVAL` when name or message are not like that, `EMSGSIZE` when it is too long,
    ///         `EEXIST` when the id is in use, `ENOBUFS` when 1024 requests are open,
    ///         `ECONNREFUSED` or `ENOENT` when nobody listens, `EMFILE`, `ENOTCONN` before init().
    int sendRequest(const std::string& dest, const variant::Variant& message);

    /// Waits until every request has been handed over to a connection with its destination.
    /// @param ms  milliseconds at most; 0 or less looks without waiting.
    /// @return 0; `ETIMEDOUT`, after which it may be called again; `ENOTCONN`.
    int waitAllRequestsSent(int ms);

    /// Waits until every awaited answer is here. What is no answer, or not one to a request of this
    /// handler to that destination, is dropped with one log line.
    /// @return as waitAllRequestsSent().
    int waitAllResponsesReceived(int ms);

    /// The status that the other daemon answered with; kUnanswered while there is none, also for
    /// ids that are unknown. The last 1024 requests are remembered.
    int getStatus(uint64_t id) const;

    /// What the other daemon answered besides the status; null while there is no answer. Valid
    /// until the next call of a function that is not const.
    const variant::Variant& getResponse(uint64_t id) const;

  private:
    class KEST_PLATFORM_LOCAL Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kest::ipc
