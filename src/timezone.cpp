#include <kest/utils/timezone.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include <kest/utils/exec.h>
#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>

#include "c_path.h"
#include "log.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

constexpr char kDatabase[] = "/usr/share/zoneinfo/";
constexpr unsigned kTailTimeoutMs = 10000;
constexpr unsigned kLongestRule = 1024;
// mkstemp gives 0600, but everybody reads the rule.
constexpr mode_t kRuleMode = 0644;

// A new file beside its target, removed again unless it has taken the target's place.
class TempFile {
  public:
    explicit TempFile(std::string nameTemplate)
        : name_(std::move(nameTemplate)), fd_(mkostemp(name_.data(), O_CLOEXEC)) {
        if (!fd_.valid()) name_.clear();
    }
    ~TempFile() { remove(); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    bool valid() const { return !name_.empty(); }
    const char* name() const { return name_.c_str(); }
    int fd() const { return fd_.get(); }

    // Leaves the name, which was unique a moment ago, to a link.
    bool becomeLinkTo(const std::string& target) {
        fd_.reset();
        unlink(name());
        return symlink(target.c_str(), name()) == 0;
    }

    bool replace(const char* target) {
        if (rename(name(), target) != 0) return false;
        name_.clear();
        return true;
    }

  private:
    void remove() const {
        const int savedErrno = errno;
        if (valid()) unlink(name());
        errno = savedErrno;
    }

    std::string name_;
    detail::UniqueFd fd_;
};

bool findZone(const std::string& zone, std::string& resolved) {
    const std::string path = kDatabase + zone;
    char real[PATH_MAX];
    if (realpath(detail::cPath(path), real) == nullptr) {
        KEST_LOG_AS("setTimeZone", KEST_ERROR, errno, "Failed to resolve path: %s", path.c_str());
        return false;
    }
    resolved = real;
    if (!startsWith(resolved, kDatabase)) {
        KEST_LOG_AS("setTimeZone", KEST_ERROR, 0, "Illegal path: %s", real);
        return false;
    }
    if (!fileExists(resolved.c_str(), true)) {
        KEST_LOG_AS("setTimeZone", KEST_ERROR, 0, "%s doesn't exists", real);
        return false;
    }
    return true;
}

// Zone files of the first format version end in binary data: no rule.
bool isRule(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

bool readRule(const std::string& zoneFile, std::string& rule) {
    const int status = sysExec(nullptr, &rule, nullptr, kTailTimeoutMs, kLongestRule, 0,
                               "/bin/tail", {"-n", "1", zoneFile});
    if (status == 0 && isRule(trim(rule))) return true;
    KEST_LOG_AS("setTimeZone", KEST_ERROR, 0, "Failed to read TZ string");
    return false;
}

bool writeRule(int fd, const std::string& rule) {
    // On the disk before its name is: a power failure must not leave an empty file behind.
    return write(fd, rule.data(), rule.size()) == static_cast<ssize_t>(rule.size()) &&
           fchmod(fd, kRuleMode) == 0 && fsync(fd) == 0;
}

// Makes both new entries before either takes its place.
bool install(const std::string& zoneFile, const std::string& rule) {
    TempFile link("/etc/localtime-XXXXXX");
    const char* failure = nullptr;
    if (!link.valid()) {
        failure = "Failed to make temp file";
    } else if (!link.becomeLinkTo(zoneFile)) {
        failure = "Failed to create sym link";
    }
    if (failure != nullptr) {
        KEST_LOG_AS("setTimeZone", KEST_ERROR, errno, "%s", failure);
        return false;
    }
    TempFile text("/etc/TZ-XXXXXX");
    if (!text.valid()) {
        failure = "Failed to make temp file";
    } else if (!writeRule(text.fd(), rule)) {
        failure = "Failed to write TZ string";
    } else if (!text.replace("/etc/TZ") || !link.replace("/etc/localtime")) {
        failure = "Failed to rename sym link";
    }
    if (failure == nullptr) return true;
    KEST_LOG_AS("setTimeZone", KEST_ERROR, errno, "%s", failure);
    return false;
}

}  // namespace

bool setTimeZone(const std::string& zone) {
    std::string zoneFile;
    std::string rule;
    return findZone(zone, zoneFile) && readRule(zoneFile, rule) && install(zoneFile, rule + "\n");
}

}  // namespace kest::utils
