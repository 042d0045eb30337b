#include <kest/ipc/BlockingIpcHandler.h>
#include <kest/ipc/IpcService.h>
#include <poll.h>
#include <sys/stat.h>
#include <zmq.h>

#include <climits>
#include <filesystem>
#include <stdexcept>

#include "support/child.h"
#include "support/clean_test.h"
#include "support/emulator.h"
#include "support/limited.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace kest::test;
using kest::ipc::BlockingIpcHandler, kest::ipc::IpcService, kest::ipc::appendSuffix;
using kest::variant::Variant;
using testing::Each, testing::ElementsAre, testing::IsEmpty, testing::StartsWith;

constexpr int kLong = 20000;
constexpr int kUnanswered = BlockingIpcHandler::kUnanswered;
constexpr uint64_t kFirst = ~0ULL;

// What a daemon does for ever.
void serve(const char* name, const IpcService::Handler& handler) {
    IpcService service(name);
    service.onRequest(handler);
    ASSERT_EQ(0, service.init());
    for (pollfd item = {service.fd(), POLLIN, 0}; poll(&item, 1, -1) == 1;)
        service.service();
}

int statusOf(Variant& request, Variant& response) {
    response["from"] = request["from"];
    return request["status"];
}

class IpcTest : public CleanTest {
  protected:
    void SetUp() override {
        setenv("KEST_IPC_DIR", folder().c_str(), 1);
        CleanTest::SetUp();
    }
    std::string folder() const { return dir_ / "ipc"; }

    TempDir dir_;
};

Variant request(uint64_t id, int status = 0) {
    Variant message;
    message["id"] = id;
    message["responseExpected"] = true;
    message["status"] = status;
    return message;
}

// The status of one request in an exchange of its own, or -errno.
int ask(const std::string& destination, const Variant& message, int ms = kLong) {
    BlockingIpcHandler handler("asker");
    int failure = handler.init();
    if (failure == 0) failure = handler.sendRequest(destination, message);
    if (failure == 0) failure = handler.waitAllRequestsSent(ms);
    if (failure == 0) failure = handler.waitAllResponsesReceived(ms);
    return failure == 0 ? handler.getStatus(message["id"]) : -failure;
}

TEST_F(IpcTest, AnswersCarryStatusAndResponse) {
    Child peer([] { serve("peer", statusOf); });
    BlockingIpcHandler handler("asker");
    ASSERT_EQ(0, handler.init());
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(0,
                  handler.sendRequest("peer", request(kFirst - static_cast<unsigned>(i), i - 7)));
    EXPECT_EQ(ENOBUFS, handler.sendRequest("peer", request(1)));
    EXPECT_EQ(EEXIST, handler.sendRequest("peer", request(kFirst)));
    EXPECT_EQ(0, handler.waitAllRequestsSent(kLong));
    EXPECT_EQ(0, handler.waitAllResponsesReceived(kLong));
    for (int i = 0; i < 1024; ++i)
        EXPECT_EQ(i - 7, handler.getStatus(kFirst - static_cast<unsigned>(i)));
    EXPECT_EQ("asker", handler.getResponse(kFirst)["from"]);
    EXPECT_EQ(0, handler.sendRequest("peer", request(1)));
    EXPECT_EQ(kUnanswered, handler.getStatus(kFirst)) << "the oldest is forgotten";
    EXPECT_THAT(logTexts(), IsEmpty());
    EXPECT_NE(appendSuffix("a"), appendSuffix("a"));
}

