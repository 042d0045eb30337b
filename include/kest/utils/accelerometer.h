/// @file
/// The camera's accelerometer, as Linux' industrial I/O subsystem (IIO) offers it, and the way up
/// that gravity tells.
///
/// An object belongs to one thread at a time; orientationOf() keeps nothing.
#pragma once

#include <memory>

#include <kest/utils/api.h>

namespace kest::utils {

/// Acceleration in m/s^2 along the camera's axes: x to the right and y to the top of an upright
/// camera seen from behind, z out of its back, against the view. At rest it points up, 9.81 long.
struct Acceleration {
    double x = 0;  ///< to the right
    double y = 0;  ///< to the top
    double z = 0;  ///< out of the back
};

/// What of the camera is up.
enum class Orientation {
    Unknown,     ///< not to be told
    Upright,     ///< its top
    UpsideDown,  ///< its bottom, as under a ceiling
    LeftUp,      ///< its left side as seen from behind: it is turned clockwise
    RightUp,     ///< its right side: it is turned counter-clockwise
    LensUp,      ///< it looks at the sky
    LensDown,    ///< it looks at the ground
};

/// The first device under "/sys/bus/iio/devices" that has three axes of acceleration.
///
/// @code
///     Accelerometer sensor;
///     Orientation up = Orientation::Unknown;
///     if (sensor.init() && sensor.present() && sensor.orientation(up)) turnPicture(up);
/// @endcode
class KEST_API Accelerometer {
  public:
    Accelerometer();
    ~Accelerometer();
    Accelerometer(const Accelerometer&) = delete;
    Accelerometer& operator=(const Accelerometer&) = delete;

    /// Looks for the sensor, reads its scale, offset and mount matrix and opens its axes. May be
    /// called again at any time, for instance after the sensor was unplugged or its scale changed.
    /// @return true also when the machine has none: that is no failure, see present(). False after
    ///         one log line when a device cannot be read; then nothing is present.
    bool init();

    /// Whether init() found a sensor that has not gone since.
    bool present() const;

    /// Takes one reading: three files, so that the axes are some moments apart. Allocates nothing.
    /// @param acceleration  (raw + offset) * scale, turned by the mount matrix if the system has
    ///                      one (Linux' ABI/testing/sysfs-bus-iio); untouched on failure.
    /// @return false, silently while nothing is present, else after one log line. A sensor that is
    ///         gone is not present from then on.
    bool read(Acceleration& acceleration);

    /// Takes a reading and judges it with orientationOf().
    /// @param orientation  the one of before, Unknown at first, is replaced by the one of now;
    ///                     untouched on failure.
    /// @return as read().
    bool orientation(Orientation& orientation);

    /// The way up by the direction of gravity: that of the axis which is nearest to the vertical.
    /// @param previous  stays until its axis leans by more than 55 degrees, so that a camera near
    ///                  45 degrees does not flicker; and while the camera is shaken, which is when
    ///                  the acceleration differs from standard gravity (9.80665 m/s^2) by more than
    ///                  30 %.
    static Orientation orientationOf(const Acceleration& acceleration,
                                     Orientation previous = Orientation::Unknown);

  private:
    struct KEST_LOCAL Sensor;

    std::unique_ptr<Sensor> sensor_;
};

}  // namespace kest::utils
