#include <kest/utils/fileutils.h>

#include <dirent.h>
#include <fcntl.h>
#include <glob.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <set>
#include <utility>

#include <kest/utils/exec.h>
#include <kest/utils/file.h>
#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "c_path.h"
#include "log.h"
#include "uninterrupted.h"
#include "unique_dir.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

using detail::cPath;
using detail::isDots;
using detail::kSafeOpen;
using detail::sameFile;
using detail::UniqueDir;
using detail::UniqueFd;

constexpr off_t kCopyStep = 4096;
constexpr uint64_t kNsPerSecond = 1000000000;
constexpr unsigned kLookAgainMs = 1;

// Makes one folder of a path, unless it is there.
bool makeFolder(const std::string& folder, bool sync) {
    struct stat st = {};
    if (::stat(folder.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    errno = 0;
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return false;
    return !sync || syncDir(dirname_safe(folder).c_str());
}

// splice(2) that outlasts signals.
ssize_t move(int from, loff_t* fromOffset, int to, loff_t* toOffset, size_t length) {
    return detail::uninterrupted([&] {
        return ::splice(from, fromOffset, to, toOffset, length, SPLICE_F_MOVE | SPLICE_F_MORE);
    });
}

// Moves what one step took into the pipe on to the destination. A splice may move less than it is
// asked for; the next step must find the pipe empty.
bool drainPipe(int pipe, int dst, loff_t& offset, size_t length) {
    while (length > 0) {
        const ssize_t moved = move(pipe, nullptr, dst, &offset, length);
        if (moved <= 0) {
            KEST_LOG_AS("copyFile", KEST_ERROR, errno, "Failed to splice() from pipe to dst");
            return false;
        }
        length -= static_cast<size_t>(moved);
    }
    return true;
}

bool copyContent(int src, int dst, off_t size) {
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        KEST_LOG_AS("copyFile", KEST_ERROR, errno, "Failed to pipe()");
        return false;
    }
    const UniqueFd pipeRead(ends[0]), pipeWrite(ends[1]);
    loff_t taken = 0, given = 0;
    while (taken < size) {
        const auto step = static_cast<size_t>(std::min<loff_t>(size - taken, kCopyStep));
        const ssize_t moved = move(src, &taken, pipeWrite.get(), nullptr, step);
        if (moved == -1) {
            KEST_LOG_AS("copyFile", KEST_ERROR, errno, "Failed to splice() from src to pipe");
            return false;
        }
        // The source has become shorter. To wait at the empty pipe would be to wait for ever.
        if (moved == 0) return true;
        if (!drainPipe(pipeRead.get(), dst, given, static_cast<size_t>(moved))) return false;
    }
    return true;
}

// The flag ' means nothing to %s, and printf skips it, so that the text reads: Unable to access
// 'path'. Compilers refuse the pair where they see it, hence the function.
const char* unableToAccess() {
    return "Unable to access '%'s'";
}

// Lists folders one by one, so that neither the stack nor the descriptors limit the depth.
class FolderLister {
  public:
    FolderLister(std::map<std::string, bool>& out, bool recursive)
        : out_(out), recursive_(recursive) {}

    // `path` ends with a slash.
    bool list(const std::string& path);

  private:
    bool listOne(const std::string& path, const std::string& real);
    void addEntry(int folder, const std::string& path, const std::string& real, const char* name);

    std::map<std::string, bool>& out_;
    const bool recursive_;
    std::vector<std::string> pending_;  // real paths of folders to be listed
    std::set<std::string> seen_;        // those listed or pending, against link loops
};

// Real path of a folder, if those of its entries are it and their names. They are not where the
// text of the path, once normalised, leads elsewhere than the path itself: "link/.." is no detour,
// and a backslash at the end swallows the slash behind it.
std::string realFolder(const std::string& path) {
    struct stat named = {};
    struct stat resolved = {};
    std::string real;
    bool folder = false;
    if (path.find('\\') != std::string::npos || !resolvePath(path, real, folder, &resolved) ||
        !folder || ::stat(path.c_str(), &named) != 0 || !sameFile(named, resolved)) {
        return "";
    }
    return real;
}

// resolvePath() of an entry in a folder whose real path is known, with one system call. False when
// it has to go the long way: links, and what would fail.
bool resolveEntry(int folder, const std::string& real, const char* name, std::string& resolved,
                  bool& folderFound) {
    if (real.empty() || strchr(name, '\\') != nullptr) return false;
    struct stat st = {};
    if (::fstatat(folder, name, &st, AT_SYMLINK_NOFOLLOW) != 0 || S_ISLNK(st.st_mode)) return false;
    resolved = real + name;
    if (resolved.size() >= PATH_MAX) return false;
    folderFound = S_ISDIR(st.st_mode);
    if (folderFound) resolved += '/';
    return true;
}

bool FolderLister::list(const std::string& path) {
    const std::string real = realFolder(path);
    if (!real.empty()) seen_.insert(real);
    if (!listOne(path, real)) return false;
    while (!pending_.empty()) {
        const std::string folder = std::move(pending_.back());
        pending_.pop_back();
        const bool plain = folder.find('\\') == std::string::npos;
        if (!listOne(folder + "/", plain ? folder : "")) {
            KEST_LOG_AS("listFolder", KEST_WARNING, 0, "Unable to list folder `%s`",
                        folder.c_str());
        }
    }
    return true;
}

bool FolderLister::listOne(const std::string& path, const std::string& real) {
    const UniqueDir folder(opendir(cPath(path)));
    if (!folder) {
        const int error = errno;
        KEST_LOG_AS("listFolder", KEST_ERROR, 0, "Unable to open folder: %s (%d) %s", path.c_str(),
                    error, strerror(error));
        errno = error;
        return false;
    }
    while (const dirent* entry = readdir(folder.get())) {
        if (!isDots(*entry)) addEntry(dirfd(folder.get()), path, real, entry->d_name);
    }
    return true;
}

void FolderLister::addEntry(int folder, const std::string& path, const std::string& real,
                            const char* name) {
    std::string resolved;
    bool isFolder = false;
    if (!resolveEntry(folder, real, name, resolved, isFolder) &&
        !resolvePath(path + name, resolved, isFolder, nullptr)) {
        KEST_LOG_AS("listFolder", KEST_WARNING, 0, "Unable to resolve path `%s`",
                    (path + name).c_str());
        return;
    }
    if (isFolder && recursive_ && seen_.insert(resolved).second) pending_.push_back(resolved);
    out_[std::move(resolved)] = isFolder;
}

}  // namespace

