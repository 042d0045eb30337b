/// @file
/// Watches a folder with Linux' inotify. One thread at a time uses a listener; nothing is locked.
#pragma once

#include <regex.h>
#include <sys/inotify.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// What a listener reports to.
class KEST_API IInodeNotifier {
  public:
    /// One event, in the order of the kernel's queue. It may call anything of the listener, stop()
    /// included, but not destroy it; service() does nothing inside.
    /// @param name  of the file, without its folder, byte for byte as in the folder. Empty for what
    ///              concerns the folder itself and for `IN_Q_OVERFLOW`.
    /// @param mask  inotify(7) event bits. Two come unasked: `IN_Q_OVERFLOW`, events are lost, so
    ///              look through the folder; and `IN_IGNORED`, the folder is gone and nothing more
    ///              will come.
    virtual void onInodeEvent(const std::string& name, uint32_t mask) = 0;

    virtual ~IInodeNotifier();
};

/// Reports what happens in one folder to the files whose names match a pattern.
///
///     InodeListener listener;
///     listener.start("/tmp/snapshots", "\\.jpg$", IN_CLOSE_WRITE | IN_MOVED_TO, &notifier);
///     scheduler.AddIOTask(listener.fd(), EPOLLIN, [&](int, int, void*) {
///         return listener.service(0);
///     }, nullptr);
///
/// Take the task out of the scheduler before stop(). A derived class may replace any step: start()
/// and service() call the others as virtual functions. Failures are logged and return false.
class KEST_API InodeListener {
  public:
    /// The watched folder. It frees the pattern with itself.
    struct KEST_API WatchObject {
        WatchObject() = default;
        WatchObject(const WatchObject&) = delete;
        WatchObject& operator=(const WatchObject&) = delete;
        ~WatchObject() { reset(); }

        /// Frees the pattern.
        void reset();

        int descriptor = -1;    ///< of the watch; -1 for none
        regex_t pattern = {};   ///< for names, when `compiled`
        bool compiled = false;  ///< whether there is a pattern to free
    };

    InodeListener() = default;
    InodeListener(const InodeListener&) = delete;
    InodeListener& operator=(const InodeListener&) = delete;

    /// stop()
    virtual ~InodeListener();

    /// Begins to watch.
    ///
    /// Once the arguments are accepted the listener counts as started, also when opening or
    /// watching fails then: stop() comes before the next attempt.
    /// @param dir       folder that exists; files in folders below it are not seen.
    /// @param regex     POSIX extended regular expression, found anywhere in the name unless it is
    ///                  anchored; empty for every name.
    /// @param flags     inotify(7) events and options, not 0.
    /// @param notifier  not owned, not null; has to live until stop().
    virtual bool start(const std::string& dir, const std::string& regex, uint32_t flags,
                       IInodeNotifier* notifier);

    /// Waits up to `timeoutMs` for events and reports those of one read, 16384 bytes at the most.
    /// @return true also when there are none, when the listener is not started, and when reading
    ///         fails; false only when the wait fails: interrupted by a signal, no descriptor, or
    ///         one that `select` cannot take (`FD_SETSIZE` and above).
    virtual bool service(unsigned long timeoutMs);

    /// Ends watching and frees everything; what is still queued is lost.
    /// @return false if the descriptor cannot be closed; it is gone all the same.
    virtual bool stop();

    /// Opens the inotify descriptor, unless it is open.
    virtual bool init();

    /// Replaces `events` by those of one read. They lie in the listener's buffer, which the next
    /// read overwrites and stop() frees. True and empty when there is nothing to read.
    virtual bool read(std::vector<inotify_event*>& events);

    /// Compiles a pattern and watches a folder for it.
    virtual bool add(const std::string& dir, const std::string& regex, uint32_t mask,
                     WatchObject& watch);

    /// Reports those of the events that have no name or a matching one, until a callback stops the
    /// listener or reads. Always true.
    virtual bool notifyMatchedEvents(const std::vector<inotify_event*>& events);

    /// Closes the inotify descriptor, and with it the watch.
    virtual bool close();

    /// The inotify descriptor, readable when there are events; -1 while it is not open. It stays
    /// the listener's. Close-on-exec.
    int fd() const { return fd_; }

  private:
    KEST_LOCAL int wait(unsigned long timeoutMs) const;
    KEST_LOCAL bool matches(const std::string& name) const;

    int fd_ = -1;
    WatchObject watch_;
    IInodeNotifier* notifier_ = nullptr;
    std::unique_ptr<uint8_t[]> buffer_;
    unsigned batch_ = 0;  // changes when event pointers become invalid
    bool notifying_ = false;
};

}  // namespace kest::utils
