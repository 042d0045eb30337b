// rmRf: removal of a tree of any depth.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <kest/utils/fileutils.h>

#include "c_path.h"
#include "unique_dir.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

using detail::cPath;
using detail::isDots;
using detail::sameFile;
using detail::UniqueDir;
using detail::UniqueFd;

// Without following a link at the path's end.
UniqueDir openFolder(int at, const char* path) {
    UniqueFd fd(::openat(at, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    UniqueDir folder(fd.valid() ? fdopendir(fd.get()) : nullptr);
    if (folder) fd.release();
    return folder;
}

// Goes down and up through a tree with only the current folder open: neither the stack nor the
// descriptors nor the length of a path limit the depth. Entries are named relative to the open
// folder, so that nobody can slip a link into the way.
class TreeRemover {
  public:
    // Removes the folder `path`. False when something could not be removed.
    bool remove(const char* path);

  private:
    // A folder between the top and the current one, that one included.
    struct Level {
        std::string name;
        struct stat identity = {};
        std::vector<std::string> folders;  // those in it that are still to be removed
    };

    bool enter(int at, const std::string& name, UniqueDir& folder, Level& level);
    void removeFiles(DIR* folder, Level& level);
    void removeFolder(const std::string& name);
    void climb();
    void note(bool done) { failed_ |= !done; }

    UniqueDir current_;
    std::vector<Level> levels_;
    bool failed_ = false;
};

bool TreeRemover::remove(const char* path) {
    std::string top = path;
    // Behind a slash even O_NOFOLLOW follows a link.
    while (top.size() > 1 && top.back() == '/')
        top.pop_back();
    if (!enter(AT_FDCWD, top, current_, levels_.emplace_back())) return false;
    while (!levels_.empty()) {
        std::vector<std::string>& folders = levels_.back().folders;
        if (folders.empty()) {
            climb();
            continue;
        }
        const std::string name = std::move(folders.back());
        folders.pop_back();
        removeFolder(name);
    }
    current_.reset();
    note(::rmdir(path) == 0);
    return !failed_;
}

// Opens a folder and removes what is no folder from it.
bool TreeRemover::enter(int at, const std::string& name, UniqueDir& folder, Level& level) {
    folder = openFolder(at, name.c_str());
    if (!folder || ::fstat(dirfd(folder.get()), &level.identity) != 0) return false;
    level.name = name;
    removeFiles(folder.get(), level);
    return true;
}

void TreeRemover::removeFiles(DIR* folder, Level& level) {
    const int fd = dirfd(folder);
    while (const dirent* entry = readdir(folder)) {
        if (isDots(*entry)) continue;
        struct stat st = {};
        if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            note(false);
        } else if (S_ISDIR(st.st_mode)) {
            level.folders.emplace_back(entry->d_name);
        } else {
            note(::unlinkat(fd, entry->d_name, 0) == 0);
        }
    }
}

// Removes a folder in the current one; with folders in it, it becomes the current one first.
void TreeRemover::removeFolder(const std::string& name) {
    UniqueDir folder;
    Level level;
    const int parent = dirfd(current_.get());
    if (!enter(parent, name, folder, level)) {
        note(false);
    } else if (level.folders.empty()) {
        note(::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0);
    } else {
        current_ = std::move(folder);
        levels_.push_back(std::move(level));
    }
}

// Leaves the current folder, which has been emptied, for the one above, and removes it.
void TreeRemover::climb() {
    const std::string name = std::move(levels_.back().name);
    levels_.pop_back();
    if (levels_.empty()) return;
    UniqueDir parent = openFolder(dirfd(current_.get()), "..");
    struct stat identity = {};
    if (!parent || ::fstat(dirfd(parent.get()), &identity) != 0 ||
        !sameFile(identity, levels_.back().identity)) {
        // Somebody moved the folder elsewhere: what is above it now is none of ours.
        levels_.clear();
        note(false);
        return;
    }
    current_ = std::move(parent);
    note(::unlinkat(dirfd(current_.get()), name.c_str(), AT_REMOVEDIR) == 0);
}

}  // namespace

bool rmRf(const std::string& path) {
    const char* top = cPath(path);
    struct stat st = {};
    if (::lstat(top, &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) return ::unlink(top) == 0;
    return TreeRemover().remove(top);
}

}  // namespace kest::utils
