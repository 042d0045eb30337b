// What the system statistics read from: files of /proc that may be kept open between two polls, as
// lines, and the numbers in them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "unique_fd.h"

namespace kest::utils::detail {

enum class StatsFile { Stat, MemInfo, NetDev, LoadAvg, Uptime, CpuInfo };

// Opens the files that are polled and keeps them; logs for each that cannot be opened.
bool keepStatsFiles();

class KeptFile;

// Reads a file from its start on, with a kept descriptor where there is one that nobody else uses
// just now, without allocating.
class StatsLines {
  public:
    explicit StatsLines(StatsFile file);
    ~StatsLines();
    StatsLines(const StatsLines&) = delete;
    StatsLines& operator=(const StatsLines&) = delete;

    // The next line, without its end, valid until the next call. One that does not fit into the
    // buffer holds nothing that we look for, and is left out.
    bool next(std::string_view& line);

    // Ends the work of the public function of that name: whether all could be read and it has found
    // what it needs. Logs when not.
    bool finish(bool complete, const char* function) const;

  private:
    bool fill();

    KeptFile& file_;
    bool kept_;
    UniqueFd own_;
    int fd_ = -1;
    int error_ = 0;
    off_t offset_ = 0;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool skipping_ = false;
    char buffer_[4096];
};

// Takes a number, and the blanks in front of it, off the front of `text`.
bool takeNumber(std::string_view& text, uint64_t& value);
// The same for a number with decimals, such as "0.52".
bool takeDecimal(std::string_view& text, double& value);

// Whether `text` starts with `prefix`, which is taken off then.
bool takePrefix(std::string_view& text, std::string_view prefix);

std::string_view trimmed(std::string_view text);

// Brings the entry of the earlier reading that `isWanted` to `place`, where the new reading has it;
// an empty one when there is none. What is met in vain stays behind, and is dropped in the end. The
// kernel's order changes only when something comes or goes, so the first look mostly finds it.
template <typename Entry, typename IsWanted>
Entry& entryAt(std::vector<Entry>& entries, size_t place, IsWanted isWanted) {
    size_t found = place;
    while (found < entries.size() && !isWanted(entries[found]))
        ++found;
    if (found == entries.size()) entries.emplace_back();
    if (found != place) std::swap(entries[found], entries[place]);
    return entries[place];
}

// By how much a counter has advanced, wrapped round at 32 or 64 bits or not; nothing when it has
// gone back. Of the two ways round the shorter one is believed (as RFC 1982 does).
std::optional<uint64_t> advance(uint64_t before, uint64_t now);

}  // namespace kest::utils::detail
