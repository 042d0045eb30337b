/// @file
/// The ME flag of the camera's real-time clock, a Seiko S-35390A on I2C bus 2. Both functions open
/// the bus for the one call. They may be called from any thread; one that runs beside the other may
/// see the flag from before or after.
#pragma once

#include <kest/utils/api.h>

namespace kest::utils {

/// Reads the flag from status register 2.
/// @param enabled  whether either bit of the flag's pair is set; untouched on failure.
/// @return false after one log line: the bus cannot be opened ("/dev/i2c-2"), it refuses the
///         clock's address, or no byte arrives.
KEST_API bool S35390_GetME(bool& enabled);

/// Sets or clears both bits of the pair. The register is written without having been read: every
/// other flag of status register 2 is **cleared**.
/// @return false after one log line, for the same reasons.
KEST_API bool S35390_SetME(bool enable);

}  // namespace kest::utils