TEST_F(IpcTest, RefusesNamesAndMessages) {
    BlockingIpcHandler handler("asker");
    EXPECT_EQ(ENOTCONN, handler.sendRequest("peer", request(1)));
    EXPECT_EQ(ENOTCONN, handler.waitAllRequestsSent(kLong));
    ASSERT_EQ(0, handler.init());
    for (const std::string name : {"", ".", "..", "../peer", "a/b", ".peer.lock", "a b", "a\n"}) {
        EXPECT_EQ(EINVAL, handler.sendRequest(name, request(1))) << name;
        EXPECT_EQ(EINVAL, BlockingIpcHandler(name).init()) << name;
        EXPECT_EQ(EINVAL, IpcService(name).init()) << name;
    }
    EXPECT_EQ(ENAMETOOLONG, handler.sendRequest(std::string(108, 'x'), request(1)));
    EXPECT_EQ(EINVAL, handler.sendRequest("peer", Variant("text")));
    Variant large = request(1);
    large["text"] = std::string(1 << 20, 'x');
    EXPECT_EQ(EMSGSIZE, handler.sendRequest("peer", large));
    EXPECT_EQ(0, handler.waitAllResponsesReceived(0));
}

TEST_F(IpcTest, RefusesFoldersThatOthersMayChange) {
    const std::string real = dir_ / "real", link = dir_ / "link";
    fs::create_directory_symlink(real, link);
    writeFile(dir_ / "file", "");
    const auto initIn = [](const std::string& path) {
        setenv("KEST_IPC_DIR", path.c_str(), 1);
        const int service = IpcService("peer").init();
        EXPECT_EQ(service, BlockingIpcHandler("asker").init()) << path;
        return service;
    };
    EXPECT_TRUE(initIn(real) == 0 && fs::is_empty(real));
    for (const std::string& path : {link, link + "/", dir_ / "file"})
        EXPECT_EQ(ENOTDIR, initIn(path)) << path;
    EXPECT_EQ(ENOENT, initIn(dir_ / "no/folder"));
    EXPECT_EQ(EINVAL, initIn("relative"));
    ASSERT_EQ(0, chmod(real.c_str(), 0710));
    EXPECT_EQ(EPERM, initIn(real));
    const bool given = chmod(real.c_str(), 0700) == 0 && chown(real.c_str(), 1, 1) == 0;
    EXPECT_EQ(given ? EPERM : 0, initIn(real));
    EXPECT_THAT(logTexts(), Each(StartsWith("IPC folder \"")));
}

TEST_F(IpcTest, DestinationsComeAndGo) {
    if (emulated())
        GTEST_SKIP() << "QEMU 7 cannot start threads in the child of a threaded process";
    BlockingIpcHandler handler("asker");
    ASSERT_EQ(0, handler.init());
    Variant atOnce = request(2);
    atOnce["queueIfDestUnavailable"] = false;
    EXPECT_EQ(ENOENT, handler.sendRequest("peer", atOnce));
    EXPECT_EQ(0, handler.sendRequest("peer", request(1, 5)));
    EXPECT_EQ(ETIMEDOUT, handler.waitAllRequestsSent(50));
    {
        Child peer([] { serve("peer", statusOf); });
        EXPECT_EQ(0, handler.waitAllRequestsSent(kLong));
        EXPECT_EQ(0, handler.waitAllResponsesReceived(kLong));
        EXPECT_EQ(5, handler.getStatus(1));
        EXPECT_EQ(EADDRINUSE, IpcService("peer").init());
    }
    // Killed: its files are still there, and nobody listens.
    EXPECT_EQ(-ECONNREFUSED, ask("peer", atOnce));
    Child next([] { serve("peer", [](Variant&, Variant&) { return raise(SIGKILL); }); });
    EXPECT_EQ(-ETIMEDOUT, ask("peer", request(3), 100));
    EXPECT_EQ(kUnanswered, handler.getStatus(3));
    EXPECT_THAT(logTexts(), ElementsAre("Unable to open IPC endpoint \"peer\""));
}

// A socket of the bare library, bound to or connected with an endpoint.
class BareSocket {
  public:
    BareSocket(int type, const std::string& path) : context_(zmq_ctx_new()) {
        socket_ = zmq_socket(context_, type);
        const std::string address = "ipc://" + path;
        EXPECT_EQ(0, type == ZMQ_ROUTER ? zmq_bind(socket_, address.c_str())
                                        : zmq_connect(socket_, address.c_str()));
    }
    ~BareSocket() {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }

