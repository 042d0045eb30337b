#define KEST_SOURCE "WebsockClient"
#include "websock_session.h"

#include <signal.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <mutex>
#include <utility>

#include <kest/utils/scheduler.h>
#include <kest/utils/timer.h>

#include "log.h"

namespace kest::utils::websock {
namespace {

// The context's own event descriptor and one connection, which may change its socket.
constexpr unsigned kDescriptors = 8;
// Without any timer pending, the library would call for service without end.
constexpr lws_usec_t kNever = INT64_MAX / 4;
constexpr int kLongestWaitMs = 60 * 60 * 1000 / 4;
constexpr int kShortestWaitMs = 10;
constexpr int kRetryMs = 1000;
constexpr int kMostForcedServices = 64;
// Otherwise the library sends in steps of 4096 bytes, and copies the rest before the first.
constexpr size_t kMostPerWrite = 65536;
constexpr const char* kNoReason = "null";

void logLibraryLine(int /*level*/, const char* line) {
    const std::string text(line);
    KEST_LOG_AS("libwebsockets", KEST_DEBUG, 0, "%s", text.substr(0, text.find('\n')).c_str());
}

// The library would print to standard error, also in an orderly life.
void captureLibraryLog() {
    static const bool once = (lws_set_log_level(LLL_ERR | LLL_WARN, logLibraryLine), true);
    static_cast<void>(once);
}

// The library ignores the signal, which TLS needs; a daemon's own handler serves as well. One
// thread after the other: else a second one would find it ignored and leave it so.
std::mutex sigpipeMutex;

class SigpipeKeeper {
  public:
    SigpipeKeeper() { sigaction(SIGPIPE, nullptr, &action_); }
    ~SigpipeKeeper() {
        if (action_.sa_handler != SIG_DFL) sigaction(SIGPIPE, &action_, nullptr);
    }
    SigpipeKeeper(const SigpipeKeeper&) = delete;
    SigpipeKeeper& operator=(const SigpipeKeeper&) = delete;

  private:
    const std::lock_guard<std::mutex> lock_{sigpipeMutex};
    struct sigaction action_ = {};
};

bool isHeaderText(const std::string& text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7F; });
}

bool isWord(const std::string& text, size_t most) {
    return !text.empty() && text.size() <= most && isHeaderText(text) &&
           text.find_first_of(" \t") == std::string::npos;
}

// The library cuts host and path to fixed sizes without a word, and writes the sub-protocols beyond
// the end of its buffer. A host name with a plus sign it takes for a local socket, on which it
// connects, and may fail, too early.
bool canRequest(const Address& address, const std::string& protocolName) {
    return isWord(address.host, 100) && address.host[0] != '+' && address.port != 0 &&
           isWord(address.path, 1900) && isHeaderText(protocolName) && protocolName.size() <= 500;
}

// An IPv6 address stands in brackets in a field of the handshake (RFC 3986, 3.2.2).
std::string hostField(const std::string& host) {
    return host.find(':') == std::string::npos ? host : '[' + host + ']';
}

std::string reasonOf(const void* text, size_t length) {
    if (text == nullptr) return kNoReason;
    const auto* const begin = static_cast<const char*>(text);
    return std::string(begin, strnlen(begin, length));
}

template <typename Box, typename... Arguments>
void call(Box callback, Arguments&&... arguments) {
    if (callback != nullptr && *callback) (*callback)(std::forward<Arguments>(arguments)...);
}

}  // namespace

