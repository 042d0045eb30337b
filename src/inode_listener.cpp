#include <kest/utils/inode_listener.h>

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "c_path.h"
#include "log.h"
#include "raised.h"

namespace kest::utils {
namespace {

constexpr size_t kBufferSize = 16384;

bool compile(const std::string& regex, InodeListener::WatchObject& watch) {
    // What matches everywhere: "*" alone is no valid pattern to some C libraries, a plain character
    // to others.
    const char* const pattern = regex.empty() ? "^" : regex.c_str();
    const int error = regcomp(&watch.pattern, pattern, REG_EXTENDED | REG_NOSUB);
    watch.compiled = error == 0;
    if (watch.compiled) return true;
    char reason[1024];
    regerror(error, &watch.pattern, reason, sizeof(reason));
    KEST_LOG_AS("add", KEST_ERROR, 0, "Failed to compile regex: %s", reason);
    return false;
}

}  // namespace

IInodeNotifier::~IInodeNotifier() = default;

void InodeListener::WatchObject::reset() {
    if (compiled) regfree(&pattern);
    compiled = false;
    descriptor = -1;
}

InodeListener::~InodeListener() {
    InodeListener::stop();
}

bool InodeListener::start(const std::string& dir, const std::string& regex, uint32_t flags,
                          IInodeNotifier* notifier) {
    const char* const refusal = notifier_ != nullptr  ? "Already started"
                                : dir.empty()         ? "Invalid directory name (empty)"
                                : flags == 0          ? "Invalid flags value (should be non-zero)"
                                : notifier == nullptr ? "Invalid notifier (null)"
                                                      : nullptr;
    if (refusal != nullptr) {
        KEST_LOG(KEST_ERROR, 0, "%s", refusal);
        return false;
    }
    if (buffer_ == nullptr) buffer_.reset(new (std::nothrow) uint8_t[kBufferSize]);
    if (buffer_ == nullptr) {
        KEST_LOG(KEST_ERROR, errno, "`std::new` error");
        return false;
    }
    notifier_ = notifier;
    return init() && add(dir, regex, flags, watch_);
}

bool InodeListener::init() {
    if (fd_ >= 0) {
        KEST_LOG(KEST_WARNING, 0, "Calling `init()` on already initialized object");
        return true;
    }
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) KEST_LOG(KEST_ERROR, errno, "inotify_init1() error");
    return fd_ >= 0;
}

bool InodeListener::add(const std::string& dir, const std::string& regex, uint32_t mask,
                        WatchObject& watch) {
    watch.reset();
    if (!compile(regex, watch)) return false;
    watch.descriptor = inotify_add_watch(fd_, detail::cPath(dir), mask);
    if (watch.descriptor < 0) KEST_LOG(KEST_ERROR, errno, "`inotify_add_watch()` error");
    return watch.descriptor >= 0;
}

// As `select`, which would write outside of its set for a descriptor that does not fit in.
int InodeListener::wait(unsigned long timeoutMs) const {
    if (fd_ < 0 || fd_ >= FD_SETSIZE) {
        errno = fd_ < 0 ? EBADF : EINVAL;
        return -1;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd_, &readable);
    timeval timeout = {};
    timeout.tv_sec = static_cast<time_t>(timeoutMs / 1000);
    timeout.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000 * 1000);
    return ::select(fd_ + 1, &readable, nullptr, nullptr, &timeout);
}

bool InodeListener::service(unsigned long timeoutMs) {
    // Inside a callback: the events in hand come first.
    if (notifier_ == nullptr || notifying_) return true;
    const int ready = wait(timeoutMs);
    if (ready < 0) {
        KEST_LOG(KEST_ERROR, errno, "`select()` error");
        return false;
    }
    if (ready == 0) return true;
    std::vector<inotify_event*> events;
    if (!read(events)) KEST_LOG(KEST_ERROR, 0, "Failed to read events");
    if (!notifyMatchedEvents(events)) KEST_LOG(KEST_ERROR, 0, "Failed to notify");
    return true;
}

bool InodeListener::read(std::vector<inotify_event*>& events) {
    if (buffer_ == nullptr) {
        KEST_LOG(KEST_ERROR, 0, "Data buffer is not allocated");
        return false;
    }
    ++batch_;
    std::vector<inotify_event*>().swap(events);
    const ssize_t count = ::read(fd_, buffer_.get(), kBufferSize);
    if (count < 0 && errno == EINTR) {
        KEST_LOG(KEST_WARNING, 0, "`read()` was interruped. Try again");
        return true;
    }
    if (count < 0 && errno == EAGAIN) {
        KEST_LOG(KEST_WARNING, 0, "`read()` has nothing to return. Try again");
        return true;
    }
    if (count < 0) {
        KEST_LOG(KEST_ERROR, errno, "`read()` error");
        return false;
    }
    if (count == 0) {
        KEST_LOG(KEST_ERROR, 0, "buffer is too small");
        return false;
    }
    const auto size = static_cast<size_t>(count);
    events.reserve(size / sizeof(inotify_event));
    for (size_t offset = 0; offset + sizeof(inotify_event) <= size;) {
        auto* const event = reinterpret_cast<inotify_event*>(buffer_.get() + offset);
        offset += sizeof(inotify_event) + event->len;
        if (offset > size) break;
        events.push_back(event);
    }
    return true;
}

bool InodeListener::matches(const std::string& name) const {
    return watch_.compiled && regexec(&watch_.pattern, name.c_str(), 0, nullptr, 0) == 0;
}

bool InodeListener::notifyMatchedEvents(const std::vector<inotify_event*>& events) {
    const detail::Raised notifying(notifying_);
    const unsigned batch = batch_;
    std::string name;
    for (const inotify_event* event : events) {
        if (notifier_ == nullptr) break;
        // Padded with NULs up to its length.
        name.assign(event->name, event->len == 0 ? 0 : strnlen(event->name, event->len));
        if (!name.empty() && !matches(name)) continue;
        notifier_->onInodeEvent(name, event->mask);
        if (batch_ != batch) break;
    }
    return true;
}

bool InodeListener::stop() {
    ++batch_;
    buffer_.reset();
    watch_.reset();
    notifier_ = nullptr;
    // The destructor means our own. NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
    return close();
}

bool InodeListener::close() {
    if (fd_ < 0) return true;
    const bool closed = ::close(std::exchange(fd_, -1)) == 0;
    if (!closed) KEST_LOG(KEST_ERROR, errno, "close() error");
    return closed;
}

}  // namespace kest::utils
