#include <kest/utils/scheduler.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <thread>

#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/limited.h"

namespace {

using kest::utils::Scheduler;
using testing::ElementsAre;
using Id = unsigned long long;

bool count(void* arg) {
    ++*static_cast<int*>(arg);
    return false;
}

class SchedulerTest : public kest::test::CleanTest {
  protected:
    SchedulerTest() {
        for (int& fd : ready)
            fd = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
        // Handlers leave their signal blocked; the fixture insists on the mask it began with.
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
    }
    ~SchedulerTest() override { std::for_each(ready.begin(), ready.end(), close); }
    void SetUp() override {
        CleanTest::SetUp();
        ASSERT_TRUE(scheduler.Init());
    }
    void TearDown() override {
        scheduler.Stop();
        CleanTest::TearDown();
    }
    Id add(int fd, const std::function<void()>& action) {
        return scheduler.AddIOTask(
            fd, EPOLLIN, [=](int, int, void*) { return action(), false; }, nullptr);
    }
    // Each line as function, level, errno and text.
    static void expectLog(const std::vector<std::string>& expected) {
        std::vector<std::string> all;
        for (const auto& line : kest::test::logLines()) {
            all.push_back(kest::utils::format("%s %d %d %s", line.function.c_str(), line.level,
                                              line.errnoValue, line.text.c_str()));
        }
        EXPECT_EQ(expected, all);
    }

