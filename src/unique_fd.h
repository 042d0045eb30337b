// Owner of one descriptor. Closing keeps errno, so that a failing path can report its cause after
// its owners have gone.
#pragma once

#include <unistd.h>

#include <utility>

#include "keep_errno.h"

namespace kest::utils::detail {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1) {
        const int old = std::exchange(fd_, fd);
        if (old < 0) return;
        const KeepErrno keep;
        ::close(old);
    }

  private:
    int fd_ = -1;
};

}  // namespace kest::utils::detail
