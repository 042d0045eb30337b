#include <kest/utils/WebsockClient.h>

#include <gmock/gmock.h>
#include <malloc.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <kest/utils/exec.h>
#include <kest/utils/scheduler.h>
#include <kest/utils/timer.h>
#include <kest/variant/uri.h>

#include "support/clean_test.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

using namespace kest::utils::websock;
using kest::utils::Scheduler;
using kest::variant::URI;
using kest::variant::Variant;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

// A proxy of the environment is no business of the client's.
static const int kProxy = setenv("http_proxy", "127.0.0.1:9", 1);

// Somebody else's server, with the certificates and key of that name if there is one.
class Server {
  public:
    explicit Server(const std::string& name = "") {
        exec_.setExe(TEST_SUPPORT "/websocket_server.py").setOut(&out_);
        if (!name.empty()) exec_.pushArg(name + ".pem").pushArg(name + ".key");
        EXPECT_TRUE(exec_.start());
        port_ = static_cast<uint16_t>(std::stoi(line()));
    }
    // What it says next: how a connection ended.
    std::string line() {
        auto end = out_.end();
        while ((end = std::find(out_.begin(), out_.end(), '\n')) == out_.end())
            if (!exec_.service()) return "";
        std::string text(out_.begin(), end);
        out_.erase(out_.begin(), end + 1);
        return text;
    }
    URI uri(const std::string& path) const { return uriOf(port_, path); }
    static URI uriOf(uint16_t port, const std::string& path) {
        URI uri;
        EXPECT_TRUE(URI::FromString("ws://127.0.0.1:" + std::to_string(port) + path, uri));
        return uri;
    }

  private:
    std::vector<char> out_;
    kest::utils::SysExec exec_;
    uint16_t port_ = 0;
};

// Notes what its client hears and does what the test wants, or says good-bye to "x" and "pong".
struct Daemon {
    explicit Daemon(Scheduler* scheduler) : client(new WebsockClient(scheduler)) {
        client->setUseSsl(false);
        listen();
    }
    void listen() {
        client->onConnect([this](Connection& c) { hear(c, "connect"); });
        client->onPong([this](Connection& c) { hear(c, "pong"); });
        client->onClose([this](Connection& c, const std::string& why) { hear(c, "close " + why); });
        client->onError([this](Connection& c, const std::string& why) { hear(c, "error " + why); });
        client->onMessage([this](Connection& c, const unsigned char* data, unsigned length) {
            part.append(reinterpret_cast<const char*>(data), length);
            if (c.isLastPart()) hear(c, std::exchange(part, ""));
        });
    }
    void hear(Connection& from, const std::string& what) {
        connection = &from;
        heard.push_back(what);
        ended = isEnd(what);
        if (then) then(what);
        if (!ended && (what == "x" || what == "pong")) from.sendClose();
    }
    static bool isEnd(const std::string& what) { return what.find(' ') == 5; }
    bool send(const std::string& text) {
        return connection->send(text.data(), static_cast<unsigned>(text.size()));
    }

    std::unique_ptr<WebsockClient> client;
    Connection* connection = nullptr;
    std::string part;
    Texts heard;
    bool ended = false;
    std::function<void(const std::string& what)> then;
};

struct WebsockClientTest : public kest::test::CleanTest {
    WebsockClientTest() { EXPECT_TRUE(scheduler.Init()); }
    Texts live(Daemon& daemon, URI uri) {
        EXPECT_TRUE(daemon.client->connect(uri));
        for (daemon.ended = false; !daemon.ended;)
            EXPECT_TRUE(scheduler.Service());
        EXPECT_TRUE(daemon.client == nullptr || daemon.client->cancel());
        return std::exchange(daemon.heard, {});
    }
    // And warnings, but for the two that each end of a connection brings.
    static Texts errors() {
        Texts texts;
        for (const auto& line : kest::test::logLines())
            if (line.level <= 4 && line.text != "lws service failed" &&
                line.text != "Failed to service")
                texts.push_back(line.text);
        kest::test::clearLog();
        return texts;
    }

    Scheduler scheduler;
};

