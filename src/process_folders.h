// The numbered folders in /proc, one per process, for those who look for processes there.
#pragma once

#include <dirent.h>

#include "unique_fd.h"

namespace kest::utils::detail {

// Whether an entry of the open folder /proc stands for a process.
bool isProcessFolder(DIR* proc, const dirent& entry);

// The process's command line, opened for reading; invalid when the process has ended meanwhile.
UniqueFd openCommandLine(DIR* proc, const dirent& entry);

}  // namespace kest::utils::detail
