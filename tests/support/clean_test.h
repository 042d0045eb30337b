// Fixture whose teardown proves that a test left nothing behind: no descriptor, no child process,
// no changed signal mask. It also starts every test with an empty log, so what looks at the log
// comes along.
#pragma once

#include <gmock/gmock.h>
#include <signal.h>

#include <set>

#include "support/log_capture.h"

namespace kest::test {

// Numbers of this process's open descriptors.
std::set<int> openDescriptors();

class CleanTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

  private:
    std::set<int> descriptors_;
    sigset_t mask_ = {};
};

}  // namespace kest::test
