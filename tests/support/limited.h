// A lower resource limit for as long as the object lives.
//
//     const kest::test::Limited limited(RLIMIT_NOFILE, 0);  // no descriptor is left
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace kest::test {

class Limited {
  public:
    Limited(decltype(RLIMIT_NOFILE) resource, rlim_t most) : resource_(resource) {
        EXPECT_EQ(0, getrlimit(resource_, &before_));
        const rlimit lower = {most, before_.rlim_max};
        EXPECT_EQ(0, setrlimit(resource_, &lower));
    }
    ~Limited() { setrlimit(resource_, &before_); }
    Limited(const Limited&) = delete;
    Limited& operator=(const Limited&) = delete;

  private:
    const decltype(RLIMIT_NOFILE) resource_;
    rlimit before_ = {};
};

}  // namespace kest::test
