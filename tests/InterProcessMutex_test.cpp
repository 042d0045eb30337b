#include <kest/utils/InterProcessMutex.h>
#include <sys/time.h>

#include "support/child.h"
#include "support/clean_test.h"
#include "support/isolated.h"

namespace {

using kest::test::Child, kest::test::Isolated;

// What acquire() gives in another process; -4 when it waited until a signal came. A refused lock is
// tried twice, which must not leak.
int acquireElsewhere(const std::string& name, bool blocking = false) {
    Child child([&] {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often = {{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &often, nullptr);
        InterProcessMutex mutex(name.c_str(), blocking);
        const int result = mutex.acquire();
        const auto before = kest::test::openDescriptors().size();
        if (result == -3 && mutex.acquire() == -3 && errno == EINTR) _exit(4);
        _exit(before == kest::test::openDescriptors().size() ? -result : 99);
    });
    const int status = child.end();
    EXPECT_TRUE(WIFEXITED(status));
    return -WEXITSTATUS(status);
}

using InterProcessMutexTest = kest::test::CleanTest;

TEST_F(InterProcessMutexTest, ExcludesOtherProcessesUntilReleased) {
    Isolated().empty("/var/lock").run([] {
        InterProcessMutex mutex("camera", false);
        EXPECT_EQ(0, mutex.release());
        EXPECT_EQ(0, mutex.acquire());
        EXPECT_TRUE(mutex.isAcquired());
        EXPECT_EQ(-1, mutex.acquire());
        EXPECT_EQ(-3, acquireElsewhere("camera"));
        EXPECT_EQ(-4, acquireElsewhere("camera", true));
        EXPECT_EQ(0, acquireElsewhere("other"));
        EXPECT_EQ(0, mutex.release());
        EXPECT_FALSE(mutex.isAcquired());
        EXPECT_EQ(0, acquireElsewhere("camera"));
    });
}

TEST_F(InterProcessMutexTest, HoldsTheLockAlsoAfterARefusal) {
    Isolated().empty("/var/lock").run([] {
        InterProcessMutex mutex("camera", false);
        {
            Child holder([&] { EXPECT_TRUE(mutex.acquire() == 0 && raise(SIGSTOP) == 0); });
            EXPECT_TRUE(waitpid(-1, nullptr, WUNTRACED) > 0 && mutex.acquire() == -3);
        }
        EXPECT_EQ(0, mutex.acquire());
        EXPECT_EQ(-3, acquireElsewhere("camera"));
    });
}

TEST_F(InterProcessMutexTest, PathIsCutAndNeverLeavesItsFolder) {
    Isolated().empty("/var/lock").empty("/tmp").run([] {
        const std::string longName(53, 'x');
        InterProcessMutex mutex((longName + "one").c_str(), false);
        EXPECT_EQ(0, mutex.acquire());
        EXPECT_EQ(-3, acquireElsewhere(longName + "two"));
        ASSERT_EQ(0, symlink("/tmp/stray.lock", "/var/lock/planted.lock"));
        for (const char* name : {"../../tmp/stray", "a/b", "planted"}) {
            EXPECT_EQ(-2, InterProcessMutex(name, false).acquire()) << name;
        }
        EXPECT_NE(0, access("/tmp/stray.lock", F_OK));
    });
}

}  // namespace
