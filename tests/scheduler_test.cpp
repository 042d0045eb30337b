#include <kest/utils/scheduler.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include "support/clean_test.h"
#include "support/log_capture.h"

namespace {

using kest::test::CleanTest;
using kest::test::clearLog;
using kest::test::logLines;
using kest::test::logTexts;
using kest::utils::Scheduler;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

// An eventfd that is readable from the start.
class Ready {
  public:
    Ready() : fd_(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Ready() { close(); }
    Ready(const Ready&) = delete;
    Ready& operator=(const Ready&) = delete;
    int fd() const { return fd_; }
    void close() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    void drain() const {
        uint64_t value = 0;
        EXPECT_EQ(static_cast<ssize_t>(sizeof(value)), read(fd_, &value, sizeof(value)));
    }

  private:
    int fd_;
};

bool count(void* arg) {
    ++*static_cast<int*>(arg);
    return false;
}

Scheduler::IoCallback calling(std::function<void()> action) {
    return [action = std::move(action)](int, int, void*) {
        action();
        return true;
    };
}

// Handlers leave their signal blocked on purpose; the fixture insists on the mask it began with.
void unblock(int signo) {
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signo);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
}

class SchedulerTest : public CleanTest {
  protected:
    void SetUp() override {
        CleanTest::SetUp();
        ASSERT_TRUE(scheduler.Init());
    }
    void TearDown() override {
        scheduler.Stop();
        CleanTest::TearDown();
    }

    Scheduler scheduler;
};

TEST_F(SchedulerTest, IdsStartAtOneWithEveryInitAndFailuresUseNoneUp) {
    Ready a, b, c;
    EXPECT_EQ(1u, scheduler.AddIOTask(a.fd(), EPOLLIN, calling([] {}), nullptr));
    EXPECT_EQ(0u, scheduler.AddIOTask(-1, EPOLLIN, calling([] {}), nullptr));
    EXPECT_EQ(0u, scheduler.AddIOTask(a.fd(), EPOLLIN, calling([] {}), nullptr));
    EXPECT_EQ(2u, scheduler.AddIOTask(b.fd(), EPOLLIN, calling([] {}), nullptr));
    ASSERT_EQ(2u, logLines().size());
    EXPECT_EQ("scheduler AddIOTask 3 9 Failed to add task",
              logLines()[0].sourceFile + " " + logLines()[0].function + " " +
                  std::to_string(logLines()[0].level) + " " +
                  std::to_string(logLines()[0].errnoValue) + " " + logLines()[0].text);
    EXPECT_EQ(EEXIST, logLines()[1].errnoValue);
    ASSERT_TRUE(scheduler.Init());
    EXPECT_EQ(1u, scheduler.AddIOTask(c.fd(), EPOLLIN, calling([] {}), nullptr));
}

TEST_F(SchedulerTest, CallbackGetsDescriptorEventsAndArgumentUntilRemoved) {
    Ready a;
    int events = 0, calls = 0;
    const auto id = scheduler.AddIOTask(
        a.fd(), EPOLLIN | EPOLLOUT,
        [&](int fd, int reported, void* arg) {
            EXPECT_EQ(a.fd(), fd);
            EXPECT_EQ(&calls, arg);
            events = reported;
            ++calls;
            return false;
        },
        &calls);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(EPOLLIN | EPOLLOUT, events);
    EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, EPOLLOUT));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(EPOLLOUT, events);
    EXPECT_EQ(2, calls);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
}

TEST_F(SchedulerTest, PlainFunctionGetsEventsNotDescriptor) {
    Ready a;
    int events = 0;
    scheduler.AddIOTask(
        a.fd(), EPOLLIN,
        [](int reported, void* arg) {
            *static_cast<int*>(arg) = reported;
            return true;
        },
        &events);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(EPOLLIN, events);
}

