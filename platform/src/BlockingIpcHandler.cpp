#include <kest/ipc/BlockingIpcHandler.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ipc_transport.h"
#include "log.h"
#include "unique_fd.h"

namespace kest::ipc {
namespace {

using variant::Variant;
using variant::VariantType;

constexpr size_t kMaxRequests = 1024;
// Answers of one destination taken in one go, so that no flood of them outlasts the time limit.
constexpr int kMaxBatch = 64;

struct Request {
    std::string destination;
    bool awaited = false;
    int status = BlockingIpcHandler::kUnanswered;
    Variant response;
};

struct Link {
    std::string destination;
    detail::Socket socket;
    std::deque<std::string> unsent;
};

bool isFalse(const Variant* value) {
    return value != nullptr && *value == VariantType::Bool && !static_cast<bool>(*value);
}

bool isEmpty(const Variant& message, const char* key) {
    return static_cast<const std::string&>(message[key]).empty();
}

// The message as JSON, with sender and receiver filled in.
std::string toText(const Variant& message, const std::string& from, const std::string& to) {
    const bool noSender = isEmpty(message, "from"), noReceiver = isEmpty(message, "to");
    if (!noSender && !noReceiver) return message.ToJson();
    Variant filled = message;
    if (noSender) filled["from"] = from;
    if (noReceiver) filled["to"] = to;
    return filled.ToJson();
}

// 0 when somebody listens there, else the reason why not.
int probe(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const utils::detail::UniqueFd fd(
        socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) return errno;
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    if (connect(fd.get(), generic, sizeof(address)) == 0) return 0;
    // Listening, only too busy to accept at the moment.
    return errno == EAGAIN ? 0 : errno;
}

}  // namespace

std::string appendSuffix(const std::string& name) {
    static std::atomic<unsigned> calls{0};
    return name + "_" + std::to_string(getpid()) + "_" + std::to_string(++calls);
}

class BlockingIpcHandler::Impl {
  public:
    explicit Impl(std::string name) : name_(std::move(name)) {}

    int init();
    int sendRequest(const std::string& destination, const Variant& message);
    int waitUntilSent(int ms);
    int waitUntilAnswered(int ms);
    const Request* find(uint64_t id) const;

  private:
    int findLink(const std::string& destination, bool queueIfAbsent, Link*& link);
    bool makeRoom();
    void remember(uint64_t id, Request request);
    size_t unsent() const;
    template <typename Done>
    int wait(int ms, Done done);
    void advance(int ms);
    bool exchange();
    void sendQueued(Link& link);
    bool takeAnswer(Link& link, int waitMs);
    const char* accept(const Link& link, std::string_view text);
    void poll(int ms);

