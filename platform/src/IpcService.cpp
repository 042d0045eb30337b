#include <kest/ipc/IpcService.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "ipc_transport.h"
#include "log.h"
#include "raised.h"
#include "unique_fd.h"

namespace kest::ipc {
namespace {

using utils::detail::UniqueFd;
using variant::Variant;
using variant::VariantType;

// Requests answered in one go: whoever floods the endpoint must not keep the daemon from the rest
// of its work.
constexpr int kMaxBatch = 64;

// The right to an endpoint's name in the folder, held by a lock that goes with the process. Without
// it libzmq takes a name away from the service that has it, and leaves the socket's file behind.
class NameLock {
  public:
    NameLock() = default;
    ~NameLock() {
        if (!file_.valid() || owner_ != getpid()) return;
        unlink(socketPath_.c_str());
        unlink(path_.c_str());
    }
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;

    // @return 0 or an errno value.
    int take(const std::string& path, const std::string& socketPath) {
        UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!file.valid()) return errno;
        struct stat status = {};
        if (flock(file.get(), LOCK_EX | LOCK_NB) != 0 || fstat(file.get(), &status) != 0) {
            return errno == EWOULDBLOCK ? EADDRINUSE : errno;
        }
        // Its owner removed it between our two steps: the next one makes a new file.
        if (status.st_nlink == 0) return EADDRINUSE;
        path_ = path;
        socketPath_ = socketPath;
        owner_ = getpid();
        file_ = std::move(file);
        return 0;
    }

  private:
    std::string path_;
    std::string socketPath_;
    pid_t owner_ = 0;
    UniqueFd file_;
};

bool isTrue(const Variant& value) {
    return value == VariantType::Bool && static_cast<bool>(value);
}

bool watch(const UniqueFd& epoll, int fd) {
    epoll_event event = {};
    event.events = EPOLLIN;
    return epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

// Everything that an open endpoint holds.
struct Endpoint {
    // In this order: the socket goes before its context, the name last.
    NameLock lock;
    detail::Context context;
    detail::Socket socket;
    // Readable when the descriptor has to be reported again although libzmq does not see a reason.
    UniqueFd again;
    bool reminded = false;
    UniqueFd epoll;

    int open(const std::string& name);

  private:
    int bind(const std::string& folder, const std::string& name);
    int makeDescriptor();
};

int Endpoint::open(const std::string& name) {
    std::string folder;
    int failure = detail::findFolder(folder);
    // It has logged that already.
    if (failure != 0) return failure;
    failure = bind(folder, name);
    if (failure == 0) failure = makeDescriptor();
    if (failure == 0) return 0;
    KEST_LOG_AS("init", KEST_ERROR, failure, "Unable to open IPC endpoint \"%s\"", name.c_str());
    return failure;
}

int Endpoint::bind(const std::string& folder, const std::string& name) {
    std::string path;
    int failure = detail::socketPath(folder, name, path);
    if (failure == 0) failure = lock.take(folder + "/." + name + ".lock", path);
    if (failure == 0) failure = context.start();
    if (failure == 0) failure = context.open(ZMQ_ROUTER, socket);
    if (failure != 0) return failure;
    return zmq_bind(socket.get(), ("ipc://" + path).c_str()) == 0 ? 0 : errno;
}

// libzmq's own descriptor says only that something may have changed.
int Endpoint::makeDescriptor() {
    int fd = -1;
    size_t size = sizeof(fd);
    if (zmq_getsockopt(socket.get(), ZMQ_FD, &fd, &size) != 0) return errno;
    again.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!again.valid() || !epoll.valid()) return errno;
    return watch(epoll, fd) && watch(epoll, again.get()) ? 0 : errno;
}

// Sees to it that what is left over is reported again, also when a handler throws.
class Reminder {
  public:
    explicit Reminder(Endpoint& endpoint) : endpoint_(endpoint) {
        uint64_t count = 0;
        if (endpoint_.reminded) (void)!read(endpoint_.again.get(), &count, sizeof(count));
        endpoint_.reminded = false;
    }
    ~Reminder() {
        const uint64_t one = 1;
        if (!done_) endpoint_.reminded = write(endpoint_.again.get(), &one, sizeof(one)) > 0;
    }
    Reminder(const Reminder&) = delete;
    Reminder& operator=(const Reminder&) = delete;

    void nothingLeft() { done_ = true; }

