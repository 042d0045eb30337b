#include <kest/utils/stats.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include <kest/utils/string_utils.h>

#include "support/allocations.h"
#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using namespace kest::utils;
using testing::Each, testing::ElementsAre, testing::MatchesRegex;

using StatsTest = CleanTest;

// In a child with a /proc of its own, in which there is nothing yet.
void withMadeUpProc(const std::function<void()>& function) {
    Isolated().run([&] {
        ASSERT_EQ(0, mount("tmpfs", "/proc", "tmpfs", 0, nullptr));
        mkdir("/proc/net", 0755);
        function();
        EXPECT_EQ(0, umount("/proc"));
    });
}

bool cpuAfter(CpuStats& stats, const std::string& text) {
    writeFile("/proc/stat", text);
    return GetCpuStats(stats);
}

std::string shares(const CpuLoad& load) {
    return format("%d %d %g %g %g %g %g", load.core, load.measured, load.busy, load.user,
                  load.system, load.steal, load.iowait);
}

TEST_F(StatsTest, SharesOfTheTimeBetweenTwoReadings) {
    withMadeUpProc([] {
        CpuStats stats;
        EXPECT_TRUE(cpuAfter(stats, "cpu  100 0 0 900\ncpu0 1 1 1 1\ncpu2 5 0 0 5\nintr 1\ncpu9"));
        EXPECT_TRUE(shares(stats.total) == "-1 0 0 0 0 0 0" && stats.cores.size() == 2);
        // Columns and lines of newer kernels; core 0 is switched off, core 1 on.
        const char* next =
            "new 7\ncpu  105 5 3 980 1 1 1 4 99 9 9\ncpu1 1 0 0 1\ncpu2 9 0 0 6\ncpux";
        for (bool tickLater : {true, false}) {
            EXPECT_TRUE(cpuAfter(stats, next) && stats.cores.size() == 2) << tickLater;
            EXPECT_EQ("-1 1 19 10 5 4 1", shares(stats.total));
            EXPECT_EQ("1 0 0 0 0 0 0", shares(stats.cores[0]));
            EXPECT_EQ("2 1 80 80 0 0 0", shares(stats.cores[1]));
        }
    });
}

TEST_F(StatsTest, ProcessorTimesThatWrapOrGoBack) {
    withMadeUpProc([] {
        CpuStats stats;
        EXPECT_TRUE(cpuAfter(stats, "cpu  4294967290 0 0 1000 500\ncpu1 1 1 1 1\ncpu0 1 1 1 1"));
        EXPECT_EQ(1U, stats.cores.size()) << "numbers that descend";
        EXPECT_TRUE(cpuAfter(stats, "cpu  4 0 0 990 530\ncpu 1 2\ncpu0 1 1 18446744073709551616"));
        EXPECT_EQ("-1 1 25 25 0 0 75", shares(stats.total));
        for (const char* text : {"", "cpu 1 2 3\n", "cpu7 1 2 3 4\n", "intr 1 2 3 4"})
            EXPECT_FALSE(cpuAfter(stats, text)) << text;
        EXPECT_THAT(logTexts(), Each("Unexpected text in `/proc/stat`"));
        EXPECT_TRUE(logLines().at(3).sourceFile == "stats" && stats.total.times.idle == 990);
        EXPECT_EQ(1U, stats.cores.size());
    });
}

TEST_F(StatsTest, MemoryOfOldAndNewKernels) {
    withMadeUpProc([] {
        MemoryStats stats;
        EXPECT_FALSE(GetMemoryStats(stats));
        const std::string text =
            "MemTotal:  1000 kB\nMemFree:100 kB\nBuffers: 20 kB\nCached: 300 kB\nSwapCached: 9 kB\n"
            "Junk\nSwapTotal: 50 kB\nSwapFree: 18014398509481984 kB";
        writeFile("/proc/meminfo", text + "\nShmem: 70 kB\nSReclaimable: 8 kB\n");
        EXPECT_TRUE(GetMemoryStats(stats) && stats.available == 358 << 10);
        EXPECT_TRUE(stats.cached == 300 << 10 && stats.swapTotal == 50 << 10 && !stats.swapFree);
        writeFile("/proc/meminfo", std::string(9000, 'x') + "\nMemAvailable: 5 kB\n" + text);
        EXPECT_TRUE(GetMemoryStats(stats) && stats.available == 5 << 10 && stats.shared == 0);
        writeFile("/proc/meminfo", "MemTotal: kB\nMemFree: 3 kB\n");
        EXPECT_TRUE(!GetMemoryStats(stats) && stats.free == 100 << 10);
        EXPECT_THAT(logTexts(), ElementsAre("Unable to read `/proc/meminfo`",
                                            "Unexpected text in `/proc/meminfo`"));
    });
}

bool networkAfter(NetworkStats& stats, const std::string& lines) {
    writeFile("/proc/net/dev", "Inter-| x:\n face |bytes    packets\n" + lines);
    return GetNetworkStats(stats);
}