TEST_F(SchedulerTest, UnknownIdsAndLostDescriptorsAreReported) {
    Ready a, b;
    const auto id = scheduler.AddIOTask(a.fd(), EPOLLIN, calling([] {}), nullptr);
    const auto lost = scheduler.AddIOTask(b.fd(), EPOLLIN, calling([] {}), nullptr);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    EXPECT_FALSE(scheduler.RemoveIOTask(id));
    EXPECT_FALSE(scheduler.RemoveIOTask(0));
    EXPECT_FALSE(scheduler.RemoveIOTask((1ull << 32) + 5));
    EXPECT_FALSE(scheduler.ChangeIOTaskMode((1ull << 32) + 5, EPOLLIN));
    b.close();
    EXPECT_FALSE(scheduler.ChangeIOTaskMode(lost, EPOLLIN));
    EXPECT_FALSE(scheduler.RemoveIOTask(lost));
    EXPECT_THAT(logTexts(),
                ElementsAre("Invalid id 1", "Invalid id 0", "Invalid id 5", "Invalid id 4294967301",
                            "Failed to del task", "Failed to del task"));
}

TEST_F(SchedulerTest, PassServesEightAndLeavesTheNinthToTheNext) {
    std::array<Ready, 9> ready;
    std::array<int, 9> calls = {};
    for (size_t i = 0; i < ready.size(); ++i) {
        scheduler.AddIOTask(ready[i].fd(), EPOLLIN, calling([&, i] { ++calls[i]; }), nullptr);
    }
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(8, std::count(calls.begin(), calls.end(), 1));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), 0));
}

TEST_F(SchedulerTest, EmptyCallbackThrowsOutOfServiceAndLoopGoesOn) {
    Ready a;
    const auto id = scheduler.AddIOTask(a.fd(), EPOLLIN, Scheduler::IoCallback(), nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    const auto null =
        scheduler.AddIOTask(a.fd(), EPOLLIN, static_cast<bool (*)(int, void*)>(nullptr), nullptr);
    EXPECT_THROW(scheduler.Service(), std::bad_function_call);
    EXPECT_TRUE(scheduler.RemoveIOTask(null));
}

// What a callback may do to the scheduler, and whose callbacks still run afterwards. Two tasks are
// ready in the same pass; the first to run acts, the second counts.
struct Act {
    const char* name;
    std::function<void(Scheduler&, unsigned long long own, unsigned long long other)> action;
    int otherCalls;

    friend void PrintTo(const Act& act, std::ostream* out) { *out << act.name; }
};

class FromCallback : public SchedulerTest, public testing::WithParamInterface<Act> {};

TEST_P(FromCallback, LeavesNoDanglingTask) {
    Ready a, b, added;
    std::array<unsigned long long, 2> ids = {};
    auto captured = std::make_shared<int>(0);
    int acted = 0, otherCalls = 0, addedCalls = 0;
    const auto task = [&](size_t own) {
        return [&, own, captured](int, int, void*) {
            if (acted++ != 0) return ++otherCalls > 0;
            GetParam().action(scheduler, ids[own], ids[1 - own]);
            // Memory freed too early would be used again here.
            scheduler.AddIOTask(added.fd(), EPOLLIN, calling([&] { ++addedCalls; }), nullptr);
            return *captured == 0;
        };
    };
    ids[0] = scheduler.AddIOTask(a.fd(), EPOLLIN, task(0), nullptr);
    ids[1] = scheduler.AddIOTask(b.fd(), EPOLLIN, task(1), nullptr);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(GetParam().otherCalls, otherCalls);
    EXPECT_EQ(0, addedCalls);
    scheduler.Stop();
    EXPECT_EQ(1, captured.use_count());
}

INSTANTIATE_TEST_SUITE_P(
    Scheduler, FromCallback,
    testing::Values(
        Act{"RemovesItself", [](auto& s, auto own, auto) { EXPECT_TRUE(s.RemoveIOTask(own)); }, 1},
        Act{"RemovesOther", [](auto& s, auto, auto o) { EXPECT_TRUE(s.RemoveIOTask(o)); }, 0},
        Act{"Stops", [](auto& s, auto, auto) { s.Stop(); }, 0},
        Act{"StartsAfresh", [](auto& s, auto, auto) { EXPECT_TRUE(s.Init()); }, 0},
        Act{"ServesNested", [](auto& s, auto own, auto) { s.RemoveIOTask(own), s.Service(); }, 2}),
    [](const auto& act) { return act.param.name; });

TEST_F(SchedulerTest, RemovalOutsideAPassFreesAtOnceAndMayCallBack) {
    Ready a, b;
    const auto other = scheduler.AddIOTask(b.fd(), EPOLLIN, calling([] {}), nullptr);
    bool freed = false;
    std::shared_ptr<void> captured(&freed, [&](void*) {
        freed = true;
        EXPECT_TRUE(scheduler.RemoveIOTask(other));
    });
    const auto id = scheduler.AddIOTask(a.fd(), EPOLLIN, calling([captured] {}), nullptr);
    captured.reset();
    EXPECT_FALSE(freed);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    EXPECT_TRUE(freed);
}

// epoll keeps a registration for as long as a duplicate of the descriptor is open.
TEST_F(SchedulerTest, TaskOfDescriptorClosedTooEarlyIsNeverCalledAgain) {
    Ready a, other;
    int calls = 0, otherCalls = 0;
    const int duplicate = dup(a.fd());
    const auto id = scheduler.AddIOTask(a.fd(), EPOLLIN, calling([&] { ++calls; }), nullptr);
    a.close();
    EXPECT_FALSE(scheduler.RemoveIOTask(id));
    scheduler.AddIOTask(other.fd(), EPOLLIN, calling([&] { ++otherCalls; }), nullptr);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(0, calls);
    EXPECT_LT(0, otherCalls);
    close(duplicate);
}

TEST_F(SchedulerTest, StopAndInitFailuresKeepTheirPromises) {
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_THAT(logTexts(), IsEmpty());
    EXPECT_FALSE(scheduler.Service());
    EXPECT_THAT(logTexts(), ElementsAre("Failed to wait epoll"));

    ASSERT_TRUE(scheduler.Init());
    Ready a;
    int calls = 0;
    scheduler.AddIOTask(a.fd(), EPOLLIN, calling([&] { ++calls; }), nullptr);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    clearLog();
    EXPECT_FALSE(scheduler.Init());
    EXPECT_EQ(0u, scheduler.AddTimerTask(1, count, nullptr));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(SIGWINCH, count, nullptr));
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_THAT(logTexts(), ElementsAre("Failed to create epoll", "Failed to create timer",
                                        "Failed to create signal FD"));
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, calls);
    unblock(SIGWINCH);
}