// libwebsockets runs while one of these lives. The last one to go does what had to wait for that.
class Session::Entry {
  public:
    explicit Entry(Session& session) : session_(session.shared_from_this()) { ++session_->depth_; }
    ~Entry() {
        if (--session_->depth_ > 0) return;
        session_->watchAll();
        if (session_->retired_) session_->destroyContext();
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

  private:
    const std::shared_ptr<Session> session_;
};

const lws_protocols Session::kProtocols[] = {
    {"kest", &Session::protocol_callback, 0, 0, 0, nullptr, kMostPerWrite},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

Session::Session(Scheduler* scheduler, const Options& options, std::shared_ptr<Callbacks> callbacks)
    : scheduler_(scheduler),
      options_(options),
      callbacks_(std::move(callbacks)),
      connection_(&wsi_) {}

Session::~Session() {
    if (context_ != nullptr) destroyContext();
}

bool Session::createLwsContext() {
    captureLibraryLog();
    const SigpipeKeeper keeper;
    lws_context_creation_info info = {};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = kProtocols;
    info.gid = static_cast<decltype(info.gid)>(-1);
    info.uid = static_cast<decltype(info.uid)>(-1);
    info.options = LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
    info.user = this;
    info.fd_limit_per_thread = kDescriptors;
    info.http_proxy_address = ":0";  // none; without it the environment would choose
    if (options_.timeoutSecs > 0) {
        info.timeout_secs = static_cast<unsigned>(std::min(options_.timeoutSecs, INT_MAX - 1));
        // Its 20 seconds would cut a longer limit; after it, so that a name's next address gets its
        // turn.
        info.connect_timeout_secs = info.timeout_secs + 1;
    }
    if (!options_.useSsl || tls_.load(options_.certFile, options_.keyFile, options_.caFile)) {
        context_ = lws_create_context(&info);
    }
    // TLS is switched on here and not for the context, see TlsContext.
    info.options = options_.useSsl ? LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT : 0;
    info.provided_client_ssl_ctx = tls_.get();
    if (context_ == nullptr || lws_create_vhost(context_, &info) == nullptr) {
        KEST_LOG(KEST_ERROR, 0, "Failed to create lws context");
        return false;
    }
    lws_sul_schedule(
        context_, 0, &keeper_, [](lws_sorted_usec_list_t*) {}, kNever);
    return true;
}

void Session::destroyContext() {
    ++depth_;
    cancelService();
    lws_sul_cancel(&keeper_);
    lws_context_destroy(std::exchange(context_, nullptr));
    forgetDescriptors();
    wsi_ = nullptr;
    --depth_;
}

void Session::retire() {
    retired_ = true;
    if (depth_ == 0 && context_ != nullptr) destroyContext();
}

bool Session::goAway() {
    if (!connection_.connected_) return false;
    connection_.goingAway_ = true;
    connection_.sendClose();
    return true;
}

bool Session::connect(const Address& address) {
    const Entry entry(*this);
    const std::string host = hostField(address.host);
    lws_client_connect_info info = {};
    info.context = context_;
    info.address = address.host.c_str();
    info.port = address.port;
    info.ssl_connection = options_.useSsl ? LCCSCF_USE_SSL : 0;
    info.path = address.path.c_str();
    info.host = host.c_str();
    info.origin = host.c_str();
    info.protocol = options_.protocolName.empty() ? nullptr : options_.protocolName.c_str();
    info.pwsi = &wsi_;
    KEST_LOG(KEST_DEBUG, 0, "WebSocket connection info: %s:%d%s p", info.address, info.port,
             info.path);
    connecting_ = true;
    const bool begun = canRequest(address, options_.protocolName) && scheduleService(kRetryMs) &&
                       lws_client_connect_via_info(&info) != nullptr;
    connecting_ = false;
    if (!begun) {
        wsi_ = nullptr;
        told_ = Told::End;
        KEST_LOG(KEST_ERROR, 0, "Failed to lws connect");
        KEST_LOG(KEST_ERROR, 0, "Failed to initiate connection");
        return false;
    }
    return true;
}

bool Session::service(int timeoutMs) {
    if (depth_ > 0) return true;
    const Entry entry(*this);
    // The library takes any time-out for an unlimited one, but wakes up for its timers.
    lws_sorted_usec_list_t alarm = {};
    if (timeoutMs > 0) {
        lws_sul_schedule(
            context_, 0, &alarm, [](lws_sorted_usec_list_t*) {},
            static_cast<lws_usec_t>(timeoutMs) * 1000);
    }
    const bool served = lws_service(context_, timeoutMs > 0 ? 0 : -1) == 0;
    lws_sul_cancel(&alarm);
    if (!served) KEST_LOG(KEST_ERROR, 0, "lws service failed");
    return served;
}

bool Session::serviceFd(int fd, int events) {
    if (depth_ > 0) return true;
    const Entry entry(*this);
    const auto task = descriptors_.find(fd);
    lws_pollfd ready = {};
    ready.fd = fd;
    ready.events = static_cast<short>(task == descriptors_.end() ? 0 : task->second.events);
    ready.revents = static_cast<short>(events);
    const bool served = fd < 0 || lws_service_fd(context_, &ready) == 0;
    if (!served) KEST_LOG(KEST_ERROR, 0, "lws service failed");
    // Also then: it may only mean that a close has begun, whose time limit wants to be kept.
    serviceForced();
    return served;
}

// Lets the library work off what no descriptor will report, and comes back for its next timer.
void Session::serviceForced() {
    int delayMs = 0;
    for (int i = 0; i < kMostForcedServices && !retired_; ++i) {
        delayMs = lws_service_adjust_timeout(context_, kLongestWaitMs, 0);
        if (delayMs != 0 || retired_) break;
        KEST_LOG_AS("serviceFd", KEST_INFO, 0, "extpoll doing forced service!");
        lws_service_tsi(context_, -1, 0);
    }
    // The library cuts to whole milliseconds; a little early, it would ask for service until then.
    if (!retired_) scheduleService(std::max(delayMs + 1, kShortestWaitMs));
}

// The library's own time-outs only run when it is serviced. A timer that comes too early looks
// again; one that cannot be replaced goes on with its period.
bool Session::scheduleService(int delayMs) {
    if (scheduler_ == nullptr) return true;
    const int64_t due = nowMs() + delayMs;
    if (timer_ != 0 && timerDue_ <= due) return true;
    const auto onTimer = [this](unsigned long long, void*) {
        if (depth_ > 0) return true;
        const Entry entry(*this);
        timerDue_ = INT64_MAX;
        serviceForced();
        return true;
    };
    const auto timer =
        scheduler_->AddTimerTask(static_cast<unsigned>(delayMs), kRetryMs, onTimer, nullptr);
    if (timer == 0) return false;
    cancelService();
    timer_ = timer;
    timerDue_ = due;
    return true;
}

void Session::cancelService() {
    if (timer_ != 0) scheduler_->RemoveTimerTask(std::exchange(timer_, 0));
}

// Waits with the change while the library runs: it mostly takes back in the same service what it
// asked for, and each change is a system call.
void Session::watch(TaskInfo& task) {
    if (depth_ > 0 || task.watched == task.events) return;
    if (scheduler_->ChangeIOTaskMode(task.taskId, task.events)) task.watched = task.events;
}

void Session::watchAll() {
    for (auto& [fd, task] : descriptors_)
        watch(task);
}

void Session::forgetDescriptors() {
    for (const auto& [fd, task] : std::exchange(descriptors_, {}))
        scheduler_->RemoveIOTask(task.taskId);
}

// Exactly one word on how it began, and if it began one on how it ended, however many ways the
// library has to say so.
void Session::tellEnd(const std::string& reason) {
    if (connecting_ || told_ == Told::End) return;
    const bool began = std::exchange(told_, Told::End) == Told::Beginning;
    connection_.connected_ = false;
    if (began) {
        call(callbacks_->onClose, connection_, reason);
    } else {
        call(callbacks_->onError, connection_,
             reason == kNoReason ? "closed before established" : reason);
    }
}

// Asked for a dozen times for each message: among the reasons are several that nobody handles.
Session::Handler Session::handlerOf(lws_callback_reasons reason) {
    switch (reason) {
        case LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER:
            return &Session::on_LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER;
        case LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION:
            return &Session::on_LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION;
        case LWS_CALLBACK_CLIENT_ESTABLISHED:
            return &Session::on_LWS_CALLBACK_CLIENT_ESTABLISHED;
        case LWS_CALLBACK_CLIENT_RECEIVE:
            return &Session::on_LWS_CALLBACK_CLIENT_RECEIVE;
        case LWS_CALLBACK_CLIENT_RECEIVE_PONG:
            return &Session::on_LWS_CALLBACK_CLIENT_RECEIVE_PONG;
        case LWS_CALLBACK_CLIENT_WRITEABLE:
            return &Session::on_LWS_CALLBACK_CLIENT_WRITEABLE;
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
            return &Session::on_LWS_CALLBACK_WS_PEER_INITIATED_CLOSE;
        // Which of them reports an end depends on the library's version and on how far it came.
        case LWS_CALLBACK_CLOSED:
        case LWS_CALLBACK_CLIENT_CLOSED:
        case LWS_CALLBACK_CLOSED_CLIENT_HTTP:
            return &Session::on_LWS_CALLBACK_CLOSED;
        case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
            return &Session::on_LWS_CALLBACK_CLIENT_CONNECTION_ERROR;
        case LWS_CALLBACK_WSI_DESTROY:
            return &Session::on_LWS_CALLBACK_WSI_DESTROY;
        case LWS_CALLBACK_ADD_POLL_FD:
            return &Session::on_LWS_CALLBACK_ADD_POLL_FD;
        case LWS_CALLBACK_DEL_POLL_FD:
            return &Session::on_LWS_CALLBACK_DEL_POLL_FD;
        case LWS_CALLBACK_CHANGE_MODE_POLL_FD:
            return &Session::on_LWS_CALLBACK_CHANGE_MODE_POLL_FD;
        default:
            return nullptr;
    }
}

int Session::protocol_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                               size_t len) noexcept {
    const Handler handler = handlerOf(reason);
    if (handler == nullptr) return 0;
    auto* const session = static_cast<Session*>(lws_context_user(lws_get_context(wsi)));
    return (session->*handler)(wsi, reason, user, in, len);
}

int Session::on_LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER(lws* wsi, lws_callback_reasons, void*,
                                                            void* in, size_t len) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p append handshake header", static_cast<void*>(wsi));
    auto** const at = static_cast<unsigned char**>(in);
    unsigned char* const end = *at + len;
    for (const auto& [name, value] : options_.headers) {
        const std::string field = name + ":";
        if (isHeaderText(field) && isHeaderText(value) && value.size() < len &&
            lws_add_http_header_by_name(wsi, reinterpret_cast<const unsigned char*>(field.c_str()),
                                        reinterpret_cast<const unsigned char*>(value.data()),
                                        static_cast<int>(value.size()), at, end) == 0) {
            continue;
        }
        KEST_LOG(KEST_ERROR, 0, "Failed to add field: %s:%s", name.c_str(), value.c_str());
        return 1;
    }
    return 0;
}

