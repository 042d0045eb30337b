#include <kest/utils/accelerometer.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <kest/utils/string_utils.h>

#include "log.h"
#include "sysfs.h"
#include "unique_fd.h"

namespace kest::utils {
namespace {

using detail::Answer;
using Vector = std::array<double, 3>;

constexpr char kDevices[] = "/sys/bus/iio/devices";
constexpr double kGravity = 9.80665;
constexpr double kShaken = 0.3;
// Cosine of 55 degrees.
constexpr double kKeep = 0.5736;

struct Direction {
    Orientation orientation;
    Vector up;
};
constexpr Direction kDirections[] = {
    {Orientation::Upright, {0, 1, 0}}, {Orientation::UpsideDown, {0, -1, 0}},
    {Orientation::LeftUp, {-1, 0, 0}}, {Orientation::RightUp, {1, 0, 0}},
    {Orientation::LensUp, {0, 0, -1}}, {Orientation::LensDown, {0, 0, 1}},
};

double dot(const Vector& a, const Vector& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

// How drivers call what belongs to one axis.
struct AxisNames {
    const char* raw;
    const char* offset;
    const char* scale;
};
constexpr AxisNames kAxes[] = {{"in_accel_x_raw", "in_accel_x_offset", "in_accel_x_scale"},
                               {"in_accel_y_raw", "in_accel_y_offset", "in_accel_y_scale"},
                               {"in_accel_z_raw", "in_accel_z_offset", "in_accel_z_scale"}};

constexpr char kUnreadable[] = "Unable to read";
constexpr char kUnexpected[] = "Unexpected content of";

struct Attribute {
    const char* name = "";
    std::string text = {};
};

}  // namespace

// Inside an exported class, but nobody else's business.
struct __attribute__((visibility("hidden"))) Accelerometer::Sensor {
    struct Axis {
        detail::UniqueFd raw;
        double offset = 0;
        double scale = 1;
    };
    explicit Sensor(const std::string& device) : folder(kDevices + ("/" + device + "/")) {}

    std::string folder;
    std::array<Axis, 3> axes;
    std::array<Vector, 3> matrix = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

    Answer openAxes();
    bool calibrate();
    bool readMatrix();
    Answer read(Acceleration& acceleration) const;

