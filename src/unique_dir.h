// Owner of one open folder, for those who walk through its entries.
#pragma once

#include <dirent.h>

#include <memory>

namespace kest::utils::detail {

struct CloseDir {
    void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, CloseDir>;

// Whether the entry is "." or "..", which every folder has.
inline bool isDots(const dirent& entry) {
    const char* name = entry.d_name;
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace kest::utils::detail
