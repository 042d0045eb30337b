#include <kest/utils/crashdumps.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>

#include "support/child.h"
#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/limited.h"
#include "support/temp_dir.h"

using namespace kest::test;
using namespace kest::utils;
using testing::ContainsRegex, testing::ElementsAre, testing::MatchesRegex, testing::StartsWith;

// The waits for the collector, without their length; each leaves a mark.
static int marks = -1;

extern "C" unsigned sleep(unsigned) {
    usleep(20000);
    return write(marks, "s", 1) == 1 ? 0 : 1;
}

namespace {

using CrashDumpsTest = CleanTest;
constexpr const char* kFolder = "/tmp/crashdumps/run";
constexpr const char* kReport = "/tmp/crashdumps/run/stack";

Isolated isolated(const std::string& collector = "echo \"$@\" >>/tmp/crashdumps/asked") {
    return Isolated().empty("/tmp/crashdumps").program("/usr/bin/collect", collector);
}

// Wait status of a child that installs the handler over the given actions and then runs `crash`.
int statusOf(const std::function<void()>& crash, sighandler_t previous = SIG_DFL) {
    mkdirP(kFolder, false);
    Child child([&] {
        for (int signo : {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS})
            signal(signo, previous);  // sanitizers have actions of their own
        pthread_atfork([] { _exit(55); }, nullptr, nullptr);
        if (InstallCrashDumpHandler(kFolder)) crash();
    });
    return child.end();
}

__attribute__((noinline)) void writeToNull(volatile int* nowhere = nullptr) {
    __asm__("" : "+r"(nowhere));
    *nowhere = 1;
}

__attribute__((noinline)) int exhaustStack(int depth) {
    volatile char space[4000] = {};
    space[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : exhaustStack(depth + 1) + space[0];
}

__attribute__((noinline)) void smashStack() {
    auto* frame = static_cast<volatile uintptr_t*>(__builtin_frame_address(0));
    for (int i = -1; i < 2; ++i)
        frame[i] = 0x41414140;
}

TEST_F(CrashDumpsTest, EveryCrashLeavesOneReportAndEndsOnItsSignalNotUnderValgrind) {
    const std::vector<std::pair<int, void (*)()>> crashes = {
        {SIGSEGV, [] { exhaustStack(0); }},
        {SIGSEGV, [] { std::thread([] { InstallCrashDumpStack() && exhaustStack(0); }).join(); }},
        {SIGSEGV, smashStack},
        {SIGABRT, abort},
        {SIGFPE, [] { kill(getpid(), SIGFPE); }},
        {SIGILL, [] { kill(getpid(), SIGILL); }},
        {SIGBUS, [] { kill(getpid(), SIGBUS); }},
        {SIGSEGV, [] {
             const std::thread other([] { writeToNull(); });
             writeToNull();
         }}};
    isolated().run([&] {
        for (const auto& [signo, crash] : crashes) {
            for (sighandler_t previous : {SIG_DFL, SIG_IGN})
                EXPECT_EQ(signo, WTERMSIG(statusOf(crash, previous)));
            EXPECT_THAT(readFile(kReport),
                        MatchesRegex(format("SIGNAL: 0x%08X\n\n--- STACK TRACE ---\n"
                                            "(0x[0-9A-F]{8}: [^\n]*\n)+--- MEMORY MAP ---\n"
                                            "([0-9a-f]+-[^\n]+\n)+\n\n",
                                            static_cast<unsigned>(signo))));
        }
    });
}

TEST_F(CrashDumpsTest, TheReportLeadsToTheSourceLineNotUnderValgrind) {
    isolated().run([] {
        statusOf([] { writeToNull(); });
        EXPECT_EQ(0, system(KEST_SYMBOLIZE " /tmp/crashdumps/run/stack >/tmp/crashdumps/lines"));
        EXPECT_THAT(readFile("/tmp/crashdumps/lines"),
                    ContainsRegex("signal 11 .*\n#0 .*\n#1 .*writeToNull.* at .*/crashdumps_test."
                                  "cpp:[0-9]+ .*\n#2 .*/crashdumps_test.cpp:"));
    });
}

// Processes of the namespace, whose first one reaps orphans.
int processes() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
        count += isdigit(entry.path().filename().c_str()[0]) != 0;
    return count;
}

TEST_F(CrashDumpsTest, ACollectorThatIsAbsentOrHangsLeavesNoProcessNotUnderValgrind) {
    isolated("echo >/tmp/crashdumps/asked; exec sleep 100").run([] {
        marks = open("/tmp/crashdumps/marks", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        const int before = processes();
        EXPECT_EQ(SIGABRT, WTERMSIG(statusOf(abort)));
        EXPECT_NE("", readFile("/tmp/crashdumps/asked"));
        EXPECT_EQ(10U, readFile("/tmp/crashdumps/marks").size());
        chmod("/usr/bin/collect", 0644);
        EXPECT_EQ(SIGSEGV, WTERMSIG(statusOf([] { writeToNull(); })));
        while (processes() > before)  // or beyond the limit
            usleep(1000);
    });
}

int calls = 0;
std::vector<const void*> given;

TEST_F(CrashDumpsTest, HandsOnToEarlierHandlersOnce) {
    isolated().run([] {
        mkdirP(kFolder, false);
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int signo, siginfo_t* info, void* context) {
            calls += signo;
            given = {info, context};
        };
        sigaction(SIGBUS, &action, nullptr);
        signal(SIGFPE, [](int signo) { calls += signo; });
        EXPECT_TRUE(InstallCrashDumpHandler(kFolder) && InstallCrashDumpHandler(kFolder));
        DumpStackWrapper(0, nullptr, nullptr);
        EXPECT_THAT(readFile(kReport), StartsWith("--- STACK TRACE ---\n0x"));
        EXPECT_TRUE(raise(SIGFPE) == 0 && calls == SIGFPE);
        siginfo_t info = {};
        ucontext_t context = {};
        DumpStackWrapper(SIGBUS, &info, &context);
        EXPECT_EQ(SIGFPE + SIGBUS, calls);
        EXPECT_THAT(given, ElementsAre(&info, &context));
        const std::string asked = format("%d %s\n", getpid(), kFolder);
        EXPECT_EQ(asked + asked + asked, readFile("/tmp/crashdumps/asked"));
    });
}

const std::string kBase = "/tmp/crashdumps/crashdumps_test/";

// Numbers of the folders after a run with CRASH_DUMPS_COUNT set to `keep`; the run's own is first.
std::string numbersAfter(const char* keep) {
    keep == nullptr ? unsetenv("CRASH_DUMPS_COUNT") : setenv("CRASH_DUMPS_COUNT", keep, 1);
    std::string folder;
    std::map<std::string, bool> entries;
    EXPECT_TRUE(gCrashDumper.GetCrashDumpFolder(nullptr, folder) && isDir(folder));
    EXPECT_TRUE(listFolder(kBase, entries, false));
    std::string numbers = format("%d:", atoi(folder.c_str() + kBase.size()));
    for (const auto& [path, isFolder] : entries)
        numbers += isFolder ? format(" %d", atoi(path.c_str() + kBase.size())) : "";
    return numbers;
}

TEST_F(CrashDumpsTest, NumbersAndEvictsFolders) {
    isolated().run([] {
        for (const char* name : {"-000000008", ".0000000066", "00000000055", "0000000007", "1"})
            mkdirP(kBase + name, false);
        writeFile(kBase + "0000000099", "");
        EXPECT_EQ("8: -8 0 55 7 8 1", numbersAfter("100"));
        EXPECT_EQ("9: -8 0 55 7 8 9 1", numbersAfter("-1"));
        EXPECT_EQ("10: -8 0 55 8 9 10 1", numbersAfter(nullptr));
        EXPECT_EQ("11: -8 0 55 8 9 10 11 1", numbersAfter("101"));
        EXPECT_EQ("1: -8 0 1 55 1", numbersAfter("abc"));
        const std::string capped =
            "CRASH_DUMPS_COUNT env variable is bigger than allowed max (100). Capping to 100";
        EXPECT_THAT(logTexts(), ElementsAre(capped, capped,
                                            "CRASH_DUMPS_COUNT env variable is not a number or "
                                            "less or equal to 0. Using the default value of 1"));
        std::string out;
        EXPECT_TRUE(unsetenv("CRASH_DUMPS_COUNT") == 0 && mkdirP(kBase + "2147483647", false));
        EXPECT_TRUE(gCrashDumper.GetCrashDumpFolder(nullptr, out) && endsWith(out, "/2147483648"));
    });
}

TEST_F(CrashDumpsTest, AFailedStepIsLoggedAndTheDaemonRunsOn) {
    isolated().run([] {
        const std::string stuck = kBase + "0000000001";
        mkdirP(stuck, false);
        EXPECT_FALSE(InstallCrashDumpHandler("") ||
                     InstallCrashDumpHandler("/tmp/crashdumps/none"));
        mount("tmpfs", stuck.c_str(), "tmpfs", 0, nullptr);
        EXPECT_EQ("1: 1", numbersAfter("1"));
        {
            const Limited limited(RLIMIT_NOFILE, 0);
            EXPECT_FALSE(InstallCrashDumpHandler(nullptr));
        }
        EXPECT_EQ(0, umount(stuck.c_str()));
        EXPECT_THAT(
            logTexts(),
            ElementsAre("Unable to compute the dump folder",
                        "Unable to create stack file to `/tmp/crashdumps/none/stack`",
                        "Unable to evict folder `" + stuck + "`",
                        "Unable to open file `/proc/self/maps`", "Unable to read the memory map."));
        EXPECT_EQ(ENOENT, logLines()[1].errnoValue);
    });
}

}  // namespace