    void send(std::initializer_list<std::string> parts) {
        size_t left = parts.size();
        for (const std::string& part : parts)
            zmq_send(socket_, part.data(), part.size(), --left > 0 ? ZMQ_SNDMORE : 0);
    }
    std::string receivePart() {
        char part[4096];
        const int size = zmq_recv(socket_, part, sizeof(part), 0);
        return {part, part + std::max(size, 0)};
    }

  private:
    void* context_;
    void* socket_ = nullptr;
};

const std::string kLarge = "\"" + std::string(1 << 20, 'x') + "\"";

TEST_F(IpcTest, DropsWhatIsNoAnswer) {
    ASSERT_TRUE(mkdir(folder().c_str(), 0700) == 0);
    Child peer([this] {
        BareSocket socket(ZMQ_ROUTER, folder() + "/peer");
        const std::string asker = socket.receivePart();
        for (const char* text : {"{]", kLarge.c_str(), "[]", R"({"id":1.5,"status":0})",
                                 R"({"id":2,"status":0})", R"({"id":1,"status":"0"})"})
            socket.send({asker, "", text});
        socket.send({asker, R"({"id":1,"status":0})"});
        socket.send({asker, "", R"({"id":1,"status":0})", ""});
        socket.send({asker, "", R"({"id":1,"status":4294967296})"});
        pause();
    });
    EXPECT_EQ(INT_MAX, ask("peer", request(1)));
    const std::string start = "Dropped message from peer: it ";
    EXPECT_THAT(logTexts(),
                ElementsAre(start + "is not JSON", start + "is too large", start + "has no id",
                            start + "has no id", start + "answers no request of ours",
                            start + "has no status", start + "is not in two parts",
                            start + "is not in two parts"));
}

TEST_F(IpcTest, DropsWhatIsNoRequest) {
    IpcService service("peer");
    int calls = 0;
    service.onRequest([&calls](Variant&, Variant& response) {
        response["text"] = ++calls == 1 ? "first" : kLarge;
        return 7;
    });
    ASSERT_EQ(0, service.init());
    BareSocket asker(ZMQ_DEALER, folder() + "/peer");
    for (const char* bad : {"{]", kLarge.c_str(), "{}"})
        asker.send({"", bad});
    asker.send({R"({"id":1})"});
    asker.send({"", R"({"id":1})", ""});
    for (int i = 0; i < 2; ++i)
        asker.send({"", R"({"id":1,"responseExpected":true})"});
    for (pollfd item = {service.fd(), POLLIN, 0}; calls < 2;)
        ASSERT_TRUE(poll(&item, 1, kLong) == 1 && service.service());
    EXPECT_EQ("", asker.receivePart());
    EXPECT_EQ(R"({"id":1,"response":{"text":"first"},"status":7})", asker.receivePart());
    EXPECT_EQ("", asker.receivePart());
    EXPECT_EQ(R"({"id":1,"response":null,"status":90})", asker.receivePart());
    const std::string start = "Dropped message to peer: it ";
    EXPECT_THAT(logTexts(),
                ElementsAre(start + "is not JSON", start + "is too large", start + "has no id",
                            start + "is not in two parts", start + "is not in two parts",
                            "Answer of peer is too large"));
}

