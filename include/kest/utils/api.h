/// @file
/// Export and compiler-check macros that the public headers share.
#pragma once

/// Marks a function or class as part of the library's binary interface.
#define KEST_API __attribute__((visibility("default")))

/// Lets the compiler check a printf-style format: 1-based positions of the format and of the first
/// argument (member functions count `this` as 1).
#define KEST_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))