bool isDir(const std::string& path) {
    struct stat st = {};
    return ::stat(cPath(path), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isFile(const std::string& path) {
    struct stat st = {};
    return ::stat(cPath(path), &st) == 0 && S_ISREG(st.st_mode);
}

bool fileExists(const char* path, bool followSymlinks) {
    if (path == nullptr) return false;
    if (followSymlinks) return ::faccessat(AT_FDCWD, path, F_OK, 0) == 0;
    // faccessat() itself looks at a link only where both the C library and the kernel can.
    struct stat st = {};
    return ::lstat(path, &st) == 0;
}

bool lastModTime(const std::string& path, uint64_t& ns) {
    struct stat st = {};
    if (::stat(cPath(path), &st) != 0) return false;
    ns = static_cast<uint64_t>(st.st_mtim.tv_sec) * kNsPerSecond +
         static_cast<uint64_t>(st.st_mtim.tv_nsec);
    return true;
}

bool syncDir(const char* path) {
    if (path == nullptr) return false;
    const UniqueFd fd(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd.valid() && ::fsync(fd.get()) == 0;
}

bool syncFile(const char* path, bool syncParent) {
    if (path == nullptr) return false;
    const UniqueFd fd(::open(path, O_RDONLY | kSafeOpen));
    if (!fd.valid() || ::fsync(fd.get()) != 0) return false;
    return !syncParent || syncDir(dirname_safe(path).c_str());
}

bool mkdirP(const std::string& path, bool sync) {
    if (*cPath(path) == '\0') return false;
    std::vector<std::string> pieces;
    split(path, "/", pieces);
    std::string built = pieces.front().empty() ? "/" : "";
    for (const std::string& piece : pieces) {
        if (piece.empty()) continue;
        built += piece;
        if (!makeFolder(built, sync)) return false;
        built += '/';
    }
    return true;
}

bool cpR(const std::string& src, const std::string& dst) {
    return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, "/bin/cp", {"-r", cPath(src), cPath(dst)}) ==
           0;
}

bool copyFile(int srcFd, int dstFd) {
    if (srcFd < 0 || dstFd < 0) return false;
    struct stat source = {};
    if (::fstat(srcFd, &source) != 0) {
        KEST_LOG(KEST_ERROR, errno, "Unable to fstat()");
        return false;
    }
    if (!copyContent(srcFd, dstFd, source.st_size)) return false;
    // The owner first: changing it takes away set-id bits.
    if (::fchown(dstFd, source.st_uid, source.st_gid) != 0) {
        KEST_LOG(KEST_WARNING, errno, "Failed to fchown");
    }
    if (::fchmod(dstFd, source.st_mode) != 0) KEST_LOG(KEST_WARNING, errno, "Failed to fchmod");
    return true;
}

bool copyFile(const char* src, const char* dst) {
    if (src == nullptr || dst == nullptr) return false;
    struct stat source = {};
    if (::stat(src, &source) != 0) {
        KEST_LOG(KEST_ERROR, errno, unableToAccess(), src);
        return false;
    }
    const UniqueFd in(::open(src, O_RDONLY | kSafeOpen));
    if (!in.valid()) {
        KEST_LOG(KEST_ERROR, errno, "Unable to open '%s'", src);
        return false;
    }
    // To open a file for a copy of itself would be to lose its content.
    struct stat target = {};
    if (::stat(dst, &target) == 0 && sameFile(source, target)) return true;
    const UniqueFd out(::open(dst, O_WRONLY | O_CREAT | O_TRUNC | kSafeOpen, source.st_mode));
    if (!out.valid()) {
        KEST_LOG(KEST_ERROR, errno, "Unable to open '%s'", dst);
        return false;
    }
    return copyFile(in.get(), out.get());
}

bool touchFile(const std::string& path, bool create) {
    const char* name = cPath(path);
    if (::utimensat(AT_FDCWD, name, nullptr, 0) != 0 && (errno != ENOENT || !create)) {
        KEST_LOG(KEST_WARNING, 0, "Couldn't open() path: %s", name);
        return false;
    }
    const UniqueFd fd(::open(name, O_RDWR | O_CREAT | kSafeOpen, 0666));
    if (!fd.valid()) {
        KEST_LOG(KEST_ERROR, errno, "Couldn't open() path: %s", name);
        return false;
    }
    return true;
}

std::vector<uint8_t> readFromFile(const std::string& path) {
    // Nothing else has a size, and to open a FIFO would be to wait for its other end.
    if (fileExists(cPath(path), true) && !isFile(path)) return {};
    File file;
    if (!file.Initialize(cPath(path), File::Read)) return {};
    std::vector<uint8_t> content;
    const unsigned long long size = file.Size();
    if (size > content.max_size()) return {};
    try {
        content.resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc&) {
        return {};
    }
    // A half-filled buffer would be bytes that were never in the file.
    if (!file.ReadBuffer(content.data(), size)) return {};
    return content;
}

int glob(const char* pattern, std::vector<std::string>& out) {
    std::vector<std::string> found;
    if (pattern != nullptr) {
        glob_t matches = {};
        ::glob(pattern, GLOB_TILDE, nullptr, &matches);
        found.assign(matches.gl_pathv, matches.gl_pathv + matches.gl_pathc);
        ::globfree(&matches);
    }
    out.swap(found);
    return 0;
}

bool waitForFiles(const std::set<std::string>& paths, int timeoutMs) {
    std::vector<std::string> missing(paths.begin(), paths.end());
    const auto exists = [](const std::string& path) {
        struct stat st = {};
        return ::stat(cPath(path), &st) == 0;
    };
    const int64_t deadline = nowMs() + timeoutMs;
    while (deadline >= nowMs()) {
        missing.erase(std::remove_if(missing.begin(), missing.end(), exists), missing.end());
        if (missing.empty()) return true;
        // Without a pause, a thread of real-time priority would keep the files' maker from running.
        // The last look must not come too early for it.
        if (deadline - nowMs() > int64_t{2} * kLookAgainMs) sleepMs(kLookAgainMs);
    }
    std::string list;
    join(list, ", ", missing);
    KEST_LOG(KEST_ERROR, 0, "Failed to wait for files: %s", list.c_str());
    return false;
}

bool listFolder(const std::string& path, std::map<std::string, bool>& out, bool recursive) {
    if (path.empty()) return listFolder(".", out, recursive);
    if (path.back() != '/') return listFolder(path + "/", out, recursive);
    return FolderLister(out, recursive).list(path);
}

}  // namespace kest::utils
