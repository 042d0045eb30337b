// Numbers on a command line.
#pragma once

#include <cerrno>
#include <cstdlib>

// A whole decimal number up to `most`; `value` is untouched when it is none.
inline bool parseNumber(const char* text, unsigned long most, unsigned& value) {
    char* end = nullptr;
    errno = 0;
    const unsigned long parsed = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || parsed > most) return false;
    value = static_cast<unsigned>(parsed);
    return true;
}
