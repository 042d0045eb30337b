#include <kest/utils/persistence.h>
#include <sys/reboot.h>
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

TEST_F(PersistenceTest, AsksTheControlDaemonElseRebootsItself) {
    Isolated()
        .file("/tmp/kest/status", "0")
        .program("/bin/kest_ipc_cli",
                 "printf '<%s>' \"$@\" >/tmp/kest/asked; exit $(cat /tmp/kest/status)")
        .program("/usr/bin/reboot", "exec mv /tmp/kest/asked /tmp/kest/rebooted")
        .run([] {
            const std::string asked = "/tmp/kest/asked";
            const std::string options = "<-z><-T=kest_ctlserver><-t=20000>";
            EXPECT_TRUE(enqueuePersist(true));
            EXPECT_EQ(options + R"(<-m={"functionName":"SaveToFlash","sync":true}><-r=1>)",
                      readFile(asked));
            EXPECT_TRUE(enqueueReboot(-5));
            EXPECT_EQ(options + R"(<-m={"functionName":"Reboot","delayMs":-5}>)", readFile(asked));
            writeFile("/tmp/kest/status", "3");
            EXPECT_FALSE(enqueuePersist(false));
            EXPECT_EQ(options + R"(<-m={"functionName":"SaveToFlash","sync":false}><-r=0>)",
                      readFile(asked));
            EXPECT_THAT(logTexts(), ElementsAre("Enqueued persist", "Enqueued persist"));

            const int64_t start = nowMs();
            EXPECT_TRUE(enqueueReboot(500));
            EXPECT_GE(nowMs() - start, 500);
            EXPECT_NE("", readFile("/tmp/kest/rebooted"));
            EXPECT_EQ(0, restarts);
            unlink("/bin/kest_ipc_cli");  // nothing for the program to move, so it fails
            EXPECT_TRUE(enqueueReboot(-1)) << "at once, and the kernel's refusal is no failure";
            EXPECT_EQ(1, restarts);
        });
}

}  // namespace
