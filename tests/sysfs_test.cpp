#include <kest/utils/accelerometer.h>
#include <kest/utils/power.h>
#include <kest/utils/string_utils.h>

#include <cmath>
#include <filesystem>

#include "support/clean_test.h"
#include "support/isolated.h"
#include "support/temp_dir.h"

namespace {

using namespace kest::test;
using namespace kest::utils;
using testing::ElementsAre;
using O = Orientation;
using SysfsTest = CleanTest;

const std::string kIio = "/sys/bus/iio/devices/iio:device";
const std::string kPower = "/sys/class/power_supply/";

// Writes attributes of a device, "type=Mains|online=1", each with a line feed as the kernel has it.
void set(const std::string& device, const std::string& attributes) {
    std::filesystem::create_directories(device);
    std::vector<std::string> list, pair;
    split(attributes, "|", list);
    for (const std::string& one : list) {
        split(one, "=", pair);
        writeFile(device + "/" + pair[0], pair[1] + "\n");
    }
}

void run(const std::function<void()>& test) {
    Isolated().empty("/sys").run(test);
}

TEST_F(SysfsTest, AbsenceIsAnAnswer) {
    run([] {
        Accelerometer sensor;
        Acceleration a = {1, 2, 3};
        EXPECT_TRUE(sensor.init() && !sensor.present() && !sensor.read(a) && a.x == 1);
        // Converters and sensors of two axes are no accelerometers.
        set(kIio + "0", "in_voltage0_raw=1");
        set(kIio + "1", "in_accel_x_raw=1|in_accel_y_raw=1");
        EXPECT_TRUE(sensor.init() && !sensor.present());
        PowerSource source = PowerSource::Mains;
        BatteryInfo info;
        info.present = true;
        EXPECT_TRUE(GetPowerSource(source) && source == PowerSource::Unknown);
        EXPECT_TRUE(GetBatteryInfo(info) && !info.present && logTexts().empty());
    });
}

TEST_F(SysfsTest, AccelerometerScalesShiftsAndTurns) {
    run([] {
        set(kIio + "10", "in_accel_x_raw=1|in_accel_y_raw=1|in_accel_z_raw=1");
        set(kIio + "9",
            "in_accel_x_raw=-10|in_accel_y_raw=1024|in_accel_z_raw=0|in_accel_x_offset=6|"
            "in_accel_offset=-.5|in_accel_scale=0.009576807|in_accel_x_scale=2.5|"
            "in_mount_matrix=0, -1, 0; 1, 0, 0; 0, 0, +1.0000000000001");
        Accelerometer sensor;
        Acceleration a;
        ASSERT_TRUE(sensor.init() && sensor.present() && sensor.read(a));
        EXPECT_NEAR(-1023.5 * 0.009576807, a.x, 1e-9);
        EXPECT_NEAR(-10, a.y, 1e-9);
        EXPECT_NEAR(-0.5 * 0.009576807, a.z, 1e-9);
        set(kIio + "9", "in_accel_x_raw=-6");
        O up = O::Unknown;
        EXPECT_TRUE(sensor.orientation(up) && up == O::LeftUp);
        set(kIio + "9", "in_accel_y_raw=1e3");
        EXPECT_TRUE(!sensor.read(a) && a.y < -9 && sensor.present());
        for (const char* bad : {"", "-", ".", "1 2", "1.2.3", "0x1", "nan", "2000000000000", "0"}) {
            writeFile(kIio + "9/in_accel_scale", bad);
            EXPECT_TRUE(!sensor.init() && !sensor.present()) << bad;
        }
        set(kIio + "9", "in_accel_scale=1|in_mount_matrix=1, 0, 0; 0, 1, 0; 0, 0");
        EXPECT_FALSE(sensor.init());
        EXPECT_EQ(11U, logTexts().size());
        EXPECT_EQ("Unexpected content of " + kIio + "9/in_accel_y_raw", logTexts().front());
        EXPECT_EQ("Unexpected content of " + kIio + "9/in_mount_matrix", logTexts().back());
    });
}

TEST_F(SysfsTest, OrientationIsTheNearestAxisAndSticks) {
    const auto lean = [](double degrees, O previous, double g = 9.81) {
        const double angle = degrees * 3.14159265358979 / 180;
        return Accelerometer::orientationOf({g * sin(angle), g * cos(angle), 0}, previous);
    };
    EXPECT_TRUE(lean(44, O::Unknown) == O::Upright && lean(180, O::LensUp) == O::UpsideDown);
    EXPECT_TRUE(lean(46, O::Unknown) == O::RightUp && lean(-90, O::Upright) == O::LeftUp);
    EXPECT_EQ(O::LensDown, Accelerometer::orientationOf({0, 1, 9.7}));
    EXPECT_EQ(O::LensUp, Accelerometer::orientationOf({0, 1, -9.7}));
    EXPECT_TRUE(lean(54, O::Upright) == O::Upright && lean(56, O::Upright) == O::RightUp);
    for (const double g : {0.0, 6.8, 12.8, double{NAN}, double{INFINITY}})
        EXPECT_TRUE(lean(0, O::LensUp, g) == O::LensUp && lean(0, O::Unknown, g) == O::Unknown);
}

TEST_F(SysfsTest, PowerSourceIsTheBestThatIsPluggedIn) {
    run([] {
        PowerSource source = PowerSource::Wireless;
        const auto with = [&](const std::string& device, const std::string& attributes) {
            set(kPower + device, attributes);
            EXPECT_TRUE(GetPowerSource(source));
            return source;
        };
        EXPECT_EQ(PowerSource::Unknown, with("mouse", "type=Battery|scope=Device"));
        EXPECT_EQ(PowerSource::Unknown, with("dock", "type=Mains|scope=Device|online=1"));
        EXPECT_EQ(PowerSource::Unknown, with("gone", "type=Battery|present=0"));
        for (const std::string fed : {"Charging", "Full", "Not charging"})
            EXPECT_EQ(PowerSource::Unknown, with("bat", "type=Battery|status=" + fed)) << fed;
        EXPECT_EQ(PowerSource::Battery, with("bat", "status=Discharging"));
        EXPECT_EQ(PowerSource::Battery, with("ac", "type=Mains|online=0"));
        EXPECT_EQ(PowerSource::Usb, with("usb", "type=USB_PD|online=2"));
        EXPECT_EQ(PowerSource::Mains, with("ac", "online=1"));
        set(kPower + "usb", "online=yes");
        EXPECT_TRUE(!GetPowerSource(source) && source == PowerSource::Mains);
        EXPECT_THAT(logTexts(), ElementsAre("Unexpected content of " + kPower + "usb/online"));
    });
}

TEST_F(SysfsTest, BatteryTellsWhatItKnows) {
    run([] {
        const std::string cell = kPower + "cell0";
        set(kPower + "cell", "type=Battery|present=0");
        set(cell,
            "type=Battery|status=Not charging|health=Over voltage|energy_now=2000000000|"
            "energy_full=2147483647|voltage_now=7400000|current_now=-350000|temp=-15");
        BatteryInfo info;
        ASSERT_TRUE(GetBatteryInfo(info) && info.present && info.name == "cell0");
        EXPECT_TRUE(info.status == BatteryStatus::NotCharging && info.percent == 93 &&
                    info.health == BatteryHealth::OverVoltage && info.microvolts == 7400000 &&
                    info.microamperes == -350000 && info.decidegrees == -15 &&
                    !info.secondsToEmpty);
        set(cell, "capacity=101|status=new word");
        EXPECT_TRUE(GetBatteryInfo(info) && info.percent == 100 && info.status == BatteryStatus{});
        set(cell, "temp=2147483648");
        EXPECT_TRUE(!GetBatteryInfo(info) && info.percent == 100);
        // A folder in the place of a file opens, but cannot be read.
        std::filesystem::remove(cell + "/temp");
        std::filesystem::create_directory(cell + "/temp");
        EXPECT_FALSE(GetBatteryInfo(info));
        EXPECT_THAT(logTexts(), ElementsAre("Unexpected content of " + cell + "/temp",
                                            "Unable to read " + cell + "/temp"));
        EXPECT_EQ(EISDIR, logLines().back().errnoValue);
    });
}

}  // namespace
