// The websocket client beside a bare libwebsockets client on libwebsockets' own loop, both talking
// to one libwebsockets server in a process of its own. docs/benchmarks.md says what the figures
// mean.
#include <benchmark/benchmark.h>
#include <libwebsockets.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <kest/utils/WebsockClient.h>
#include <kest/utils/scheduler.h>
#include <kest/variant/uri.h>

#include "require.h"

namespace {

constexpr size_t kLargest = 65536;
constexpr size_t kBatchBytes = 8 * kLargest;

lws_context_creation_info contextInfo(const lws_protocols* protocols, void* user) {
    lws_set_log_level(LLL_ERR, nullptr);
    lws_context_creation_info info = {};
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = protocols;
    info.user = user;
    info.http_proxy_address = ":0";
    return info;
}

// What a client orders: so many messages of a size, or an answer after so many of its own.
struct Order {
    unsigned long deliver;
    unsigned long expect;
    unsigned long size;
};

// The server: one connection at a time. An order is "D E S" in one message.
class Server {
  public:
    // Runs in a process of its own, so that the client's processor time is the client's alone.
    static int port() {
        static const int port = start();
        return port;
    }

  private:
    static int start() {
        int ends[2] = {-1, -1};
        require(pipe(ends) == 0, "pipe");
        const pid_t pid = fork();
        require(pid >= 0, "fork");
        if (pid == 0) serve(ends[1]);
        int port = 0;
        require(read(ends[0], &port, sizeof(port)) == sizeof(port), "server");
        return port;
    }

    [[noreturn]] static void serve(int reportTo) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        static const lws_protocols protocols[] = {
            {"kest", &Server::callback, 0, kLargest, 0, nullptr, 2 * kLargest},
            {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
        Server server;
        lws_context_creation_info info = contextInfo(protocols, &server);
        info.port = 0;
        info.iface = "lo";
        info.pt_serv_buf_size = kLargest;
        info.options = LWS_SERVER_OPTION_DISABLE_IPV6;
        lws_context* const context = lws_create_context(&info);
        require(context != nullptr, "server");
        const int port = lws_get_vhost_listen_port(lws_get_vhost_by_name(context, "default"));
        require(write(reportTo, &port, sizeof(port)) == sizeof(port), "server");
        while (lws_service(context, 0) >= 0) {
        }
        _exit(0);
    }

    static int callback(lws* wsi, lws_callback_reasons reason, void*, void* in, size_t len) {
        auto& server = *static_cast<Server*>(lws_context_user(lws_get_context(wsi)));
        if (reason == LWS_CALLBACK_RECEIVE) server.receive(wsi, static_cast<char*>(in), len);
        if (reason == LWS_CALLBACK_SERVER_WRITEABLE) server.deliver(wsi);
        return 0;
    }

    void receive(lws* wsi, const char* data, size_t length) {
        if (order_.expect == 0) {
            std::sscanf(std::string(data, length).c_str(), "%lu %lu %lu", &order_.deliver,
                        &order_.expect, &order_.size);
        } else if (lws_is_final_fragment(wsi) != 0 && --order_.expect == 0) {
            order_ = {1, 0, 1};
        }
        if (order_.deliver > 0) lws_callback_on_writable(wsi);
    }

    void deliver(lws* wsi) {
        if (order_.deliver == 0) return;
        lws_write(wsi, buffer_.data() + LWS_PRE, order_.size, LWS_WRITE_TEXT);
        if (--order_.deliver > 0) lws_callback_on_writable(wsi);
    }

    Order order_ = {};
    std::vector<unsigned char> buffer_ = std::vector<unsigned char>(LWS_PRE + kLargest, 'x');
};

// The client under test.
class Ours {
  public:
    Ours() {
        require(scheduler_.Init(), "scheduler");
        client_.setUseSsl(false);
        client_.setQueueLength(kBatchBytes / 64 + 2);
        client_.onConnect([this](Connection& connection) { connection_ = &connection; });
        client_.onMessage([this](Connection& connection, const unsigned char*, unsigned int) {
            if (connection.isLastPart()) ++received_;
        });
        kest::variant::URI uri;
        kest::variant::URI::FromString("ws://127.0.0.1:" + std::to_string(Server::port()) + "/",
                                       uri);
        require(client_.connect(uri), "connect");
        while (connection_ == nullptr)
            scheduler_.Service();
    }

    void send(const void* data, size_t size) {
        require(connection_->send(data, static_cast<unsigned>(size)), "send");
    }
    void receive(unsigned long count) {
        for (received_ = 0; received_ < count;)
            scheduler_.Service();
    }

