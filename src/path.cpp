// The part of the file utilities that works on path texts.
#include <libgen.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <kest/utils/fileutils.h>

#include "c_path.h"

namespace kest::utils {
namespace {

using detail::cPath;

constexpr size_t kDirnameLimit = 4096;

// Copies a path piece by piece, each with a '/' at its end, and takes back what does not count. The
// pieces that ".." cannot take away ("/", "./", "../") are always in front.
class Normalizer {
  public:
    // The pieces are at most one byte longer than the path.
    explicit Normalizer(const char* path)
        : next_(path), text_(strlen(path) + 1, '\0'), begin_(text_.data()) {}
    Normalizer(const Normalizer&) = delete;
    Normalizer& operator=(const Normalizer&) = delete;

    // False when the path ends within an escape.
    bool run() {
        while (copyComponent()) {
            const bool last = *next_ == '\0';
            endComponent(last);
            if (last) return true;
            ++next_;
        }
        return false;
    }

    std::string text() && {
        text_.resize(static_cast<size_t>(end_ - begin_) - (end_ != begin_ ? 1 : 0));
        return std::move(text_);
    }

  private:
    // Copies behind the last piece what stands before the next '/'.
    bool copyComponent() {
        component_ = end_;
        for (char c = *next_; c != '\0' && c != '/'; c = *++next_) {
            if (c == '\\') {
                *end_++ = c;
                c = *++next_;
                if (c == '\0') return false;
            }
            *end_++ = c;
        }
        return true;
    }

    // Makes what was copied a piece, or takes it back.
    void endComponent(bool last) {
        const std::string_view component(component_, static_cast<size_t>(end_ - component_));
        if (component.empty()) {
            putSlash(last);
        } else if (component == ".") {
            end_ = component_;
            if (end_ == begin_) putFixed("./");
        } else if (component == "..") {
            end_ = component_;
            goUp();
        } else {
            *end_++ = '/';
        }
    }

    void putSlash(bool last) {
        if (end_ == begin_) {
            putFixed("/");
        } else if (last) {
            *end_++ = '/';
        }
    }

    void putFixed(std::string_view piece) {
        end_ = std::copy(piece.begin(), piece.end(), end_);
        fixed_ = end_;
    }

    void goUp() {
        if (end_ != fixed_) {
            removeLast();
        } else if (end_ == begin_ || *begin_ != '/') {
            if (end_ - begin_ == 2) end_ = begin_;  // "./" makes way
            putFixed("../");
        }
    }

    void removeLast() {
        do {
            --end_;
        } while (end_ != fixed_ && !endsPiece(end_ - 1));
    }

    // A slash behind an odd number of backslashes is part of a name.
    bool endsPiece(const char* at) const {
        if (*at != '/') return false;
        const char* escape = at;
        while (escape != fixed_ && escape[-1] == '\\')
            --escape;
        return (at - escape) % 2 == 0;
    }

    const char* next_;
    std::string text_;
    char* begin_;
    char* end_ = begin_;
    char* component_ = begin_;
    char* fixed_ = begin_;  // end of the pieces that ".." cannot take away
};

}  // namespace

bool normalizePath(const char* path, std::string& out) {
    if (path == nullptr || *path == '\0') {
        out.clear();
        return false;
    }
    Normalizer normalizer(path);
    const bool complete = normalizer.run();
    // Only now, as the path may stand in `out`.
    out = complete ? std::move(normalizer).text() : std::string();
    return complete;
}

bool normalizePath(const std::string& path, std::string& out) {
    return normalizePath(cPath(path), out);
}

bool resolvePath(const char* path, std::string& out, bool& isDir, struct stat* st) {
    char real[PATH_MAX];
    if (!normalizePath(path, out) || ::realpath(out.c_str(), real) == nullptr) return false;
    out = real;
    struct stat own = {};
    struct stat& found = st != nullptr ? *st : own;
    if (out.empty() || ::stat(out.c_str(), &found) != 0) return false;
    isDir = S_ISDIR(found.st_mode);
    if (isDir && out.back() != '/') out += '/';
    if (!isDir && out.back() == '/') out.pop_back();
    return !out.empty();
}

bool resolvePath(const std::string& path, std::string& out, bool& isDir, struct stat* st) {
    return resolvePath(cPath(path), out, isDir, st);
}

std::string basename_safe(const char* path) {
    if (path == nullptr) return "";
    const char* slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

std::string basename_safe(const std::string& path) {
    return basename_safe(cPath(path));
}

std::string dirname_safe(const char* path) {
    if (path == nullptr) return ".";
    // dirname() writes into the text that it is given.
    std::string copy(path, strnlen(path, kDirnameLimit));
    return ::dirname(copy.data());
}

std::string dirname_safe(const std::string& path) {
    return dirname_safe(cPath(path));
}

}  // namespace kest::utils