TEST_F(WebsockClientTest, TellsOnceHowItBeganAndOnceHowItEnded) {
    const std::string big(10 << 20, 'x');
    const std::tuple<std::string, Texts, std::string> kLives[] = {
        {"/hello/a,,x", {"connect", "a", "", "x", "close null"}, "/hello/a,,x 1000 "},
        {"/close/1008", {"connect", "close because"}, "/close/1008 1008 because"},
        {"/reset/", {"connect", "close null"}, "/reset/ 1006 "},
        {"/ping/", {"connect", "pong", "close null"}, "/ping/ 1000 "},
        {"/big/10485760", {"connect", big, {"\0\1\2", 3}, "close null"}, "/big/10485760 1000 "},
        {"/moved", {"connect", "moved", "close null"}, "/hello/moved 1000 "},
        {"/headers/", {"connect", "1,2", "close null"}, "/headers/ 1000 "},
        {"/refused", {"error HS: ws upgrade response not 101"}, ""},
        {"/wordy", {"error problems parsing header"}, ""}};
    Server server;
    Daemon daemon(&scheduler);
    for (const auto& [name, value] : {std::pair("X-Two", "2"), {"x-one", "0"}, {"X-One", "1"}})
        daemon.client->setHeader(name, value);
    for (const auto& [path, heard, ending] : kLives) {
        const size_t farewell = heard.size() - 1;
        daemon.then = [&](const std::string&) {
            if (farewell > 1 && daemon.heard.size() == farewell) daemon.connection->sendClose();
        };
        EXPECT_TRUE(live(daemon, server.uri(path)) == heard) << path;
        EXPECT_TRUE(ending.empty() || ending == server.line()) << path;
    }
    daemon.then = nullptr;
    URI uri = server.uri("/host/");
    uri["host"] = "::ffff:127.0.0.1";
    EXPECT_THAT(live(daemon, uri), ElementsAre("connect", "close [::ffff:127.0.0.1]"));
    EXPECT_THAT(errors(), ElementsAre());
    for (const std::string& value : {std::string("a\r\nb"), std::string(5000, 'x')}) {
        daemon.client->setHeader("X-Bad", value);
        EXPECT_EQ(1U, live(daemon, server.uri("/headers/")).size());
        EXPECT_THAT(errors(), ElementsAre("Failed to add field: X-Bad:" + value));
    }
}

TEST_F(WebsockClientTest, CarriesAHundredThousandMessagesInOrder_NotUnderValgrind) {
    Server server;
    Daemon daemon(&scheduler);
    daemon.client->setQueueLength(100001);
    daemon.client->setProtocolName("camera");
    int number = 0;
    daemon.then = [&](const std::string& text) {
        if (text == std::to_string(number) && daemon.send(text)) ++number;
    };
    EXPECT_EQ("close camera", live(daemon, server.uri("/count/100000")).back());
    EXPECT_EQ(100000, number);
}

TEST_F(WebsockClientTest, AThousandLivesLeaveNothingBehind_NotUnderValgrind) {
    Server server;
    Daemon daemon(&scheduler);
    const auto liveAFew = [&](int lives) {
        while (lives-- > 0)
            EXPECT_EQ(3U, live(daemon, server.uri("/hello/x")).size() + errors().size());
        return mallinfo2().uordblks;
    };
    liveAFew(10);
    const auto descriptors = kest::test::openDescriptors();
    const size_t before = liveAFew(1);
    // Not even 20 bytes for each; the captured log may have found reason to grow.
    EXPECT_LT(liveAFew(989), before + 20000);
    EXPECT_EQ(descriptors, kest::test::openDescriptors());
}

TEST_F(WebsockClientTest, QueueIsOneShortOfItsSlotsAndEmptiedBeforeTheClose) {
    Server server;
    URI uri = server.uri("/hello/0");
    Daemon daemon(&scheduler);
    daemon.client->setQueueLength(3);
    daemon.then = [&](const std::string& what) {
        if (what != "connect") return;
        EXPECT_FALSE(daemon.client->connect(uri) || daemon.connection->send(nullptr, 1) ||
                     daemon.send("") || daemon.connection->send("", 0xFFFFFFF5));
        EXPECT_TRUE(daemon.send("1") && daemon.send("2") && !daemon.send("3"));
        EXPECT_TRUE(daemon.connection->sendClose() && daemon.connection->sendClose());
        EXPECT_FALSE(daemon.send("4"));
        daemon.client->cancel();
    };
    live(daemon, uri);
    EXPECT_EQ("/hello/0 1001  1 2", server.line());
    EXPECT_THAT(errors(), ElementsAre("Error: already connecting", "invalid data buffer", "no data",
                                      "failed to allocate message memory 5 bytes",
                                      "outgoing queue is full, dropping", "already closing"));
    for (const unsigned slots : {0U, 0xFFFFFFFFU}) {
        daemon.client->setQueueLength(slots);
        EXPECT_THAT(live(daemon, uri), ElementsAre("error HS: Rejected at CLIENT_ESTABLISHED"));
        EXPECT_THAT(errors(), ElementsAre("Failed to create outgoing queue"));
    }
}

