// Gives errno the value back that it had here, whatever happens in the block. For signal handlers,
// too.
#pragma once

#include <cerrno>

namespace kest::utils::detail {

class KeepErrno {
  public:
    KeepErrno() = default;
    ~KeepErrno() { errno = value_; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

  private:
    const int value_ = errno;
};

}  // namespace kest::utils::detail
