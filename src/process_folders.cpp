#include "process_folders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

namespace kest::utils::detail {

bool isProcessFolder(DIR* proc, const dirent& entry) {
    const size_t digits = strspn(entry.d_name, "0123456789");
    if (digits == 0 || entry.d_name[digits] != '\0') return false;
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat info = {};
    return fstatat(dirfd(proc), entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
}

UniqueFd openCommandLine(DIR* proc, const dirent& entry) {
    const std::string path = std::string(entry.d_name) + "/cmdline";
    return UniqueFd(openat(dirfd(proc), path.c_str(), O_RDONLY | O_CLOEXEC));
}

}  // namespace kest::utils::detail
