// The part of the file utilities that works on path texts.
#include <libgen.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <string_view>

#include <kest/utils/fileutils.h>

#include "c_path.h"

namespace kest::utils {
namespace {

using detail::cPath;

constexpr size_t kDirnameLimit = 4096;

// The pieces of a normalised path, each ended by '/', as one text. What ".." cannot take away ("/",
// "./", "../") is always in front.
class Pieces {
  public:
    explicit Pieces(size_t capacity) { text_.reserve(capacity); }

    void add(std::string_view component, bool last) {
        if (component.empty()) {
            addEmpty(last);
        } else if (component == ".") {
            if (text_.empty()) addFixed("./");
        } else if (component == "..") {
            goUp();
        } else {
            text_.append(component).push_back('/');
        }
    }

    std::string joined() && {
        if (!text_.empty()) text_.pop_back();
        return std::move(text_);
    }

  private:
    void addFixed(const char* piece) {
        text_ += piece;
        fixed_ = text_.size();
    }

    void addEmpty(bool last) {
        if (text_.empty()) {
            addFixed("/");
        } else if (last) {
            text_ += '/';
        }
    }

    void goUp() {
        if (text_.size() > fixed_) {
            removeLast();
            return;
        }
        if (text_ == "/") return;
        if (text_ == "./") text_.clear();
        addFixed("../");
    }

    void removeLast() {
        size_t begin = text_.size() - 1;
        while (begin > fixed_ && !endsPiece(begin - 1))
            --begin;
        text_.resize(begin);
    }

    // A slash behind an odd number of backslashes is part of a name.
    bool endsPiece(size_t at) const {
        if (text_[at] != '/') return false;
        size_t backslashes = 0;
        while (backslashes < at && text_[at - backslashes - 1] == '\\')
            ++backslashes;
        return backslashes % 2 == 0;
    }

    std::string text_;
    size_t fixed_ = 0;  // bytes in front that ".." cannot take away
};

// Cuts the path at its slashes. False when it ends within an escape.
bool addComponents(const char* path, Pieces& pieces) {
    const char* begin = path;
    const char* at = path;
    for (; *at != '\0'; ++at) {
        if (*at == '\\') {
            if (*++at == '\0') return false;
        } else if (*at == '/') {
            pieces.add({begin, static_cast<size_t>(at - begin)}, false);
            begin = at + 1;
        }
    }
    pieces.add({begin, static_cast<size_t>(at - begin)}, true);
    return true;
}

}  // namespace

bool normalizePath(const char* path, std::string& out) {
    if (path == nullptr || *path == '\0') {
        out.clear();
        return false;
    }
    Pieces pieces(strlen(path) + 1);
    const bool complete = addComponents(path, pieces);
    // Only now, as the path may stand in `out`.
    out = complete ? std::move(pieces).joined() : std::string();
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