int Session::on_LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION(lws* wsi,
                                                                      lws_callback_reasons,
                                                                      void* user, void*,
                                                                      size_t len) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p received server cert", static_cast<void*>(wsi));
    options_.pinnedCerts.verify(static_cast<X509_STORE_CTX*>(user), len != 0);
    return 0;
}

int Session::on_LWS_CALLBACK_CLIENT_ESTABLISHED(lws* wsi, lws_callback_reasons, void*, void*,
                                                size_t) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p client established", static_cast<void*>(wsi));
    if (!connection_.open(options_.queueLength)) return -1;
    told_ = Told::Beginning;
    call(callbacks_->onConnect, connection_);
    return 0;
}

int Session::on_LWS_CALLBACK_CLIENT_RECEIVE(lws* wsi, lws_callback_reasons, void*, void* in,
                                            size_t len) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p receive", static_cast<void*>(wsi));
    call(callbacks_->onMessage, connection_, static_cast<const unsigned char*>(in),
         static_cast<unsigned int>(len));
    return 0;
}

int Session::on_LWS_CALLBACK_CLIENT_RECEIVE_PONG(lws* wsi, lws_callback_reasons, void*, void*,
                                                 size_t) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p pong", static_cast<void*>(wsi));
    call(callbacks_->onPong, connection_);
    return 0;
}

