#include <kest/utils/color.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kest::utils::color {
namespace {

// Divisions by zero and overflows end in infinity here, and are meant to.
static_assert(std::numeric_limits<double>::is_iec559);

constexpr double kDegreesPerRadian = 57.29577951308232;
constexpr double kRadiansPerDegree = 0.017453292519943295;

constexpr XYZ kWhite = {95.047, 100.0, 108.883};

uint8_t component(double value) {
    return static_cast<uint8_t>(std::clamp(static_cast<int>(value), 0, 255));
}

double linearize(double component) {
    const double c = component / 255.0;
    return 100 * (c > 0.04045 ? std::pow((c + 0.055) / 1.055, 2.4) : c / 12.92);
}

using LinearValues = std::array<double, 256>;

LinearValues linearizeAll() {
    LinearValues values = {};
    for (size_t c = 0; c < values.size(); ++c)
        values[c] = linearize(static_cast<double>(c));
    return values;
}

double compress(double t) {
    return t > 0.008856 ? std::cbrt(t) : 7.787 * t + 16.0 / 116;
}

// The rest is CIE 142-2001, with its hues as directions in the chroma plane: bisecting and
// multiplying angles takes products and roots there, where hues in degrees take an arc tangent for
// each colour and a cosine for each of the four waves of T.

struct Direction {
    double cos;
    double sin;
};

// A colour in the chroma plane, a corrected by G.
struct Chromatic {
    double a;
    double b;
    double chroma;
};

double length(double x, double y) {
    return std::sqrt(x * x + y * y);
}

// sqrt(C^7 / (C^7 + 25^7)), from 0 to 1, in a form that no C turns into NaN.
double saturation(double chroma) {
    const double q = 25 / chroma;
    const double q2 = q * q;
    return std::sqrt(1 / (1 + q2 * q2 * q2 * q));
}

// Beyond this all that counts is the ratio of the four coordinates, and their products overflow.
constexpr double kLargestChroma = 1e60;

double chromaScale(const Lab& first, const Lab& second) {
    const double largest = std::max(
        {std::fabs(first.a), std::fabs(first.b), std::fabs(second.a), std::fabs(second.b)});
    return largest > kLargestChroma ? kLargestChroma / largest : 1;
}

// The hue of `color` is below 180 degrees.
bool inUpperHalf(const Chromatic& color) {
    return color.b > 0 || (color.b == 0 && color.a > 0);
}

// The two hues with all that the formula asks about them.
struct Hues {
    double difference;  // delta H'
    Direction mean;
};

// `cross` and `dot` are the products of the two colours, seen as vectors. Whatever cancels in a
// narrow angle does not in a wide one and the other way round, hence two ways for either result.
Hues compareHues(const Chromatic& first, const Chromatic& second, double cross) {
    const double product = first.chroma * second.chroma;
    const double dot = first.a * second.a + first.b * second.b;
    // Both at one length, so that they count alike in their sum.
    const Direction one = {first.a * second.chroma, first.b * second.chroma};
    const Direction two = {second.a * first.chroma, second.b * first.chroma};
    Hues hues = {};
    if (dot >= 0) {
        hues.difference = cross * std::sqrt(2 / (product + dot));
        hues.mean = {one.cos + two.cos, one.sin + two.sin};
    } else {
        // Exactly opposite hues count as the difference of their degrees: no 360 is taken off.
        const double turn = cross > 0 || (cross == 0 && inUpperHalf(first)) ? 1 : -1;
        hues.difference = turn * std::sqrt(2 * (product - dot));
        hues.mean = {turn * (two.sin - one.sin), turn * (one.cos - two.cos)};
    }
    const double size = length(hues.mean.cos, hues.mean.sin);
    hues.mean = {hues.mean.cos / size, hues.mean.sin / size};
    return hues;
}

// T
double hueWeight(const Direction& hue) {
    constexpr Direction k30 = {0.8660254037844387, 0.5};
    constexpr Direction k6 = {0.9945218953682733, 0.10452846326765347};
    constexpr Direction k63 = {0.45399049973954675, 0.8910065241883679};
    const Direction twice = {2 * hue.cos * hue.cos - 1, 2 * hue.cos * hue.sin};
    const Direction thrice = {hue.cos * twice.cos - hue.sin * twice.sin,
                              hue.sin * twice.cos + hue.cos * twice.sin};
    const Direction fourfold = {2 * twice.cos * twice.cos - 1, 2 * twice.cos * twice.sin};
    return 1 - 0.17 * (hue.cos * k30.cos + hue.sin * k30.sin) + 0.24 * twice.cos +
           0.32 * (thrice.cos * k6.cos - thrice.sin * k6.sin) -
           0.20 * (fourfold.cos * k63.cos + fourfold.sin * k63.sin);
}

// R_T
double rotation(const Direction& hue, double chroma) {
    // From 0 to 125 degrees exp(-36) or less is left of it: nothing, in double precision. Just
    // below 360 there is something; the mean of h and 360 - h is 0, and rounding must not take it
    // there.
    constexpr double kCos125 = -0.573576436351046;
    constexpr double kRounding = 1e-15;
    if (hue.sin > -kRounding && hue.cos > kCos125) return 0;
    double degrees = std::atan2(hue.sin, hue.cos) * kDegreesPerRadian;
    if (degrees < 0) degrees += 360;
    const double distance = (degrees - 275) / 25;
    const double turn = 30 * std::exp(-distance * distance);
    return -std::sin(2 * turn * kRadiansPerDegree) * 2 * saturation(chroma);
}

// S_L
double lightnessWeight(double first, double second) {
    const double x = std::fabs(first / 2 + second / 2 - 50);
    // The square would overflow in the end; it outweighs the 20 long before.
    return 1 + 0.015 * (x > 1e8 ? x : x * x / std::sqrt(20 + x * x));
}

Lab toLab(const YUV& pixel) {
    return XYZ_to_Lab(RGB_to_XYZ(YUV_to_RGB(pixel)));
}

}  // namespace

