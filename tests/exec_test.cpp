#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdarg>
#include <ctime>
#include <tuple>

#include <kest/utils/exec.h>
#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/libc.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre;
using testing::HasSubstr;

struct Fault {
    std::string call;
    int countdown;  // which of the coming calls fails
    int error;      // 0: it gives nothing; -1: the process is killed in it
} fault;

bool faulty(const char* call) {
    if (fault.call != call || --fault.countdown != 0) return false;
    if (fault.error == -1) raise(SIGKILL);
    errno = fault.error;
    return true;
}

}  // namespace

#define FAULTY(result, name, parameters, arguments)       \
    extern "C" result name parameters {                   \
        return faulty(#name) ? -1 : LIBC(name) arguments; \
    }
FAULTY(int, pipe2, (int* pipedes, int flags), (pipedes, flags))
FAULTY(pid_t, fork, (), ())
FAULTY(pid_t, waitpid, (pid_t pid, int* stat_loc, int options), (pid, stat_loc, options))
FAULTY(ssize_t, write, (int fd, const void* buf, size_t n), (fd, buf, n))

extern "C" int fcntl64(int fd, int cmd, ...) {
    va_list list;
    va_start(list, cmd);
    void* const argument = va_arg(list, void*);
    va_end(list);
    return cmd == F_SETFL && faulty("fcntl") ? -1 : LIBC(fcntl64)(fd, cmd, argument);
}

// A pid arrives byte by byte.
extern "C" ssize_t read(int fd, void* buf, size_t nbytes) {
    if (nbytes > sizeof(int)) return LIBC(read)(fd, buf, nbytes);
    return faulty("read pid") ? (errno == 0 ? 0 : -1) : LIBC(read)(fd, buf, 1);
}

namespace {

class ExecTest : public CleanTest {
  protected:
    SysExec& shell(const std::string& script) {
        return exec.setName("test").setExe("/bin/sh").setArgs({"-c", script});
    }

    bool finish() {
        while (exec.service()) {
            if ((exec.status() & SysExec::Finished) != 0) return true;
        }
        return false;
    }

    std::string text() const { return {out.begin(), out.end()}; }

    SysExec exec;
    std::vector<char> out;
};

// Many times with one instance: the fixture finds what a run left behind. A daemon makes thousands
// of runs, here it is fewer, as each takes 10 ms.
TEST_F(ExecTest, RunEndsWithStatusAndCode) {
    const std::tuple<const char*, int, int, int> cases[] = {
        {"exit 0", 34, 0, 0}, {"exit 3", 34, 0, 768}, {"kill -9 $$", 18, 100, 9}};
    for (int run = 0; run < 90; ++run) {
        const auto& [script, status, code, waitStatus] = cases[run % 3];
        EXPECT_TRUE(shell(script).setOut(&out).setErr(&out).start());
        EXPECT_EQ(status == 34, finish());
        EXPECT_EQ(status, exec.status()) << script;
        EXPECT_EQ(code, exec.code());
        EXPECT_EQ(waitStatus, exec.waitStatus());
        EXPECT_FALSE(exec.service());
        EXPECT_EQ(90, exec.code());
        exec.stop();
    }
}

TEST_F(ExecTest, RunningInstanceRefusesChangesUntilStopKillsTheProgram) {
    EXPECT_FALSE(exec.start());
    EXPECT_EQ(20, exec.code());
    EXPECT_TRUE(shell("exec sleep 60").start());
    exec.setExe("/bin/true").pushArg("x");
    const std::string refusal = "Setter applicable only to never serviced instance";
    EXPECT_THAT(logTexts(), ElementsAre(refusal, refusal));
    EXPECT_EQ(3, logLines()[0].level);
    EXPECT_EQ("/bin/sh -c exec sleep 60", exec.cmd());
    EXPECT_FALSE(exec.start());
    EXPECT_EQ(10, exec.code());
    bool timedOut = false;
    EXPECT_TRUE(exec.waitPid(1, &timedOut) && timedOut);
    const int pid = exec.pid();
    exec.stop();
    EXPECT_TRUE(kill(pid, 0) == -1 && !exec.waitPid(0));
}

TEST_F(ExecTest, InputAndOutputLargerThanPipesBothAtOnce) {
    std::string in;
    for (int i = 0; i < 50000; ++i)
        in += std::to_string(i) + '\0';
    const auto size = static_cast<unsigned>(in.size());
    shell("head -c " + std::to_string(size)).setIn(in).setOut(&out);
    EXPECT_TRUE(exec.setOutThreshold(size + 1).start() && finish());
    exec.stop();
    EXPECT_EQ(in, text());
}

TEST_F(ExecTest, ThresholdIsWhatIsTakenAtMost) {
    for (const unsigned threshold : {4u, 5u, 6u, 0u}) {
        const std::string expected(threshold == 4 ? "1234" : "12345");
        for (const int overflow : {0, 6, 10}) {
            const bool toErr = overflow == 10;
            shell(toErr ? "printf 12345 >&2; read x" : "printf 12345; read x").setIn("");
            toErr ? exec.setErr(&out) : exec.setOut(&out);
            exec.setErrThreshold(threshold).setErrOverflowStop(overflow != 0);
            exec.setOutThreshold(threshold).setOutOverflowStop(overflow != 0);
            EXPECT_TRUE(exec.start());
            for (int passes = 0; exec.service() && passes < 2;)
                passes += out.size() == expected.size();
            const bool reached = overflow != 0 && (threshold == 4 || threshold == 5);
            EXPECT_EQ(reached ? overflow : 1, exec.status()) << threshold;
            EXPECT_EQ(reached ? 120 : 0, exec.code());
            EXPECT_EQ(expected.size(), toErr ? exec.errTotal() : exec.outTotal());
            exec.stop();
            EXPECT_EQ(expected, text());
            out.clear();
        }
    }
}

volatile sig_atomic_t sigpipes = 0;

TEST_F(ExecTest, ReaderThatLeftIsAFailureAndNoSigpipe) {
    const auto handler = [](int) { sigpipes = 1; };
    const auto before = signal(SIGPIPE, handler);
    EXPECT_TRUE(exec.setExe("/bin/true").setIn("x").start());
    siginfo_t ended = {};
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(exec.pid()), &ended, WEXITED | WNOWAIT));
    EXPECT_TRUE(!finish() && exec.code() == 110);
    exec.stop();

    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    close(ends[0]);
    EXPECT_TRUE(shell("echo lost; exec sleep 60").setOut(ends[1]).start());
    EXPECT_TRUE(!finish() && exec.code() == 140);
    exec.stop();
    close(ends[1]);
    EXPECT_EQ(+handler, signal(SIGPIPE, before));
    EXPECT_EQ(0, sigpipes);
}

