#include <kest/utils/persistence.h>
#include <sys/reboot.h>

#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;

static int restarts = 0;

extern "C" int reboot(int how) noexcept {
    restarts += how == RB_AUTOBOOT ? 1 : 100;
    return -1;
}

namespace {

using PersistenceTest = CleanTest;

TEST_F(PersistenceTest, AsksTheControlDaemonElseRebootsItself) {
    const std::string client = "(printf '<%s>' \"$@\"; echo) >>/tmp/kest/asked; . /tmp/kest/status";
    Isolated()
        .file("/tmp/kest/status", "exit 0")
        .program("/bin/kest_ipc_cli", client)
        .program("/usr/bin/reboot", "mkdir /tmp/kest/rebooted")  // fails the second time
        .run([] {
            EXPECT_TRUE(enqueuePersist(true) && enqueueReboot(-5));
            writeFile("/tmp/kest/status", "exit 3");
            EXPECT_FALSE(enqueuePersist(false));
            const int64_t start = nowMs();
            EXPECT_TRUE(enqueueReboot(500));
            EXPECT_GE(nowMs() - start, 500);
            EXPECT_EQ(0, restarts);
            EXPECT_TRUE(enqueueReboot(-1)) << "at once, and the kernel's refusal is no failure";
            EXPECT_EQ(1, restarts);

            std::string expected;
            for (const std::string rest :
                 {R"("SaveToFlash","sync":true}><-r=1>)", R"("Reboot","delayMs":-5}>)",
                  R"("SaveToFlash","sync":false}><-r=0>)", R"("Reboot","delayMs":500}>)",
                  R"("Reboot","delayMs":-1}>)"})
                expected += "<-z><-T=kest_ctlserver><-t=20000><-m={\"functionName\":" + rest + "\n";
            EXPECT_EQ(expected, readFile("/tmp/kest/asked"));
            EXPECT_THAT(logTexts(), testing::ElementsAre("Enqueued persist", "Enqueued persist"));
        });
}

}  // namespace