RGB YUV_to_RGB(const YUV& pixel) {
    const int u = pixel.u - 128;
    const int v = pixel.v - 128;
    return {component(pixel.y + 1.4075 * v), component(pixel.y - 0.3455 * u - 0.7169 * v),
            component(pixel.y + 1.779 * u)};
}

XYZ RGB_to_XYZ(const RGB& color) {
    static const LinearValues linear = linearizeAll();
    const double r = linear[color.r];
    const double g = linear[color.g];
    const double b = linear[color.b];
    return {0.4124564 * r + 0.3575761 * g + 0.1804375 * b,
            0.2126729 * r + 0.7151522 * g + 0.072175 * b,
            0.0193339 * r + 0.119192 * g + 0.9503041 * b};
}

Lab XYZ_to_Lab(const XYZ& color) {
    const double x = compress(color.x / kWhite.x);
    const double y = compress(color.y / kWhite.y);
    const double z = compress(color.z / kWhite.z);
    return {116 * y - 16, 500 * (x - y), 200 * (y - z)};
}

template <>
double diff_ciede2000<Lab>(const Lab& first, const Lab& second) {
    const double scale = chromaScale(first, second);
    const double a1 = first.a * scale;
    const double b1 = first.b * scale;
    const double a2 = second.a * scale;
    const double b2 = second.b * scale;
    // 1 + G
    const double stretch = 1.5 - 0.5 * saturation((length(a1, b1) + length(a2, b2)) / 2);
    const Chromatic one = {a1 * stretch, b1, length(a1 * stretch, b1)};
    const Chromatic two = {a2 * stretch, b2, length(a2 * stretch, b2)};
    const double chroma = (one.chroma + two.chroma) / 2;
    const double l = (second.L - first.L) / lightnessWeight(first.L, second.L);
    const double c = (two.chroma - one.chroma) / (1 + 0.045 * chroma);
    // A grey has no hue. What is this close to grey has none that could be seen, and squares that
    // vanish in underflow.
    constexpr double kGrey = 1e-100;
    if (one.chroma * two.chroma < kGrey) return std::sqrt(l * l + c * c);
    // Of the coordinates as given: exactly 0 for exactly opposite hues.
    const Hues hues = compareHues(one, two, (a1 * b2 - a2 * b1) * stretch);
    const double h = hues.difference / (1 + 0.015 * chroma * hueWeight(hues.mean));
    return std::sqrt(l * l + c * c + h * h + rotation(hues.mean, chroma) * c * h);
}

template <>
double diff_ciede2000<YUV>(const YUV& first, const YUV& second) {
    return diff_ciede2000(toLab(first), toLab(second));
}

}  // namespace kest::utils::color
