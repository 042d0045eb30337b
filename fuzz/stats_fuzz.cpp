// The files of /proc that the statistics read, one reading after the other, from one input:
// separated by lines of "--".
#include <kest/utils/stats.h>

#include <cmath>

#include "support/fuzz.h"

namespace kest::fuzz {
namespace {

void checkLoad(const utils::CpuLoad& load) {
    for (const double share : {load.busy, load.user, load.system, load.steal, load.iowait})
        CHECK(share >= 0 && share <= 100);
    CHECK(load.measured || load.busy == 0);
}

void checkCpu(const utils::CpuStats& stats) {
    checkLoad(stats.total);
    int last = -1;
    for (const utils::CpuLoad& load : stats.cores) {
        checkLoad(load);
        CHECK(load.core > last);
        last = load.core;
    }
}

void checkNetwork(const utils::NetworkStats& stats) {
    for (const utils::NetworkInterface& interface : stats.interfaces) {
        CHECK(!interface.name.empty());
        for (const auto& rates : {interface.receiveRate, interface.sendRate})
            for (const double rate : {rates.bytes, rates.packets, rates.errors, rates.drops})
                CHECK(rate >= 0 && std::isfinite(rate) && (interface.measured || rate == 0));
    }
}

}  // namespace

void fuzz(std::string_view input) {
    utils::CpuStats cpu;
    utils::MemoryStats memory;
    utils::NetworkStats network;
    utils::SystemStats system;
    utils::CpuInfo info;
    while (!input.empty()) {
        setProcFiles(takePart(input, "--\n"));
        utils::GetCpuStats(cpu);
        checkCpu(cpu);
        utils::GetNetworkStats(network);
        checkNetwork(network);
        utils::GetMemoryStats(memory);
        if (utils::GetSystemStats(system)) CHECK(system.load1 >= 0 && std::isfinite(system.load15));
        if (utils::GetCpuInfo(info)) CHECK(info.online > 0 && !info.model.empty());
    }
}

}  // namespace kest::fuzz