    Scheduler scheduler;
    std::array<int, 9> ready;  // descriptors that are readable
};

TEST_F(SchedulerTest, IdsAreIssuedInOrderAndUnknownOnesReported) {
    const int lost = dup(ready[1]);
    EXPECT_TRUE(add(ready[0], [] {}) == 1 && add(-1, [] {}) == 0 && add(ready[0], [] {}) == 0);
    EXPECT_TRUE(add(lost, [] {}) == 2 && scheduler.RemoveIOTask(1));
    close(lost);
    EXPECT_FALSE(scheduler.RemoveIOTask(1) || scheduler.RemoveIOTask((1ull << 32) + 5));
    EXPECT_FALSE(scheduler.ChangeIOTaskMode((1ull << 32) + 5, 0) ||
                 scheduler.ChangeIOTaskMode(2, 0));
    EXPECT_FALSE(scheduler.RemoveIOTask(2));
    expectLog({"AddIOTask 3 9 Failed to add task", "AddIOTask 3 17 Failed to add task",
               "RemoveIOTask 3 0 Invalid id 1", "RemoveIOTask 3 0 Invalid id 5",
               "ChangeIOTaskMode 3 0 Invalid id 4294967301",
               "ChangeIOTaskMode 3 9 Failed to del task", "RemoveIOTask 3 9 Failed to del task"});
    EXPECT_TRUE(scheduler.Init() && add(ready[0], [] {}) == 1);
}

TEST_F(SchedulerTest, CallbackGetsDescriptorEventsAndArgumentUntilRemoved) {
    std::vector<int> got;
    const auto full = [&](int fd, int events, void* arg) {
        return got.push_back(fd == ready[0] && arg == &got ? events : -1), false;
    };
    bool (*plain)(int, void*) = [](int events, void* arg) {
        return static_cast<std::vector<int>*>(arg)->push_back(events), true;
    };
    EXPECT_EQ(1u, scheduler.AddIOTask(ready[0], EPOLLIN | EPOLLOUT, full, &got));
    EXPECT_TRUE(scheduler.Service() && scheduler.ChangeIOTaskMode(1, EPOLLOUT));
    EXPECT_TRUE(scheduler.Service() && scheduler.RemoveIOTask(1));
    EXPECT_EQ(2u, scheduler.AddIOTask(ready[1], EPOLLIN, plain, &got));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_THAT(got, ElementsAre(EPOLLIN | EPOLLOUT, EPOLLOUT, EPOLLIN));
}

TEST_F(SchedulerTest, PassServesEightAndEmptyCallbacksThrow) {
    std::array<int, 9> calls = {};
    for (size_t i = 0; i < 9; ++i)
        add(ready[i], [&calls, i] { ++calls[i]; });
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(8, std::count(calls.begin(), calls.end(), 1));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), 0));
    bool (*const none)(int, void*) = nullptr;
    ASSERT_TRUE(scheduler.Init());
    scheduler.AddIOTask(ready[0], EPOLLIN, Scheduler::IoCallback(), nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
    EXPECT_TRUE(scheduler.RemoveIOTask(1));
    scheduler.AddIOTask(ready[0], EPOLLIN, none, nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
}

// Two tasks are ready in one pass: the first to run acts, the other counts if it still runs.
TEST_F(SchedulerTest, CallbackMayTakeAwayWhatThePassStillNames) {
    const struct {
        std::function<void(Id own, Id other)> act;
        int calls;
    } cases[] = {{[&](Id own, Id) { EXPECT_TRUE(scheduler.RemoveIOTask(own)); }, 2},
                 {[&](Id, Id other) { EXPECT_TRUE(scheduler.RemoveIOTask(other)); }, 1},
                 {[&](Id, Id) { scheduler.Stop(); }, 1},
                 {[&](Id, Id) { EXPECT_TRUE(scheduler.Init()); }, 1},
                 {[&](Id own, Id) { scheduler.RemoveIOTask(own), scheduler.Service(); }, 3}};
    for (const auto& each : cases) {
        ASSERT_TRUE(scheduler.Init());
        const auto captured = std::make_shared<int>(0);
        int calls = 0;
        for (const Id own : {1u, 2u}) {
            add(ready[static_cast<size_t>(own)], [&, own, captured] {
                if (calls++ != 0) return;
                each.act(own, 3 - own);
                // Memory freed too early would be used again here.
                add(ready[0], [] { ADD_FAILURE() << "added after the wait"; });
                EXPECT_EQ(0, *captured);
            });
        }
        EXPECT_TRUE(scheduler.Service() && scheduler.Stop());
        EXPECT_EQ(each.calls, calls) << "case " << &each - cases;
        EXPECT_EQ(1, captured.use_count());
    }
}

TEST_F(SchedulerTest, RemovalOutsideAPassFreesAtOnceAndMayCallBack) {
    bool freed = false;
    std::shared_ptr<void> captured(&freed, [&](void*) { freed = scheduler.RemoveIOTask(1); });
    add(ready[0], [] {});
    add(ready[1], [captured] {});
    captured.reset();
    EXPECT_FALSE(freed);
    EXPECT_TRUE(scheduler.RemoveIOTask(2) && freed);
}

// epoll keeps a registration for as long as a duplicate of the descriptor is open.
TEST_F(SchedulerTest, TaskOfDescriptorClosedTooEarlyIsNeverCalledAgain) {
    const int fd = dup(ready[0]);
    int calls = 0;
    add(fd, [] { ADD_FAILURE(); });
    close(fd);
    EXPECT_FALSE(scheduler.RemoveIOTask(1));
    add(ready[1], [&] { ++calls; });
    EXPECT_TRUE(scheduler.Service() && scheduler.Service() && scheduler.Service());
    EXPECT_LT(0, calls);
}

TEST_F(SchedulerTest, RefusesWhileStoppedAndWithoutDescriptors) {
    const auto refusesTimers = [&] {
        return scheduler.AddTimerTask(1, count, nullptr) == 0 &&
               scheduler.AddSignalHandler(SIGUSR1, count, nullptr) == 0;
    };
    EXPECT_EQ(1u, add(ready[0], [] {}));
    {
        const kest::test::Limited none(RLIMIT_NOFILE, 0);
        EXPECT_TRUE(!scheduler.Init() && refusesTimers());
    }
    EXPECT_TRUE(scheduler.Service() && scheduler.Stop() && scheduler.Stop());
    EXPECT_TRUE(!scheduler.Service() && add(ready[0], [] {}) == 0 && refusesTimers());
    expectLog({"Init 3 24 Failed to create epoll", "AddTimerTask 3 24 Failed to create timer",
               "AddSignalHandler 3 24 Failed to create signal FD",
               "Service 3 9 Failed to wait epoll", "AddIOTask 3 9 Failed to add task",
               "AddIOTask 3 9 Failed to add task", "AddTimerTask 3 0 Failed to add task",
               "AddIOTask 3 9 Failed to add task", "AddSignalHandler 3 0 Failed to add task"});
}

TEST_F(SchedulerTest, InterruptedWaitFailsWithEintr) {
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 1000}, {0, 1000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_TRUE(!scheduler.Service() && errno == EINTR);
    setitimer(ITIMER_REAL, &never, nullptr);
    expectLog({"Service 3 4 Failed to wait epoll"});
}

TEST_F(SchedulerTest, TimersTakeTwoIdsAndKeepTheirSchedule) {
    int once = 0, periodic = 0, never = 0;
    std::vector<Id> seen;
    const auto see = [&](Id id, void* arg) {
        seen.push_back(id);
        // May take itself away while it runs.
        return arg == &seen && seen.size() == 2 && scheduler.RemoveTimerTask(id);
    };
    EXPECT_EQ(2u, scheduler.AddTimerTask(1, 0, count, &once));
    EXPECT_EQ(4u, scheduler.AddTimerTask(0, 1, count, &never));
    EXPECT_EQ(6u, scheduler.AddTimerTask(3, count, &periodic));
    EXPECT_EQ(8u, scheduler.AddTimerTask(1, 2, see, &seen));
    const int64_t start = nowMs();
    while (periodic < 3)
        EXPECT_TRUE(scheduler.Service());
    EXPECT_LE(5, nowMs() - start);
    EXPECT_TRUE(once == 1 && never == 0);
    EXPECT_THAT(seen, ElementsAre(8, 8));
    EXPECT_TRUE(scheduler.RemoveTimerTask(2) && !scheduler.RemoveTimerTask(8));
    // Its I/O task may have gone before.
    EXPECT_TRUE(scheduler.RemoveIOTask(3) && scheduler.RemoveTimerTask(4));
    expectLog({"RemoveTimerTask 3 0 Invalid id 8", "RemoveIOTask 3 0 Invalid id 3"});
}

TEST_F(SchedulerTest, SignalHandlersShareOneSignalAndCopeWithEmptyEntries) {
    int calls = 0;
    EXPECT_FALSE(scheduler.RemoveSignalHandler(2) || scheduler.RemoveSignalHandler(2));
    EXPECT_FALSE(scheduler.RemoveTimerTask(2));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(1000, count, nullptr));
    // An empty entry keeps its id from being issued.
    EXPECT_EQ(3u, scheduler.AddSignalHandler(SIGUSR1, count, &calls));
    EXPECT_EQ(5u, scheduler.AddSignalHandler(SIGUSR1, count, &calls));
    EXPECT_EQ(7u, scheduler.AddSignalHandler(SIGUSR1, count, &calls));
    // All are ready, but there is one signal to take.
    EXPECT_TRUE(raise(SIGUSR1) == 0 && raise(SIGUSR1) == 0 && scheduler.Service());
    EXPECT_EQ(1, calls);
    EXPECT_TRUE(scheduler.RemoveSignalHandler(5) && add(ready[0], [] {}) != 0);
    // One warning for each, as they close before they leave epoll.
    EXPECT_TRUE(scheduler.Stop());
    expectLog({"RemoveSignalHandler 3 0 Invalid id", "RemoveSignalHandler 3 0 Invalid id",
               "RemoveTimerTask 3 0 Invalid id 2", "AddSignalHandler 3 22 Failed to add mask",
               "Stop 4 9 Failed to del fd", "Stop 4 9 Failed to del fd"});
}