TEST_F(WebsockClientTest, RefusesWhatNobodyCanConnectTo) {
    const std::string host = "host", port = "port", path = "fullDocumentPath", text(3000, 'a');
    const std::pair<std::string, Variant> kBad[] = {
        {host, ""},      {host, nullptr}, {host, "bad..name"}, {host, "+/tmp"},
        {host, "a\nb"},  {host, text},    {port, nullptr},     {port, 0},
        {path, nullptr}, {path, "/a b"},  {path, text}};
    Daemon daemon(&scheduler);
    URI good = Server::uriOf(9, "/");
    for (const auto& [key, value] : kBad) {
        URI uri = good;
        uri[key] = value;
        EXPECT_FALSE(daemon.client->connect(uri) || uri[key] == Variant()) << key;
        EXPECT_THAT(errors(),
                    ElementsAre("Failed to lws connect", "Failed to initiate connection"));
        EXPECT_TRUE(daemon.client->cancel());
    }
    daemon.client->setProtocolName(text);
    EXPECT_FALSE(daemon.client->connect(good) || errors().size() != 2 || !daemon.client->cancel());
    daemon.client->setProtocolName("");
    EXPECT_THAT(live(daemon, good), ElementsAre("error Unable to connect"));
    daemon.client->setUseSsl(true);
    daemon.client->setCertFile("/nowhere.pem");
    EXPECT_FALSE(daemon.client->connect(good) || daemon.client->service(0));
    EXPECT_THAT(errors(), ElementsAre("Failed to create lws context",
                                      "Failed to create lws context", "no lws context"));
    // Without its timer a connection could wait for ever.
    Scheduler stopped;
    EXPECT_FALSE(Daemon(&stopped).client->connect(good));
}

