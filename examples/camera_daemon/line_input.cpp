#include "line_input.h"

#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <utility>

namespace {

constexpr unsigned kReadSize = 4096;
// A longer line is handed on in pieces: input must not decide how much memory we need.
constexpr unsigned kLongestLine = 65536;
constexpr unsigned kFilePollMs = 1;

// epoll refuses what is always readable: files and devices such as /dev/null.
bool canBeWatched(int fd) {
    struct stat info = {};
    return fstat(fd, &info) == 0 &&
           (S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode) || isatty(fd) == 1);
}

}  // namespace

LineInput::LineInput(kest::utils::Scheduler& scheduler, int fd, OnLine onLine)
    : scheduler_(scheduler), fd_(fd), onLine_(std::move(onLine)) {}

LineInput::~LineInput() {
    stop();
}

bool LineInput::start() {
    if (!canBeWatched(fd_)) {
        timer_ = scheduler_.AddTimerTask(
            kFilePollMs, kFilePollMs,
            [this](unsigned long long, void*) {
                readSome();
                return true;
            },
            nullptr);
        return timer_ != 0;
    }
    ioTask_ = scheduler_.AddIOTask(
        fd_, EPOLLIN,
        [this](int, int, void*) {
            readSome();
            return true;
        },
        nullptr);
    return ioTask_ != 0;
}

void LineInput::readSome() {
    int got = 0;
    const bool atEnd = !buffer_.ReadFromFd(fd_, kReadSize, got) || got == 0;
    takeLines(atEnd);
    if (atEnd) stop();
}

void LineInput::takeLines(bool atEnd) {
    while (buffer_.Available() > 0) {
        const auto* begin = reinterpret_cast<const char*>(buffer_.Begin());
        const unsigned available = buffer_.Available();
        const auto* end = static_cast<const char*>(memchr(begin, '\n', available));
        if (end == nullptr && !atEnd && available < kLongestLine) return;
        const unsigned length = end == nullptr ? available : static_cast<unsigned>(end - begin);
        const std::string line(begin, length);
        buffer_.Ignore(end == nullptr ? length : length + 1);
        onLine_(line);
    }
}

void LineInput::stop() {
    if (ioTask_ != 0) scheduler_.RemoveIOTask(std::exchange(ioTask_, 0));
    if (timer_ != 0) scheduler_.RemoveTimerTask(std::exchange(timer_, 0));
}
