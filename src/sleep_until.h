// A sleep of any length that signal handlers do not shorten.
#pragma once

#include <algorithm>
#include <cstdint>

#include <kest/utils/timer.h>

namespace kest::utils::detail {

// Until nowMs() reaches the deadline.
inline void sleepUntil(int64_t deadlineMs) {
    constexpr int64_t kLongestSleepMs = 3600000;  // sleepMs() wraps round a little above
    for (int64_t left = deadlineMs - nowMs(); left > 0; left = deadlineMs - nowMs()) {
        sleepMs(static_cast<unsigned int>(std::min(left, kLongestSleepMs)));
    }
}

}  // namespace kest::utils::detail
