#include "controller.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include <kest/utils/string_utils.h>

namespace {

// A camera that sends more in one message is cut off.
constexpr size_t kLongestMessage = size_t{1} << 20;
constexpr size_t kMostQueued = 1000;

volatile sig_atomic_t ending = 0;
lws_context* serving = nullptr;

// A signal just before the library waits would not interrupt it.
void onEnd(int /*signo*/) {
    ending = 1;
    if (serving != nullptr) lws_cancel_service(serving);
}

void endOn(int signo) {
    struct sigaction action = {};
    action.sa_handler = onEnd;
    sigaction(signo, &action, nullptr);
}

}  // namespace

Controller::Controller(const Options& options) : options_(options) {}

Controller::~Controller() {
    if (context_ != nullptr) lws_context_destroy(context_);
}

bool Controller::run() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    lws_set_log_level(LLL_ERR, nullptr);
    if (!start()) return false;
    serving = context_;
    endOn(SIGINT);
    endOn(SIGTERM);
    printf("listening: %d\n",
           lws_get_vhost_listen_port(lws_get_vhost_by_name(context_, "default")));
    while (ending == 0 && lws_service(context_, 0) >= 0) {
    }
    serving = nullptr;
    printSummary();
    return true;
}

bool Controller::start() {
    static const lws_protocols kProtocols[] = {{"camera", callback, 0, 4096, 0, nullptr, 0},
                                               {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
    lws_context_creation_info info = {};
    info.port = options_.port;
    info.iface = "127.0.0.1";
    info.protocols = kProtocols;
    info.gid = -1;
    info.uid = -1;
    info.user = this;
    if (!options_.certFile.empty()) {
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = options_.certFile.c_str();
        info.ssl_private_key_filepath = options_.keyFile.c_str();
    }
    context_ = lws_create_context(&info);
    lws_vhost* const vhost =
        context_ == nullptr ? nullptr : lws_get_vhost_by_name(context_, "default");
    if (vhost == nullptr) {
        fprintf(stderr, "controller: cannot listen on port %d\n", options_.port);
        return false;
    }
    lws_sock_file_fd_type input;
    // A copy: libwebsockets closes what it was given.
    input.filefd = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (lws_adopt_descriptor_vhost(vhost, LWS_ADOPT_RAW_FILE_DESC, input, kProtocols[0].name,
                                   nullptr) == nullptr) {
        fprintf(stderr, "controller: no commands from standard input\n");
    }
    return true;
}

int Controller::callback(lws* wsi, lws_callback_reasons reason, void* /*user*/, void* in,
                         size_t length) {
    auto* const self = static_cast<Controller*>(lws_context_user(lws_get_context(wsi)));
    return self->handle(wsi, reason, static_cast<const char*>(in), length);
}

int Controller::handle(lws* wsi, lws_callback_reasons reason, const char* data, size_t length) {
    switch (reason) {
        case LWS_CALLBACK_ESTABLISHED:
            onConnected(wsi);
            return 0;
        case LWS_CALLBACK_RECEIVE:
            return onReceive(wsi, data, length);
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return onWriteable(wsi);
        case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
            if (length >= 2) {
                const auto* code = reinterpret_cast<const unsigned char*>(data);
                printf("camera %u: closes with %u\n", cameras_[wsi].number,
                       static_cast<unsigned>(code[0] << 8 | code[1]));
            }
            return 0;
        case LWS_CALLBACK_CLOSED:
            onClosed(wsi);
            return 0;
        case LWS_CALLBACK_RAW_RX_FILE:
            // At its end it would be readable for ever: let go of it.
            return readCommands(lws_get_socket_fd(wsi)) ? 0 : -1;
        default:
            return 0;
    }
}

void Controller::onConnected(lws* wsi) {
    Camera& camera = cameras_[wsi];
    camera.number = ++connections_;
    printf("camera %u: connected\n", camera.number);
    send(wsi, "hello");
}

void Controller::onClosed(lws* wsi) {
    printf("camera %u: gone\n", cameras_[wsi].number);
    cameras_.erase(wsi);
}

int Controller::onReceive(lws* wsi, const char* data, size_t length) {
    Camera& camera = cameras_[wsi];
    camera.incoming.append(data, length);
    if (camera.incoming.size() > kLongestMessage) return -1;
    if (lws_is_final_fragment(wsi) != 0 && lws_remaining_packet_payload(wsi) == 0) {
        onMessage(camera, camera.incoming);
        camera.incoming.clear();
    }
    return 0;
}

void Controller::onMessage(const Camera& camera, const std::string& text) {
    printf("camera %u: %s\n", camera.number, text.c_str());
    if (kest::utils::startsWith(text, "answer ")) ++answers_;
    if (!kest::utils::startsWith(text, "telemetry ")) return;
    ++telemetry_;
    if (options_.recordFile.empty()) return;
    FILE* const record = fopen(options_.recordFile.c_str(), "ae");
    if (record == nullptr) return;
    fprintf(record, "%s\n", text.c_str());
    fclose(record);
}

void Controller::send(lws* wsi, const std::string& text) {
    Camera& camera = cameras_[wsi];
    if (camera.outgoing.size() >= kMostQueued) return;
    camera.outgoing.push_back(text);
    lws_callback_on_writable(wsi);
}

int Controller::onWriteable(lws* wsi) {
    Camera& camera = cameras_[wsi];
    if (camera.outgoing.empty()) return 0;
    const std::string text = std::move(camera.outgoing.front());
    camera.outgoing.pop_front();
    // The library writes the frame's header in front of the payload.
    std::vector<unsigned char> frame(LWS_PRE);
    frame.insert(frame.end(), text.begin(), text.end());
    if (lws_write(wsi, frame.data() + LWS_PRE, text.size(), LWS_WRITE_TEXT) < 0) return -1;
    if (!camera.outgoing.empty()) lws_callback_on_writable(wsi);
    return 0;
}

bool Controller::readCommands(int fd) {
    std::array<char, 4096> chunk = {};
    const ssize_t got = read(fd, chunk.data(), chunk.size());
    if (got <= 0) return got < 0 && (errno == EINTR || errno == EAGAIN);
    commands_.append(chunk.data(), static_cast<size_t>(got));
    for (size_t end = 0; (end = commands_.find('\n')) != std::string::npos;) {
        const std::string line = commands_.substr(0, end);
        commands_.erase(0, end + 1);
        for (const auto& camera : cameras_)
            send(camera.first, line);
    }
    if (commands_.size() > kLongestMessage) commands_.clear();
    return true;
}

void Controller::printSummary() const {
    printf("summary: connections=%u telemetry=%u answers=%u\n", connections_, telemetry_, answers_);
}
