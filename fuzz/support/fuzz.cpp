#include "support/fuzz.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <kest/platform/log.h>

namespace {

std::string_view procFiles;

int openProcFile() {
    const int fd = memfd_create("proc", MFD_CLOEXEC);
    const bool filled =
        write(fd, procFiles.data(), procFiles.size()) == static_cast<ssize_t>(procFiles.size());
    kest::fuzz::check(filled && lseek(fd, 0, SEEK_SET) == 0, "a file for /proc");
    return fd;
}

}  // namespace

// Both take the place of those that the library would call.
extern "C" void logInternal(const char*, const char*, const char*, int, int, int, int,
                            const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (std::string_view(path).substr(0, 6) == "/proc/") return openProcFile();
    static const auto real = reinterpret_cast<int (*)(const char*, int, ...)>(  //
        dlsym(RTLD_NEXT, "open64"));
    return real(path, flags, mode);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kest::fuzz::fuzz({reinterpret_cast<const char*>(data), size});
    return 0;
}

namespace kest::fuzz {

void check(bool holds, const char* what) {
    if (holds) return;
    fprintf(stderr, "does not hold: %s\n", what);
    abort();
}

void setProcFiles(std::string_view content) {
    procFiles = content;
}

std::string_view takePart(std::string_view& input, std::string_view separator) {
    const size_t end = std::min(input.find(separator), input.size());
    const std::string_view part = input.substr(0, end);
    input.remove_prefix(std::min(end + separator.size(), input.size()));
    return part;
}

}  // namespace kest::fuzz
