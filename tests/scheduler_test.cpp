#include <kest/utils/scheduler.h>

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <thread>

#include <kest/utils/timer.h>

#include "support/clean_test.h"
#include "support/log_capture.h"

namespace {

using kest::test::logTexts;
using kest::utils::Scheduler;
using testing::ElementsAre;
using testing::IsEmpty;
using Id = unsigned long long;

bool count(void* arg) {
    ++*static_cast<int*>(arg);
    return false;
}

// What was logged: function, level, errno and text.
std::vector<std::string> logged() {
    std::vector<std::string> all;
    for (const auto& line : kest::test::logLines())
        all.push_back(line.function + " " + std::to_string(line.level) + " " +
                      std::to_string(line.errnoValue) + " " + line.text);
    return all;
}

class SchedulerTest : public kest::test::CleanTest {
  protected:
    void SetUp() override {
        CleanTest::SetUp();
        ASSERT_TRUE(scheduler.Init());
    }
    void TearDown() override {
        scheduler.Stop();
        for (const int fd : opened)
            close(fd);
        // Handlers leave their signal blocked on purpose; the fixture insists on the first mask.
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
        CleanTest::TearDown();
    }
    int event(unsigned value) {
        opened.push_back(eventfd(value, EFD_CLOEXEC | EFD_NONBLOCK));
        return opened.back();
    }
    int ready() { return event(1); }
    Id add(int fd, std::function<void()> action) {
        const auto callback = [action = std::move(action)](int, int, void*) {
            action();
            return true;
        };
        return scheduler.AddIOTask(fd, EPOLLIN, callback, nullptr);
    }

    Scheduler scheduler;
    std::vector<int> opened;
};

TEST_F(SchedulerTest, IdsStartAtOneWithEveryInitAndFailuresUseNoneUp) {
    const int a = ready(), b = ready();
    EXPECT_EQ(1u, add(a, [] {}));
    EXPECT_EQ(0u, add(-1, [] {}));
    EXPECT_EQ(0u, add(a, [] {}));
    EXPECT_EQ(2u, add(b, [] {}));
    EXPECT_THAT(logged(), ElementsAre("AddIOTask 3 9 Failed to add task",
                                      "AddIOTask 3 17 Failed to add task"));
    ASSERT_TRUE(scheduler.Init());
    EXPECT_EQ(1u, add(a, [] {}));
}

TEST_F(SchedulerTest, CallbackGetsDescriptorEventsAndArgumentUntilRemoved) {
    const int fd = ready();
    std::vector<int> events;
    const auto id = scheduler.AddIOTask(
        fd, EPOLLIN | EPOLLOUT,
        [&](int reportedFd, int reported, void* arg) {
            EXPECT_TRUE(reportedFd == fd && arg == &events);
            events.push_back(reported);
            return false;
        },
        &events);
    EXPECT_TRUE(scheduler.Service() && scheduler.ChangeIOTaskMode(id, EPOLLOUT));
    EXPECT_TRUE(scheduler.Service() && scheduler.RemoveIOTask(id));
    // The plain function gets the events in place of the descriptor.
    bool (*plain)(int, void*) = [](int reported, void* arg) {
        static_cast<std::vector<int>*>(arg)->push_back(reported);
        return true;
    };
    scheduler.AddIOTask(fd, EPOLLIN, plain, &events);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_THAT(events, ElementsAre(EPOLLIN | EPOLLOUT, EPOLLOUT, EPOLLIN));
}

TEST_F(SchedulerTest, UnknownIdsAndLostDescriptorsAreReported) {
    const auto id = add(ready(), [] {}), lost = add(ready(), [] {});
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    EXPECT_FALSE(scheduler.RemoveIOTask(id));
    EXPECT_FALSE(scheduler.RemoveIOTask((1ull << 32) + 5));
    EXPECT_FALSE(scheduler.ChangeIOTaskMode((1ull << 32) + 5, EPOLLIN));
    close(opened.back());
    opened.pop_back();
    EXPECT_FALSE(scheduler.ChangeIOTaskMode(lost, EPOLLIN));
    EXPECT_FALSE(scheduler.RemoveIOTask(lost));
    EXPECT_THAT(logged(),
                ElementsAre("RemoveIOTask 3 0 Invalid id 1", "RemoveIOTask 3 0 Invalid id 5",
                            "ChangeIOTaskMode 3 0 Invalid id 4294967301",
                            "ChangeIOTaskMode 3 9 Failed to del task",
                            "RemoveIOTask 3 9 Failed to del task"));
}

TEST_F(SchedulerTest, PassServesEightAndLeavesTheNinthToTheNext) {
    std::array<int, 9> calls = {};
    for (int& each : calls)
        add(ready(), [&each] { ++each; });
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(8, std::count(calls.begin(), calls.end(), 1));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), 0));
}

