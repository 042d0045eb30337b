#include <kest/utils/timezone.h>

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include <kest/utils/exec.h>
#include <kest/utils/fileutils.h>
#include <kest/utils/string_utils.h>

#include "c_path.h"
#include "log.h"
#include "temp_file.h"

namespace kest::utils {
namespace {

constexpr char kDatabase[] = "/usr/share/zoneinfo/";
constexpr unsigned kTailTimeoutMs = 10000;
constexpr unsigned kLongestRule = 1024;
// mkstemp gives 0600, but everybody reads the rule.
constexpr mode_t kRuleMode = 0644;

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

// Makes both new entries before either takes its place.
bool install(const std::string& zoneFile, const std::string& rule) {
    detail::TempFile link("/etc/localtime-XXXXXX");
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
    detail::TempFile text("/etc/TZ-XXXXXX");
    if (!text.valid()) {
        failure = "Failed to make temp file";
    } else if (!text.fill(rule, kRuleMode)) {
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
