#include <kest/utils/stats.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>

#include "c_path.h"
#include "log.h"
#include "stats_source.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

using namespace detail;

constexpr uint64_t kKilobyte = 1024;

struct MemoryField {
    std::string_view key;
    uint64_t MemoryStats::*member;
};

constexpr MemoryField kMemoryFields[] = {
    {"MemTotal", &MemoryStats::total},          {"MemFree", &MemoryStats::free},
    {"MemAvailable", &MemoryStats::available},  {"Buffers", &MemoryStats::buffers},
    {"Cached", &MemoryStats::cached},           {"SwapTotal", &MemoryStats::swapTotal},
    {"SwapFree", &MemoryStats::swapFree},       {"Shmem", &MemoryStats::shared},
    {"SReclaimable", &MemoryStats::reclaimable}};
constexpr unsigned kTotalBit = 1U << 0;
constexpr unsigned kAvailableBit = 1U << 2;
constexpr unsigned kAllBits = (1U << std::size(kMemoryFields)) - 1;

// Returns the bit of the field that the line holds, 0 when it is none of ours.
unsigned readMemoryLine(std::string_view line, MemoryStats& stats) {
    const size_t colon = line.find(':');
    if (colon == line.npos) return 0;
    const std::string_view key = line.substr(0, colon);
    for (unsigned i = 0; i < std::size(kMemoryFields); ++i) {
        if (kMemoryFields[i].key != key) continue;
        uint64_t kilobytes = 0;
        line.remove_prefix(colon + 1);
        if (!takeNumber(line, kilobytes) || kilobytes > UINT64_MAX / kKilobyte) return 0;
        stats.*kMemoryFields[i].member = kilobytes * kKilobyte;
        return 1U << i;
    }
    return 0;
}

uint64_t estimateAvailable(const MemoryStats& stats) {
    const uint64_t caches = stats.buffers + stats.cached + stats.reclaimable;
    const uint64_t all = stats.free + (caches > stats.shared ? caches - stats.shared : 0);
    return all < stats.total ? all : stats.total;
}

bool readLoad(SystemStats& stats) {
    StatsLines lines(StatsFile::LoadAvg);
    std::string_view line;
    uint64_t running = 0;
    uint64_t threads = 0;
    const bool complete = lines.next(line) && takeDecimal(line, stats.load1) &&
                          takeDecimal(line, stats.load5) && takeDecimal(line, stats.load15) &&
                          takeNumber(line, running) && takePrefix(line, "/") &&
                          takeNumber(line, threads);
    stats.running = static_cast<unsigned>(running);
    stats.threads = static_cast<unsigned>(threads);
    return lines.finish(complete, "GetSystemStats");
}

bool readUptime(SystemStats& stats) {
    StatsLines lines(StatsFile::Uptime);
    std::string_view line;
    double seconds = 0;
    const bool complete = lines.next(line) && takeDecimal(line, seconds) && seconds < 1e12;
    if (complete) stats.uptimeMs = static_cast<uint64_t>(std::llround(seconds * 1000));
    return lines.finish(complete, "GetSystemStats");
}

// Number of process folders among entries as the kernel returns them: length at 16, name at 19.
unsigned countFolders(const char* entries, size_t size) {
    constexpr size_t kLength = 16, kName = 19;
    unsigned count = 0;
    for (size_t at = 0; at + kName < size;) {
        uint16_t length = 0;
        memcpy(&length, entries + at + kLength, sizeof(length));
        if (length <= kName) break;
        const char first = entries[at + kName];
        if (first >= '1' && first <= '9') ++count;
        at += length;
    }
    return count;
}

// The bare system call: opendir() would allocate 32 KiB for each poll.
bool countProcesses(SystemStats& stats) {
    const UniqueFd proc(::open("/proc", O_RDONLY | O_DIRECTORY | kSafeOpen));
    alignas(8) char entries[4096];
    unsigned count = 0;
    long got = -1;
    while (proc.valid() &&
           (got = syscall(SYS_getdents64, proc.get(), entries, sizeof(entries))) > 0)
        count += countFolders(entries, static_cast<size_t>(got));
    if (got < 0) {
        KEST_LOG_AS("GetSystemStats", KEST_ERROR, errno, "Unable to read `/proc`");
        return false;
    }
    stats.processes = count;
    return true;
}

}  // namespace

bool InitializeStatsLib() {
    return keepStatsFiles();
}

bool GetMemoryStats(MemoryStats& stats) {
    StatsLines lines(StatsFile::MemInfo);
    MemoryStats reading;
    std::string_view line;
    unsigned seen = 0;
    while (seen != kAllBits && lines.next(line))
        seen |= readMemoryLine(line, reading);
    if (!lines.finish((seen & kTotalBit) != 0, __func__)) return false;
    if ((seen & kAvailableBit) == 0) reading.available = estimateAvailable(reading);
    stats = reading;
    return true;
}

bool GetSystemStats(SystemStats& stats) {
    SystemStats reading;
    if (!readLoad(reading) || !readUptime(reading) || !countProcesses(reading)) return false;
    stats = reading;
    return true;
}

}  // namespace kest::utils
