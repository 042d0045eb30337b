#include <kest/utils/power.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <utility>
#include <vector>

#include "log.h"
#include "sysfs.h"

namespace kest::utils {
namespace {

using detail::Answer;

constexpr char kFolder[] = "/sys/class/power_supply";

// One device of the class. What it does not tell is empty; after the first attribute that cannot be
// read, which is logged, it tells nothing any more.
class Supply {
  public:
    Supply(const char* caller, const std::string& name)
        : caller_(caller), folder_(kFolder + ("/" + name + "/")) {}

    bool failed() const { return failed_; }

    // Valid until the next attribute is asked for.
    const std::string& text(const char* attribute) {
        value_.clear();
        if (!failed_ && detail::readAttribute(folder_ + attribute, value_) == Answer::Failed)
            fail(errno, "Unable to read", attribute);
        return value_;
    }

    std::optional<int> number(const char* attribute) {
        if (text(attribute).empty()) return {};
        double number = 0;
        if (detail::parseDecimal(value_, number) && number >= INT_MIN && number <= INT_MAX)
            return static_cast<int>(number);
        fail(0, "Unexpected content of", attribute);
        return {};
    }

    bool isOthers() { return text("scope") == "Device"; }
    // Batteries that cannot be taken out need not say so.
    bool isBatteryInPlace() {
        return text("type") == "Battery" && !isOthers() && number("present").value_or(1) != 0;
    }

  private:
    void fail(int error, const char* what, const char* attribute) {
        failed_ = true;
        KEST_LOG_AS(caller_, KEST_ERROR, error, "%s %s%s", what, folder_.c_str(), attribute);
    }

    const char* caller_;
    std::string folder_;
    std::string value_;
    bool failed_ = false;
};

bool listSupplies(const char* caller, std::vector<std::string>& names) {
    if (detail::listDevices(kFolder, "", names) != Answer::Failed) return true;
    KEST_LOG_AS(caller, KEST_ERROR, errno, "Unable to open %s", kFolder);
    return false;
}

PowerSource externalSource(const std::string& type) {
    if (type == "Mains") return PowerSource::Mains;
    // "USB_PD" and the like; the last is what one maker's USB chargers call themselves.
    if (type.compare(0, 3, "USB") == 0 || type == "BrickID") return PowerSource::Usb;
    if (type == "Wireless") return PowerSource::Wireless;
    return PowerSource::Unknown;
}

BatteryStatus statusNamed(const std::string& text) {
    if (text == "Charging") return BatteryStatus::Charging;
    if (text == "Discharging") return BatteryStatus::Discharging;
    if (text == "Not charging") return BatteryStatus::NotCharging;
    return text == "Full" ? BatteryStatus::Full : BatteryStatus::Unknown;
}

PowerSource sourceBehind(Supply& supply) {
    const PowerSource external = externalSource(supply.text("type"));
    if (external != PowerSource::Unknown) {
        const bool feeds = !supply.isOthers() && supply.number("online").value_or(0) > 0;
        return feeds ? external : PowerSource::Unknown;
    }
    if (!supply.isBatteryInPlace()) return PowerSource::Unknown;
    // One that is charged, or full, or kept from being charged has something else beside it, such
    // as power over Ethernet.
    const BatteryStatus status = statusNamed(supply.text("status"));
    const bool feeds = status == BatteryStatus::Discharging || status == BatteryStatus::Unknown;
    return feeds ? PowerSource::Battery : PowerSource::Unknown;
}

BatteryHealth healthNamed(const std::string& text) {
    static constexpr std::pair<const char*, BatteryHealth> kNames[] = {
        {"Good", BatteryHealth::Good},
        {"Overheat", BatteryHealth::Overheat},
        {"Cold", BatteryHealth::Cold},
        {"Dead", BatteryHealth::Dead},
        {"Over voltage", BatteryHealth::OverVoltage},
        {"Unspecified failure", BatteryHealth::Failure},
    };
    for (const auto& [name, health] : kNames) {
        if (text == name) return health;
    }
    return BatteryHealth::Unknown;
}

constexpr std::pair<const char*, std::optional<int> BatteryInfo::*> kFigures[] = {
    {"voltage_now", &BatteryInfo::microvolts},
    {"current_now", &BatteryInfo::microamperes},
    {"temp", &BatteryInfo::decidegrees},
    {"time_to_empty_now", &BatteryInfo::secondsToEmpty},
};

std::optional<int> percentOf(Supply& battery) {
    if (const auto told = battery.number("capacity")) return std::clamp(*told, 0, 100);
    for (const auto& [now, full] :
         {std::pair{"charge_now", "charge_full"}, std::pair{"energy_now", "energy_full"}}) {
        const auto part = battery.number(now);
        const auto whole = battery.number(full);
        if (part && whole && *whole > 0)
            return static_cast<int>(std::clamp<int64_t>(int64_t{*part} * 100 / *whole, 0, 100));
    }
    return {};
}

}  // namespace

bool GetPowerSource(PowerSource& source) {
    std::vector<std::string> names;
    if (!listSupplies(__func__, names)) return false;
    PowerSource best = PowerSource::Unknown;
    for (const std::string& name : names) {
        Supply supply(__func__, name);
        const PowerSource candidate = sourceBehind(supply);
        if (supply.failed()) return false;
        if (candidate == PowerSource::Unknown) continue;
        best = best == PowerSource::Unknown ? candidate : std::min(best, candidate);
    }
    source = best;
    return true;
}

bool GetBatteryInfo(BatteryInfo& info) {
    std::vector<std::string> names;
    if (!listSupplies(__func__, names)) return false;
    BatteryInfo found;
    for (const std::string& name : names) {
        Supply battery(__func__, name);
        found.present = battery.isBatteryInPlace();
        if (found.present) {
            found.name = name;
            found.status = statusNamed(battery.text("status"));
            found.health = healthNamed(battery.text("health"));
            found.percent = percentOf(battery);
            for (const auto& [attribute, figure] : kFigures)
                found.*figure = battery.number(attribute);
        }
        if (battery.failed()) return false;
        if (found.present) break;
    }
    info = std::move(found);
    return true;
}

}  // namespace kest::utils
