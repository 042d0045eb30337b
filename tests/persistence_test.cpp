#include <kest/utils/persistence.h>
#include <sys/reboot.h>
#include <sys/time.h>
#include <unistd.h>

#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre;

static int restarts = 0;

extern "C" int reboot(int how) noexcept {
    restarts += how == RB_AUTOBOOT ? 1 : 100;
    return -1;
}

namespace {

using PersistenceTest = CleanTest;

Isolated device() {
    return Isolated()
        .empty("/tmp")
        .file("/tmp/status", "0")
        .program("/bin/kest_ipc_cli", "printf '<%s>' \"$@\" >/tmp/asked; exit $(cat /tmp/status)")
        .program("/usr/bin/reboot", ">/tmp/rebooted; exit $(cat /tmp/status)");
}

TEST_F(PersistenceTest, AsksTheControlDaemonInSoManyWords) {
    device().run([] {
        const std::string options = "<-z><-T=kest_ctlserver><-t=20000>";
        EXPECT_TRUE(enqueuePersist(true));
        EXPECT_EQ(options + R"(<-m={"functionName":"SaveToFlash","sync":true}><-r=1>)",
                  readFile("/tmp/asked"));
        EXPECT_TRUE(enqueueReboot(-5));
        EXPECT_EQ(options + R"(<-m={"functionName":"Reboot","delayMs":-5}>)",
                  readFile("/tmp/asked"));
        writeFile("/tmp/status", "3");
        EXPECT_FALSE(enqueuePersist(false));
        EXPECT_EQ(options + R"(<-m={"functionName":"SaveToFlash","sync":false}><-r=0>)",
                  readFile("/tmp/asked"));
        EXPECT_THAT(logTexts(), ElementsAre("Enqueued persist", "Enqueued persist"));
        EXPECT_EQ(0, restarts + (access("/tmp/rebooted", F_OK) == 0));
    });
}

TEST_F(PersistenceTest, RebootsItselfWhenNobodyTakesTheRequest) {
    device().run([] {
        unlink("/bin/kest_ipc_cli");
        signal(SIGALRM, [](int) {});
        const itimerval every = {{0, 50000}, {0, 50000}};  // cuts every sleep short
        setitimer(ITIMER_REAL, &every, nullptr);
        const int64_t start = nowMs();
        EXPECT_TRUE(enqueueReboot(1500));
        EXPECT_GE(nowMs() - start, 1500);
        EXPECT_EQ("", readFile("/tmp/rebooted"));
        EXPECT_EQ(0, restarts);
        writeFile("/tmp/status", "1");
        EXPECT_TRUE(enqueueReboot(-1)) << "at once, and the kernel's refusal is no failure";
        EXPECT_EQ(1, restarts);
    });
}

}  // namespace
