// One poll of the system's figures, beside Debian's libproc2 on the same files.
//
// Cases are named "<pattern>/<contestant>": each figure by itself, and "poll", all but the network,
// for which libproc2 has no peer. Contestants: "ours" with kept files, as libproc2 keeps those of
// processor and memory; "ours_unkept" without InitializeStatsLib(); "libproc2"; and
// "libproc2_uncounted", which leaves out to count the processes, where libproc2 does more than
// that.
#include <benchmark/benchmark.h>
#include <libproc2/meminfo.h>
#include <libproc2/misc.h>
#include <libproc2/pids.h>
#include <libproc2/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <kest/utils/stats.h>

#include "require.h"

namespace {

using namespace kest::utils;

struct Ours {
    Ours() { require(InitializeStatsLib(), "InitializeStatsLib"); }

    CpuStats cpuStats;
    MemoryStats memoryStats;
    SystemStats systemStats;
    NetworkStats networkStats;

    bool cpu() { return GetCpuStats(cpuStats); }
    bool memory() { return GetMemoryStats(memoryStats); }
    bool system() { return GetSystemStats(systemStats); }
    bool network() { return GetNetworkStats(networkStats); }
    bool poll() { return cpu() && memory() && system(); }
};

// Kept files that are closed behind its back the library no longer uses.
struct Unkept : Ours {
    Unkept() {
        for (int fd = 3; fd < 64; ++fd) {
            char name[64] = {};
            const std::string link = "/proc/self/fd/" + std::to_string(fd);
            if (readlink(link.c_str(), name, sizeof(name) - 1) > 0 && !strncmp(name, "/proc/", 6))
                close(fd);
        }
    }
};

// The items that give what our structures hold.
class Peer {
  public:
    Peer() {
        require(procps_stat_new(&stat_) == 0, "procps_stat_new");
        require(procps_meminfo_new(&memory_) == 0, "procps_meminfo_new");
        require(procps_pids_new(&pids_, &pidItem_, 1) == 0, "procps_pids_new");
    }
    ~Peer() {
        procps_stat_unref(&stat_);
        procps_meminfo_unref(&memory_);
        procps_pids_unref(&pids_);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool cpu() {
        return procps_stat_reap(stat_, STAT_REAP_CPUS_ONLY, cpuItems_, kCpuItems) != nullptr;
    }
    bool memory() { return procps_meminfo_select(memory_, memoryItems_, kMemoryItems) != nullptr; }
    bool system() {
        return uncounted() && procps_pids_reap(pids_, PIDS_FETCH_TASKS_ONLY) != nullptr;
    }
    bool uncounted() {
        double load1 = 0, load5 = 0, load15 = 0, uptime = 0;
        const bool read =
            procps_loadavg(&load1, &load5, &load15) == 0 && procps_uptime(&uptime, nullptr) >= 0;
        benchmark::DoNotOptimize(load1 + uptime);
        return read;
    }
    bool poll() { return cpu() && memory() && system(); }
    bool uncountedPoll() { return cpu() && memory() && uncounted(); }

  private:
    static constexpr int kCpuItems = 13, kMemoryItems = 9;

    stat_info* stat_ = nullptr;
    meminfo_info* memory_ = nullptr;
    pids_info* pids_ = nullptr;
    pids_item pidItem_ = PIDS_ID_PID;
    stat_item cpuItems_[kCpuItems] = {STAT_TIC_ID,
                                      STAT_TIC_USER,
                                      STAT_TIC_NICE,
                                      STAT_TIC_SYSTEM,
                                      STAT_TIC_IDLE,
                                      STAT_TIC_IOWAIT,
                                      STAT_TIC_IRQ,
                                      STAT_TIC_SOFTIRQ,
                                      STAT_TIC_STOLEN,
                                      STAT_TIC_SUM_DELTA_USER,
                                      STAT_TIC_SUM_DELTA_SYSTEM,
                                      STAT_TIC_SUM_DELTA_BUSY,
                                      STAT_TIC_SUM_DELTA_TOTAL};
    meminfo_item memoryItems_[kMemoryItems] = {
        MEMINFO_MEM_TOTAL,        MEMINFO_MEM_FREE,   MEMINFO_MEM_AVAILABLE,
        MEMINFO_MEM_BUFFERS,      MEMINFO_MEM_CACHED, MEMINFO_MEM_SHARED,
        MEMINFO_MEM_SLAB_RECLAIM, MEMINFO_SWAP_TOTAL, MEMINFO_SWAP_FREE};
};

template <typename Contestant>
void run(benchmark::State& state, bool (Contestant::*read)()) {
    Contestant contestant;
    require((contestant.*read)(), "first reading");
    for (auto _ : state)
        require((contestant.*read)(), "reading");
}

void unkept(benchmark::State& state, bool (Ours::*read)()) {
    run<Unkept>(state, read);
}

#define CASE(name, ...) BENCHMARK_CAPTURE(__VA_ARGS__)->Name(name)
CASE("cpu/ours", run, ours, &Ours::cpu);
CASE("cpu/libproc2", run, libproc2, &Peer::cpu);
CASE("memory/ours", run, ours, &Ours::memory);
CASE("memory/libproc2", run, libproc2, &Peer::memory);
CASE("system/ours", run, ours, &Ours::system);
CASE("system/libproc2", run, libproc2, &Peer::system);
CASE("system/libproc2_uncounted", run, libproc2_uncounted, &Peer::uncounted);
CASE("network/ours", run, ours, &Ours::network);
CASE("network/ours_unkept", unkept, ours, &Ours::network);
CASE("poll/ours", run, ours, &Ours::poll);
CASE("poll/ours_unkept", unkept, ours, &Ours::poll);
CASE("poll/libproc2", run, libproc2, &Peer::poll);
CASE("poll/libproc2_uncounted", run, libproc2_uncounted, &Peer::uncountedPoll);

}  // namespace
