// Paths on their way to the C library.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

namespace kest::utils::detail {

// A path from a configuration may be a FIFO without a peer or a terminal: neither waits for it nor
// makes it the daemon's controlling terminal. Regular files are the same with and without.
constexpr int kSafeOpen = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

// Cut off at a NUL byte inside it, a path would name another file than its owner sees. As an empty
// path it names none.
inline const char* cPath(const std::string& path) {
    return path.find('\0') == std::string::npos ? path.c_str() : "";
}

// Whether both describe one and the same file.
inline bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace kest::utils::detail
