#include "ipc_transport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "log.h"
#include "uninterrupted.h"
#include "unique_fd.h"

namespace kest::ipc::detail {
namespace {

using utils::detail::UniqueFd;
using variant::Variant;

constexpr char kDefaultFolder[] = "/run/kest";
// How long an object that goes waits until what was sent has reached the other side's socket.
constexpr int kLingerMs = 1000;
// Messages that libzmq holds for a reader who does not come, per connection; what it holds for a
// writer must have room for the answers to all requests that one asker may have open.
constexpr int kMaxUnread = 64;
constexpr int kMaxUnsent = 2048;
// More than libzmq opens for a context and its first socket.
constexpr size_t kNeededDescriptors = 10;

// libzmq ends the process when it cannot open what its threads need.
bool descriptorsLeft() {
    std::array<UniqueFd, kNeededDescriptors> probes;
    const UniqueFd first(open("/", O_RDONLY | O_CLOEXEC));
    if (!first.valid()) return false;
    for (UniqueFd& probe : probes) {
        probe.reset(fcntl(first.get(), F_DUPFD_CLOEXEC, 0));
        if (!probe.valid()) return false;
    }
    return true;
}

const char* checkFolder(const std::string& folder) {
    // The last component must not be a link, which others may have put there.
    const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (!fd.valid() || fstat(fd.get(), &status) != 0) return "cannot be opened";
    errno = EPERM;
    if (status.st_uid != geteuid()) return "belongs to another user";
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) return "is open to other users";
    return nullptr;
}

}  // namespace

int findFolder(std::string& folder) {
    const char* const configured = getenv("KEST_IPC_DIR");
    folder = configured == nullptr ? kDefaultFolder : configured;
    // "link/" would be followed where "link" is not.
    folder.erase(folder.find_last_not_of('/') + 1);
    const char* problem = nullptr;
    if (folder.empty() || folder[0] != '/') {
        errno = EINVAL;
        problem = "is no absolute path";
    } else if (mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        problem = "cannot be made";
    } else {
        problem = checkFolder(folder);
    }
    if (problem == nullptr) return 0;
    const int failure = errno;
    KEST_LOG(KEST_ERROR, failure, "IPC folder \"%s\" %s", folder.c_str(), problem);
    return failure;
}

bool isEndpointName(const std::string& name) {
    const auto allowed = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '_' || c == '-' || c == ':';
    };
    return !name.empty() && name[0] != '.' && std::all_of(name.begin(), name.end(), allowed);
}

int socketPath(const std::string& folder, const std::string& name, std::string& path) {
    if (!isEndpointName(name)) return EINVAL;
    path = folder + "/" + name;
    return path.size() < sizeof(sockaddr_un::sun_path) ? 0 : ENAMETOOLONG;
}

long long nowMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

bool Socket::send(std::initializer_list<std::string_view> parts) const {
    size_t left = parts.size();
    for (const std::string_view part : parts) {
        const int more = --left > 0 ? ZMQ_SNDMORE : 0;
        const auto sendPart = [&] {
            return zmq_send(socket_, part.data(), part.size(), ZMQ_DONTWAIT | more);
        };
        if (utils::detail::uninterrupted(sendPart) == -1) return false;
    }
    return true;
}

Context::~Context() {
    if (!running()) return;
    utils::detail::uninterrupted([this] { return zmq_ctx_term(context_); });
}

int Context::start() {
    context_ = zmq_ctx_new();
    owner_ = getpid();
    return context_ == nullptr ? errno : 0;
}

bool Context::running() const {
    return context_ != nullptr && owner_ == getpid();
}

int Context::open(int type, Socket& socket) const {
    if (!descriptorsLeft()) return EMFILE;
    Socket opened(zmq_socket(context_, type));
    if (opened.get() == nullptr) return errno;
    const int64_t largest = kTransportLimit;
    const int one = 1;
    const auto set = [&opened](int option, const auto& value) {
        return zmq_setsockopt(opened.get(), option, &value, sizeof(value)) == 0;
    };
    // Immediate: what nobody takes stays with us instead of in a queue that we cannot ask.
    if (!set(ZMQ_LINGER, kLingerMs) || !set(ZMQ_MAXMSGSIZE, largest) || !set(ZMQ_IMMEDIATE, one) ||
        !set(ZMQ_RCVHWM, kMaxUnread) || !set(ZMQ_SNDHWM, kMaxUnsent)) {
        return errno;
    }
    socket = std::move(opened);
    return 0;
}

int receive(const Socket& socket, Frame* frames, size_t count, int waitMs) {
    int flags = ZMQ_DONTWAIT;
    if (waitMs > 0) {
        if (zmq_setsockopt(socket.get(), ZMQ_RCVTIMEO, &waitMs, sizeof(waitMs)) != 0) return errno;
        flags = 0;
    }
    Frame surplus;
    size_t received = 0;
    for (bool more = true; more; ++received) {
        zmq_msg_t* const part = (received < count ? frames[received] : surplus).get();
        while (zmq_msg_recv(part, socket.get(), flags) == -1) {
            if (errno != EINTR || flags == 0) return errno;
        }
        more = zmq_msg_more(part) != 0;
        // The parts of a message come together.
        flags = ZMQ_DONTWAIT;
    }
    return received == count ? 0 : EBADMSG;
}

const char* parseMessage(std::string_view text, Variant& message, uint64_t& id) {
    if (text.size() > kMaxMessage) return "is too large";
    if (!Variant::FromJson(text, message)) return "is not JSON";
    const Variant* const found = message.Find("id");
    if (found == nullptr || !found->IsInteger()) return "has no id";
    id = *found;
    return nullptr;
}

}  // namespace kest::ipc::detail
