// The part that printed backtraces and crash reports have in common. For signal handlers: no
// allocation, no stdio, only write(2).
#pragma once

#include <cstddef>
#include <cstdint>

#include <kest/utils/memorymap.h>

namespace kest::utils::detail {

// "0x" and eight upper-case digits, as reports show addresses and signal numbers.
constexpr size_t kHexLength = 10;
void formatHex(char* out, uint32_t value);

// The sections "STACK TRACE" and "MEMORY MAP"; that they cannot be written is not reported. For
// frame and context see StackWalk.
void writeBacktrace(int fd, const MemoryMap& map, const void* frame, const void* context);

}  // namespace kest::utils::detail