  private:
    Endpoint& endpoint_;
    bool done_ = false;
};

}  // namespace

class IpcService::Impl {
  public:
    explicit Impl(std::string name) : name_(std::move(name)) {}

    int init();
    int fd() const { return endpoint_ == nullptr ? -1 : endpoint_->epoll.get(); }
    void onRequest(Handler handler) { handler_ = std::make_shared<Handler>(std::move(handler)); }
    bool service();

  private:
    int serveBatch();
    const char* serve(std::string_view asker, std::string_view text);
    int handle(Variant& request, Variant& response);
    void answer(std::string_view asker, Variant id, int status, Variant response);

    const std::string name_;
    std::shared_ptr<Handler> handler_;
    std::unique_ptr<Endpoint> endpoint_;
    bool serving_ = false;
};

int IpcService::Impl::init() {
    if (endpoint_ != nullptr) return endpoint_->context.running() ? 0 : ENOTCONN;
    auto opened = std::make_unique<Endpoint>();
    const int failure = opened->open(name_);
    if (failure == 0) endpoint_ = std::move(opened);
    return failure;
}

int IpcService::Impl::handle(Variant& request, Variant& response) {
    // A handler may put another one in its place.
    const std::shared_ptr<Handler> handler = handler_;
    if (handler == nullptr || !*handler) return ENOSYS;
    const utils::detail::Raised serving(serving_);
    return (*handler)(request, response);
}

void IpcService::Impl::answer(std::string_view asker, Variant id, int status, Variant response) {
    Variant message;
    message["id"] = std::move(id);
    message["status"] = status;
    message["response"] = std::move(response);
    std::string text = message.ToJson();
    if (text.size() > detail::kMaxMessage) {
        KEST_LOG_AS("service", KEST_WARNING, 0, "Answer of %s is too large", name_.c_str());
        message["status"] = EMSGSIZE;
        message["response"].Free();
        text = message.ToJson();
    }
    // Fails only for want of memory: an asker who has gone or does not read loses the answer.
    endpoint_->socket.send({asker, "", text});
}

// What is wrong with a request, or null pointer.
const char* IpcService::Impl::serve(std::string_view asker, std::string_view text) {
    Variant request;
    uint64_t number = 0;
    const char* const problem = detail::parseMessage(text, request, number);
    if (problem != nullptr) return problem;
    // Before the handler, which may change the request. The id goes back in the type it came in.
    Variant id = request["id"];
    const bool expected = isTrue(request["responseExpected"]);
    Variant response;
    response.IsArray(false);
    const int status = handle(request, response);
    if (expected) answer(asker, std::move(id), status, std::move(response));
    return nullptr;
}

// @return 0, EAGAIN when nothing is left, or another errno value.
int IpcService::Impl::serveBatch() {
    for (int i = 0; i < kMaxBatch; ++i) {
        std::array<detail::Frame, 3> frames;
        const int failure = detail::receive(endpoint_->socket, frames.data(), frames.size());
        if (failure != 0 && failure != EBADMSG) return failure;
        const char* const problem =
            failure == 0 ? serve(frames[0].text(), frames[2].text()) : "is not in two parts";
        if (problem != nullptr) {
            KEST_LOG_AS("service", KEST_WARNING, 0, "Dropped message to %s: it %s", name_.c_str(),
                        problem);
        }
    }
    return 0;
}

bool IpcService::Impl::service() {
    if (serving_) return true;
    if (endpoint_ == nullptr || !endpoint_->context.running()) {
        errno = ENOTCONN;
        return false;
    }
    Reminder reminder(*endpoint_);
    const int result = serveBatch();
    if (result == 0) return true;
    reminder.nothingLeft();
    if (result == EAGAIN) return true;
    KEST_LOG(KEST_ERROR, result, "Unable to receive from IPC endpoint \"%s\"", name_.c_str());
    errno = result;
    return false;
}

IpcService::IpcService(std::string endpointName)
    : impl_(std::make_unique<Impl>(std::move(endpointName))) {}

IpcService::~IpcService() = default;

int IpcService::init() {
    return impl_->init();
}

int IpcService::fd() const {
    return impl_->fd();
}

void IpcService::onRequest(Handler handler) {
    impl_->onRequest(std::move(handler));
}

bool IpcService::service() {
    return impl_->service();
}

}  // namespace kest::ipc
