// Requests between two processes: ours beside bare ZeroMQ over the same kind of socket, which sends
// the same text there and back and looks at nothing.
//
// Cases are named "<pattern>/<contestant>/<bytes of payload>", in wall time. "ask" is a round trip
// on a connection that stands with a message made before, "ask8" eight requests at once, "exchange"
// everything for a single request from making the asking object to its end.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <kest/ipc/BlockingIpcHandler.h>
#include <kest/ipc/IpcService.h>

#include "require.h"

namespace {

namespace fs = std::filesystem;
using kest::ipc::BlockingIpcHandler;
using kest::ipc::IpcService;
using kest::variant::Variant;

constexpr int kTimeoutMs = 10000;

// What a request for the validation of a token looks like.
Variant request(uint64_t id, long payload) {
    Variant message;
    message["authToken"] = std::string(static_cast<size_t>(payload), 'x');
    message["from"] = "asker";
    message["functionName"] = "ValidateAuthToken";
    message["id"] = id;
    message["isBroadcast"] = false;
    message["queueIfDestUnavailable"] = true;
    message["responseExpected"] = true;
    message["timeStamp"] = timeval{1700000000, 0};
    message["to"] = "ours";
    message["transactionId"] = -1;
    return message;
}

// Both answering sides, each in a process of its own, and the folder of their sockets.
class Peers {
  public:
    Peers() {
        std::string name = fs::temp_directory_path() / "kest-ipc-bench-XXXXXX";
        require(mkdtemp(name.data()) != nullptr, "mkdtemp");
        folder_ = name;
        setenv("KEST_IPC_DIR", name.c_str(), 1);
        start(0, [] { serveOurs(); });
        start(1, [this] { serveBare(address()); });
        while (!fs::exists(folder_ / "ours") || !fs::exists(folder_ / "bare"))
            usleep(1000);
    }
    ~Peers() {
        for (const pid_t pid : pids_) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        fs::remove_all(folder_);
    }
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    std::string address() const { return "ipc://" + (folder_ / "bare").string(); }

  private:
    template <typename Function>
    void start(int which, Function function) {
        pids_[which] = fork();
        require(pids_[which] >= 0, "fork");
        if (pids_[which] != 0) return;
        function();
        _exit(1);
    }

    static void serveOurs() {
        IpcService service("ours");
        service.onRequest([](Variant& asked, Variant& response) {
            response["authToken"] = asked["authToken"];
            return 0;
        });
        require(service.init() == 0, "init");
        pollfd item = {service.fd(), POLLIN, 0};
        while (poll(&item, 1, -1) == 1)
            service.service();
    }

    static void serveBare(const std::string& address) {
        void* const socket = zmq_socket(zmq_ctx_new(), ZMQ_ROUTER);
        require(zmq_bind(socket, address.c_str()) == 0, "zmq_bind");
        zmq_msg_t part;
        zmq_msg_init(&part);
        while (zmq_msg_recv(&part, socket, 0) >= 0)
            zmq_msg_send(&part, socket, zmq_msg_more(&part) != 0 ? ZMQ_SNDMORE : 0);
    }

    fs::path folder_;
    pid_t pids_[2] = {-1, -1};
};

Peers& peers() {
    static Peers instance;
    return instance;
}

class Ours {
  public:
    Ours() : handler_("asker") { require(handler_.init() == 0, "init"); }

    void ask(int count, long payload) {
        const uint64_t first = id_;
        if (message_.Members().empty()) message_ = request(id_, payload);
        for (int i = 0; i < count; ++i) {
            message_["id"] = id_++;
            require(handler_.sendRequest("ours", message_) == 0, "sendRequest");
        }
        require(handler_.waitAllRequestsSent(kTimeoutMs) == 0, "sent");
        require(handler_.waitAllResponsesReceived(kTimeoutMs) == 0, "received");
        for (uint64_t id = first; id < id_; ++id)
            require(handler_.getStatus(id) == 0, "status");
    }

  private:
    BlockingIpcHandler handler_;
    Variant message_;
    uint64_t id_ = 1;
};

class Bare {
  public:
    Bare() : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_DEALER)) {
        require(zmq_connect(socket_, peers().address().c_str()) == 0, "zmq_connect");
        zmq_msg_init(&part_);
    }
    ~Bare() {
        zmq_msg_close(&part_);
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void ask(int count, long payload) {
        if (text_.empty()) text_ = request(1, payload).ToJson();
        for (int i = 0; i < count; ++i) {
            zmq_send(socket_, "", 0, ZMQ_SNDMORE);
            zmq_send(socket_, text_.data(), text_.size(), 0);
        }
        for (int i = 0; i < count; ++i) {
            zmq_msg_recv(&part_, socket_, 0);
            require(zmq_msg_recv(&part_, socket_, 0) == static_cast<int>(text_.size()), "answer");
        }
    }

  private:
    void* context_;
    void* socket_;
    zmq_msg_t part_;
    std::string text_;
};

template <class Contestant, int count>
void ask(benchmark::State& state) {
    peers();
    Contestant contestant;
    contestant.ask(1, state.range(0));
    for (auto _ : state)
        contestant.ask(count, state.range(0));
    state.SetItemsProcessed(state.iterations() * count);
}

template <class Contestant>
void exchange(benchmark::State& state) {
    peers();
    for (auto _ : state)
        Contestant().ask(1, state.range(0));
}

BENCHMARK_TEMPLATE(ask, Ours, 1)->Name("ask/ours")->Arg(32)->Arg(4096)->UseRealTime();
BENCHMARK_TEMPLATE(ask, Bare, 1)->Name("ask/zmq")->Arg(32)->Arg(4096)->UseRealTime();
BENCHMARK_TEMPLATE(ask, Ours, 8)->Name("ask8/ours")->Arg(32)->UseRealTime();
BENCHMARK_TEMPLATE(ask, Bare, 8)->Name("ask8/zmq")->Arg(32)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, Ours)->Name("exchange/ours")->Arg(32)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, Bare)->Name("exchange/zmq")->Arg(32)->UseRealTime();

}  // namespace