TEST_F(SchedulerTest, EmptyCallbackThrowsOutOfServiceAndLoopGoesOn) {
    bool (*const none)(int, void*) = nullptr;
    scheduler.AddIOTask(ready(), EPOLLIN, Scheduler::IoCallback(), nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
    EXPECT_TRUE(scheduler.RemoveIOTask(1));
    scheduler.AddIOTask(ready(), EPOLLIN, none, nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
}

// Two tasks are ready in one pass: the first to run acts, the other counts if it still runs.
TEST_F(SchedulerTest, CallbackMayTakeAwayWhatThePassStillNames) {
    const struct {
        const char* name;
        std::function<void(Id own, Id other)> act;
        int otherCalls;
    } cases[] = {
        {"itself", [&](Id own, Id) { EXPECT_TRUE(scheduler.RemoveIOTask(own)); }, 1},
        {"other", [&](Id, Id other) { EXPECT_TRUE(scheduler.RemoveIOTask(other)); }, 0},
        {"stop", [&](Id, Id) { scheduler.Stop(); }, 0},
        {"afresh", [&](Id, Id) { EXPECT_TRUE(scheduler.Init()); }, 0},
        {"nested", [&](Id own, Id) { scheduler.RemoveIOTask(own), scheduler.Service(); }, 2}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        ASSERT_TRUE(scheduler.Init());
        Id ids[2] = {};
        const auto captured = std::make_shared<int>(0);
        int acted = 0, otherCalls = 0;
        const auto run = [&](size_t own, int stillThere) {
            if (acted++ != 0) return static_cast<void>(++otherCalls);
            each.act(ids[own], ids[1 - own]);
            // Memory freed too early would be used again here.
            add(ready(), [] { ADD_FAILURE() << "a task that was added after the wait"; });
            EXPECT_EQ(0, stillThere);
        };
        for (const size_t own : {0u, 1u})
            ids[own] = add(ready(), [&run, own, captured] { run(own, *captured); });
        EXPECT_TRUE(scheduler.Service());
        EXPECT_EQ(each.otherCalls, otherCalls);
        scheduler.Stop();
        EXPECT_EQ(1, captured.use_count());
    }
}

TEST_F(SchedulerTest, RemovalOutsideAPassFreesAtOnceAndMayCallBack) {
    const auto other = add(ready(), [] {});
    bool freed = false;
    std::shared_ptr<void> captured(&freed, [&](void*) { freed = scheduler.RemoveIOTask(other); });
    const auto id = add(ready(), [captured] {});
    captured.reset();
    EXPECT_FALSE(freed);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    EXPECT_TRUE(freed);
}

// epoll keeps a registration for as long as a duplicate of the descriptor is open.
TEST_F(SchedulerTest, TaskOfDescriptorClosedTooEarlyIsNeverCalledAgain) {
    const int fd = dup(ready());
    int otherCalls = 0;
    const auto id = add(fd, [] { ADD_FAILURE(); });
    close(fd);
    EXPECT_FALSE(scheduler.RemoveIOTask(id));
    add(ready(), [&] { ++otherCalls; });
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(scheduler.Service());
    EXPECT_LT(0, otherCalls);
}

TEST_F(SchedulerTest, StoppedSchedulerRefusesAndLeaksNothing) {
    EXPECT_TRUE(scheduler.Stop() && scheduler.Stop());
    EXPECT_THAT(logged(), IsEmpty());
    EXPECT_FALSE(scheduler.Service());
    EXPECT_EQ(0u, add(ready(), [] {}));
    EXPECT_EQ(0u, scheduler.AddTimerTask(1, count, nullptr));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(SIGUSR1, count, nullptr));
    EXPECT_THAT(
        logged(),
        ElementsAre("Service 3 9 Failed to wait epoll", "AddIOTask 3 9 Failed to add task",
                    "AddIOTask 3 9 Failed to add task", "AddTimerTask 3 0 Failed to add task",
                    "AddIOTask 3 9 Failed to add task", "AddSignalHandler 3 0 Failed to add task"));
}

TEST_F(SchedulerTest, RunsOnWithoutDescriptorsLeft) {
    int calls = 0;
    add(ready(), [&] { ++calls; });
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(scheduler.Init());
    EXPECT_EQ(0u, scheduler.AddTimerTask(1, count, nullptr));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(SIGUSR1, count, nullptr));
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, calls);
    EXPECT_THAT(logged(), ElementsAre("Init 3 24 Failed to create epoll",
                                      "AddTimerTask 3 24 Failed to create timer",
                                      "AddSignalHandler 3 24 Failed to create signal FD"));
}

