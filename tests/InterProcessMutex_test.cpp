#include <kest/utils/InterProcessMutex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/clean_test.h"
#include "support/isolated.h"

namespace {

using kest::test::Isolated;

// What acquire() gives in another process.
int acquireElsewhere(const std::string& name) {
    const pid_t child = fork();
    if (child == 0) _exit(-InterProcessMutex(name.c_str(), false).acquire());
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    return -WEXITSTATUS(status);
}

class InterProcessMutexTest : public kest::test::CleanTest {};

TEST_F(InterProcessMutexTest, ExcludesOtherProcessesUntilReleased) {
    Isolated().empty("/var/lock").run([] {
        InterProcessMutex mutex("camera", false);
        EXPECT_EQ(0, mutex.release());
        EXPECT_EQ(0, mutex.acquire());
        EXPECT_TRUE(mutex.isAcquired());
        EXPECT_EQ(-1, mutex.acquire());
        EXPECT_EQ(-3, acquireElsewhere("camera"));
        EXPECT_EQ(0, acquireElsewhere("other"));
        EXPECT_EQ(0, mutex.release());
        EXPECT_FALSE(mutex.isAcquired());
        EXPECT_EQ(0, acquireElsewhere("camera"));
    });
}

TEST_F(InterProcessMutexTest, RefusedLockMayBeTriedAgainWithoutALeak) {
    Isolated().empty("/var/lock").run([] {
        int ready[2], end[2];
        ASSERT_EQ(0, pipe(ready) + pipe(end));
        const pid_t holder = fork();
        char byte = 0;
        if (holder == 0) {
            InterProcessMutex held("camera", false);
            byte = static_cast<char>(held.acquire());
            _exit(write(ready[1], &byte, 1) == 1 && read(end[0], &byte, 1) == 1 ? 0 : 1);
        }
        ASSERT_EQ(1, read(ready[0], &byte, 1));
        const auto before = kest::test::openDescriptors().size();
        {
            InterProcessMutex mutex("camera", false);
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(-3, mutex.acquire());
        }
        EXPECT_EQ(before, kest::test::openDescriptors().size());
        EXPECT_EQ(1, write(end[1], &byte, 1));
        EXPECT_EQ(0, InterProcessMutex("camera", true).acquire());
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
