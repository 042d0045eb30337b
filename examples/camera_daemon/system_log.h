// The system log's messages, when its ring is there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kest/utils/logread.h>

class SystemLog {
  public:
    // False when no log daemon keeps a ring; the library tells why.
    bool start();

    // What has been logged since the last call, without line breaks at the ends. Comes back to the
    // ring of a log daemon that has been started again.
    std::vector<std::string> take();

  private:
    bool lock();

    kest::utils::Logread ring_;
    bool wanted_ = false;
    bool attached_ = false;
    int64_t nextTryMs_ = 0;
};
