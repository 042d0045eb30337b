// Times as text. Apart from the other text helpers, on which clocks and files are built.

#include <sys/time.h>
#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "digit.h"

namespace kest::utils {
namespace {

using detail::isDigit;

// "2020-01-01T12:00:00" + ".250" + "+02:00"
constexpr char kSecondsFormat[] = "%Y-%m-%dT%H:%M:%S";
constexpr unsigned kSecondsLength = 19;
constexpr unsigned kStampLength = 29;

constexpr int kTrustClockSeconds = 24 * 3600;
constexpr int64_t kDayMs = 86400000;

bool hasStampForm(const char* text) {
    return text[19] == '.' && isDigit(text[20]) && isDigit(text[21]) && isDigit(text[22]) &&
           (text[23] == '+' || text[23] == '-') && isDigit(text[24], '2') && isDigit(text[25]) &&
           text[26] == ':' && isDigit(text[27], '5') && isDigit(text[28]);
}

int twoDigits(const char* text) {
    return (text[0] - '0') * 10 + (text[1] - '0');
}

// Seconds since 1970 of a broken-down UTC time. False where time_t is too narrow for it.
bool secondsOf(const char* text, int64_t& seconds) {
    char copy[kSecondsLength + 1] = {};
    memcpy(copy, text, kSecondsLength);
    tm broken = {};
    if (strptime(copy, kSecondsFormat, &broken) != copy + kSecondsLength) return false;
    errno = 0;
    const time_t converted = timegm(&broken);
    if (converted == -1 && errno == EOVERFLOW) return false;
    seconds = converted;
    return true;
}

std::string uptimeText() {
    const int64_t ms = nowMs();
    const int64_t seconds = ms / 1000;
    return format("%lld days %02d:%02d:%02d", static_cast<long long>(ms / kDayMs),
                  static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60),
                  static_cast<int>(seconds % 60));
}

}  // namespace

std::string timevalToString(const timeval* tv) {
    tm broken = {};
    if (tv == nullptr || gmtime_r(&tv->tv_sec, &broken) == nullptr) return std::string();
    char text[24];
    if (strftime(text, sizeof(text), kSecondsFormat, &broken) != kSecondsLength)
        return std::string();
    const auto ms = static_cast<uint16_t>(static_cast<uint16_t>(tv->tv_usec / 1000) % 1000);
    return text + format(".%03u+00:00", static_cast<unsigned>(ms));
}

bool stringToTimeval(const char* text, unsigned int length, timeval* tv) {
    int64_t seconds = 0;
    if (text == nullptr || tv == nullptr || length != kStampLength || !hasStampForm(text) ||
        !secondsOf(text, seconds)) {
        return false;
    }
    const int offset = twoDigits(text + 24) * 3600 + twoDigits(text + 27) * 60;
    seconds += text[23] == '+' ? -offset : offset;
    if (seconds < std::numeric_limits<time_t>::min() ||
        seconds > std::numeric_limits<time_t>::max()) {
        return false;
    }
    tv->tv_sec = static_cast<time_t>(seconds);
    tv->tv_usec = static_cast<suseconds_t>(twoDigits(text + 20) * 10 + (text[22] - '0')) * 1000;
    return true;
}

std::string generateOsdTimeString(const char* fmt) {
    if (!isTimeSyncedLately(kTrustClockSeconds)) return uptimeText();
    const time_t now = time(nullptr);
    tm local = {};
    // A change of the time zone shows at once.
    tzset();
    if (localtime_r(&now, &local) == nullptr) return std::string();
    if (fmt == nullptr || fmt[0] == '\0') {
        return format("%04d-%02d-%02d  %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    }
    char text[256];
    return std::string(text, strftime(text, sizeof(text), fmt, &local));
}

}  // namespace kest::utils
