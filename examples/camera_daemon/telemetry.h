// The figures of the system for the controller.
#pragma once

#include <string>

#include <kest/utils/stats.h>

class Telemetry {
  public:
    // Opens what text() reads, which makes reading cheaper.
    void start();

    // The figures since the last call: "cpu=12.5 memory=512/1024 load=0.07 processes=61
    // lo=1200/1200": percent, MiB available and in total, bytes a second received and sent. What
    // cannot be read, or has no rate yet, is left out.
    std::string text();

  private:
    // Kept from one call to the next: shares and rates hold for the time between.
    kest::utils::CpuStats cpu_;
    kest::utils::NetworkStats network_;
};
