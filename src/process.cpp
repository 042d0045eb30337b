#include <kest/utils/process.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kest/utils/exec.h>

#include "log.h"
#include "process_folders.h"
#include "unique_dir.h"
#include "unique_file.h"

namespace kest::utils {
namespace {

// First word of a process's command line as pidof() matches it; false when there is none.
bool readFirstWord(DIR* proc, const dirent& entry, char (&word)[1024]) {
    const detail::UniqueFile file = detail::streamOf(detail::openCommandLine(proc, entry));
    if (file == nullptr) return false;
    // The set excludes the two characters backslash and zero: names that end in a digit rely on
    // being found by what stands before it.
    return fscanf(file.get(), "%1023[^\\0]s", word) == 1;
}

// Whether `word` is `name` or a path that ends in it.
bool namesProgram(const std::string& word, const std::string& name) {
    if (word.size() <= name.size()) return word == name;
    const size_t start = word.size() - name.size();
    return word[start - 1] == '/' && word.compare(start, name.size(), name) == 0;
}

}  // namespace

int pidof(const std::string& name, std::vector<int>& pids) {
    if (name.empty()) {
        KEST_LOG(KEST_ERROR, 0, "Invalid arguments");
        return -EINVAL;
    }
    const detail::UniqueDir proc(opendir("/proc"));
    if (proc == nullptr) {
        const int error = errno;
        KEST_LOG(KEST_ERROR, error, "Unable to open /proc directory: (%d) %s", error,
                 strerror(error));
        return -error;
    }
    pids.clear();
    while (const dirent* entry = readdir(proc.get())) {
        char word[1024];
        if (!detail::isProcessFolder(proc.get(), *entry)) continue;
        if (!readFirstWord(proc.get(), *entry, word) || !namesProgram(word, name)) continue;
        pids.push_back(static_cast<int>(strtoll(entry->d_name, nullptr, 10)));
    }
    return static_cast<int>(pids.size());
}

std::vector<int> pidof(const std::string& name) {
    std::vector<int> pids;
    pidof(name, pids);
    return pids;
}

bool kill_process_by_name(const std::string& name, int signo) {
    if (name.empty() || name[0] == '-' || name.find('\0') != std::string::npos) {
        KEST_LOG(KEST_ERROR, 0, "Invalid arguments");
        return false;
    }
    const std::string option = "-" + std::to_string(signo);
    return sysExecSimple("/bin/pkill", option.c_str(), name.c_str()) == 0;
}

}  // namespace kest::utils
