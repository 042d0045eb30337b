// The daemon's connection to its controller: made again with growing delay whenever it is lost.
#pragma once

#include <functional>
#include <string>

#include <kest/utils/WebsockClient.h>
#include <kest/utils/scheduler.h>
#include <kest/variant/uri.h>

class ControllerLink {
  public:
    using OnMessage = std::function<void(const std::string& text)>;

    struct Settings {
        std::string uri;         // wss://127.0.0.1:8443/camera
        std::string pinnedCert;  // PEM file; empty: any certificate will do
        unsigned retryMs = 500;  // first delay; doubles up to half a minute
    };

    ControllerLink(kest::utils::Scheduler& scheduler, OnMessage onMessage);
    ~ControllerLink();
    ControllerLink(const ControllerLink&) = delete;
    ControllerLink& operator=(const ControllerLink&) = delete;

    bool start(const Settings& settings);

    // False while there is no connection, or when the queue is full: the text is lost then.
    bool send(const std::string& text);

    // Closes in order and calls back when the connection is gone, at once if there is none.
    void close(std::function<void()> onClosed);

    unsigned connections() const { return connections_; }

  private:
    void connect();
    void onConnect(kest::utils::websock::Connection& connection);
    void onPart(const unsigned char* data, unsigned length, bool last);
    void onEnd(const char* what, const std::string& reason);
    void retryLater();

    kest::utils::Scheduler& scheduler_;
    const OnMessage onMessage_;
    Settings settings_;
    kest::variant::URI uri_;
    kest::utils::websock::WebsockClient client_;
    kest::utils::websock::Connection* connection_ = nullptr;  // while it is established
    std::function<void()> onClosed_;                          // set once the daemon wants to end
    std::string incoming_;
    unsigned delayMs_ = 0;
    unsigned long long retryTimer_ = 0;
    unsigned connections_ = 0;
};
