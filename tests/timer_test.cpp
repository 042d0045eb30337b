#include <kest/utils/timer.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/clean_test.h"

using kest::utils::hostReachable;
using TimerTest = kest::test::CleanTest;

static useconds_t slept = 0;
extern "C" int usleep(useconds_t us) {
    slept = us;
    return -1;
}

TEST_F(TimerTest, CountsAndPrintsTime) {
    EXPECT_EQ(0, momentsDiffMs({1, 999999999}, {2, 0}));
    EXPECT_EQ(-1, momentsDiffMs({2, 1999899}, {1, 999999999}));
    EXPECT_EQ(4294967295000, momentsDiffMs({-2147483647 - 1, 0}, {2147483647, 0}));
    const int64_t ms = nowMs(), us = nowUs(), ns = nowNs(), end = momentsDiffMs({}, moment());
    EXPECT_TRUE(ms <= us / 1000 && us <= ns / 1000 && ns / 1000000 <= end && end - ms < 10000);
    EXPECT_NEAR(static_cast<double>(nowWallMs()) / 1e3, static_cast<double>(time(nullptr)), 10);
    EXPECT_EQ("01:02:05 100:00:00", timeToString(3725) + ' ' + timeToString(360000));
    EXPECT_EQ("-1:-2:-5 00:00:-5", timeToString(-3725) + ' ' + timeToString(-5));
    // Microseconds in 32 bits, whatever the name says; the result is the system's.
    EXPECT_TRUE(sleepMs(4294968) == -1 && slept == 704 && sleepNs(1000) == -1 && slept == 1000);
}

TEST_F(TimerTest, HostIsReachableWhileSomebodyListens) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
    const uint16_t port = ntohs(address.sin_port);
    int error = 0;
    EXPECT_TRUE(!hostReachable("127.0.0.1", port, error) && error == ECONNREFUSED);
    ASSERT_EQ(0, ::listen(fd, 4));
    // Success leaves the error alone.
    EXPECT_TRUE(hostReachable(std::string("127.0.0.1"), port, error) && error == ECONNREFUSED);
    for (const char* nobody : {"a b", "", static_cast<const char*>(nullptr)})
        EXPECT_TRUE(!hostReachable(nobody, port, error = 0) && error > 0);
    ::close(fd);
}
