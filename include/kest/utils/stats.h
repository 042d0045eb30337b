/// @file
/// Figures of the running system for telemetry: processor, memory, load and network, read from
/// /proc, made to be polled once a second for as long as a daemon lives.
///
///     InitializeStatsLib();
///     CpuStats cpu;
///     NetworkStats network;
///     scheduler.AddTimerTask(1000, ...);      // in whose callback:
///     if (GetCpuStats(cpu) && cpu.total.measured) report(cpu.total.busy);
///     if (GetNetworkStats(network)) ...
///
/// Shares and rates hold for the time between two readings. The earlier reading is what the
/// caller's structure holds, so that every poller has intervals of its own: keep the structure, and
/// pass it in again. The first reading leaves them 0 and `measured` false.
///
/// Any thread may call these functions; a structure is used by one thread at a time. None of them
/// waits. Not for signal handlers. Once its vectors have grown to the number of cores and
/// interfaces, a poll allocates nothing. Every failure is one log line and false.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// Opens the files of /proc that the functions below poll, and keeps them: a file costs about half
/// as much to read then. Without it, each call opens its file.
///
/// Call it once at the start. Up to five close-on-exec descriptors stay open until the program
/// ends. A child made by `fork` may go on polling with them. A daemon that closes all descriptors
/// afterwards does no harm: one that is closed, or whose number names another file by then, is no
/// longer used. Call it again, while no other thread polls, after a change of the network or mount
/// namespace: the kept files are those of the old one.
/// @return false when a file cannot be opened (each is logged); the others are kept all the same.
KEST_API bool InitializeStatsLib();

/// Time that a processor has spent since the start of the system, in ticks of
/// `sysconf(_SC_CLK_TCK)`, as proc(5) describes them; guests count as user and nice. What the
/// kernel does not tell is 0.
struct CpuTimes {
    uint64_t user = 0;     ///< Programs.
    uint64_t nice = 0;     ///< Programs of lowered priority.
    uint64_t system = 0;   ///< The kernel.
    uint64_t idle = 0;     ///< Nothing to do.
    uint64_t iowait = 0;   ///< Nothing to do, with input or output under way.
    uint64_t irq = 0;      ///< Interrupts.
    uint64_t softirq = 0;  ///< What interrupts have put off.
    uint64_t steal = 0;    ///< Taken by other virtual machines.
};

/// One core or all together. Shares are percent of the time between two readings, 0 to 100.
struct CpuLoad {
    int core = -1;          ///< The kernel's number of the core; -1 for all together.
    bool measured = false;  ///< Whether the shares hold: two readings have seen this core.
    CpuTimes times;         ///< This reading.
    double busy = 0;        ///< Everything but idle and waiting for input and output.
    double user = 0;        ///< Of it programs, the nice ones included.
    double system = 0;      ///< Of it the kernel, interrupts included.
    double steal = 0;       ///< Of it taken by other virtual machines.
    double iowait = 0;      ///< Idle, with input or output under way.
};

/// What GetCpuStats() fills in.
struct CpuStats {
    CpuLoad total;               ///< All cores together.
    std::vector<CpuLoad> cores;  ///< Those that are online, by ascending number.
};

/// Reads /proc/stat.
///
/// A time that has gone backwards (the kernel's idle and waiting times do so by a few ticks) counts
/// as none; one that has wrapped round at 32 bits is understood. Polled again within one tick,
/// shares stay as they were. A core that was switched on since the last call has no shares yet.
/// @param stats  the reading before, or a new structure.
/// @return false when the file cannot be read or has no line for all processors; `stats` is left
///         alone then, unless the reading broke off in the middle: the cores behind are missing.
KEST_API bool GetCpuStats(CpuStats& stats);

/// In bytes.
struct MemoryStats {
    uint64_t total = 0;        ///< What the kernel manages: less than is built in.
    uint64_t free = 0;         ///< Used for nothing.
    uint64_t available = 0;    ///< What programs can get without swapping.
    uint64_t buffers = 0;      ///< Cache of block devices.
    uint64_t cached = 0;       ///< Cache of files, `shared` included.
    uint64_t shared = 0;       ///< Shared memory and tmpfs.
    uint64_t reclaimable = 0;  ///< Caches inside the kernel that it can give back.
    uint64_t swapTotal = 0;    ///< Swap space.
    uint64_t swapFree = 0;     ///< Of it unused.
};

