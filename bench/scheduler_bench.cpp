// The event loop beside libevent, libuv, libev and a bare epoll_wait loop, on the same descriptors.
// docs/benchmarks.md says what the figures mean.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "scheduler_contestants.h"

namespace {

using namespace contestants;

constexpr size_t kSpareDescriptors =
    180;  // for the loops themselves, their timers, standard streams
constexpr unsigned long kTokensPerBatch = 1000;

// How many descriptors the program may have, after asking for as many as the largest case needs.
size_t descriptorLimit() {
    constexpr rlim_t kWanted = 50000 + 1000;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit raised = {std::max(kWanted, limit.rlim_cur), std::max(kWanted, limit.rlim_max)};
    const rlimit granted = {limit.rlim_max, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0) setrlimit(RLIMIT_NOFILE, &granted);
    getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<size_t>(limit.rlim_cur);
}

struct SocketPair {
    SocketPair() {
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
                "socketpair");
    }
    SocketPair(SocketPair&& other) noexcept : ends{other.ends[0], other.ends[1]} {
        other.ends[0] = other.ends[1] = -1;
    }
    SocketPair& operator=(SocketPair&&) = delete;
    ~SocketPair() {
        for (const int end : ends) {
            if (end >= 0) close(end);
        }
    }
    int ends[2];
};

// The socket pairs that all cases share, so that no contestant has better ones than another.
std::vector<SocketPair>& sharedPairs(size_t count) {
    static std::vector<SocketPair> pairs;
    while (pairs.size() < count)
        pairs.emplace_back();
    return pairs;
}

// A socket that is neither readable nor writable.
int idleSocket() {
    static const SocketPair pair;
    static const bool full = [] {
        const std::string filling(65536, 'x');
        while (write(pair.ends[0], filling.data(), filling.size()) > 0) {
        }
        return write(pair.ends[0], "x", 1) == -1 && errno == EAGAIN;
    }();
    require(full, "filling a socket");
    return pair.ends[0];
}

bool enoughDescriptors(benchmark::State& state, size_t wanted) {
    static const size_t limit = descriptorLimit();
    if (wanted + kSpareDescriptors <= limit) return true;
    const std::string text = "needs " + std::to_string(wanted + kSpareDescriptors) +
                             " descriptors, the limit is " + std::to_string(limit) +
                             " (ulimit -Hn)";
    state.SkipWithError(text.c_str());
    return false;
}

// `pairs` socket pairs in a ring and `active` tokens running round it. Time for one hop.
template <typename Loop>
void ring(benchmark::State& state, size_t pairs, size_t active) {
    if (!enoughDescriptors(state, 2 * pairs)) return;
    const auto& sockets = sharedPairs(pairs);
    Ring tokens;
    std::vector<Station> stations;
    for (size_t i = 0; i < pairs; ++i) {
        stations.push_back(
            {sockets[i].ends[0], sockets[(i + 1) % pairs].ends[1], &tokens, nullptr});
    }
    Loop loop;
    for (Station& station : stations)
        loop.watch(station);
    loop.settle();
    for (size_t i = 0; i < active; ++i) {
        require(write(sockets[i * pairs / active].ends[1], "t", 1) == 1, "write");
    }
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(kTokensPerBatch))) {
        tokens.target += kTokensPerBatch;
        loop.serve(tokens);
    }
    char token = 0;
    for (const Station& station : stations) {
        while (read(station.in, &token, 1) == 1) {
        }
    }
}

// Watches one end, then the other, of shared pairs that never become ready.
template <typename Loop>
std::vector<Station> watchOthers(Loop& loop, size_t others) {
    const auto& sockets = sharedPairs(others / 2);
    std::vector<Station> stations;
    for (size_t i = 0; i < others; ++i) {
        stations.push_back({sockets[i / 2].ends[i % 2], -1, nullptr, nullptr});
    }
    for (Station& station : stations)
        loop.watch(station);
    loop.settle();
    return stations;
}

template <typename Loop>
void addRemove(benchmark::State& state, size_t others) {
    if (!enoughDescriptors(state, others)) return;
    Loop loop;
    const auto stations = watchOthers(loop, others);
    loop.adopt(idleSocket());
    for (auto _ : state) {
        loop.add();
        loop.remove();
    }
}

template <typename Loop>
void changeMode(benchmark::State& state, size_t others) {
    if (!enoughDescriptors(state, others)) return;
    Loop loop;
    const auto stations = watchOthers(loop, others);
    loop.adopt(idleSocket());
    loop.add();
    bool alsoWrite = false;
    for (auto _ : state) {
        alsoWrite = !alsoWrite;
        loop.changeMode(alsoWrite);
    }
    loop.changeMode(false);
    loop.remove();
}

