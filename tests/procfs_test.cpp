// Covers process.h and threadpriority.h as well: small units that look at the same /proc.
#include <kest/utils/procfs.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <kest/utils/process.h>
#include <kest/utils/threadpriority.h>

#include "support/clean_test.h"
#include "support/emulator.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using namespace std::string_literals;
using testing::ElementsAre, testing::EndsWith, testing::Pair, testing::UnorderedElementsAre;

extern "C" int sched_setscheduler(pid_t pid, int policy, const sched_param* param) noexcept {
    return pid == getpid() && policy == SCHED_RR && param->sched_priority == 99 ? 0 : -1;
}

namespace {

using ProcfsTest = CleanTest;

TEST_F(ProcfsTest, ReadProcNeedsRoomToSpareAndWriteProcAddsANul) {
    const TempDir dir;
    std::string out;
    EXPECT_EQ(0, writeProc(dir / "file", "ab"));
    EXPECT_EQ(-3, readProc(dir / "file", out, 3));
    EXPECT_EQ(0, readProc(dir / "file", out, 4));
    EXPECT_EQ("ab\0"s, out);
    EXPECT_EQ(-2, writeProc("/dev/full", "ab"));
    mkfifo((dir / "fifo").c_str(), 0600);
    EXPECT_EQ(0, readProc(dir / "fifo", out, 9)) << "and it does not wait for a writer";
}

TEST_F(ProcfsTest, DescriptorZeroIsAFailureAndIsClosed) {
    const int input = dup(0);
    std::string out;
    close(0);
    EXPECT_EQ(-1, writeProc("/dev/null", "1"));
    EXPECT_EQ(-1, readProc("/dev/null", out, 9));
    EXPECT_EQ(0, dup(input));
    close(input);
}

TEST_F(ProcfsTest, ReadProcFileHasBoundsAndLogsItsFailures) {
    std::string out;
    EXPECT_TRUE(ReadProcFile("/dev/zero", out, 1025) && out.size() == 1025);
    EXPECT_TRUE(ReadProcFile("/dev/zero", out, ~0U) && out.size() == 16U << 20);
    EXPECT_FALSE(ReadProcFile("/missing", out, 9));
    EXPECT_FALSE(ReadProcFile("/", out, 9));
    EXPECT_THAT(logTexts(), ElementsAre("Unable to open file `/missing`",
                                        "Unable to read 1024 bytes from `/`"));
    EXPECT_EQ("Init", logLines()[0].function);
}

TEST_F(ProcfsTest, TakesItsCommandLineApartNotUnderValgrind) {
    if (emulated()) GTEST_SKIP() << "QEMU answers for /proc/self/cmdline itself";
    Isolated().run([] {
        ASSERT_EQ(0, mount("tmpfs", "/proc", "tmpfs", 0, nullptr));
        ASSERT_EQ(0, mkdir("/proc/self", 0755));
        writeFile("/proc/self/cmdline", "/usr/sbin/sshd\0-D\0\0x"s);
        std::string exe;
        std::vector<std::string> args = {"kept"};
        EXPECT_TRUE(ReadCommandLine(exe, args) && exe == "/usr/sbin/sshd");
        EXPECT_THAT(args, ElementsAre("kept", "-D", "", "x"));
        EXPECT_EQ(0, umount("/proc"));
    });
}

TEST_F(ProcfsTest, FindsProcessesNotUnderValgrind) {
    Isolated().run([] {
        std::string exe;
        EXPECT_TRUE(getModuleDir(exe) == 0 && access((exe + "/procfs_test").c_str(), X_OK) == 0);
        ASSERT_EQ(0, mount("tmpfs", "/proc", "tmpfs", 0, nullptr));
        int count = 0;
        for (const std::string& text :
             {"/usr/sbin/sshd\0-D\0\0x"s, "sshd"s, "/bin/xsshd\0"s, "/bin/sshd01\0"s, ""s, "0"s,
              "x\0sshd"s + std::string(3 << 20, 'x'), "/bin/sh\nsshd"s}) {
            const std::string folder = "/proc/1" + std::to_string(count++);
            mkdir(folder.c_str(), 0755);
            writeFile(folder + "/cmdline", text);
        }
        EXPECT_EQ(0, mkdir("/proc/18", 0755)) << "it has ended since it was listed";
        EXPECT_THAT(pidof("sshd"), UnorderedElementsAre(10, 11, 13));
        int pids[9] = {};
        EXPECT_EQ(1, getPidsByName("sshd", pids, 1));
        EXPECT_EQ(5, getPidsByName("sshd", pids, 9));
        EXPECT_THAT(pids, UnorderedElementsAre(10, 11, 12, 13, 16, 0, 0, 0, 0));

        writeFile("/proc/cmdline", "KEST_runmode=2 a=x=y KEST_runmode=3 c\n");
        std::map<std::string, std::string> map = {{"c", "own"}};
        EXPECT_TRUE(ReadKernelCommandLine(map) && GetRunMode(count) && count == 2);
        EXPECT_THAT(map,
                    ElementsAre(Pair("KEST_runmode", "2"), Pair("a", "x=y"), Pair("c", "own")));
        EXPECT_EQ(0, umount("/proc"));
    });
}

TEST_F(ProcfsTest, KillsThroughPkillButNeverEverything) {
    Isolated().program("/bin/pkill", "[ \"$*\" = '-9 cam' ] || [ -z \"$2\" ]").run([] {
        EXPECT_TRUE(kill_process_by_name("cam", 9));
        EXPECT_FALSE(kill_process_by_name("cam", 15));
        EXPECT_FALSE(kill_process_by_name("", 9));
    });
}

TEST_F(ProcfsTest, RealTimePriority) {
    EXPECT_TRUE(SetRealTimePriority(0, -1));
    EXPECT_FALSE(SetRealTimePriority(0, 5));
    EXPECT_THAT(logTexts(), ElementsAre(EndsWith(" priority 99"), "Unable to set priority to 5"));
}

}  // namespace
