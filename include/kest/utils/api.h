/// @file
/// Export and compiler-check macros that the public headers share.
#pragma once

/// Marks a function or class as part of the library's binary interface.
#define KEST_API __attribute__((visibility("default")))

/// Takes a private member out of the binary interface of an exported class, so that the library may
/// inline it. Not for members that inline functions of the header call.
#define KEST_LOCAL __attribute__((visibility("hidden")))

/// Lets the compiler check a printf-style format: 1-based positions of the format and of the first
/// argument (member functions count `this` as 1).
#define KEST_PRINTF(formatIndex, firstArgument) \
    __attribute__((format(printf, formatIndex, firstArgument)))
