#include "stats_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <utility>

#include "c_path.h"
#include "digit.h"
#define KEST_SOURCE "stats"
#include "log.h"

namespace kest::utils::detail {
namespace {

// Far more than any of the files has; a path that was made to never end does.
constexpr off_t kHardLimit = off_t{4} << 20;
constexpr size_t kPolledFiles = 5;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

}  // namespace

// One reader at a time: two would disturb each other's position inside the kernel. Whoever comes
// second is told so and opens the file for himself, so nobody waits, not even a child that was
// forked while a thread of its parent was reading.
class KeptFile {
  public:
    explicit KeptFile(const char* path) : path_(path) {}
    ~KeptFile() { drop(); }
    KeptFile(const KeptFile&) = delete;
    KeptFile& operator=(const KeptFile&) = delete;

    const char* path() const { return path_; }
    int fd() const { return fd_.get(); }

    bool acquire() {
        if (busy_.test_and_set(std::memory_order_acquire)) return false;
        if (isOurs()) return true;
        release();
        return false;
    }

    void release() { busy_.clear(std::memory_order_release); }

    // A reader that is at work just now keeps what it has, and the file stays as it is.
    bool reopen() {
        if (busy_.test_and_set(std::memory_order_acquire)) return true;
        drop();
        fd_.reset(::open(path_, O_RDONLY | kSafeOpen));
        const bool opened = fd_.valid() && fstat(fd_.get(), &identity_) == 0;
        release();
        return opened;
    }

  private:
    // Daemons close all descriptors when they go to the background: the number may name another
    // file by now.
    bool isOurs() const {
        struct stat now = {};
        return fd_.valid() && fstat(fd_.get(), &now) == 0 && sameFile(now, identity_);
    }

    void drop() {
        if (isOurs()) fd_.reset();
        fd_.release();
    }

    const char* path_;
    UniqueFd fd_;
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
    struct stat identity_ = {};
};

namespace {

KeptFile& fileOf(StatsFile file) {
    // In the order of StatsFile.
    static KeptFile files[] = {KeptFile("/proc/stat"),    KeptFile("/proc/meminfo"),
                               KeptFile("/proc/net/dev"), KeptFile("/proc/loadavg"),
                               KeptFile("/proc/uptime"),  KeptFile("/proc/cpuinfo")};
    return files[static_cast<size_t>(file)];
}

}  // namespace

bool keepStatsFiles() {
    bool all = true;
    for (size_t i = 0; i < kPolledFiles; ++i) {
        KeptFile& file = fileOf(static_cast<StatsFile>(i));
        if (file.reopen()) continue;
        KEST_LOG_AS("InitializeStatsLib", KEST_ERROR, errno, "Unable to open `%s`", file.path());
        all = false;
    }
    return all;
}

StatsLines::StatsLines(StatsFile file) : file_(fileOf(file)), kept_(file_.acquire()) {
    if (!kept_) own_.reset(::open(file_.path(), O_RDONLY | kSafeOpen));
    fd_ = kept_ ? file_.fd() : own_.get();
    if (fd_ < 0) error_ = errno;
}

StatsLines::~StatsLines() {
    if (kept_) file_.release();
}

// Adds more of the file to what is left of the buffer; false at the end.
bool StatsLines::fill() {
    if (error_ != 0 || offset_ >= kHardLimit) return false;
    if (begin_ == 0 && end_ == sizeof(buffer_)) {
        skipping_ = true;
        begin_ = end_;
    }
    memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
    const ssize_t got = pread(fd_, buffer_ + end_, sizeof(buffer_) - end_, offset_);
    if (got < 0) error_ = errno;
    if (got <= 0) return false;
    end_ += static_cast<size_t>(got);
    offset_ += got;
    return true;
}

bool StatsLines::next(std::string_view& line) {
    size_t searched = begin_;
    while (true) {
        const void* found = memchr(buffer_ + searched, '\n', end_ - searched);
        if (found != nullptr) {
            const auto newline = static_cast<size_t>(static_cast<const char*>(found) - buffer_);
            line = {buffer_ + begin_, newline - begin_};
            begin_ = searched = newline + 1;
            if (!std::exchange(skipping_, false)) return true;
            continue;
        }
        const size_t left = end_ - begin_;
        if (!fill()) break;
        searched = left < sizeof(buffer_) ? left : 0;
    }
    // A last line without an end.
    line = {buffer_ + begin_, end_ - begin_};
    begin_ = end_;
    return !line.empty() && !skipping_;
}

bool StatsLines::finish(bool complete, const char* function) const {
    if (error_ != 0) {
        KEST_LOG_AS(function, KEST_ERROR, error_, "Unable to read `%s`", file_.path());
        return false;
    }
    if (!complete) KEST_LOG_AS(function, KEST_ERROR, 0, "Unexpected text in `%s`", file_.path());
    return complete;
}

bool takeNumber(std::string_view& text, uint64_t& value) {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc()) return false;
    text.remove_prefix(static_cast<size_t>(rest - text.data()));
    return true;
}

bool takeDecimal(std::string_view& text, double& value) {
    uint64_t whole = 0;
    if (!takeNumber(text, whole)) return false;
    value = static_cast<double>(whole);
    if (!takePrefix(text, ".")) return true;
    for (double unit = 0.1; !text.empty() && isDigit(text.front()); unit /= 10) {
        value += unit * (text.front() - '0');
        text.remove_prefix(1);
    }
    return true;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
    if (text.substr(0, prefix.size()) != prefix) return false;
    text.remove_prefix(prefix.size());
    return true;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::optional<uint64_t> advance(uint64_t before, uint64_t now) {
    const uint64_t distance = now - before;
    if (distance <= INT64_MAX) return distance;
    const auto distance32 = static_cast<uint32_t>(distance);
    if (before <= UINT32_MAX && distance32 <= INT32_MAX) return distance32;
    return std::nullopt;
}

}  // namespace kest::utils::detail