// Time for one timer's whole life. The wait for the expiry is no processor time.
template <typename Loop>
void timerLife(benchmark::State& state, size_t timers) {
    Loop loop;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(timers))) {
        for (size_t i = 0; i < timers; ++i)
            loop.startTimer(1);
        loop.serveTimers();
        loop.removeTimers();
    }
}

template <typename Loop>
void timerUnfired(benchmark::State& state) {
    Loop loop;
    for (auto _ : state) {
        loop.startTimer(3600000);
        loop.removeTimers();
    }
}

template <typename Function>
benchmark::internal::Benchmark* add(const std::string& pattern, const std::string& contestant,
                                    const std::string& parameters, Function function) {
    const std::string name = pattern + "/" + contestant + "/" + parameters;
    return benchmark::RegisterBenchmark(name.c_str(), function);
}

// The asked-for count, and where this machine's limit does not allow it the largest that fits.
std::vector<size_t> withFallback(std::vector<size_t> counts, size_t descriptorsEach) {
    const size_t limit = descriptorLimit();
    const size_t most = (limit - kSpareDescriptors) / descriptorsEach / 100 * 100;
    if (counts.back() > most) counts.push_back(most);
    return counts;
}

template <typename Loop>
void addRings(const std::string& contestant) {
    for (const size_t pairs : withFallback({100, 1000, 10000}, 2)) {
        for (const size_t active : {size_t{1}, size_t{100}, size_t{1000}}) {
            if (active > pairs) continue;
            add("ring", contestant,
                "pairs:" + std::to_string(pairs) + "/active:" + std::to_string(active),
                [=](benchmark::State& state) { ring<Loop>(state, pairs, active); });
        }
    }
}

template <typename Loop>
void addAddRemove(const std::string& contestant) {
    for (const size_t others : withFallback({10, 1000, 50000}, 1)) {
        add("add_remove", contestant, "others:" + std::to_string(others),
            [=](benchmark::State& state) { addRemove<Loop>(state, others); });
    }
}

template <typename Loop>
void addChangeMode(const std::string& contestant) {
    for (const size_t others : withFallback({10, 1000, 50000}, 1)) {
        add("change_mode", contestant, "others:" + std::to_string(others),
            [=](benchmark::State& state) { changeMode<Loop>(state, others); });
    }
}

template <typename Loop>
void addTimers(const std::string& contestant) {
    // Most of the time passes in waiting, so the count is fixed: about 0.2 seconds.
    for (const size_t timers : {size_t{1}, size_t{100}}) {
        add("timer_life", contestant, "timers:" + std::to_string(timers),
            [=](benchmark::State& state) { timerLife<Loop>(state, timers); })
            ->Iterations(static_cast<benchmark::IterationCount>(200 * timers));
    }
    add("timer_unfired", contestant, "timers:1", timerUnfired<Loop>);
}

const bool registered = [] {
    addRings<Ours>("ours");
    addRings<BareEpoll<false>>("epoll");
    addRings<Libevent<false>>("libevent");
    addRings<Libuv<false>>("libuv");
    addRings<Libev<false>>("libev");

    addAddRemove<Ours>("ours");
    addAddRemove<BareEpoll<false>>("epoll");
    addAddRemove<BareEpoll<true>>("epoll_pass");
    addAddRemove<Libevent<true>>("libevent");
    addAddRemove<Libevent<false>>("libevent_reused");
    addAddRemove<Libuv<false>>("libuv_calls");
    addAddRemove<Libuv<true>>("libuv_pass");
    addAddRemove<Libev<false>>("libev_calls");
    addAddRemove<Libev<true>>("libev_pass");

    addChangeMode<Ours>("ours");
    addChangeMode<BareEpoll<false>>("epoll");
    addChangeMode<BareEpoll<true>>("epoll_pass");
    addChangeMode<Libevent<true>>("libevent");
    addChangeMode<Libuv<false>>("libuv_calls");
    addChangeMode<Libuv<true>>("libuv_pass");
    addChangeMode<Libev<false>>("libev_calls");
    addChangeMode<Libev<true>>("libev_pass");

    addTimers<Ours>("ours");
    addTimers<BareEpoll<false>>("timerfd");
    addTimers<Libevent<false>>("libevent");
    addTimers<Libuv<false>>("libuv");
    addTimers<Libev<false>>("libev");
    return true;
}();

}  // namespace
