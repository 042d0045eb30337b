#include <kest/utils/WebsockClient.h>

#include <cstdint>
#include <utility>

#include <kest/utils/scheduler.h>
#include <kest/variant/uri.h>

#include "log.h"
#include "websock_session.h"

namespace kest::utils::websock {
namespace {

template <typename Function>
std::shared_ptr<const Function> boxed(Function callback) {
    return std::make_shared<const Function>(std::move(callback));
}

const std::string& stringOf(kest::variant::URI& uri, const char* key) {
    kest::variant::Variant& value = uri[key];
    if (value == kest::variant::Variant()) value = std::string();
    return value;
}

uint16_t portOf(kest::variant::URI& uri) {
    kest::variant::Variant& value = uri["port"];
    if (value == kest::variant::Variant()) value = uint16_t{0};
    return value;
}

}  // namespace

struct WebsockClient::State {
    Options options;
    std::shared_ptr<Callbacks> callbacks = std::make_shared<Callbacks>();
    std::shared_ptr<Session> session;
};

WebsockClient::WebsockClient(Scheduler* scheduler) : scheduler_(scheduler) {}

WebsockClient::~WebsockClient() {
    drop();
}

WebsockClient::WebsockClient(WebsockClient&& other) noexcept
    : scheduler_(other.scheduler_), state_(std::move(other.state_)) {}

WebsockClient& WebsockClient::operator=(WebsockClient&& other) noexcept {
    if (this == &other) return *this;
    drop();
    scheduler_ = other.scheduler_;
    state_ = std::move(other.state_);
    return *this;
}

// Settings and callbacks, made anew after a move.
WebsockClient::State& WebsockClient::state() {
    if (state_ == nullptr) state_ = std::make_unique<State>();
    return *state_;
}

void WebsockClient::drop() {
    const std::unique_ptr<State> state = std::move(state_);
    if (state == nullptr || state->session == nullptr) return;
    state->session->mute();
    state->session->retire();
}

void WebsockClient::setProtocolName(const std::string& name) {
    state().options.protocolName = name;
}

void WebsockClient::setHeader(const std::string& name, const std::string& value) {
    state().options.headers[name] = value;
}

void WebsockClient::setTimeout(int secs) {
    state().options.timeoutSecs = secs;
}

void WebsockClient::setUseSsl(bool useSsl) {
    state().options.useSsl = useSsl;
}

void WebsockClient::setCertFile(const std::string& path) {
    state().options.certFile = path;
}

void WebsockClient::setKeyFile(const std::string& path) {
    state().options.keyFile = path;
}

void WebsockClient::setCaFile(const std::string& path) {
    state().options.caFile = path;
}

bool WebsockClient::addPinnedCert(const std::string& pemPath) {
    return state().options.pinnedCerts.add(pemPath);
}

void WebsockClient::setQueueLength(unsigned int slots) {
    state().options.queueLength = slots;
}

void WebsockClient::onConnect(ConnectionCallback callback) {
    state().callbacks->onConnect = boxed(std::move(callback));
}

void WebsockClient::onMessage(MessageCallback callback) {
    state().callbacks->onMessage = boxed(std::move(callback));
}

void WebsockClient::onClose(ReasonCallback callback) {
    state().callbacks->onClose = boxed(std::move(callback));
}

void WebsockClient::onError(ReasonCallback callback) {
    state().callbacks->onError = boxed(std::move(callback));
}

void WebsockClient::onPing(ConnectionCallback callback) {
    state().callbacks->onPing = boxed(std::move(callback));
}

void WebsockClient::onPong(ConnectionCallback callback) {
    state().callbacks->onPong = boxed(std::move(callback));
}

bool WebsockClient::connect(kest::variant::URI& uri) {
    State& mine = state();
    if (mine.session != nullptr) {
        KEST_LOG(KEST_ERROR, 0, "Error: already connecting");
        return false;
    }
    const auto session = std::make_shared<Session>(scheduler_, mine.options, mine.callbacks);
    if (!session->createLwsContext()) {
        KEST_LOG(KEST_ERROR, 0, "Failed to create lws context");
        return false;
    }
    mine.session = session;
    return session->connect(
        {stringOf(uri, "host"), portOf(uri), stringOf(uri, "fullDocumentPath")});
}

bool WebsockClient::service(int timeoutMs) {
    const auto session = state().session;
    if (session != nullptr) return session->service(timeoutMs);
    KEST_LOG(KEST_ERROR, 0, "no lws context");
    return false;
}

bool WebsockClient::serviceFd(int fd, int events) {
    const auto session = state().session;
    if (session != nullptr) return session->serviceFd(fd, events);
    KEST_LOG(KEST_ERROR, 0, "no lws context");
    return false;
}

// What follows the end of a session may not touch the client any more: its callbacks may have
// destroyed it.
bool WebsockClient::cancel() {
    if (state_ == nullptr || state_->session == nullptr || state_->session->goAway()) return true;
    const auto session = std::move(state_->session);
    session->retire();
    return true;
}

}  // namespace kest::utils::websock
