// Digits of ASCII. The language's own classes of characters depend on the locale.
#pragma once

namespace kest::utils::detail {

constexpr bool isDigit(char c, char most = '9') {
    return c >= '0' && c <= most;
}

}  // namespace kest::utils::detail