TEST_F(SchedulerTest, TimersTakeTwoIdsAndKeepTheirSchedule) {
    int once = 0, periodic = 0, never = 0;
    std::vector<unsigned long long> seen;
    EXPECT_EQ(2u, scheduler.AddTimerTask(1, 0, count, &once));
    EXPECT_EQ(4u, scheduler.AddTimerTask(0, 1, count, &never));
    EXPECT_EQ(6u, scheduler.AddTimerTask(3, count, &periodic));
    EXPECT_EQ(8u, scheduler.AddTimerTask(
                      1, 2,
                      [&](unsigned long long id, void* arg) {
                          EXPECT_EQ(&seen, arg);
                          seen.push_back(id);
                          return false;
                      },
                      &seen));
    while (periodic < 3)
        EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, once);
    EXPECT_EQ(0, never);
    EXPECT_LE(2u, seen.size());
    EXPECT_THAT(seen, Each(8u));
    EXPECT_TRUE(scheduler.RemoveTimerTask(2));
    EXPECT_FALSE(scheduler.RemoveTimerTask(2));
    EXPECT_THAT(logTexts(), ElementsAre("Invalid id 2"));
}

TEST_F(SchedulerTest, TimerMayRemoveItselfAndItsIoTaskIsIndependent) {
    int fired = 0;
    unsigned long long id = 0;
    id = scheduler.AddTimerTask(
        1, 1,
        [&](unsigned long long own, void*) { return scheduler.RemoveTimerTask(own) && ++fired; },
        nullptr);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, fired);
    EXPECT_FALSE(scheduler.RemoveTimerTask(id));
    const auto second = scheduler.AddTimerTask(1, count, &fired);
    EXPECT_TRUE(scheduler.RemoveIOTask(second - 1));
    EXPECT_TRUE(scheduler.RemoveTimerTask(second));
    EXPECT_THAT(logTexts(), ElementsAre("Invalid id 2", "Invalid id 3"));
}

