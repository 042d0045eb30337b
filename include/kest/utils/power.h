/// @file
/// What the camera is fed from and how its battery is, as the kernel tells under
/// "/sys/class/power_supply" (ABI/testing/sysfs-class-power). Both functions keep no state, may be
/// called from any thread, and read some dozen small files: now and then, not in a tight loop.
///
/// That a machine has no battery, or tells nothing about its supply, is an answer and no failure.
/// False, after one log line and with the output untouched, means that a file could not be read or
/// holds what it should not. Supplies of other devices, such as a keyboard's battery, do not count.
#pragma once

#include <optional>
#include <string>

#include <kest/utils/api.h>

namespace kest::utils {

/// What can feed a camera.
enum class PowerSource {
    Unknown,   ///< the machine does not tell; the rule with power over Ethernet
    Mains,     ///< a mains adapter
    Usb,       ///< a USB port or charger
    Wireless,  ///< a charging pad
    Battery,   ///< the camera's own battery
};

/// Which of them feeds the camera now. The first in the order above that is plugged in; the battery
/// only when none is, and when the battery is discharging or does not tell. One that is charged,
/// full or kept from being charged has another source beside it, which the kernel does not see.
KEST_API bool GetPowerSource(PowerSource& source);

/// What the driver says of charging.
enum class BatteryStatus { Unknown, Charging, Discharging, NotCharging, Full };
/// What the driver says of the battery's condition.
enum class BatteryHealth { Unknown, Good, Overheat, Cold, Dead, OverVoltage, Failure };

/// A battery. Each figure is missing when the driver does not tell it.
struct BatteryInfo {
    bool present = false;  ///< false: the machine has no battery, and nothing else is set
    std::string name;      ///< its folder under "/sys/class/power_supply"
    BatteryStatus status = BatteryStatus::Unknown;  ///< charging or not
    BatteryHealth health = BatteryHealth::Unknown;  ///< condition
    std::optional<int> percent;         ///< 0 to 100; by charge or energy if the driver has no own
    std::optional<int> microvolts;      ///< voltage now
    std::optional<int> microamperes;    ///< current now; by most drivers negative when discharging
    std::optional<int> decidegrees;     ///< temperature in tenths of a degree Celsius
    std::optional<int> secondsToEmpty;  ///< at the present current
};

/// The first battery that is in its place; names are taken by length, then by alphabet.
KEST_API bool GetBatteryInfo(BatteryInfo& info);

}  // namespace kest::utils
