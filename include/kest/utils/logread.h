/// @file
/// Reader of the system log: the circular message buffer that BusyBox's syslogd (started with -C)
/// keeps in System V shared memory. One thread at a time uses a reader.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kest/utils/api.h>

namespace kest::utils {

/// Hands out the messages of the ring one by one, oldest first, each once.
///
///     void print(const char* text, unsigned int length, void*) {
///         fwrite(text, 1, length, stdout);
///     }
///
///     Logread log;
///     if (log.Initialize()) log.ForEach(print, nullptr);  // what is there
///     ...
///     log.ForEach(print, nullptr);                        // what came since
///
/// While a reader holds the lock, the log daemon waits with its next message and every program that
/// logs may wait for the daemon. So a callback must be short and must not log: put the texts aside
/// and handle them after ForEach().
///
/// The ring is another process's and nothing in it is believed unchecked: whatever its bytes say,
/// no byte outside of it is read and a walk ends after one lap at the latest. A reader that has
/// fallen back by more than a lap, so that its position is within a newer message, goes on with the
/// oldest complete message. When its position happens to be a message's start again, the loss
/// cannot be told.
///
/// A reader stays attached to the ring of a daemon that has ended: Lock() fails then. ForEach()
/// only logs that; a program that is to outlive the log daemon calls Lock(), ForEachNoLock() and
/// Unlock() itself, and Close() and Initialize() when Lock() fails. A daemon that was killed and
/// started again empties the same ring: what is passed over of it comes as empty texts.
class KEST_API Logread {
  public:
    /// @param text    not NUL-terminated in general; valid during the call only.
    /// @param length  bytes of `text`.
    /// @param ctx     what the caller of ForEach() gave.
    using Callback = void (*)(const char* text, unsigned int length, void* ctx);

    Logread() = default;

    /// Close()
    ~Logread();

    Logread(const Logread&) = delete;
    Logread& operator=(const Logread&) = delete;

    /// Attaches read-only and positions at the oldest complete message; the first text in the ring
    /// may be the rest of an overwritten one and is skipped. An attached reader is closed first.
    /// Waits like Lock().
    /// @return false, detached and with one line logged, when there is no ring, when the lock
    ///         fails, when the ring's size and position do not fit its segment, or when there is no
    ///         complete message in it.
    bool Initialize();

    /// Detaches, and gives back every hold that this reader has on the lock. Logs a failure.
    void Close();

    /// Takes the reader's semaphore, once more if it is held already. Waits while the daemon
    /// writes: without limit if it is stuck or was killed in the middle of it; only a signal
    /// handler or the removal of the semaphores ends that wait. The kernel gives the semaphore back
    /// when the process dies.
    /// @return false with `errno` if it cannot be taken, also when detached. Does not log.
    bool Lock();

    /// Gives back one hold on the lock.
    /// @return false if this reader has none, or with `errno` if it fails. Does not log.
    bool Unlock();

    /// Locks, hands each message that has not been read yet to `cb`, and unlocks, also when `cb`
    /// throws. Blocks as long as Lock() does.
    ///
    /// Texts include what the daemon ends them with, usually a line feed. A message that wraps
    /// around the end of the ring comes joined; one without its end is left out. `cb` may call
    /// anything of this reader, but not destroy it: SeekToTail() and Close() end the delivery, a
    /// ForEach() of its own takes over the rest. A lock that cannot be taken and a ring that does
    /// not fit its segment are logged. A null `cb` does nothing.
    void ForEach(Callback cb, void* ctx);

    /// The same without locking, for callers that have called Lock(). Does not log.
    void ForEachNoLock(Callback cb, void* ctx);

    /// Skips everything written so far.
    /// @return false with a log line if the lock cannot be taken or the ring does not fit its
    ///         segment.
    bool SeekToTail();

  private:
    struct KEST_LOCAL Ring;
    class KEST_LOCAL Walk;
    class KEST_LOCAL Hold;

    KEST_LOCAL bool attach();
    KEST_LOCAL bool ring(Ring& out) const;
    KEST_LOCAL bool seekToOldest();
    KEST_LOCAL bool deliver(Callback cb, void* ctx);

    const char* segment_ = nullptr;
    size_t segmentSize_ = 0;
    uint32_t offset_ = 0;       // of the next message to deliver
    int semaphores_ = -1;       // id of the set
    unsigned holds_ = 0;        // on the lock, by this reader
    unsigned detachments_ = 0;  // so far: tells that a callback has closed the reader
};

}  // namespace kest::utils
