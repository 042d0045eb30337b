#include <kest/utils/logread.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "log.h"

namespace kest::utils {
namespace {

constexpr key_t kKey = 0x414E4547;

// The segment: size and tail, 32 bits each, then the data.
constexpr size_t kSizeOffset = 0;
constexpr size_t kTailOffset = 4;
constexpr size_t kDataOffset = 8;

constexpr unsigned short kReaders = 0;  // semaphore that counts readers
constexpr unsigned short kWriter = 1;   // semaphore that is not 0 while the daemon writes

// Once only: the daemon, or somebody else, may write meanwhile.
uint32_t fetch(const char* segment, size_t offset) {
    return *reinterpret_cast<const volatile uint32_t*>(segment + offset);
}

bool give(int semaphores) {
    sembuf operation = {kReaders, -1, IPC_NOWAIT | SEM_UNDO};
    return semop(semaphores, &operation, 1) == 0;
}

}  // namespace

// A ring whose figures have been checked. Its tail is fixed here; bytes may still change.
struct Logread::Ring {
    const char* data;
    uint32_t size;
    uint32_t tail;

    // Bytes from `offset` to the end of the text there, at most `limit`.
    uint32_t length(uint32_t offset, uint32_t limit) const {
        return static_cast<uint32_t>(strnlen(data + offset, limit));
    }

    uint32_t after(uint32_t end) const { return end + 1 < size ? end + 1 : 0; }

    // A position is always just behind a NUL, unless what was there has been overwritten.
    bool isBoundary(uint32_t offset) const {
        return offset < size && data[(offset == 0 ? size : offset) - 1] == '\0';
    }

    bool oldest(uint32_t& offset) const;
};

// Finds the oldest complete message. The text at the tail may be the rest of one, so the first step
// is over that; an area that has not been used yet is a run of empty texts.
bool Logread::Ring::oldest(uint32_t& offset) const {
    uint32_t position = tail;
    uint64_t passed = 0;
    do {
        uint32_t end = position + length(position, size - position);
        passed += end - position + 1;
        if (end >= size) {
            end = length(0, tail);
            if (end == tail) return false;
            passed += end;
        }
        position = after(end);
        if (passed <= size && data[position] != '\0') {
            offset = position;
            return true;
        }
    } while (passed < size);
    return false;
}

// A way from an offset to the tail. What is left of it shrinks with every step, so that it ends
// after one lap at the latest.
class Logread::Walk {
  public:
    Walk(const Ring& ring, uint32_t offset)
        : ring_(ring),
          offset_(offset),
          left_(ring.tail >= offset ? ring.tail - offset : ring.size - offset + ring.tail) {}

    // The next complete message; false when there is none.
    bool next(std::string_view& message) {
        if (left_ == 0) return false;
        const uint32_t limit = std::min(left_, ring_.size - offset_);
        const uint32_t length = ring_.length(offset_, limit);
        message = {ring_.data + offset_, length};
        if (length == limit) return limit < left_ && join(message);
        advance(offset_ + length, length + 1);
        return true;
    }

    // Behind the message that next() gave.
    uint32_t offset() const { return offset_; }

  private:
    // Adds the part at the start of the area to the one at its end.
    bool join(std::string_view& message) {
        const uint32_t length = ring_.length(0, ring_.tail);
        if (length == ring_.tail) return false;
        joined_.assign(message).append(ring_.data, length);
        advance(length, static_cast<uint32_t>(message.size()) + length + 1);
        message = joined_;
        return true;
    }

    void advance(uint32_t end, uint32_t bytes) {
        offset_ = ring_.after(end);
        left_ -= bytes;
    }

