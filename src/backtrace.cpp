#include "backtrace.h"

#include <unistd.h>

#include <cstdio>

#include <kest/utils/crashdumps.h>

#include "keep_errno.h"
#include "stack_walk.h"
#include "uninterrupted.h"

namespace kest::utils {
namespace detail {
namespace {

template <size_t size>
void writeText(int fd, const char (&text)[size]) {
    writeAll(fd, text, size - 1);
}

void writeFrame(int fd, const MemoryMap& map, uintptr_t address) {
    char line[kHexLength + 2];
    formatHex(line, static_cast<uint32_t>(address));
    line[kHexLength] = ':';
    line[kHexLength + 1] = ' ';
    writeAll(fd, line, sizeof(line));
    const MemoryMapEntry* const entry = map.Find(address);
    if (entry != nullptr) writeAll(fd, entry->path, entry->pathLength);
    writeText(fd, "\n");
}

}  // namespace

void formatHex(char* out, uint32_t value) {
    *out++ = '0';
    *out++ = 'x';
    for (int shift = 28; shift >= 0; shift -= 4) {
        const unsigned digit = value >> shift & 0xF;
        *out++ = static_cast<char>(digit < 10 ? '0' + digit : 'A' + digit - 10);
    }
}

void writeBacktrace(int fd, const MemoryMap& map, const void* frame, const void* context) {
    writeText(fd, "--- STACK TRACE ---\n");
    StackWalk walk(map, frame, context);
    for (uintptr_t address = 0; walk.next(address);)
        writeFrame(fd, map, address);
    writeText(fd, "--- MEMORY MAP ---\n");
    writeAll(fd, map.text(), map.textLength());
    writeText(fd, "\n\n");
}

}  // namespace detail

namespace {

// Hands on the frame of the caller, who must still be there, so that its record is: none of the
// functions below may call this one last and be optimised into a jump.
void print(int fd, const void* frame) {
    detail::writeBacktrace(fd, gCrashDumper.memoryMap(), frame, nullptr);
}

}  // namespace

// Each reads its own frame: through another one the trace would begin there.

__attribute__((noinline)) void PrintBacktrace() {
    const detail::KeepErrno keep;
    print(STDERR_FILENO, __builtin_frame_address(0));
}

__attribute__((noinline)) void PrintBacktrace(FILE* stream) {
    const detail::KeepErrno keep;
    if (stream != nullptr) print(fileno(stream), __builtin_frame_address(0));
}

__attribute__((noinline)) void PrintBacktrace(int fd) {
    const detail::KeepErrno keep;
    print(fd, __builtin_frame_address(0));
}

}  // namespace kest::utils
