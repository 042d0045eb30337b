// System calls that outlast signals. For signal handlers, too.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace kest::utils::detail {

// The result of a call that gives -1 with errno on failure. One that a signal has cut short is made
// again.
template <typename Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

// Writes all of it to a descriptor that blocks; false when that one fails.
inline bool writeAll(int fd, const char* text, size_t length) {
    while (length > 0) {
        const auto written = uninterrupted([&] { return ::write(fd, text, length); });
        if (written <= 0) return false;
        text += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace kest::utils::detail
