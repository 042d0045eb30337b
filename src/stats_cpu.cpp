#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <vector>

#include <kest/utils/stats.h>

#include "stats_source.h"

namespace kest::utils {
namespace {

using namespace detail;

// In the order of the columns.
constexpr uint64_t CpuTimes::*kColumns[] = {
    &CpuTimes::user,   &CpuTimes::nice, &CpuTimes::system,  &CpuTimes::idle,
    &CpuTimes::iowait, &CpuTimes::irq,  &CpuTimes::softirq, &CpuTimes::steal};
// What the oldest kernels have.
constexpr size_t kLeastColumns = 4;
// Far above what a kernel can be built for.
constexpr int kMostCores = 65536;

bool readTimes(std::string_view line, CpuTimes& times) {
    size_t columns = 0;
    while (columns < std::size(kColumns) && takeNumber(line, times.*kColumns[columns]))
        ++columns;
    return columns >= kLeastColumns;
}

bool isEmpty(const CpuTimes& times) {
    uint64_t all = 0;
    for (const auto column : kColumns)
        all |= times.*column;
    return all == 0;
}

// Takes a reading, and the shares of the time since the one before.
void measure(CpuLoad& load, const CpuTimes& now) {
    const CpuTimes before = load.times;
    load.times = now;
    if (isEmpty(before)) return;
    const auto ticks = [&](uint64_t CpuTimes::*column) {
        return static_cast<double>(advance(before.*column, now.*column).value_or(0));
    };
    double all = 0;
    for (const auto column : kColumns)
        all += ticks(column);
    if (all <= 0) return;
    const double user = ticks(&CpuTimes::user) + ticks(&CpuTimes::nice);
    const double system =
        ticks(&CpuTimes::system) + ticks(&CpuTimes::irq) + ticks(&CpuTimes::softirq);
    const double steal = ticks(&CpuTimes::steal);
    load.user = 100 * user / all;
    load.system = 100 * system / all;
    load.steal = 100 * steal / all;
    load.iowait = 100 * ticks(&CpuTimes::iowait) / all;
    load.busy = 100 * (user + system + steal) / all;
    load.measured = true;
}

// The cores of the earlier reading, brought up to date line by line.
class Cores {
  public:
    explicit Cores(std::vector<CpuLoad>& cores) : cores_(cores) {}

    // The place of a core; null when its number is not above that of the line before.
    CpuLoad* at(int core) {
        if (core <= last_) return nullptr;
        last_ = core;
        const auto isIt = [core](const CpuLoad& load) { return load.core == core; };
        CpuLoad& load = entryAt(cores_, used_++, isIt);
        load.core = core;
        return &load;
    }

    void dropTheRest() {
        cores_.erase(cores_.begin() + static_cast<std::ptrdiff_t>(used_), cores_.end());
    }

  private:
    std::vector<CpuLoad>& cores_;
    size_t used_ = 0;
    int last_ = -1;
};

// The place of the figures behind "cpu<number>"; null when there is none.
CpuLoad* placeOf(std::string_view& line, Cores& cores) {
    uint64_t core = 0;
    return takeNumber(line, core) && core < kMostCores ? cores.at(static_cast<int>(core)) : nullptr;
}

}  // namespace

bool GetCpuStats(CpuStats& stats) {
    StatsLines lines(StatsFile::Stat);
    Cores cores(stats.cores);
    std::string_view line;
    bool complete = false;
    while (lines.next(line)) {
        const bool isCpu = takePrefix(line, "cpu");
        // The long line of the interrupts comes next; nothing behind it is needed.
        if (!isCpu && complete) break;
        const bool isTotal = isCpu && takePrefix(line, " ");
        // Without the line for all of them the cores stay as they are.
        if (!isTotal && !(isCpu && complete)) continue;
        CpuLoad* load = isTotal ? &stats.total : placeOf(line, cores);
        CpuTimes now;
        if (load == nullptr || !readTimes(line, now)) continue;
        measure(*load, now);
        complete = true;
    }
    if (complete) cores.dropTheRest();
    return lines.finish(complete, __func__);
}

}  // namespace kest::utils
