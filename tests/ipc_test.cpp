#include <fcntl.h>
#include <kest/ipc/BlockingIpcHandler.h>
#include <kest/ipc/IpcService.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "support/clean_test.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using namespace kest::test;
using kest::ipc::BlockingIpcHandler, kest::ipc::IpcService, kest::ipc::appendSuffix;
using kest::variant::Variant;
using testing::ElementsAre, testing::IsEmpty;

// A daemon in another process, which answers until it is told to end or killed.
class Daemon {
  public:
    explicit Daemon(const std::string& name, IpcService::Handler handler) {
        int ready[2];
        EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
        pid_ = fork();
        if (pid_ == 0) run(name, std::move(handler), ready[1]);
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(1, read(ready[0], &byte, 1)) << "the daemon did not start";
        close(ready[0]);
    }
    ~Daemon() { kill(SIGKILL); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    void kill(int signo) {
        if (pid_ <= 0) return;
        ::kill(pid_, signo);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

  private:
    [[noreturn]] static void run(const std::string& name, IpcService::Handler handler, int ready) {
        static volatile sig_atomic_t ended = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { ended = 1; };
        sigaction(SIGTERM, &action, nullptr);
        {
            IpcService service(name);
            service.onRequest(std::move(handler));
            if (service.init() != 0 || write(ready, "!", 1) != 1) _exit(1);
            pollfd item = {service.fd(), POLLIN, 0};
            while (ended == 0 && (poll(&item, 1, -1) > 0 || errno == EINTR))
                service.service();
        }
        _exit(0);
    }

    pid_t pid_ = -1;
};

class IpcTest : public CleanTest {
  protected:
    void SetUp() override {
        setenv("KEST_IPC_DIR", folder().c_str(), 1);
        CleanTest::SetUp();
    }
    std::string folder() const { return dir_ / "ipc"; }

    TempDir dir_;
};

Variant request(uint64_t id) {
    Variant message;
    message["id"] = id;
    message["functionName"] = "Ask";
    message["responseExpected"] = true;
    return message;
}

TEST_F(IpcTest, AnswersCarryStatusAndResponse) {
    Daemon daemon("peer", [](Variant& asked, Variant& response) {
        response["twice"] = 2 * static_cast<int>(asked["value"]);
        response["from"] = asked["from"];
        return static_cast<int>(asked["value"]);
    });
    BlockingIpcHandler handler("asker");
    ASSERT_EQ(0, handler.init());
    for (int i = 0; i < 3; ++i) {
        Variant message = request(~0ULL - static_cast<unsigned>(i));
        message["value"] = i;
        ASSERT_EQ(0, handler.sendRequest("peer", message));
    }
    EXPECT_EQ(0, handler.waitAllRequestsSent(5000));
    EXPECT_EQ(0, handler.waitAllResponsesReceived(5000));
    for (int i = 0; i < 3; ++i) {
        const uint64_t id = ~0ULL - static_cast<unsigned>(i);
        EXPECT_EQ(i, handler.getStatus(id));
        EXPECT_EQ(2 * i, handler.getResponse(id)["twice"]);
        EXPECT_EQ("asker", handler.getResponse(id)["from"]);
    }
    daemon.kill(SIGTERM);
    EXPECT_TRUE(fs::is_empty(folder()));
    EXPECT_THAT(logTexts(), IsEmpty());
}

}  // namespace