    const Ring ring_;
    uint32_t offset_;
    uint32_t left_;
    std::string joined_;
};

// The lock, for as long as this object lives or until a callback detaches the reader.
class Logread::Hold {
  public:
    explicit Hold(Logread& reader) : reader_(reader), detachments_(reader.detachments_) {
        held_ = reader_.Lock();
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold() {
        if (held_ && reader_.detachments_ == detachments_) reader_.Unlock();
    }

    explicit operator bool() const { return held_; }

  private:
    Logread& reader_;
    unsigned detachments_;
    bool held_;
};

Logread::~Logread() {
    Close();
}

bool Logread::attach() {
    const int id = shmget(kKey, 0, 0);
    if (id == -1) {
        KEST_LOG_AS("Initialize", KEST_ERROR, errno, "Failed to get SHM ID");
        return false;
    }
    void* const address = shmat(id, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) {
        KEST_LOG_AS("Initialize", KEST_ERROR, errno, "Failed to attach SHM");
        return false;
    }
    segment_ = static_cast<const char*>(address);
    shmid_ds status = {};
    if (shmctl(id, IPC_STAT, &status) != 0) {
        KEST_LOG_AS("Initialize", KEST_ERROR, errno, "Failed to get SHM size");
        return false;
    }
    segmentSize_ = status.shm_segsz;
    semaphores_ = semget(kKey, 0, 0);
    if (semaphores_ == -1) {
        KEST_LOG_AS("Initialize", KEST_ERROR, errno, "Failed to get sem ID");
        return false;
    }
    return true;
}

bool Logread::Initialize() {
    Close();
    const bool positioned = attach() && seekToOldest();
    if (!positioned) Close();
    return positioned;
}

// Whatever there is to log is logged after unlocking: with the lock held, the daemon waits for us,
// and once its queue is full we would wait for the daemon.
bool Logread::seekToOldest() {
    bool valid = false, found = false;
    if (const Hold hold(*this); hold) {
        Ring current;
        valid = ring(current);
        found = valid && current.oldest(offset_);
    } else {
        KEST_LOG_AS("Initialize", KEST_ERROR, errno, "Failed to acquire semaphore");
        return false;
    }
    if (!valid) {
        KEST_LOG_AS("Initialize", KEST_ERROR, 0, "Invalid log ring");
    } else if (!found) {
        KEST_LOG_AS("Initialize", KEST_ERROR, 0, "No complete messages");
    }
    return found;
}

void Logread::Close() {
    while (holds_ > 0)
        Unlock();
    offset_ = 0;
    semaphores_ = -1;
    if (segment_ == nullptr) return;
    ++detachments_;
    if (shmdt(segment_) != 0) KEST_LOG(KEST_WARNING, errno, "Failed to detach SHM");
    segment_ = nullptr;
}

bool Logread::Lock() {
    sembuf operations[] = {{kWriter, 0, 0}, {kReaders, 1, SEM_UNDO}};
    if (semop(semaphores_, operations, 2) != 0) return false;
    ++holds_;
    return true;
}

bool Logread::Unlock() {
    // Giving back what we do not have would take it from another reader.
    if (holds_ == 0) return false;
    --holds_;
    return give(semaphores_);
}

// The header as it is now, if it makes sense in a segment of this size.
bool Logread::ring(Ring& out) const {
    if (segment_ == nullptr || segmentSize_ <= kDataOffset) return false;
    out = {segment_ + kDataOffset, fetch(segment_, kSizeOffset), fetch(segment_, kTailOffset)};
    return out.size > 0 && out.size <= segmentSize_ - kDataOffset && out.tail < out.size;
}

// False for a ring that makes no sense.
bool Logread::deliver(Callback cb, void* ctx) {
    Ring current;
    if (!ring(current)) return false;
    // At the tail nothing is news, also behind a text without an end. Overtaken: everything is.
    if (offset_ != current.tail && !current.isBoundary(offset_) && !current.oldest(offset_))
        offset_ = current.tail;

    const unsigned detachments = detachments_;
    Walk walk(current, offset_);
    for (std::string_view message; walk.next(message);) {
        offset_ = walk.offset();
        cb(message.data(), static_cast<unsigned int>(message.size()), ctx);
        // Moved or detached by the callback.
        if (detachments_ != detachments || offset_ != walk.offset()) return true;
    }
    // A text without an end runs into the tail and is passed over.
    offset_ = current.tail;
    return true;
}

void Logread::ForEachNoLock(Callback cb, void* ctx) {
    if (cb != nullptr) deliver(cb, ctx);
}

void Logread::ForEach(Callback cb, void* ctx) {
    if (cb == nullptr) return;
    bool valid = true;
    if (const Hold hold(*this); hold) {
        valid = deliver(cb, ctx);
    } else {
        KEST_LOG(KEST_ERROR, errno, "Failed to acquire semaphore");
    }
    if (!valid) KEST_LOG(KEST_ERROR, 0, "Invalid log ring");
}

bool Logread::SeekToTail() {
    bool valid = false;
    if (const Hold hold(*this); hold) {
        Ring current;
        valid = ring(current);
        if (valid) offset_ = current.tail;
    } else {
        KEST_LOG(KEST_ERROR, errno, "Failed to acquire semaphore");
        return false;
    }
    if (!valid) KEST_LOG(KEST_ERROR, 0, "Invalid log ring");
    return valid;
}

}  // namespace kest::utils