TEST_F(StatsTest, NetworkRates) {
    withMadeUpProc([] {
        NetworkStats stats;
        EXPECT_TRUE(networkAfter(stats,
                                 "  lo: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
                                 "eth0:4294967290 7 0 0 0 0 0 0 20 2 3 4 0 0 0 0\n"
                                 "wan1: 9 9 9 9 9 9 9 9 9 9 9 9 0 0 0 0\nodd: 1 2 3\n"));
        const int64_t before = stats.readNs;
        // In another order; a wrap at 32 bits, and one interface that was made anew.
        EXPECT_TRUE(networkAfter(stats,
                                 "wan1: 99 2 9 9 9 9 9 9 9 9 9 9 0 0 0 0\n"
                                 "new0: 1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
                                 "eth0: 94 9 1 1 0 0 0 0 70 3 3 14 0 0 0 0 1"));
        const double seconds = static_cast<double>(stats.readNs - before) / 1e9;
        std::string seen;
        for (const auto& [name, measured, received, sent, in, out] : stats.interfaces)
            seen += format("%s %d %g %g %g %g ", name.c_str(), measured, in.bytes * seconds,
                           in.packets * seconds, out.bytes * seconds, out.drops * seconds);
        EXPECT_EQ("wan1 0 0 0 0 0 new0 0 0 0 0 0 eth0 1 100 2 50 10 ", seen);
        writeFile("/proc/net/dev", "eth0: 1 2 3 4 5 6 7 8 9 10 11 12");
        EXPECT_TRUE(!GetNetworkStats(stats) && stats.interfaces.size() == 3);
    });
}

TEST_F(StatsTest, ProcessorsOfX86AndArm) {
    withMadeUpProc([] {
        const auto describe = [](const std::string& text) {
            CpuInfo info;
            writeFile("/proc/cpuinfo", text);
            const bool read = GetCpuInfo(info);
            std::string features;
            join(features, ",", info.features);
            return format("%d%u %s|%s|%s|%s", read, info.online, info.model.c_str(),
                          info.core.c_str(), info.hardware.c_str(), features.c_str());
        };
        EXPECT_EQ("12 Some  CPU|||fpu,avx2",
                  describe("processor\t: 0\nmodel\t\t: 1\nmodel name\t: Some  CPU\n"
                           "flags\t\t: fpu  avx2\n\nprocessor\t: 1\nmodel name\t: other\n"));
        const std::string arm = "CPU implementer\t: 0x41\nCPU part\t: ";
        EXPECT_EQ("12 ARMv7 Processor rev 1|Cortex-A9|Board: 7|swp,neon",
                  describe("Processor\t: ARMv7 Processor rev 1\nprocessor\t: 0\n\nprocessor\t: 1\n"
                           "\nFeatures\t: swp neon \n" +
                           arm + "0xc09\n\nHardware\t: Board: 7\n"));
        EXPECT_EQ("11 Cortex-A53|Cortex-A53||", describe("Features\t:\n" + arm + "0xd03"));
        EXPECT_EQ("11 0x41/0xfff|0x41/0xfff||", describe(arm + "0xfff\nSerial"));
        EXPECT_THAT(describe("x"), MatchesRegex("11 [a-z0-9_]+\\|\\|\\|"));
        EXPECT_EQ("00 |||", describe(""));
    });
}

TEST_F(StatsTest, LoadUptimeAndProcesses) {
    withMadeUpProc([] {
        SystemStats stats;
        writeFile("/proc/loadavg", "0.52 10.05 1.00 3/250 99\n");
        writeFile("/proc/uptime", "31536000.07 2.00\n");
        for (const char* name : {"/proc/1", "/proc/22", "/proc/sys", "/proc/9000"})
            mkdir(name, 0755);
        EXPECT_TRUE(GetSystemStats(stats));
        EXPECT_TRUE(stats.load1 == 0.52 && stats.load5 == 10.05 && stats.load15 == 1);
        EXPECT_TRUE(stats.running == 3 && stats.threads == 250 && stats.processes == 3);
        EXPECT_EQ(31536000070U, stats.uptimeMs);
        for (const char* text : {"", "1 2 3 4", ".5 1 1 1/1", "1 2 x"}) {
            writeFile("/proc/loadavg", text);
            EXPECT_TRUE(!GetSystemStats(stats) && stats.processes == 3) << text;
        }
    });
}

// Polls again and again; the number of allocations after the first time.
unsigned pollRealFigures(int times) {
    CpuStats cpu;
    MemoryStats memory;
    NetworkStats network;
    SystemStats system;
    unsigned before = 0;
    for (int i = 0; i < times; ++i) {
        EXPECT_TRUE(GetCpuStats(cpu) && !cpu.cores.empty() && cpu.total.times.idle > 0);
        EXPECT_TRUE(GetMemoryStats(memory) && memory.total > memory.available && memory.free > 0);
        EXPECT_TRUE(GetNetworkStats(network) && network.interfaces.at(0).name == "lo");
        EXPECT_TRUE(GetSystemStats(system) && system.processes >= 2 && system.uptimeMs > 0);
        if (i == 0) before = allocations;
    }
    return allocations - before;
}

TEST_F(StatsTest, RealFiguresWithoutAllocationThroughKeptDescriptors) {
    Isolated().run([] {
        auto kept = openDescriptors();
        EXPECT_EQ(0U, pollRealFigures(3));
        EXPECT_EQ(kept, openDescriptors());
        EXPECT_TRUE(InitializeStatsLib() && InitializeStatsLib());
        for (int fd : std::exchange(kept, openDescriptors()))
            kept.erase(fd);
        EXPECT_EQ(5U, kept.size());
        EXPECT_EQ(0U, pollRealFigures(3));
        std::thread other([] { pollRealFigures(300); });
        pollRealFigures(300);
        other.join();

        // A daemon closes everything, and other files get the numbers.
        for (int fd : kept)
            EXPECT_TRUE(fcntl(fd, F_GETFD) == FD_CLOEXEC && dup2(0, fd) == fd);
        pollRealFigures(3);
        EXPECT_TRUE(InitializeStatsLib());
        for (int fd : kept)
            EXPECT_EQ(0, close(fd)) << "is theirs now";
    });
}

}  // namespace
