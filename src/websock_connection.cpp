// The queue of a connection and the end that the daemon asked for.
#define KEST_SOURCE "WebsockClient"
#include <libwebsockets.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <kest/utils/WebsockClient.h>

#include "log.h"

namespace kest::utils::websock {
namespace {

// What libwebsockets wants to have free in front of a payload, for the frame's header.
constexpr unsigned kHeadroom = 16;
static_assert(LWS_PRE <= kHeadroom);

struct Message {
    unsigned char* buffer;  // headroom, then payload
    uint32_t length;
    uint32_t protocol;
};

void freeMessage(void* element) {
    std::free(static_cast<Message*>(element)->buffer);
}

}  // namespace

Connection::Connection(lws** wsi) : wsi_(wsi) {}

Connection::~Connection() {
    destroyQueue();
}

void Connection::destroyQueue() {
    if (queue_ != nullptr) lws_ring_destroy(queue_);
    queue_ = nullptr;
}

bool Connection::open(unsigned int queueLength) {
    destroyQueue();
    // The ring counts its bytes in an int.
    if (queueLength <= INT_MAX / sizeof(Message)) {
        queue_ = lws_ring_create(sizeof(Message), queueLength, freeMessage);
    }
    constexpr const char* caller = "on_LWS_CALLBACK_CLIENT_ESTABLISHED";
    KEST_LOG_AS(caller, KEST_INFO, 0, "ring = %p", static_cast<void*>(queue_));
    if (queue_ == nullptr) {
        KEST_LOG_AS(caller, KEST_ERROR, 0, "Failed to create outgoing queue");
    }
    connected_ = queue_ != nullptr;
    return connected_;
}

bool Connection::isUsable(const char* caller) const {
    const char* const missing = *wsi_ == nullptr    ? "no wsi"
                                : !connected_       ? "not connected "
                                : queue_ == nullptr ? "no outgoing queue"
                                                    : nullptr;
    if (missing != nullptr) KEST_LOG_AS(caller, KEST_ERROR, 0, "%s", missing);
    return missing == nullptr;
}

bool Connection::send(const void* data, unsigned int length) {
    if (!isUsable(__func__)) return false;
    const char* const reason = closing_          ? "already closing"
                               : data == nullptr ? "invalid data buffer"
                               : length == 0     ? "no data"
                               : lws_ring_get_count_free_elements(queue_) < 1
                                   ? "outgoing queue is full, dropping"
                                   : nullptr;
    if (reason != nullptr) {
        KEST_LOG(KEST_ERROR, 0, "%s", reason);
        return false;
    }
    if (!enqueue(data, length)) return false;
    lws_callback_on_writable(*wsi_);
    return true;
}

bool Connection::enqueue(const void* data, unsigned int length) {
    Message message = {};
    // Libwebsockets counts in int.
    if (length <= INT_MAX - kHeadroom) {
        message.buffer = static_cast<unsigned char*>(std::malloc(length + kHeadroom));
    }
    if (message.buffer == nullptr) {
        KEST_LOG_AS("send", KEST_ERROR, 0, "failed to allocate message memory %u bytes",
                    length + kHeadroom);
        return false;
    }
    std::memcpy(message.buffer + kHeadroom, data, length);
    message.length = length;
    message.protocol = LWS_WRITE_TEXT;
    if (lws_ring_insert(queue_, &message, 1) == 1) return true;

    freeMessage(&message);
    KEST_LOG_AS("send", KEST_ERROR, 0, "failed to insert message to a ring queue");
    return false;
}

bool Connection::sendClose() {
    if (closing_) return true;
    KEST_LOG(KEST_INFO, 0, "sendClose");
    if (!isUsable(__func__)) return false;
    closing_ = true;
    lws_callback_on_writable(*wsi_);
    return true;
}

bool Connection::isLastPart() const {
    return *wsi_ == nullptr || lws_is_final_fragment(*wsi_) != 0;
}

// The result is the one of the library's callback: -1 closes the connection.
int Connection::writeNext() {
    if (queue_ == nullptr) return 0;
    const auto* message = static_cast<const Message*>(lws_ring_get_element(queue_, nullptr));
    if (message == nullptr) return closing_ ? writeClose() : 0;

    const int written = lws_write(*wsi_, message->buffer + kHeadroom, message->length,
                                  static_cast<lws_write_protocol>(message->protocol));
    if (written != static_cast<int>(message->length)) {
        KEST_LOG_AS("on_LWS_CALLBACK_CLIENT_WRITEABLE", KEST_ERROR, 0,
                    "Error: written %d of expected %d bytes", written,
                    static_cast<int>(message->length));
        return -1;
    }
    lws_ring_consume(queue_, nullptr, nullptr, 1);
    if (closing_ || lws_ring_get_count_waiting_elements(queue_, nullptr) > 0) {
        lws_callback_on_writable(*wsi_);
    }
    return 0;
}

int Connection::writeClose() {
    KEST_LOG_AS("on_LWS_CALLBACK_CLIENT_WRITEABLE", KEST_INFO, 0, "send close");
    lws_close_reason(*wsi_, goingAway_ ? LWS_CLOSE_STATUS_GOINGAWAY : LWS_CLOSE_STATUS_NORMAL,
                     nullptr, 0);
    connected_ = false;
    closing_ = false;
    return -1;
}

}  // namespace kest::utils::websock
