// Paths on their way to the C library.
#pragma once

#include <sys/stat.h>

#include <string>

namespace kest::utils::detail {

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
