// The library's one way to log: fills in module, source name, function and line.
#pragma once

#include <cerrno>

#include <kest/platform/log.h>

namespace kest::utils::detail {

constexpr const char* fileName(const char* path) {
    const char* name = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/') name = path + 1;
    }
    return name;
}

constexpr unsigned stemLength(const char* path) {
    unsigned length = 0;
    for (const char* p = fileName(path); p[length] != '\0' && p[length] != '.';)
        ++length;
    return length;
}

// "src/scheduler.cpp" -> "scheduler", at compile time, into a buffer that outlives every call.
template <unsigned length>
struct SourceName {
    char text[length + 1] = {};

    constexpr explicit SourceName(const char* path) {
        for (unsigned i = 0; i < length; ++i)
            text[i] = fileName(path)[i];
    }
};

}  // namespace kest::utils::detail

// Syslog levels as the library uses them.
#define KEST_ERROR 3
#define KEST_WARNING 4
#define KEST_INFO 6
#define KEST_DEBUG 7

// A second source file of a unit defines the unit's name before it includes this header.
#if !defined(KEST_SOURCE)
#define KEST_SOURCE __BASE_FILE__
#endif

// The platform's own sources log with another module tag.
#if !defined(KEST_MODULE)
#define KEST_MODULE "kest_utils"
#endif

namespace kest::utils::detail {

// Out of line: fewer arguments at each of hundreds of places, and one function for all units of a
// library that log the same kinds of values; hidden, because the next library has another tag. No
// logger throws, so that callers need not be ready to clean up around a line. The 0 at the end is
// no format's: without a value Clang takes the format for foreign text.
template <typename... Values>
[[gnu::noinline, gnu::cold, gnu::visibility("hidden"), gnu::format(printf, 5, 0)]] void logLine(
    const char* source, const char* function, unsigned place, int errnoValue, const char* format,
    Values... values) noexcept {
    logInternal(KEST_MODULE, source, function, static_cast<int>(place >> 3),
                static_cast<int>(place & 7), errnoValue, 0, format, values..., 0);
}

}  // namespace kest::utils::detail

static constexpr ::kest::utils::detail::SourceName<::kest::utils::detail::stemLength(KEST_SOURCE)>
    kLogSource(KEST_SOURCE);

// For the rare line whose function name is not the one of the function it stands in. The call that
// is never made lets the compiler check the format.
#define KEST_LOG_AS(functionName, level, errnoValue, ...)                                      \
    do {                                                                                       \
        if (false) logInternal("", "", "", 0, 0, 0, 0, __VA_ARGS__);                           \
        ::kest::utils::detail::logLine(kLogSource.text, functionName,                          \
                                       unsigned{__LINE__} << 3 | static_cast<unsigned>(level), \
                                       errnoValue, __VA_ARGS__);                               \
    } while (false)

// KEST_LOG(KEST_ERROR, errno, "Unable to open %s", path)
#define KEST_LOG(level, errnoValue, ...) KEST_LOG_AS(__func__, level, errnoValue, __VA_ARGS__)