TEST_F(ExecTest, FailingStepOfStartLeavesNothingOpen) {
    const std::tuple<Fault, bool, int> cases[] = {
        {{"pipe2", 1, EMFILE}, false, 40}, {{"pipe2", 3, EMFILE}, false, 40},
        {{"pipe2", 4, EMFILE}, true, 40},  {{"fork", 1, EAGAIN}, true, 40},
        {{"fork", 2, EAGAIN}, true, 60},   {{"read pid", 2, EIO}, true, 70},
        {{"read pid", 3, 0}, true, 70},    {{"write", 1, -1}, true, 70},
        {{"fcntl", 2, EBADF}, false, 80},  {{"fcntl", 3, EBADF}, true, 80},
        {{"waitpid", 1, EINTR}, true, 0},  {{"read pid", 2, EINTR}, true, 0}};
    const auto before = openDescriptors();
    for (const auto& [failing, daemon, code] : cases) {
        exec.setExe("/bin/true").setIn("x").setOut(&out).setErr(&out).setDaemon(daemon);
        fault = failing;
        EXPECT_EQ(code == 0, exec.start());
        fault = {};
        EXPECT_EQ(code, exec.code()) << failing.call << failing.countdown;
        EXPECT_EQ(code != 0, before == openDescriptors()) << failing.call << failing.countdown;
        exec.stop();
        EXPECT_THAT(logTexts(), testing::IsEmpty()) << "drained what never ends";
    }
}

TEST_F(ExecTest, ProgramGetsItsStreamsAndNothingElse) {
    const TempDir dir;
    const int fd = open((dir / "out").c_str(), O_CREAT | O_WRONLY, 0600);
    const auto before = openDescriptors();
    EXPECT_TRUE(exec.setExe("/bin/ls").setArgs({"/proc/self/fd"}).setOut(fd).start());
    for (const int opened : openDescriptors())
        EXPECT_TRUE(before.count(opened) == 1 || fcntl(opened, F_GETFD) == FD_CLOEXEC) << opened;
    fault = {"write", 1, EAGAIN};
    EXPECT_TRUE(finish());
    exec.stop();
    EXPECT_GT(0, fault.countdown);
    EXPECT_EQ("0\n1\n2\n3\n", readFile(dir / "out"));  // 3 is the folder being listed
    close(fd);
}