TEST_F(SchedulerTest, StopWarnsOncePerLiveTimerOrHandler) {
    int calls = 0;
    Ready a;
    scheduler.AddIOTask(a.fd(), EPOLLIN, calling([] {}), nullptr);
    scheduler.AddTimerTask(1000, count, &calls);
    scheduler.AddSignalHandler(SIGUSR1, count, &calls);
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_THAT(logTexts(), ElementsAre("Failed to del fd", "Failed to del fd"));
    EXPECT_EQ(4, logLines()[0].level);
    unblock(SIGUSR1);
}

// Both descriptors are readable, but there is one signal to take.
TEST_F(SchedulerTest, SecondHandlerOfASignalDoesNotHangThePass) {
    int first = 0, second = 0;
    const auto one = scheduler.AddSignalHandler(SIGUSR1, count, &first);
    const auto two = scheduler.AddSignalHandler(SIGUSR1, count, &second);
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_TRUE(scheduler.Service());
    EXPECT_EQ(1, first + second);
    EXPECT_TRUE(scheduler.RemoveSignalHandler(one));
    EXPECT_TRUE(scheduler.RemoveSignalHandler(two));
    unblock(SIGUSR1);
}

TEST_F(SchedulerTest, UnknownSignalHandlerLeavesAnEmptyEntryThatEverybodyCopesWith) {
    int calls = 0;
    EXPECT_FALSE(scheduler.RemoveSignalHandler(2));
    EXPECT_FALSE(scheduler.RemoveSignalHandler(2));
    EXPECT_FALSE(scheduler.RemoveTimerTask(2));
    EXPECT_EQ(3u, scheduler.AddTimerTask(1000, count, &calls));
    EXPECT_EQ(0u, scheduler.AddSignalHandler(1000, count, &calls));
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_THAT(logTexts(), ElementsAre("Invalid id", "Invalid id", "Invalid id 2",
                                        "Failed to add mask", "Failed to del fd"));
}

TEST_F(SchedulerTest, OtherThreadsAddChangeAndRemoveWhileServing) {
    constexpr int kThreads = 3, kRounds = 300;
    std::atomic<bool> done{false};
    std::atomic<int> calls{0};
    Ready wake;
    scheduler.AddIOTask(wake.fd(), EPOLLIN, calling([] {}), nullptr);
    std::thread loop([&] {
        while (!done)
            EXPECT_TRUE(scheduler.Service());
    });
    std::vector<std::thread> others;
    for (int t = 0; t < kThreads; ++t) {
        others.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                Ready ready;
                const auto captured = std::make_shared<int>(i);
                const auto id = scheduler.AddIOTask(
                    ready.fd(), EPOLLIN, calling([&calls, captured] { ++calls; }), nullptr);
                const auto timer = scheduler.AddTimerTask(
                    1, 1, [captured](unsigned long long own, void*) { return own != 0; }, nullptr);
                EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, EPOLLOUT));
                EXPECT_TRUE(scheduler.RemoveIOTask(id));
                EXPECT_TRUE(scheduler.RemoveTimerTask(timer));
            }
        });
    }
    for (auto& thread : others)
        thread.join();
    done = true;
    loop.join();
    EXPECT_THAT(logTexts(), IsEmpty());
}

// A loop that sleeps must not let the memory of removed tasks pile up.
TEST_F(SchedulerTest, ManyRemovalsWakeASleepingPass) {
    const auto captured = std::make_shared<int>(0);
    std::atomic<bool> passEnded{false};
    std::thread loop([&] {
        EXPECT_TRUE(scheduler.Service());
        passEnded = true;
    });
    int silent[2];
    ASSERT_EQ(0, pipe2(silent, O_CLOEXEC));
    long most = 0;
    while (!passEnded && most < 100000) {
        const auto id = scheduler.AddIOTask(silent[0], EPOLLIN, calling([captured] {}), nullptr);
        EXPECT_TRUE(scheduler.RemoveIOTask(id));
        most = std::max(most, captured.use_count());
    }
    EXPECT_EQ(1, write(silent[1], "x", 1));
    if (!passEnded) scheduler.AddIOTask(silent[0], EPOLLIN, calling([] {}), nullptr);
    loop.join();
    EXPECT_GT(100000, most);
    EXPECT_EQ(1, captured.use_count());
    close(silent[0]);
    close(silent[1]);
}

TEST_F(SchedulerTest, StopFromAnotherThreadEndsTheLoop) {
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(scheduler.Init());
        scheduler.AddTimerTask(10000, nullptr, nullptr);
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
