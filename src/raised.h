// Sets a flag for as long as it lives, also when a callback throws.
#pragma once

#include <utility>

namespace kest::utils::detail {

class Raised {
  public:
    explicit Raised(bool& flag) : flag_(flag), before_(std::exchange(flag, true)) {}
    ~Raised() { flag_ = before_; }
    Raised(const Raised&) = delete;
    Raised& operator=(const Raised&) = delete;

  private:
    bool& flag_;
    const bool before_;
};

}  // namespace kest::utils::detail