int Session::on_LWS_CALLBACK_CLIENT_WRITEABLE(lws* wsi, lws_callback_reasons, void*, void*,
                                              size_t) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p writeable", static_cast<void*>(wsi));
    return connection_.writeNext();
}

// The only place where the library shows the peer's reason: a status of two bytes, then text.
int Session::on_LWS_CALLBACK_WS_PEER_INITIATED_CLOSE(lws*, lws_callback_reasons, void*, void* in,
                                                     size_t len) {
    if (len > 2) peerReason_.assign(static_cast<const char*>(in) + 2, len - 2);
    return 0;
}

int Session::on_LWS_CALLBACK_CLOSED(lws* wsi, lws_callback_reasons, void*, void* in, size_t len) {
    const std::string reason = peerReason_.empty() ? reasonOf(in, len) : peerReason_;
    KEST_LOG(KEST_DEBUG, 0, "[Event] closed %p: %s", static_cast<void*>(wsi), reason.c_str());
    tellEnd(reason);
    return 0;
}

int Session::on_LWS_CALLBACK_CLIENT_CONNECTION_ERROR(lws* wsi, lws_callback_reasons, void*,
                                                     void* in, size_t len) {
    const std::string reason = reasonOf(in, len);
    KEST_LOG(KEST_DEBUG, 0, "[Event] Error %p: %s", static_cast<void*>(wsi), reason.c_str());
    tellEnd(reason);
    return 0;
}