TEST_F(SchedulerTest, OtherThreadsAddChangeRemoveAndStopWhileServing) {
    for (int round = 0; round < 30; ++round) {
        ASSERT_TRUE(scheduler.Init());
        std::thread loop([&] {
            while (scheduler.Service())
                continue;
        });
        std::array<std::thread, 3> others;
        for (size_t t = 0; t < others.size(); ++t) {
            others[t] = std::thread([&, fd = ready[t], captured = std::make_shared<Id>(t)] {
                for (int i = 0; i < 30; ++i) {
                    const auto id = add(fd, [captured] {});
                    const auto timer = scheduler.AddTimerTask(
                        1, 1, [captured](Id own, void*) { return own != *captured; }, nullptr);
                    EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, EPOLLOUT));
                    EXPECT_TRUE(scheduler.RemoveIOTask(id) && scheduler.RemoveTimerTask(timer));
                }
            });
        }
        for (auto& other : others)
            other.join();
        scheduler.Stop();
        loop.join();
    }
    for (const auto& text : kest::test::logTexts())
        EXPECT_EQ("Failed to wait epoll", text);
}

// A loop that sleeps must not let the memory of removed tasks pile up.
TEST_F(SchedulerTest, ManyRemovalsWakeASleepingPass) {
    const auto captured = std::make_shared<int>(0);
    std::atomic<bool> ended{false};
    std::thread loop([&] { ended = scheduler.Service(); });
    // Far beyond what piles up before the woken thread gets a processor, also under valgrind.
    while (!ended && captured.use_count() < 300000) {
        const auto id = scheduler.AddIOTask(
            ready[0], EPOLLPRI, [captured](int, int, void*) { return true; }, nullptr);
        EXPECT_TRUE(scheduler.RemoveIOTask(id));
        std::this_thread::yield();
    }
    EXPECT_TRUE(ended);
    add(ready[0], [] {});
    loop.join();
    EXPECT_EQ(1, captured.use_count());
}

}  // namespace
