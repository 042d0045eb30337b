// The system log's messages, when its ring is there.
#pragma once

#include <string>
#include <vector>

#include <kest/utils/logread.h>

class SystemLog {
  public:
    // False when no log daemon keeps a ring; the library tells why.
    bool start();

    // What has been logged since the last call, without line breaks at the ends.
    std::vector<std::string> take();

  private:
    kest::utils::Logread ring_;
    bool attached_ = false;
};