TEST_F(WebsockClientTest, EndsWithinItsTimeOutWhenNobodyAnswers) {
    const int quiet = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    ASSERT_EQ(0, bind(quiet, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, getsockname(quiet, reinterpret_cast<sockaddr*>(&address), &size));
    ASSERT_EQ(0, listen(quiet, 1));
    URI uri = Server::uriOf(ntohs(address.sin_port), "/");
    // Two are accepted and left alone, the third is not even that.
    Daemon plain(&scheduler), tls(&scheduler), last(&scheduler);
    for (Daemon* daemon : {&plain, &tls, &last}) {
        daemon->client->setTimeout(1);
        daemon->client->setUseSsl(daemon == &tls);
        EXPECT_TRUE(daemon->client->connect(uri));
    }
    const int64_t start = nowMs();
    while (!plain.ended || !tls.ended || !last.ended)
        EXPECT_TRUE(scheduler.Service());
    EXPECT_NEAR(3000, static_cast<double>(nowMs() - start), 2100);
    EXPECT_THAT(plain.heard, ElementsAre("error closed before established"));
    EXPECT_THAT(tls.heard, ElementsAre("error Timed out waiting SSL"));
    EXPECT_THAT(last.heard, ElementsAre("error Unable to connect"));
    close(quiet);
}

TEST_F(WebsockClientTest, PinnedLeafAloneDecides) {
    const kest::test::TempDir dir;
    ASSERT_EQ(0, system(("cd " + dir.path() + "; " TEST_SUPPORT "/certificates.sh 2>log").c_str()));
    // What the server has, what is pinned, the authority, and whether it passes.
    const std::tuple<std::string, std::string, std::string, bool> kCases[] = {
        {"stale", "", "", true},          {"stale", "stale", "", true},
        {"stale", "leaf", "", false},     {"leaf", "leaf", "", true},
        {"leaf", "twin", "", false},      {"chain", "leaf", "root", true},
        {"chain", "twin", "root", false}, {"chain", "authority", "root", false}};
    for (const auto& [name, pinned, authority, passes] : kCases) {
        Server server(dir / name);
        Daemon daemon(&scheduler), other(&scheduler);
        other.client->setUseSsl(true);
        daemon.client->setUseSsl(true);
        daemon.client->setCertFile(dir / "twin.pem");
        daemon.client->setKeyFile(dir / "twin.key");
        daemon.client->setCaFile(authority.empty() ? "" : dir / authority + ".pem");
        EXPECT_TRUE(pinned.empty() || daemon.client->addPinnedCert(dir / pinned + ".pem"));
        URI uri = server.uri("/hello/x");
        // A second client comes between the first one's hello and the server's.
        EXPECT_TRUE(daemon.client->connect(uri) && scheduler.Service());
        EXPECT_TRUE(other.client->connect(uri));
        while (!daemon.ended)
            EXPECT_TRUE(scheduler.Service());
        EXPECT_EQ(passes ? 3U : 1U, daemon.heard.size()) << name << " pinned to " << pinned;
    }
    errors();
    WebsockClient client(&scheduler);
    for (const std::string path : {"nowhere", "../../dev/zero", ".", "extensions", "leaf.key"})
        EXPECT_FALSE(client.addPinnedCert(dir / path)) << path;
    const std::string missing = "No local cert", bad = "Failed to load cert";
    EXPECT_THAT(errors(), ElementsAre(missing, missing, missing, bad, bad));
}

TEST_F(WebsockClientTest, CallbacksMayDoAnythingToTheirClient) {
    // With the last two nothing more is to be heard.
    const std::function<void(Daemon&)> kActions[] = {
        [](Daemon& d) { d.client->cancel(); },
        [](Daemon& d) { d.connection->sendClose(); },
        [](Daemon& d) { d.client.reset(new WebsockClient(std::move(*d.client))); },
        [](Daemon& d) { EXPECT_TRUE(d.client->service(60000)); },
        [](Daemon& d) { d.listen(); },
        [](Daemon& d) { d.client.reset(), d.ended = true; },
        [](Daemon& d) { *d.client = WebsockClient(nullptr), d.ended = true; }};
    Server server;
    for (const std::string event : {"connect", "x", "close ", "error "}) {
        for (size_t i = 0; i < std::size(kActions); ++i) {
            Daemon daemon(&scheduler);
            bool gone = false;
            daemon.then = [&](const std::string& what) {
                EXPECT_FALSE(gone) << what;
                if (what.rfind(event, 0) != 0) return;
                kActions[i](daemon);
                gone = i > 4;
            };
            const URI uri = server.uri(event == "error " ? "/refused" : "/hello/x");
            const Texts heard = live(daemon, uri);
            EXPECT_EQ(gone && !Daemon::isEnd(event) ? 0 : 1,
                      std::count_if(heard.begin(), heard.end(), Daemon::isEnd));
        }
    }
}

TEST_F(WebsockClientTest, ConnectsAgainFromItsCallbacksBesideAnotherClient) {
    Server server;
    signal(SIGPIPE, [](int) {});
    Daemon daemon(&scheduler), other(nullptr);
    Texts paths = {"/close/1000", "/refused", "/reset/", "/hello/x", "/refused", "/hello/x"};
    daemon.then = [&](const std::string&) {
        if (!daemon.ended || paths.empty()) return;
        URI uri = server.uri(paths.back());
        paths.pop_back();
        EXPECT_TRUE(daemon.client->cancel() && daemon.client->connect(uri));
        daemon.ended = false;
    };
    URI uri = server.uri("/hello/y");
    EXPECT_TRUE(other.client->connect(uri));
    EXPECT_EQ(13U, live(daemon, server.uri("/refused")).size());
    // The other one has no scheduler.
    while (other.heard.size() < 2)
        EXPECT_TRUE(other.client->service(1000));
    const int64_t start = nowMs();
    EXPECT_TRUE(other.client->service(50) && other.client->service(0));
    EXPECT_NEAR(3000, static_cast<double>(nowMs() - start), 2955);
    EXPECT_TRUE(other.connection->sendClose());
    while (!other.ended)
        EXPECT_TRUE(other.client->service(1000));
    EXPECT_NE(SIG_IGN, signal(SIGPIPE, SIG_DFL));
}
