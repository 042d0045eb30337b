// The cameras' peer: a websocket server on loopback, on libwebsockets' own loop.
#pragma once

#include <libwebsockets.h>

#include <deque>
#include <map>
#include <string>

struct Options {
    int port = 0;          // 0: any that is free
    std::string certFile;  // empty: no TLS
    std::string keyFile;
    std::string recordFile;  // empty: telemetry is counted only
};

// Greets each camera that connects, sends it what comes in on standard input, a line a message, and
// tells on standard output what the camera says.
class Controller {
  public:
    explicit Controller(const Options& options);
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    // Serves until SIGINT or SIGTERM. False when it could not start.
    bool run();

  private:
    struct Camera {
        unsigned number = 0;
        std::string incoming;
        std::deque<std::string> outgoing;
    };

    static int callback(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
    int handle(lws* wsi, lws_callback_reasons reason, const char* data, size_t length);
    bool start();
    bool readCommands(int fd);
    void onConnected(lws* wsi);
    void onClosed(lws* wsi);
    int onReceive(lws* wsi, const char* data, size_t length);
    int onWriteable(lws* wsi);
    void onMessage(const Camera& camera, const std::string& text);
    void send(lws* wsi, const std::string& text);
    void printSummary() const;

    const Options options_;
    lws_context* context_ = nullptr;
    std::map<lws*, Camera> cameras_;
    std::string commands_;
    unsigned connections_ = 0;
    unsigned telemetry_ = 0;
    unsigned answers_ = 0;
};