  private:
    using Connection = kest::utils::websock::Connection;

    kest::utils::Scheduler scheduler_;
    kest::utils::websock::WebsockClient client_{&scheduler_};
    Connection* connection_ = nullptr;
    unsigned long received_ = 0;
};

// What a program without our library would do: its own list of messages, written when writeable.
class Bare {
  public:
    Bare() {
        static const lws_protocols protocols[] = {{"kest", &Bare::callback, 0, 0, 0, nullptr, 0},
                                                  {nullptr, nullptr, 0, 0, 0, nullptr, 0}};
        const lws_context_creation_info info = contextInfo(protocols, this);
        context_ = lws_create_context(&info);
        require(context_ != nullptr, "context");
        lws_client_connect_info connection = {};
        connection.context = context_;
        connection.address = connection.host = connection.origin = "127.0.0.1";
        connection.port = Server::port();
        connection.path = "/";
        connection.pwsi = &wsi_;
        require(lws_client_connect_via_info(&connection) != nullptr, "connect");
        while (!connected_)
            lws_service(context_, 0);
    }
    ~Bare() { lws_context_destroy(context_); }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void send(const void* data, size_t size) {
        auto* const message = static_cast<unsigned char*>(std::malloc(LWS_PRE + size));
        std::memcpy(message + LWS_PRE, data, size);
        queue_.push_back({message, size});
        lws_callback_on_writable(wsi_);
    }
    void receive(unsigned long count) {
        for (received_ = 0; received_ < count;)
            lws_service(context_, 0);
    }

  private:
    struct Message {
        unsigned char* data;
        size_t size;
    };

    static int callback(lws* wsi, lws_callback_reasons reason, void*, void*, size_t) {
        auto& client = *static_cast<Bare*>(lws_context_user(lws_get_context(wsi)));
        if (reason == LWS_CALLBACK_CLIENT_ESTABLISHED) client.connected_ = true;
        if (reason == LWS_CALLBACK_CLIENT_WRITEABLE) client.write();
        if (reason == LWS_CALLBACK_CLIENT_RECEIVE && lws_is_final_fragment(wsi) != 0) {
            ++client.received_;
        }
        return 0;
    }

    void write() {
        if (next_ == queue_.size()) return;
        const Message message = queue_[next_++];
        lws_write(wsi_, message.data + LWS_PRE, message.size, LWS_WRITE_TEXT);
        std::free(message.data);
        if (next_ < queue_.size()) {
            lws_callback_on_writable(wsi_);
        } else {
            queue_.clear();
            next_ = 0;
        }
    }

    lws_context* context_ = nullptr;
    lws* wsi_ = nullptr;
    bool connected_ = false;
    unsigned long received_ = 0;
    std::vector<Message> queue_;
    size_t next_ = 0;
};

template <typename Client>
void order(Client& client, const Order& order) {
    char text[64];
    const int length =
        std::snprintf(text, sizeof(text), "%lu %lu %lu", order.deliver, order.expect, order.size);
    client.send(text, static_cast<size_t>(length));
}

unsigned long batchOf(size_t size) {
    return kBatchBytes / size;
}

template <typename Client>
void sendMessages(benchmark::State& state) {
    Client client;
    const auto size = static_cast<size_t>(state.range(0));
    const unsigned long batch = batchOf(size);
    const std::string message(size, 'x');
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
        order(client, {0, batch, 0});
        for (unsigned long i = 0; i < batch; ++i)
            client.send(message.data(), size);
        client.receive(1);
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename Client>
void receiveMessages(benchmark::State& state) {
    Client client;
    const auto size = static_cast<size_t>(state.range(0));
    const unsigned long batch = batchOf(size);
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
        order(client, {batch, 0, size});
        client.receive(batch);
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename Client>
void registerAll(const std::string& contestant) {
    for (const long size : {64L, 1024L, static_cast<long>(kLargest)}) {
        const auto add = [&](std::string pattern, void (*run)(benchmark::State&)) {
            pattern += contestant;
            return benchmark::RegisterBenchmark(pattern.c_str(), run)->Arg(size);
        };
        add("send_cpu/", sendMessages<Client>);
        add("send_time/", sendMessages<Client>)->UseRealTime();
        add("receive_cpu/", receiveMessages<Client>);
        add("receive_time/", receiveMessages<Client>)->UseRealTime();
    }
}

// What ours logs about ends would mix with the report.
const bool registered =
    (setenv("KEST_LOG_LEVEL", "2", 0), registerAll<Ours>("ours"), registerAll<Bare>("bare"), true);

}  // namespace
