#include "controller_link.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <kest/utils/string_utils.h>

using kest::utils::websock::Connection;

namespace {

constexpr unsigned kLongestRetryMs = 30000;
constexpr int kTimeoutSeconds = 5;
constexpr size_t kLongestMessage = 65536;

}  // namespace

ControllerLink::ControllerLink(kest::utils::Scheduler& scheduler, OnMessage onMessage)
    : scheduler_(scheduler), onMessage_(std::move(onMessage)), client_(&scheduler) {
    client_.setProtocolName("camera");
    client_.setTimeout(kTimeoutSeconds);
    client_.onConnect([this](Connection& connection) { onConnect(connection); });
    client_.onMessage([this](Connection& connection, const unsigned char* data, unsigned length) {
        onPart(data, length, connection.isLastPart());
    });
    client_.onClose([this](Connection&, const std::string& reason) { onEnd("closed", reason); });
    client_.onError([this](Connection&, const std::string& reason) { onEnd("failed", reason); });
}

ControllerLink::~ControllerLink() {
    if (retryTimer_ != 0) scheduler_.RemoveTimerTask(retryTimer_);
}

bool ControllerLink::start(const Settings& settings) {
    settings_ = settings;
    if (!kest::variant::URI::FromString(settings.uri, uri_)) {
        fprintf(stderr, "camera_daemon: %s is no address of a controller\n", settings.uri.c_str());
        return false;
    }
    client_.setUseSsl(kest::utils::startsWith(settings.uri, "wss:"));
    if (!settings.pinnedCert.empty() && !client_.addPinnedCert(settings.pinnedCert)) return false;
    delayMs_ = settings.retryMs;
    connect();
    return true;
}

void ControllerLink::connect() {
    incoming_.clear();
    if (!client_.connect(uri_)) onEnd("failed", "could not start");
}

void ControllerLink::onConnect(Connection& connection) {
    connection_ = &connection;
    delayMs_ = settings_.retryMs;
    printf("controller: connected, number %u\n", ++connections_);
}

// A message may come in several parts.
void ControllerLink::onPart(const unsigned char* data, unsigned length, bool last) {
    // One part too many tells that it is too long.
    if (incoming_.size() <= kLongestMessage) {
        incoming_.append(reinterpret_cast<const char*>(data), length);
    }
    if (!last) return;
    const std::string text = std::exchange(incoming_, std::string());
    if (text.size() <= kLongestMessage) {
        onMessage_(text);
    } else {
        printf("controller: message too long, ignored\n");
    }
}

void ControllerLink::onEnd(const char* what, const std::string& reason) {
    connection_ = nullptr;
    printf("controller: %s: %s\n", what, reason.c_str());
    if (onClosed_) {
        std::exchange(onClosed_, nullptr)();
        return;
    }
    client_.cancel();
    retryLater();
}

void ControllerLink::retryLater() {
    printf("controller: next try in %u ms\n", delayMs_);
    retryTimer_ = scheduler_.AddTimerTask(
        delayMs_, 0,
        [this](unsigned long long id, void*) {
            retryTimer_ = 0;
            scheduler_.RemoveTimerTask(id);
            connect();
            return true;
        },
        nullptr);
    delayMs_ = std::min(delayMs_ * 2, kLongestRetryMs);
}

bool ControllerLink::send(const std::string& text) {
    return connection_ != nullptr &&
           connection_->send(text.data(), static_cast<unsigned>(text.size()));
}

void ControllerLink::close(std::function<void()> onClosed) {
    if (connection_ == nullptr || !connection_->sendClose()) {
        onClosed();
        return;
    }
    onClosed_ = std::move(onClosed);
}