  private:
    Answer readFirst(std::initializer_list<const char*> names, Attribute& found) const;
    bool readNumber(std::initializer_list<const char*> names, double above, double& number) const;
    bool fail(const char* caller, int error, const char* what, const char* name) const;
};

// False, for steps to end with.
bool Accelerometer::Sensor::fail(const char* caller, int error, const char* what,
                                 const char* name) const {
    KEST_LOG_AS(caller, KEST_ERROR, error, "%s %s%s", what, folder.c_str(), name);
    return false;
}

// Others than accelerometers lack these files, and some have fewer axes.
Answer Accelerometer::Sensor::openAxes() {
    for (size_t i = 0; i < axes.size(); ++i) {
        const Answer answer = detail::openAttribute(folder + kAxes[i].raw, axes[i].raw);
        if (answer == Answer::Yes) continue;
        if (answer != Answer::No) fail("init", errno, "Unable to open", kAxes[i].raw);
        return answer;
    }
    return Answer::Yes;
}

// The first of the attributes that exists.
Answer Accelerometer::Sensor::readFirst(std::initializer_list<const char*> names,
                                        Attribute& found) const {
    Answer answer = Answer::No;
    for (const char* name : names) {
        found.name = name;
        answer = detail::readAttribute(folder + name, found.text);
        if (answer != Answer::No) break;
    }
    if (answer != Answer::Yes && answer != Answer::No) fail("init", errno, kUnreadable, found.name);
    return answer;
}

// Where none exists the number stays as it is.
bool Accelerometer::Sensor::readNumber(std::initializer_list<const char*> names, double above,
                                       double& number) const {
    Attribute found;
    const Answer answer = readFirst(names, found);
    if (answer != Answer::Yes) return answer == Answer::No;
    double value = 0;
    if (!detail::parseDecimal(found.text, value) || value <= above)
        return fail("init", 0, kUnexpected, found.name);
    number = value;
    return true;
}

// A driver has one value for each axis or one for all.
bool Accelerometer::Sensor::calibrate() {
    for (size_t i = 0; i < axes.size(); ++i) {
        if (!readNumber({kAxes[i].offset, "in_accel_offset"}, -HUGE_VAL, axes[i].offset) ||
            !readNumber({kAxes[i].scale, "in_accel_scale"}, 0, axes[i].scale))
            return false;
    }
    return true;
}

// "1, 0, 0; 0, 1, 0; 0, 0, 1": the rows of what turns the sensor's axes into the camera's.
bool Accelerometer::Sensor::readMatrix() {
    Attribute found;
    const Answer answer =
        readFirst({"in_accel_mount_matrix", "in_mount_matrix", "mount_matrix"}, found);
    if (answer != Answer::Yes) return answer == Answer::No;
    std::vector<std::string> numbers;
    tokenize(found.text, numbers, ",; ", true);
    bool valid = numbers.size() == 9;
    for (size_t i = 0; valid && i < 9; ++i)
        valid = detail::parseDecimal(numbers[i], matrix[i / 3][i % 3]);
    return valid || fail("init", 0, kUnexpected, found.name);
}

Answer Accelerometer::Sensor::read(Acceleration& acceleration) const {
    Vector sensed = {};
    // Numbers are short enough for the string's own room.
    std::string text;
    for (size_t i = 0; i < axes.size(); ++i) {
        const Answer answer = detail::readAttribute(axes[i].raw.get(), text);
        if (answer != Answer::Yes) {
            fail("read", errno, kUnreadable, kAxes[i].raw);
            return answer;
        }
        double raw = 0;
        if (!detail::parseDecimal(text, raw)) {
            fail("read", 0, kUnexpected, kAxes[i].raw);
            return Answer::Failed;
        }
        sensed[i] = (raw + axes[i].offset) * axes[i].scale;
    }
    acceleration = {dot(matrix[0], sensed), dot(matrix[1], sensed), dot(matrix[2], sensed)};
    return Answer::Yes;
}

Accelerometer::Accelerometer() = default;
Accelerometer::~Accelerometer() = default;

bool Accelerometer::init() {
    sensor_.reset();
    std::vector<std::string> names;
    const Answer listed = detail::listDevices(kDevices, "iio:device", names);
    if (listed == Answer::Failed) KEST_LOG(KEST_ERROR, errno, "Unable to open %s", kDevices);
    if (listed != Answer::Yes) return listed == Answer::No;
    for (const std::string& name : names) {
        auto sensor = std::make_unique<Sensor>(name);
        const Answer answer = sensor->openAxes();
        if (answer == Answer::No) continue;
        if (answer != Answer::Yes || !sensor->calibrate() || !sensor->readMatrix()) return false;
        sensor_ = std::move(sensor);
        break;
    }
    return true;
}

bool Accelerometer::present() const {
    return sensor_ != nullptr;
}

bool Accelerometer::read(Acceleration& acceleration) {
    if (!present()) return false;
    const Answer answer = sensor_->read(acceleration);
    // Unplugged: not worth a log line at every reading.
    if (answer == Answer::No) sensor_.reset();
    return answer == Answer::Yes;
}

bool Accelerometer::orientation(Orientation& orientation) {
    Acceleration acceleration;
    if (!read(acceleration)) return false;
    orientation = orientationOf(acceleration, orientation);
    return true;
}

Orientation Accelerometer::orientationOf(const Acceleration& acceleration, Orientation previous) {
    const Vector sensed = {acceleration.x, acceleration.y, acceleration.z};
    const double strength = std::sqrt(dot(sensed, sensed));
    // The way round that is true of NaN, too.
    if (!(std::abs(strength - kGravity) <= kShaken * kGravity)) return previous;
    Direction nearest = kDirections[0];
    for (const Direction& direction : kDirections) {
        const double along = dot(sensed, direction.up);
        if (direction.orientation == previous && along >= kKeep * strength) return previous;
        if (along > dot(sensed, nearest.up)) nearest = direction;
    }
    return nearest.orientation;
}

}  // namespace kest::utils