TEST_F(ExecTest, StreamsArriveWhenTheDaemonHasNoStandardDescriptors) {
    const auto run = [](int closed) {
        for (int fd = 0; fd < 3; ++fd) {
            if ((closed & (1 << fd)) != 0) close(fd);
        }
        const std::string in = "4\n";
        std::string text, err, links;
        shellExec("read x; echo $x; echo err >&2", &in, &text, &err, 5000, 0, 0);
        shellExec("exec readlink /proc/self/fd/0 /proc/self/fd/2", nullptr, &links, nullptr, 5000,
                  0, 0);
        _exit(text == "4" && err == "err" && links == "/dev/null\n/dev/null" ? 0 : 1);
    };
    for (int closed = 1; closed < 8; ++closed)
        EXPECT_EXIT(run(closed), testing::ExitedWithCode(0), "") << closed;
}

TEST_F(ExecTest, StopDoesNotWaitForAGrandchildThatKeepsThePipe) {
    EXPECT_TRUE(shell("sleep 60 & echo $!").setOut(&out).start() && finish());
    const int64_t begin = nowMs();
    const clock_t cpu = clock();
    exec.stop();
    EXPECT_GT(1000, nowMs() - begin);
    EXPECT_GT(CLOCKS_PER_SEC / 20, clock() - cpu);
    EXPECT_THAT(logTexts(), ElementsAre("Timeout reading from stopped process pipes, name 'test'"));
    EXPECT_EQ(4, logLines()[0].level);
    EXPECT_EQ(0, kill(std::stoi(text()), SIGKILL));
}

TEST_F(ExecTest, LostChildIsAFailureAndNoHang) {
    const auto run = [] {
        signal(SIGCHLD, SIG_IGN);
        const bool started = runDaemon(nullptr, nullptr, nullptr, "/bin/true", {});
        _exit(!started && sysExecSimple("/bin/true") == -1 ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(ExecTest, WrappersPassArgumentsAndTrimWhatTheyCapture) {
    std::string text = "before", err = "before";
    EXPECT_EQ(0, sysExec(nullptr, &text, &err, 0, 0, 0, "/bin/echo", 3, "a b", nullptr, "c"));
    EXPECT_EQ("a b", text);
    EXPECT_EQ("before", err);
    EXPECT_EQ(512, shellExec("X=12345; echo $X | cat; echo ' e ' >&2; exit 2", nullptr, &text, &err,
                             0, 3, 0));
    EXPECT_EQ("123", text);
    EXPECT_EQ("e", err);
    EXPECT_EQ(256, sysExecSimple("/bin/sh", "-c", "test $# = 1 && exit 1", "sh", "x"));
    EXPECT_EQ(121 * 256, sysExecSimple("/no/such/program", {}));
    EXPECT_EQ(-1, sysExecSimple(nullptr));
    EXPECT_EQ(-1, shellExec("echo lost; kill $$", nullptr, &text, nullptr, 0, 0, 0));
    EXPECT_EQ("123", text);
    // A program that writes on is blocked once its stream is cut.
    EXPECT_EQ(-1, sysExec(nullptr, &text, nullptr, 50, 6, 0, "/usr/bin/yes", 1, "ab"));
    EXPECT_EQ("ab\nab", text);
    EXPECT_THAT(
        logTexts(),
        ElementsAre("Failed to start SysExec with code=20, cmd=''",
                    "Failed to service SysExec code=100, cmd='/bin/sh -c echo lost; kill $$'",
                    "Timeout executing, cmd='/usr/bin/yes ab'"));
    EXPECT_TRUE(logLines()[0].level == 3 && logLines()[1].level == 3 && logLines()[2].level == 4);
}

TEST_F(ExecTest, DaemonStartsDetachedWithItsOwnMask) {
    const TempDir dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    sigset_t usr1, before;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigprocmask(SIG_BLOCK, &usr1, &before);
    int pid = -2;
    EXPECT_TRUE(runDaemon(nullptr, nullptr, &pid, "/bin/cp", 2, "/proc/self/status", fifo.c_str()));
    const std::string status = readFile(fifo);
    EXPECT_THAT(status, HasSubstr("\nPid:\t" + std::to_string(pid) + "\n"));
    EXPECT_THAT(status, HasSubstr("\nNSsid:\t" + std::to_string(pid) + "\n"));
    EXPECT_THAT(status, HasSubstr("\nSigBlk:\t0000000000000200\n"));
    EXPECT_TRUE(sysExecAsyncSimple("/bin/cp", {"/proc/self/status", fifo}));
    EXPECT_THAT(readFile(fifo), HasSubstr("\nSigBlk:\t0000000000000000\n"));
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
