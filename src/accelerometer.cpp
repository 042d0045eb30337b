#include <kest/utils/accelerometer.h>

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include <kest/utils/string_utils.h>

#include "c_path.h"
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

bool refuse(const std::string& path) {
    KEST_LOG_AS("init", KEST_ERROR, 0, "Unexpected content of %s", path.c_str());
    return false;
}

Answer readLogged(const char* caller, const std::string& path, int fd, std::string& value) {
    const Answer answer =
        fd < 0 ? detail::readAttribute(path, value) : detail::readAttribute(fd, value);
    if (answer == Answer::Failed || (answer == Answer::No && fd >= 0))
        KEST_LOG_AS(caller, KEST_ERROR, errno, "Unable to read %s", path.c_str());
    return answer;
}

// The first of the paths that exists.
Answer readFirst(const std::vector<std::string>& paths, std::string& path, std::string& value) {
    for (const std::string& candidate : paths) {
        path = candidate;
        const Answer answer = readLogged("init", path, -1, value);
        if (answer != Answer::No) return answer;
    }
    return Answer::No;
}

}  // namespace

struct Accelerometer::Sensor {
    struct Axis {
        std::string path;
        detail::UniqueFd raw;
        double offset = 0;
        double scale = 1;
    };
    std::array<Axis, 3> axes;
    std::array<Vector, 3> matrix = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

    Answer openAxes(const std::string& folder);
    bool calibrate(const std::string& folder);
    bool readMatrix(const std::string& folder);
    Answer read(Acceleration& acceleration);
};

// Others than accelerometers lack these files, and some have fewer axes.
Answer Accelerometer::Sensor::openAxes(const std::string& folder) {
    const char* name = "xyz";
    for (Axis& axis : axes) {
        axis.path = folder + "/in_accel_" + *name++ + "_raw";
        axis.raw.reset(open(axis.path.c_str(), O_RDONLY | detail::kSafeOpen));
        if (axis.raw.valid()) continue;
        if (errno == ENOENT || errno == ENODEV || errno == ENXIO) return Answer::No;
        KEST_LOG_AS("init", KEST_ERROR, errno, "Unable to open %s", axis.path.c_str());
        return Answer::Failed;
    }
    return Answer::Yes;
}

// A driver has one value for each axis or one for all; what is missing leaves the numbers alone.
bool Accelerometer::Sensor::calibrate(const std::string& folder) {
    const char* name = "xyz";
    for (Axis& axis : axes) {
        const std::string own = folder + "/in_accel_" + *name++;
        const std::string all = folder + "/in_accel";
        for (const auto& [suffix, number] :
             {std::pair{"_offset", &axis.offset}, std::pair{"_scale", &axis.scale}}) {
            std::string path;
            std::string text;
            const Answer answer = readFirst({own + suffix, all + suffix}, path, text);
            if (answer == Answer::Failed) return false;
            if (answer == Answer::No) continue;
            const bool parsed = detail::parseDecimal(text, *number);
            if (!parsed || !(axis.scale > 0)) return refuse(path);
        }
    }
    return true;
}

// "1, 0, 0; 0, 1, 0; 0, 0, 1": the rows of what turns the sensor's axes into the camera's.
bool Accelerometer::Sensor::readMatrix(const std::string& folder) {
    std::string path;
    std::string text;
    const Answer answer = readFirst(
        {folder + "/in_accel_mount_matrix", folder + "/in_mount_matrix", folder + "/mount_matrix"},
        path, text);
    if (answer != Answer::Yes) return answer == Answer::No;
    std::vector<std::string> numbers;
    tokenize(text, numbers, ",; ", true);
    bool valid = numbers.size() == 9;
    for (size_t i = 0; valid && i < 9; ++i) {
        valid = detail::parseDecimal(numbers[i], matrix[i / 3][i % 3]);
    }
    return valid || refuse(path);
}

Answer Accelerometer::Sensor::read(Acceleration& acceleration) {
    Vector sensed = {};
    // Numbers are short enough for the string's own room.
    std::string text;
    for (size_t i = 0; i < 3; ++i) {
        Axis& axis = axes[i];
        const Answer answer = readLogged("read", axis.path, axis.raw.get(), text);
        if (answer != Answer::Yes) return answer;
        double raw = 0;
        if (!detail::parseDecimal(text, raw)) {
            KEST_LOG(KEST_ERROR, 0, "Unexpected content of %s", axis.path.c_str());
            return Answer::Failed;
        }
        sensed[i] = (raw + axis.offset) * axis.scale;
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
        const std::string folder = kDevices + ("/" + name);
        auto sensor = std::make_unique<Sensor>();
        const Answer answer = sensor->openAxes(folder);
        if (answer == Answer::No) continue;
        if (answer == Answer::Failed || !sensor->calibrate(folder) || !sensor->readMatrix(folder))
            return false;
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