TEST_F(SchedulerTest, InterruptedWaitFailsWithEintr) {
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 1000}, {0, 1000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_TRUE(!scheduler.Service() && errno == EINTR);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_THAT(logged(), ElementsAre("Service 3 4 Failed to wait epoll"));
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
    EXPECT_TRUE(scheduler.RemoveTimerTask(2));
    EXPECT_FALSE(scheduler.RemoveTimerTask(8));
    // Its I/O task may have gone before.
    EXPECT_TRUE(scheduler.RemoveIOTask(3) && scheduler.RemoveTimerTask(4));
    EXPECT_THAT(logged(),
                ElementsAre("RemoveTimerTask 3 0 Invalid id 8", "RemoveIOTask 3 0 Invalid id 3"));
}

// Both descriptors are readable, but there is one signal to take.
TEST_F(SchedulerTest, SecondHandlerOfASignalDoesNotHangThePass) {
    int first = 0, second = 0;
    const auto one = scheduler.AddSignalHandler(SIGUSR1, count, &first);
    const auto two = scheduler.AddSignalHandler(SIGUSR1, count, &second);
    EXPECT_TRUE(raise(SIGUSR1) == 0 && raise(SIGUSR1) == 0);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, first + second);
    EXPECT_TRUE(scheduler.RemoveSignalHandler(one) && scheduler.RemoveSignalHandler(two));
}

TEST_F(SchedulerTest, UnknownSignalHandlerLeavesAnEmptyEntryThatEverybodyCopesWith) {
    EXPECT_FALSE(scheduler.RemoveSignalHandler(2) || scheduler.RemoveSignalHandler(2));
    EXPECT_FALSE(scheduler.RemoveTimerTask(2));
    EXPECT_EQ(3u, scheduler.AddTimerTask(1000, count, nullptr));
    EXPECT_EQ(5u, scheduler.AddSignalHandler(SIGUSR1, count, nullptr));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(1000, count, nullptr));
    add(ready(), [] {});
    // One warning for each timer and handler, as they close before they leave epoll.
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_THAT(
        logged(),
        ElementsAre("RemoveSignalHandler 3 0 Invalid id", "RemoveSignalHandler 3 0 Invalid id",
                    "RemoveTimerTask 3 0 Invalid id 2", "AddSignalHandler 3 22 Failed to add mask",
                    "Stop 4 9 Failed to del fd", "Stop 4 9 Failed to del fd"));
}

TEST_F(SchedulerTest, OtherThreadsAddChangeAndRemoveWhileServing) {
    std::atomic<bool> done{false};
    add(ready(), [] {});
    std::thread loop([&] {
        while (!done)
            EXPECT_TRUE(scheduler.Service());
    });
    std::array<std::thread, 3> others;
    for (auto& other : others) {
        other = std::thread([&, fd = ready()] {
            for (int i = 0; i < 300; ++i) {
                const auto captured = std::make_shared<int>(i);
                const auto id = add(fd, [captured] {});
                const auto timer = scheduler.AddTimerTask(
                    1, 1, [captured](Id own, void*) { return own != 0; }, nullptr);
                EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, EPOLLOUT));
                EXPECT_TRUE(scheduler.RemoveIOTask(id) && scheduler.RemoveTimerTask(timer));
            }
        });
    }
    for (auto& other : others)
        other.join();
    done = true;
    loop.join();
    EXPECT_THAT(logTexts(), IsEmpty());
}

// A loop that sleeps must not let the memory of removed tasks pile up.
TEST_F(SchedulerTest, ManyRemovalsWakeASleepingPass) {
    const auto captured = std::make_shared<int>(0);
    std::atomic<bool> ended{false};
    std::thread loop([&] { ended = scheduler.Service(); });
    const int silent = event(0);
    while (!ended && captured.use_count() < 10000)
        EXPECT_TRUE(scheduler.RemoveIOTask(add(silent, [captured] {})));
    EXPECT_TRUE(ended);
    add(ready(), [] {});
    loop.join();
    EXPECT_EQ(1, captured.use_count());
}

TEST_F(SchedulerTest, StopFromAnotherThreadEndsTheLoop) {
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(scheduler.Init());
        std::thread loop([&] {
            while (scheduler.Service()) {
            }
        });
        if (i % 2 == 0) std::this_thread::yield();
        scheduler.Stop();
        loop.join();
    }
}

}  // namespace
