/// @file
/// A lock between processes. Nothing here logs.
#pragma once

#include <kest/utils/api.h>

/// Excludes processes that use the same name from each other, by a POSIX record lock on the file
/// "/var/lock/NAME.lock", which is created when missing and never deleted. The lock goes with the
/// process that holds it.
///
/// Record locks belong to the process: two objects of one name in one process do not exclude each
/// other, and when one of them releases or is destroyed, the other's lock is gone, too. A child
/// made by `fork` does not hold the lock. One thread at a time uses an object.
class KEST_API InterProcessMutex {
  public:
    /// Opens nothing.
    /// @param name      the path is cut at 63 characters: names that agree in their first 53
    ///                  characters share a lock. Null, or a name with '/' in it, which would leave
    ///                  the folder, cannot be acquired.
    /// @param blocking  whether acquire() waits for the lock or fails at once.
    InterProcessMutex(const char* name, bool blocking);

    /// release()
    ~InterProcessMutex();

    InterProcessMutex(const InterProcessMutex&) = delete;
    InterProcessMutex& operator=(const InterProcessMutex&) = delete;

    /// @return 0 when the lock is held; -1 if this object holds it already; -2 if the file does not
    ///         open, -3 if the lock is refused or the wait was interrupted by a signal, both with
    ///         `errno`. After -2 and -3 it may be called again.
    int acquire();

    /// @return 0 when the lock is not held any more, or was not held; -1 if unlocking fails, -2 if
    ///         closing fails, both with `errno`.
    int release();

    /// Whether this object holds the lock.
    bool isAcquired() const;

  private:
    KEST_LOCAL bool setLock(short type, bool wait) const;

    bool blocking_;
    bool acquired_ = false;
    char path_[64];
    int fd_ = -1;
};