/// Reads /proc/meminfo. What it does not tell is 0, but for `available`, which kernels before 3.14
/// lack: it is estimated then as free + buffers + cached + reclaimable - shared.
/// @return false, with `stats` left alone, when the file cannot be read or lacks the total.
KEST_API bool GetMemoryStats(MemoryStats& stats);

/// One direction of an interface since it came up, as the driver counts; it may wrap at 32 bits.
struct NetworkCounters {
    uint64_t bytes = 0;    ///< With the headers of the link layer.
    uint64_t packets = 0;  ///< Whole packets.
    uint64_t errors = 0;   ///< Packets that were broken.
    uint64_t drops = 0;    ///< Packets for which there was no room.
};

/// The same per second, between two readings.
struct NetworkRates {
    double bytes = 0;    ///< As NetworkCounters::bytes.
    double packets = 0;  ///< As NetworkCounters::packets.
    double errors = 0;   ///< As NetworkCounters::errors.
    double drops = 0;    ///< As NetworkCounters::drops.
};

/// One interface.
struct NetworkInterface {
    std::string name;          ///< Such as "eth0".
    bool measured = false;     ///< Whether the rates hold: two readings have seen this interface.
    NetworkCounters received;  ///< This reading.
    NetworkCounters sent;      ///< This reading.
    NetworkRates receiveRate;  ///< Since the reading before.
    NetworkRates sendRate;     ///< Since the reading before.
};

/// What GetNetworkStats() fills in.
struct NetworkStats {
    std::vector<NetworkInterface> interfaces;  ///< Those that exist, in the kernel's order.
    int64_t readNs = 0;  ///< Moment of this reading on the scale of nowNs(); 0 for none.
};

/// Reads /proc/net/dev: the interfaces of the process's network namespace, loopback included.
///
/// A counter that wraps round, at 32 bits in many drivers, gives the right rate as long as it
/// advances by less than half its range between two readings: 17 s at a full 1 Gbit/s. Counters
/// that went back to 0 otherwise mean that the interface was made anew: it has no rates for this
/// reading.
/// @param stats  the reading before, or a new structure.
/// @return false when the file cannot be read or has no heading; `stats` is left alone then, unless
///         the reading broke off in the middle: the interfaces behind are missing.
KEST_API bool GetNetworkStats(NetworkStats& stats);

/// What GetSystemStats() fills in.
struct SystemStats {
    double load1 = 0;        ///< Mean number of tasks that ran or waited for a disk: 1 minute,
    double load5 = 0;        ///< 5 minutes
    double load15 = 0;       ///< and 15 minutes.
    uint64_t uptimeMs = 0;   ///< Since the start of the system, suspended time included.
    unsigned processes = 0;  ///< Processes, kernel threads included, that this process may see.
    unsigned threads = 0;    ///< Tasks of the whole system.
    unsigned running = 0;    ///< Of them, those that run or could.
};

/// Reads /proc/loadavg and /proc/uptime, and counts the processes in /proc.
/// @return false, with `stats` left alone, when one of them cannot be read.
KEST_API bool GetSystemStats(SystemStats& stats);

/// What the processor is. Does not change but for `online`: read it once.
struct CpuInfo {
    /// As the kernel names it: "AMD EPYC", "ARMv7 Processor rev 5 (v7l)". Where it does not, as on
    /// 64-bit ARM, the same as `core`, or the machine of uname(2), such as "aarch64".
    std::string model;
    /// On ARM the design of the first core, from its main identification register: "Cortex-A7". The
    /// two numbers for one that we do not know: "0x41/0xd99". Empty on x86.
    std::string core;
    std::string hardware;               ///< The board or chip, where the kernel tells (ARM).
    std::vector<std::string> features;  ///< Of the first core: "neon", "vfpv4"; "sse2", "avx2".
    unsigned online = 0;                ///< Cores that are online, at least 1.
};

/// Reads /proc/cpuinfo, in its x86 and ARM forms, old and new. Allocates.
/// @return false, with `info` left alone, when the file cannot be read or is empty.
KEST_API bool GetCpuInfo(CpuInfo& info);

}  // namespace kest::utils