TEST_F(IpcTest, ServiceIsReportedUntilTheWorkIsDone) {
    IpcService service("peer");
    EXPECT_FALSE(service.service());
    ASSERT_EQ(0, service.init());
    int calls = 0;
    service.onRequest([&](Variant&, Variant&) {
        EXPECT_TRUE(service.service()) << "from inside";
        if (++calls == 1) throw std::runtime_error("handler");
        if (calls == 70) service.onRequest([&](Variant&, Variant&) { return ++calls; });
        return 0;
    });
    BlockingIpcHandler handler("asker");
    ASSERT_EQ(0, handler.init());
    for (unsigned i = 0; i < 200; ++i)
        ASSERT_EQ(0, handler.sendRequest("peer", request(i)));
    pollfd item = {service.fd(), POLLIN, 0};
    const auto pass = [&] {
        handler.waitAllRequestsSent(0);  // it may not have connected yet
        if (poll(&item, 1, 10) == 1) service.service();
    };
    EXPECT_THROW(while (calls == 0) pass(), std::runtime_error);
    while (calls < 200) {
        const int done = calls;
        pass();
        EXPECT_LE(calls - done, 64);
    }
    while (handler.getStatus(199) == kUnanswered)
        EXPECT_EQ(ETIMEDOUT, handler.waitAllResponsesReceived(10));
    EXPECT_EQ(kUnanswered, handler.getStatus(0)) << "its handler threw";
    EXPECT_EQ(200, handler.getStatus(199));
}

TEST_F(IpcTest, CopiesInAChildDoNothing) {
    IpcService service("peer");
    BlockingIpcHandler handler("asker");
    ASSERT_TRUE(service.init() == 0 && handler.init() == 0);
    ASSERT_EQ(0, handler.sendRequest("peer", request(1)));
    Child child([&] {
        EXPECT_EQ(ENOTCONN, handler.sendRequest("peer", request(2)));
        EXPECT_EQ(ENOTCONN, handler.waitAllResponsesReceived(kLong));
        EXPECT_FALSE(service.service());
        service.~IpcService();
        handler.~BlockingIpcHandler();
        // Without a look for leaks: the parent's threads and sockets are left on purpose.
        if (!HasFailure()) raise(SIGUSR1);
    });
    EXPECT_EQ(SIGUSR1, child.end());
    EXPECT_TRUE(fs::exists(folder() + "/peer"));
    EXPECT_EQ(0, handler.waitAllRequestsSent(kLong));
}

// libzmq by itself ends the process here.
TEST_F(IpcTest, WithoutDescriptorsNothingStarts) {
    rlim_t descriptors = 3;
    for (int failure = EMFILE; failure != 0;) {
        ASSERT_LT(++descriptors, 100U);
        const Limited limited(RLIMIT_NOFILE, descriptors);
        failure = IpcService("peer").init();
    }
    EXPECT_GT(descriptors, 13U);
}

TEST_F(IpcTest, CommandLineClient) {
    Child peer([] { serve("peer", statusOf); });
    const std::string out = dir_ / "out";
    const auto run = [&out](const std::string& options) {
        return WEXITSTATUS(
            system((command(IPC_CLI) + " " + options + " >" + out + " 2>&1").c_str()));
    };
    EXPECT_EQ(0, run(R"(-z -T=peer -t=20000 '-m={"status":3}' -r=1)"));
    EXPECT_EQ("", readFile(out));
    EXPECT_EQ(0, run(R"(-T=peer -t=20000 '-m={"status":3}')"));
    EXPECT_THAT(readFile(out), StartsWith(R"(3 {"from":"kest_ipc_cli_)"));
    EXPECT_EQ(0, run("-z -T=peer -t=20000 '-m={}' -r=0"));
    EXPECT_EQ(1, run("-z -T=nobody -t=10 '-m={}' -r=0"));
    EXPECT_EQ("kest_ipc_cli: nobody: Connection timed out\n", readFile(out));
    for (const char* options : {"", "-z -T=peer -t=10", "-T=peer -t=-1 -m={}",
                                "-T=peer -t=1 -m=secret", "-T=peer -t=1 -m=[]", "-T= -t=1 -m={}",
                                "-T=peer -t=1 -m={} -r=2", "-T=peer -t=1 -m={} x"}) {
        EXPECT_EQ(2, run(options)) << options;
        EXPECT_EQ(readFile(out).size() - 1, readFile(out).find('\n')) << "one line";
        EXPECT_EQ(std::string::npos, readFile(out).find("secret"));
    }
}

}  // namespace
