/// @file
/// Export macro of the platform library. Usable in any thread: it is a declaration attribute.
#pragma once

/// Marks a function or class as part of the platform library's binary interface.
#define KEST_PLATFORM_API __attribute__((visibility("default")))

/// Keeps a private part of such a class out of it.
#define KEST_PLATFORM_LOCAL __attribute__((visibility("hidden")))