int Session::on_LWS_CALLBACK_WSI_DESTROY(lws* wsi, lws_callback_reasons, void*, void*, size_t) {
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p wsi destroy", static_cast<void*>(wsi));
    if (wsi != wsi_) return 0;
    tellEnd(kNoReason);
    wsi_ = nullptr;
    connection_.destroyQueue();
    forgetDescriptors();
    return 0;
}

int Session::on_LWS_CALLBACK_ADD_POLL_FD(lws* wsi, lws_callback_reasons, void*, void* in, size_t) {
    if (scheduler_ == nullptr) return 0;
    const auto& poll = *static_cast<const lws_pollargs*>(in);
    const auto ioCallback = [this](int fd, int events, void*) {
        if (!serviceFd(fd, events)) KEST_LOG_AS("serviceFd", KEST_WARNING, 0, "Failed to service");
        return true;
    };
    const auto taskId = scheduler_->AddIOTask(poll.fd, poll.events, ioCallback, nullptr);
    if (taskId == 0) {
        KEST_LOG(KEST_ERROR, 0, "Failed to add IO task");
        return 0;
    }
    descriptors_[poll.fd] = {taskId, poll.events, poll.events};
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p add poll fd=%d taskId=%llu", static_cast<void*>(wsi),
             poll.fd, taskId);
    return 0;
}

int Session::on_LWS_CALLBACK_DEL_POLL_FD(lws* wsi, lws_callback_reasons, void*, void* in, size_t) {
    if (scheduler_ == nullptr) return 0;
    const int fd = static_cast<const lws_pollargs*>(in)->fd;
    const auto task = descriptors_.find(fd);
    if (task == descriptors_.end()) {
        // The library says so twice of a plain connection, before and after it tells the end.
        if (told_ != Told::End) KEST_LOG(KEST_WARNING, 0, "fd is not found");
        return 0;
    }
    KEST_LOG(KEST_DEBUG, 0, "[Event] %p dell poll fd=%d taskId=%llu", static_cast<void*>(wsi), fd,
             task->second.taskId);
    scheduler_->RemoveIOTask(task->second.taskId);
    descriptors_.erase(task);
    return 0;
}

int Session::on_LWS_CALLBACK_CHANGE_MODE_POLL_FD(lws*, lws_callback_reasons, void*, void* in,
                                                 size_t) {
    if (scheduler_ == nullptr) return 0;
    const auto& poll = *static_cast<const lws_pollargs*>(in);
    const auto task = descriptors_.find(poll.fd);
    if (task == descriptors_.end()) {
        KEST_LOG(KEST_WARNING, 0, "fd is not found");
        return 0;
    }
    task->second.events = poll.events;
    watch(task->second);
    return 0;
}

}  // namespace kest::utils::websock
