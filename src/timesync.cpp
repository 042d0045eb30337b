// The part of the clock helpers that reads a file, apart from them: file utilities build on clocks.

#include <cstdint>
#include <cstdlib>
#include <string>

#include <kest/utils/file.h>
#include <kest/utils/fileutils.h>
#include <kest/utils/timer.h>

#define KEST_SOURCE "timer"
#include "log.h"

namespace {

constexpr char kMarkerFile[] = "/etc/last_timesync_monotonic_ts";

}  // namespace

bool isTimeSyncedLately(int seconds) {
    if (!kest::utils::fileExists(kMarkerFile, true)) return false;
    std::string text;
    if (!kest::utils::File::ReadStringAll(kMarkerFile, text)) {
        KEST_LOG(KEST_ERROR, 0, "Failed to open timesync timestamp");
        return false;
    }
    const unsigned long long syncedMs = strtoull(text.c_str(), nullptr, 10);
    if (syncedMs == 0) {
        KEST_LOG(KEST_ERROR, 0, "Timesync timestamp file contents invalid: '%s'", text.c_str());
        return false;
    }
    const auto windowMs = static_cast<unsigned long long>(seconds) * 1000;
    return syncedMs + windowMs >= static_cast<unsigned long long>(nowMs());
}
