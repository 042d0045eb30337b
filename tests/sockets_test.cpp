#include <fcntl.h>
#include <netinet/tcp.h>

#include <kest/utils/lowlevelsocket.h>
#include <kest/utils/terminate.h>
#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/isolated.h"

using namespace kest::utils;
using SocketsTest = kest::test::CleanTest;

static int option(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    return getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

TEST_F(SocketsTest, EachBitAppliesItsOption) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_TRUE(SetFdOptions(fd, ~(1U << 30)));
    EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
    EXPECT_EQ(1, option(fd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(1, option(fd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(1, option(fd, IPPROTO_TCP, TCP_CORK));
    EXPECT_EQ(184, option(fd, IPPROTO_IP, IP_TOS));
    EXPECT_EQ(SIG_IGN, signal(SIGPIPE, SIG_DFL));
    EXPECT_TRUE(SetFdOptions(fd, 7U << 29 | FdNoSIGPIPE));
    EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_IGN));
    EXPECT_TRUE(SetSendTimeout(fd, 8, 0) && SetRecvTimeout(fd, 7, 0) && SetFdTos(fd, 255));
    EXPECT_EQ(8, option(fd, SOL_SOCKET, SO_SNDTIMEO));
    EXPECT_EQ(7, option(fd, SOL_SOCKET, SO_RCVTIMEO));
    EXPECT_EQ("TOS mismatch. Wanted value: 255; Applied value: 252", kest::test::logTexts().back());
    close(fd);
}

TEST_F(SocketsTest, TheFirstRefusalIsLoggedAndEndsTheSequence) {
    for (const unsigned bit : {31U, 29U, 28U, 26U, 25U, 24U})
        EXPECT_FALSE(SetFdOptions(-1, 1U << bit | FdTos));
    const std::vector<std::string> expected = {
        "Unable to get socket flags", "Unable to reuse address", "Unable to set TCP_NODELAY",
        "Unable to set FD_CLOEXEC",   "Unable to set TCP_CORK",  "Unable to set/get IP_TOS"};
    EXPECT_EQ(expected, kest::test::logTexts());
    EXPECT_EQ(EBADF, kest::test::logLines()[0].errnoValue);
}

// Tells its steps to the test that started the process. A signal cuts the sleep of one second.
extern "C" unsigned sleep(unsigned seconds) {
    fprintf(stderr, "%u,", seconds);
    return seconds == 1 ? 1 : 0;
}

static void end(int duration, bool reboot) {
    signal(SIGCHLD, SIG_IGN);
    announceTerminate("127.0.0.1", 4711, duration, 3, 7, nullptr, reboot);
}

TEST_F(SocketsTest, AnnouncesByScheduleThenExitsOrReboots) {
    const auto test = [] {
        setenv("PATH", "/run/tools", 1);
        int fd = -1;
        sockaddr_in address = {};
        openUdp(fd, address, "127.0.0.1", 4711);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        const int64_t start = nowMs();
        EXPECT_EXIT(end(30, false), testing::ExitedWithCode(7), "^3,3,3,1,$");
        EXPECT_LE(1000, nowMs() - start);
        EXPECT_EXIT(end(-5, true), testing::KilledBySignal(SIGABRT),
                    "^-p /etc/ -m -w,reboot,(qemu: .*)?$");
        EXPECT_EXIT(end(2, true), testing::ExitedWithCode(7), "^2,-p /etc/ -m -w,reboot,$");
        std::string received;
        char got[128];
        for (ssize_t count = 0; count >= 0; count = recv(fd, got, sizeof(got), MSG_DONTWAIT))
            received.append(got, static_cast<size_t>(count));
        const std::string reason = ". reason code: 00000007; reason description: \n";
        const std::string restart = "Announce app restart" + reason;
        const std::string reboot = "Announce reboot" + reason;
        EXPECT_EQ(restart + restart + restart + restart + reboot + reboot, received);
    };
    kest::test::Isolated()
        .program("/run/tools/nvsave", "printf '%s,' \"$*\" >&2; exit 1")
        .program("/run/tools/reboot", "printf 'reboot,' >&2; test -e /run/2 || ! : >/run/2")
        .run(test);
}
