#include <kest/utils/procfs.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "c_path.h"
#include "log.h"
#include "process_folders.h"
#include "sigpipe_guard.h"
#include "unique_dir.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

constexpr size_t kChunkSize = 1024;
// Bounds "no limit": a few times the memory map of a process with the kernel's maximum of mappings.
constexpr size_t kHardLimit = size_t{16} << 20;
constexpr unsigned kNoLimit = ~0U;
constexpr unsigned kKernelCommandLineLimit = 1024;
constexpr size_t kPathLimit = 4096;
constexpr unsigned kScanPauseMs = 2;

// Appends to `text` until the end of the file or until it has `limit` bytes.
bool readUpTo(int fd, size_t limit, std::string& text) {
    char chunk[kChunkSize];
    while (text.size() < limit) {
        const ssize_t got = ::read(fd, chunk, std::min(limit - text.size(), sizeof(chunk)));
        if (got < 0) return false;
        if (got == 0) break;
        text.append(chunk, static_cast<size_t>(got));
    }
    return true;
}

// First line of a process's command line, trimmed; empty when the process has ended meanwhile.
std::string firstLine(DIR* proc, const dirent& entry) {
    const detail::UniqueFd fd = detail::openCommandLine(proc, entry);
    std::string text;
    if (!fd.valid() || !readUpTo(fd.get(), kHardLimit, text)) return {};
    text.resize(std::min(text.find('\n'), text.size()));
    trim(text);
    return text;
}

bool commandLineContains(DIR* proc, const dirent& entry, const std::string& name) {
    if (!detail::isProcessFolder(proc, entry)) return false;
    const std::string text = firstLine(proc, entry);
    return !text.empty() && text.find(name) != std::string::npos;
}

}  // namespace

int getModulePath(std::string& out) {
    char path[kPathLimit];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
    if (length < 1) return -1;
    out.assign(path, static_cast<size_t>(length));
    return 0;
}

int getModuleDir(std::string& out) {
    std::string path;
    if (getModulePath(path) != 0) return -1;
    out = dirname_safe(path);
    return 0;
}

int getPidsByName(const std::string& name, int* pids, int maxPids) {
    const detail::UniqueDir proc(opendir("/proc/"));
    if (proc == nullptr) return -1;
    const int room = pids == nullptr ? 0 : maxPids;
    int count = 0;
    while (count < room) {
        const dirent* entry = readdir(proc.get());
        if (entry == nullptr) break;
        sleepMs(kScanPauseMs);
        if (commandLineContains(proc.get(), *entry, name)) pids[count++] = atoi(entry->d_name);
    }
    return count;
}

int readProc(const std::string& path, std::string& out, unsigned short maxSize) {
    // Opened before `out` is emptied: the caller may have passed one string for both.
    const detail::UniqueFd fd(::open(detail::cPath(path), O_RDONLY | detail::kSafeOpen));
    out.clear();
    if (fd.get() < 1) return -1;
    std::string buffer(maxSize, '\0');
    const ssize_t got = ::read(fd.get(), buffer.data(), maxSize);
    if (got < 0) return -2;
    if (got == maxSize) return -3;
    out.assign(buffer, 0, static_cast<size_t>(got));
    return 0;
}

int writeProc(const std::string& path, const std::string& text) {
    const detail::UniqueFd fd(
        ::open(detail::cPath(path), O_WRONLY | O_CREAT | O_TRUNC | detail::kSafeOpen, 0666));
    if (fd.get() < 1) return -1;
    // The terminating NUL is part of what readers of these files expect.
    const size_t size = text.size() + 1;
    const ssize_t written = detail::SigpipeGuard().write(fd.get(), text.c_str(), size);
    return written == static_cast<ssize_t>(size) ? 0 : -2;
}

bool ReadProcFile(const char* path, std::string& out, unsigned maxSize) {
    if (maxSize == 0) {
        KEST_LOG(KEST_ERROR, 0, "Invalid maxSize parameter");
        return false;
    }
    // `path` may point into `out`, so the name for the log is kept.
    const std::string name = path == nullptr ? "" : path;
    out.clear();
    const detail::UniqueFd fd(::open(name.c_str(), O_RDONLY | detail::kSafeOpen));
    if (!fd.valid()) {
        KEST_LOG_AS("Init", KEST_ERROR, errno, "Unable to open file `%s`", name.c_str());
        return false;
    }
    if (!readUpTo(fd.get(), std::min<size_t>(maxSize, kHardLimit), out)) {
        KEST_LOG_AS("Read", KEST_ERROR, errno, "Unable to read %zd bytes from `%s`",
                    static_cast<ssize_t>(kChunkSize), name.c_str());
        return false;
    }
    return true;
}

bool ReadCommandLine(std::string& exe, std::vector<std::string>& args) {
    std::string text;
    if (!ReadProcFile("/proc/self/cmdline", text, kNoLimit)) return false;
    size_t end = std::min(text.find('\0'), text.size());
    exe.assign(text, 0, end);
    // The last piece need not end in NUL: a process can overwrite its own command line.
    for (size_t begin = end + 1; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\0', begin), text.size());
        args.emplace_back(text, begin, end - begin);
    }
    return true;
}

bool ReadKernelCommandLine(std::map<std::string, std::string>& out) {
    std::string text;
    if (!ReadProcFile("/proc/cmdline", text, kKernelCommandLineLimit)) return false;
    std::vector<std::string> tokens;
    split(text, " ", tokens);
    for (const std::string& token : tokens) {
        const size_t equals = std::min(token.find('='), token.size());
        std::string key = token.substr(0, equals);
        std::string value = equals < token.size() ? token.substr(equals + 1) : "";
        out.emplace(trim(key), trim(value));
    }
    return true;
}

bool GetRunMode(int& mode) {
    std::map<std::string, std::string> parameters;
    if (!ReadKernelCommandLine(parameters)) return false;
    const auto found = parameters.find("KEST_runmode");
    if (found == parameters.end()) return false;
    mode = static_cast<int>(strtoul(found->second.c_str(), nullptr, 10));
    return true;
}

}  // namespace kest::utils
