#include <algorithm>
#include <optional>
#include <string_view>

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

std::optional<NetworkRates> rates(const NetworkCounters& before, const NetworkCounters& now,
                                  double perSecond) {
    const auto bytes = advance(before.bytes, now.bytes);
    const auto packets = advance(before.packets, now.packets);
    const auto errors = advance(before.errors, now.errors);
    const auto drops = advance(before.drops, now.drops);
    if (!bytes || !packets || !errors || !drops) return std::nullopt;
    return NetworkRates{
        static_cast<double>(*bytes) * perSecond, static_cast<double>(*packets) * perSecond,
        static_cast<double>(*errors) * perSecond, static_cast<double>(*drops) * perSecond};
}

void measure(NetworkInterface& interface, const Reading& now, double perSecond) {
    const auto receiveRate = rates(interface.received, now.received, perSecond);
    const auto sendRate = rates(interface.sent, now.sent, perSecond);
    // One counter set back means that all were: the others only happen to have passed their old
    // value already.
    interface.measured = receiveRate && sendRate;
    interface.receiveRate = interface.measured ? *receiveRate : NetworkRates();
    interface.sendRate = interface.measured ? *sendRate : NetworkRates();
    interface.received = now.received;
    interface.sent = now.sent;
}

// Brings the entry at `place` to the interface of that name. The order of the kernel changes only
// when interfaces come and go.
void settle(std::vector<NetworkInterface>& interfaces, size_t place, std::string_view name,
            const Reading& now, double perSecond) {
    const auto at = interfaces.begin() + static_cast<std::ptrdiff_t>(place);
    const auto found =
        std::find_if(at, interfaces.end(), [&](const auto& known) { return known.name == name; });
    if (found != interfaces.end()) {
        std::rotate(at, found, found + 1);
        measure(*at, now, perSecond);
        return;
    }
    NetworkInterface added;
    added.name = name;
    added.received = now.received;
    added.sent = now.sent;
    interfaces.insert(at, std::move(added));
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
            settle(stats.interfaces, count++, name, reading, perSecond);
        }
    }
    if (complete) {
        stats.interfaces.resize(count);
        stats.readNs = now;
    }
    return lines.finish(complete, __func__);
}

}  // namespace kest::utils
