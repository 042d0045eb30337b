#include "telemetry.h"

#include <vector>

#include <kest/utils/string_utils.h>

using kest::utils::format;

namespace {

// A message stays short however many interfaces there are.
constexpr size_t kMostInterfaces = 4;
constexpr unsigned kMiBShift = 20;

}  // namespace

// A camera without some of the figures is better than none: the library logs what it cannot open.
void Telemetry::start() {
    kest::utils::InitializeStatsLib();
}

std::string Telemetry::text() {
    std::vector<std::string> figures;
    if (kest::utils::GetCpuStats(cpu_) && cpu_.total.measured)
        figures.push_back(format("cpu=%.1f", cpu_.total.busy));

    kest::utils::MemoryStats memory;
    if (kest::utils::GetMemoryStats(memory)) {
        figures.push_back(format("memory=%llu/%llu",
                                 static_cast<unsigned long long>(memory.available >> kMiBShift),
                                 static_cast<unsigned long long>(memory.total >> kMiBShift)));
    }
    kest::utils::SystemStats system;
    if (kest::utils::GetSystemStats(system))
        figures.push_back(format("load=%.2f processes=%u", system.load1, system.processes));

    if (kest::utils::GetNetworkStats(network_)) {
        size_t told = 0;
        for (const auto& interface : network_.interfaces) {
            if (!interface.measured || told++ >= kMostInterfaces) continue;
            figures.push_back(format("%s=%.0f/%.0f", interface.name.c_str(),
                                     interface.receiveRate.bytes, interface.sendRate.bytes));
        }
    }
    std::string text;
    kest::utils::join(text, " ", figures);
    return text;
}