    const std::string name_;
    std::string folder_;
    detail::Context context_;
    std::vector<Link> links_;  // before the context goes, they do
    std::unordered_map<uint64_t, Request> requests_;
    std::deque<uint64_t> order_;  // their ids, oldest first
    size_t awaited_ = 0;
};

int BlockingIpcHandler::Impl::init() {
    if (context_.running()) return 0;
    if (!detail::isEndpointName(name_)) return EINVAL;
    const int failure = detail::findFolder(folder_);
    return failure != 0 ? failure : context_.start();
}

const Request* BlockingIpcHandler::Impl::find(uint64_t id) const {
    const auto found = requests_.find(id);
    return found == requests_.end() ? nullptr : &found->second;
}

size_t BlockingIpcHandler::Impl::unsent() const {
    size_t count = 0;
    for (const Link& link : links_)
        count += link.unsent.size();
    return count;
}

// Forgets the oldest request that no answer is awaited for.
bool BlockingIpcHandler::Impl::makeRoom() {
    if (unsent() >= kMaxRequests) return false;
    if (requests_.size() < kMaxRequests) return true;
    const auto oldest = std::find_if(order_.begin(), order_.end(),
                                     [this](uint64_t id) { return !requests_[id].awaited; });
    if (oldest == order_.end()) return false;
    requests_.erase(*oldest);
    order_.erase(oldest);
    return true;
}

void BlockingIpcHandler::Impl::remember(uint64_t id, Request request) {
    if (requests_.erase(id) > 0) order_.erase(std::find(order_.begin(), order_.end(), id));
    awaited_ += request.awaited ? 1 : 0;
    requests_.emplace(id, std::move(request));
    order_.push_back(id);
}

int BlockingIpcHandler::Impl::findLink(const std::string& destination, bool queueIfAbsent,
                                       Link*& link) {
    std::string path;
    const int wrong = detail::socketPath(folder_, destination, path);
    if (wrong != 0) return wrong;
    const int absent = queueIfAbsent ? 0 : probe(path);
    if (absent != 0) return absent;
    const auto known = std::find_if(links_.begin(), links_.end(), [&](const Link& candidate) {
        return candidate.destination == destination;
    });
    if (known != links_.end()) {
        link = &*known;
        return 0;
    }
    Link added;
    added.destination = destination;
    const int failure = context_.open(ZMQ_DEALER, added.socket);
    if (failure != 0) return failure;
    if (zmq_connect(added.socket.get(), ("ipc://" + path).c_str()) != 0) return errno;
    links_.push_back(std::move(added));
    link = &links_.back();
    return 0;
}

int BlockingIpcHandler::Impl::sendRequest(const std::string& destination, const Variant& message) {
    if (!context_.running()) return ENOTCONN;
    const Variant* const id = message.Find("id");
    if (id == nullptr || !id->IsInteger()) return EINVAL;

    Request request;
    request.destination = destination;
    request.awaited = message["responseExpected"] == VariantType::Bool &&
                      static_cast<bool>(message["responseExpected"]);
    const Request* const same = find(*id);
    if (same != nullptr && same->awaited) return EEXIST;
    if (!makeRoom()) return ENOBUFS;

    std::string text = toText(message, name_, destination);
    if (text.size() > detail::kMaxMessage) return EMSGSIZE;

    Link* link = nullptr;
    const int failure =
        findLink(destination, !isFalse(message.Find("queueIfDestUnavailable")), link);
    if (failure != 0) return failure;
    remember(*id, std::move(request));
    link->unsent.push_back(std::move(text));
    sendQueued(*link);
    return 0;
}

void BlockingIpcHandler::Impl::sendQueued(Link& link) {
    while (!link.unsent.empty() && link.socket.send({"", link.unsent.front()})) {
        link.unsent.pop_front();
    }
}

// What is wrong with an answer, or null pointer.
const char* BlockingIpcHandler::Impl::accept(const Link& link, std::string_view text) {
    Variant answer;
    uint64_t id = 0;
    const char* const problem = detail::parseMessage(text, answer, id);
    if (problem != nullptr) return problem;
    const Variant* const status = answer.Find("status");
    if (status == nullptr || !status->IsInteger()) return "has no status";
    auto* const request = const_cast<Request*>(find(id));
    if (request == nullptr || !request->awaited || request->destination != link.destination) {
        return "answers no request of ours";
    }
    request->awaited = false;
    --awaited_;
    request->status = *status;
    request->response = std::move(answer["response"]);
    return nullptr;
}

// @return false when there was none.
bool BlockingIpcHandler::Impl::takeAnswer(Link& link, int waitMs) {
    std::array<detail::Frame, 2> frames;
    const int failure = detail::receive(link.socket, frames.data(), frames.size(), waitMs);
    if (failure != 0 && failure != EBADMSG) return false;
    const char* const problem =
        failure == 0 ? accept(link, frames[1].text()) : "is not in two parts";
    if (problem != nullptr) {
        KEST_LOG_AS("waitAllResponsesReceived", KEST_WARNING, 0, "Dropped message from %s: it %s",
                    link.destination.c_str(), problem);
    }
    return true;
}

// Sends and takes what can be without waiting.
bool BlockingIpcHandler::Impl::exchange() {
    bool progress = false;
    for (Link& link : links_) {
        const size_t before = link.unsent.size();
        sendQueued(link);
        progress = progress || link.unsent.size() < before;
        for (int i = 0; i < kMaxBatch && takeAnswer(link, 0); ++i)
            progress = true;
    }
    return progress;
}

void BlockingIpcHandler::Impl::poll(int ms) {
    std::vector<zmq_pollitem_t> items;
    items.reserve(links_.size());
    for (const Link& link : links_) {
        const short events = link.unsent.empty() ? ZMQ_POLLIN : ZMQ_POLLIN | ZMQ_POLLOUT;
        items.push_back({link.socket.get(), -1, events, 0});
    }
    // Whatever it says, the next look at the sockets and at the clock tells what there is to do.
    zmq_poll(items.data(), static_cast<int>(items.size()), ms);
}

// One step towards the end of a wait.
void BlockingIpcHandler::Impl::advance(int ms) {
    // Nearly always there is one destination to listen to; then a receive that waits does with a
    // fraction of the system calls. Without time left, all that is there has to be taken.
    if (ms > 0 && links_.size() == 1 && links_[0].unsent.empty()) {
        takeAnswer(links_[0], ms);
    } else if (!exchange() && ms > 0) {
        poll(ms);
    }
}

template <typename Done>
int BlockingIpcHandler::Impl::wait(int ms, Done done) {
    if (!context_.running()) return ENOTCONN;
    const long long deadline = detail::nowMs() + std::max(ms, 0);
    int left = std::max(ms, 0);
    while (!done()) {
        advance(left);
        if (done()) break;
        if (left == 0) return ETIMEDOUT;
        left = static_cast<int>(std::max(deadline - detail::nowMs(), 0LL));
    }
    return 0;
}

int BlockingIpcHandler::Impl::waitUntilSent(int ms) {
    return wait(ms, [this] { return unsent() == 0; });
}

int BlockingIpcHandler::Impl::waitUntilAnswered(int ms) {
    return wait(ms, [this] { return awaited_ == 0; });
}

BlockingIpcHandler::BlockingIpcHandler(std::string endpointName)
    : impl_(std::make_unique<Impl>(std::move(endpointName))) {}

BlockingIpcHandler::~BlockingIpcHandler() = default;

int BlockingIpcHandler::init() {
    return impl_->init();
}

int BlockingIpcHandler::sendRequest(const std::string& dest, const Variant& message) {
    return impl_->sendRequest(dest, message);
}

int BlockingIpcHandler::waitAllRequestsSent(int ms) {
    return impl_->waitUntilSent(ms);
}

int BlockingIpcHandler::waitAllResponsesReceived(int ms) {
    return impl_->waitUntilAnswered(ms);
}

int BlockingIpcHandler::getStatus(uint64_t id) const {
    const Request* const request = impl_->find(id);
    return request == nullptr ? kUnanswered : request->status;
}

const Variant& BlockingIpcHandler::getResponse(uint64_t id) const {
    static const Variant kNull;
    const Request* const request = impl_->find(id);
    return request == nullptr ? kNull : request->response;
}

}  // namespace kest::ipc
