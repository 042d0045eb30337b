// One life of a WebsockClient, from connect() to cancel(): a libwebsockets context with its
// connection, and their place in the scheduler. It never moves, and it outlives the client when the
// client goes, or starts anew, in one of its callbacks: a context must not be destroyed while
// libwebsockets runs on it.
#pragma once

#include <libwebsockets.h>
#include <strings.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <kest/utils/WebsockClient.h>

#include "certificate_pins.h"
#include "tls_context.h"

namespace kest::utils::websock {

// What the setters of the client set.
struct Options {
    struct AnyCase {
        bool operator()(const std::string& a, const std::string& b) const {
            return strcasecmp(a.c_str(), b.c_str()) < 0;
        }
    };

    std::string protocolName;
    std::map<std::string, std::string, AnyCase> headers;
    int timeoutSecs = 0;
    bool useSsl = true;
    std::string certFile;
    std::string keyFile;
    std::string caFile;
    CertificatePins pinnedCerts;
    unsigned int queueLength = 1024;
};

// Each in a box of its own, that lives on while it is called although the daemon has replaced it.
struct Callbacks {
    template <typename Function>
    using Box = std::shared_ptr<const Function>;

    Box<WebsockClient::ConnectionCallback> onConnect;
    Box<WebsockClient::MessageCallback> onMessage;
    Box<WebsockClient::ReasonCallback> onClose;
    Box<WebsockClient::ReasonCallback> onError;
    Box<WebsockClient::ConnectionCallback> onPing;
    Box<WebsockClient::ConnectionCallback> onPong;
};

struct Address {
    std::string host;
    uint16_t port;
    std::string path;
};

class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(Scheduler* scheduler, const Options& options, std::shared_ptr<Callbacks> callbacks);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    bool createLwsContext();
    bool connect(const Address& address);
    bool service(int timeoutMs);
    bool serviceFd(int fd, int events);

    // Asks for a close; false when there is no established connection to close.
    bool goAway();

    // Ends everything as soon as libwebsockets is left, at once if it is not running. The owner has
    // to let go of the session.
    void retire();

    // The client goes: nobody is left to call back.
    void mute() { callbacks_ = std::make_shared<Callbacks>(); }

  private:
    class Entry;
    struct TaskInfo {
        unsigned long long taskId;
        int events;   // what libwebsockets waits for
        int watched;  // what the scheduler knows
    };
    using Handler = int (Session::*)(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                                     size_t len);
    enum class Told { Nothing, Beginning, End };

    static int protocol_callback(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                                 size_t len) noexcept;
    static Handler handlerOf(lws_callback_reasons reason);
    static const lws_protocols kProtocols[];

    // libwebsockets' reasons, each named after what it handles.
    int on_LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER(lws*, lws_callback_reasons, void*, void*,
                                                       size_t);
    int on_LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION(lws*, lws_callback_reasons, void*,
                                                                 void*, size_t);
    int on_LWS_CALLBACK_CLIENT_ESTABLISHED(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CLIENT_RECEIVE(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CLIENT_RECEIVE_PONG(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CLIENT_WRITEABLE(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_WS_PEER_INITIATED_CLOSE(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CLOSED(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CLIENT_CONNECTION_ERROR(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_WSI_DESTROY(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_ADD_POLL_FD(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_DEL_POLL_FD(lws*, lws_callback_reasons, void*, void*, size_t);
    int on_LWS_CALLBACK_CHANGE_MODE_POLL_FD(lws*, lws_callback_reasons, void*, void*, size_t);

    void destroyContext();
    void tellEnd(const std::string& reason);
    void watch(TaskInfo& task);
    void watchAll();
    void forgetDescriptors();
    void serviceForced();
    bool scheduleService(int delayMs);
    void cancelService();

    Scheduler* const scheduler_;
    const Options options_;
    std::shared_ptr<Callbacks> callbacks_;

    TlsContext tls_;
    lws_context* context_ = nullptr;
    lws* wsi_ = nullptr;
    Connection connection_;
    std::map<int, TaskInfo> descriptors_;
    lws_sorted_usec_list_t keeper_ = {};
    unsigned long long timer_ = 0;
    int64_t timerDue_ = 0;  // in milliseconds, as nowMs()

    unsigned depth_ = 0;  // how often libwebsockets was entered and not yet left
    bool retired_ = false;
    bool connecting_ = false;  // inside connect(), whose result tells of a failure
    Told told_ = Told::Nothing;
    std::string peerReason_;
};

}  // namespace kest::utils::websock
