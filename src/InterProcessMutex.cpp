#include <kest/utils/InterProcessMutex.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "unique_fd.h"

using kest::utils::detail::UniqueFd;

InterProcessMutex::InterProcessMutex(const char* name, bool blocking) : blocking_(blocking) {
    if (name == nullptr || strchr(name, '/') != nullptr) {
        path_[0] = '\0';
        return;
    }
    snprintf(path_, sizeof(path_), "/var/lock/%s.lock", name);
}

InterProcessMutex::~InterProcessMutex() {
    release();
    // Still open after a refused lock.
    const UniqueFd leftOver(fd_);
}

// The whole file, for writing or not at all.
bool InterProcessMutex::setLock(short type, bool wait) const {
    struct flock record = {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    return fcntl(fd_, wait ? F_SETLKW : F_SETLK, &record) == 0;
}

int InterProcessMutex::acquire() {
    if (acquired_) return -1;
    // One of an earlier attempt may still be open. It goes first: to close any descriptor of the
    // file is to give up the lock on it.
    UniqueFd(std::exchange(fd_, -1)).reset();
    // The folder is open to everybody: a link that somebody put there is not followed.
    fd_ = open(path_, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd_ < 0) return -2;
    if (!setLock(F_WRLCK, blocking_)) return -3;
    acquired_ = true;
    return 0;
}

int InterProcessMutex::release() {
    if (!acquired_) return 0;
    if (!setLock(F_UNLCK, false)) return -1;
    // Whatever close says, the descriptor is gone and the lock with it.
    acquired_ = false;
    return close(std::exchange(fd_, -1)) == 0 ? 0 : -2;
}

bool InterProcessMutex::isAcquired() const {
    return acquired_;
}
