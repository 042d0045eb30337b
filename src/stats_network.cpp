#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include <kest/utils/stats.h>
#include <kest/utils/timer.h>

#include "stats_source.h"

namespace kest::utils {
namespace {

using namespace detail;

// Linux has names of 15 bytes at most, and some devices with hundreds of virtual interfaces.
constexpr size_t kLongestName = 64;
constexpr size_t kMostInterfaces = 4096;
constexpr int kReceivedColumns = 8;

struct Reading {
    NetworkCounters received;
    NetworkCounters sent;
};

// The first four columns of each direction are the ones that all kernels have.
bool readCounters(std::string_view& line, NetworkCounters& counters) {
    return takeNumber(line, counters.bytes) && takeNumber(line, counters.packets) &&
           takeNumber(line, counters.errors) && takeNumber(line, counters.drops);
}

bool readLine(std::string_view line, std::string_view& name, Reading& reading) {
    // Old kernels set no blank behind the colon, and aliases have one in their names.
    const size_t colon = line.rfind(':');
    if (colon == line.npos) return false;
    name = trimmed(line.substr(0, colon));
    if (name.empty() || name.size() > kLongestName) return false;
    line.remove_prefix(colon + 1);
    if (!readCounters(line, reading.received)) return false;
    uint64_t skipped = 0;
    for (int column = 4; column < kReceivedColumns; ++column)
        if (!takeNumber(line, skipped)) return false;
    return readCounters(line, reading.sent);
}

constexpr std::pair<uint64_t NetworkCounters::*, double NetworkRates::*> kFigures[] = {
    {&NetworkCounters::bytes, &NetworkRates::bytes},
    {&NetworkCounters::packets, &NetworkRates::packets},
    {&NetworkCounters::errors, &NetworkRates::errors},
    {&NetworkCounters::drops, &NetworkRates::drops},
};

bool rate(const NetworkCounters& before, const NetworkCounters& now, double perSecond,
          NetworkRates& rates) {
    for (const auto& [counter, figure] : kFigures) {
        const auto count = advance(before.*counter, now.*counter);
        if (!count) return false;
        rates.*figure = static_cast<double>(*count) * perSecond;
    }
    return true;
}

void measure(NetworkInterface& interface, std::string_view name, const Reading& now,
             double perSecond) {
    const bool isNew = interface.name.empty();
    interface.measured = !isNew &&
                         rate(interface.received, now.received, perSecond, interface.receiveRate) &&
                         rate(interface.sent, now.sent, perSecond, interface.sendRate);
    // One counter set back means that all were: the others only happen to have passed their old
    // value already.
    if (!interface.measured) interface.receiveRate = interface.sendRate = {};
    if (isNew) interface.name = name;
    interface.received = now.received;
    interface.sent = now.sent;
}

}  // namespace

bool GetNetworkStats(NetworkStats& stats) {
    StatsLines lines(StatsFile::NetDev);
    const int64_t now = nowNs();
    const double perSecond = 1e9 / static_cast<double>(std::max<int64_t>(now - stats.readNs, 1));
    std::string_view line;
    std::string_view name;
    Reading reading;
    bool complete = false;
    size_t count = 0;
    while (lines.next(line)) {
        if (!complete) {
            complete = line.find("|bytes") != line.npos;
        } else if (count < kMostInterfaces && readLine(line, name, reading)) {
            const auto isIt = [&](const NetworkInterface& known) { return known.name == name; };
            measure(entryAt(stats.interfaces, count++, isIt), name, reading, perSecond);
        }
    }
    if (complete) {
        stats.interfaces.erase(stats.interfaces.begin() + static_cast<std::ptrdiff_t>(count),
                               stats.interfaces.end());
        stats.readNs = now;
    }
    return lines.finish(complete, __func__);
}

}  // namespace kest::utils
