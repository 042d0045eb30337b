/// @file
/// The answering side of the messages between daemons. An object belongs to one thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <kest/platform/api.h>
#include <kest/variant/variant.h>

namespace kest::ipc {

/// Answers the requests that other processes send to an endpoint name.
///
/// @code
///     kest::ipc::IpcService service("kest_avclient");
///     service.onRequest([](Variant& request, Variant& response) {
///         response["name"] = "front door";
///         return isKnown(request["authToken"]) ? 0 : EACCES;
///     });
///     if (service.init() != 0) return 1;
///     scheduler.AddIOTask(service.fd(), EPOLLIN,
///                         [&](int, int, void*) { return service.service(); }, nullptr);
/// @endcode
///
/// A service runs two threads of ZeroMQ, which take no signals, from init() until its destructor
/// returns; its descriptors are close-on-exec. In a child made by `fork` it does nothing.
///
/// Each asker costs one descriptor while connected. **A process without one left is ended by ZeroMQ
/// when somebody connects**: docs/ipc.md.
class KEST_PLATFORM_API IpcService {
  public:
    /// Gets a request and an empty response to fill in. Its result is the status that the asker's
    /// BlockingIpcHandler::getStatus() gives; 0 means success. It may call onRequest() and fd();
    /// service() inside it does nothing. It must not destroy the service. If it throws, the request
    /// stays unanswered and the exception leaves service().
    using Handler = std::function<int(variant::Variant& request, variant::Variant& response)>;

    /// Does nothing yet.
    /// @param endpointName  where requests go; letters, digits and "._-:", without a dot in front.
    explicit IpcService(std::string endpointName);

    /// Takes the endpoint's files away. Answers on their way are still delivered, for which it
    /// waits up to a second if the asker does not read.
    ~IpcService();

    IpcService(const IpcService&) = delete;
    IpcService& operator=(const IpcService&) = delete;

    /// Opens the endpoint. What a process that ended without cleaning up left behind is replaced.
    /// @return 0, or after one log line an `errno` value: `EINVAL` for a name that is not allowed,
    ///         `EPERM` when the folder is not this user's alone, `EADDRINUSE` when another service
    ///         has the name, `ENAMETOOLONG`, `EMFILE`, or the value of a failed system call.
    int init();

    /// A descriptor to poll for reading: level-triggered, so it stays readable until service() has
    /// done the work. It stays the service's own. -1 before init().
    int fd() const;

    /// Sets what answers; without it every request gets the status `ENOSYS`.
    void onRequest(Handler handler);

    /// Answers what is waiting, 64 requests at most, and never blocks. What is no request, larger
    /// than 1 MiB or not JSON, is dropped with one log line. Requests whose "responseExpected" is
    /// not true are handled and not answered.
    /// @return false, with `errno`, when the service does not run; a failing socket is logged.
    bool service();

  private:
    class KEST_PLATFORM_LOCAL Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kest::ipc
