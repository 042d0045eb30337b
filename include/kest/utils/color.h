/// @file
/// Colour arithmetic: a YUV pixel as RGB, RGB as CIE XYZ, XYZ as CIE L*a*b*, and how different two
/// colours look.
///
/// Pure functions in double precision: they may be called from any thread, allocate nothing and
/// log nothing.
///
/// @code
///     using namespace kest::utils::color;
///     const bool lensCovered = diff_ciede2000(averageNow, averageBefore) > 20;
/// @endcode
#pragma once

#include <cstdint>

#include <kest/utils/api.h>

namespace kest::utils::color {

/// Full-range luma and chroma, chroma centred on 128. Values outside of 0 to 255 are computed with
/// like any other.
struct YUV {
    int16_t y;  ///< luma
    int16_t u;  ///< chroma, blue less luma
    int16_t v;  ///< chroma, red less luma
};

/// sRGB components (IEC 61966-2-1), 0 to 255.
struct RGB {
    uint8_t r;  ///< red
    uint8_t g;  ///< green
    uint8_t b;  ///< blue
};

/// Tristimulus values of the CIE 1931 standard observer (2 degrees), scaled so that white has
/// y = 100.
struct XYZ {
    double x;  ///< X
    double y;  ///< Y: luminance
    double z;  ///< Z
};

/// CIE 1976 L*a*b*: lightness from 0 (black) to 100 (white), and the axes from green to red and
/// from blue to yellow.
struct Lab {
    double L;  ///< lightness
    double a;  ///< green (negative) to red
    double b;  ///< blue (negative) to yellow
};

/// The colour of a pixel; components are cut to integers, then limited to 0 to 255. The factors
/// are those of ITU-R BT.601 (R - Y = 1.4 V, B - Y = 1.77 U), as the camera's image processor
/// rounds them.
KEST_API RGB YUV_to_RGB(const YUV& pixel);

/// The tristimulus values of an sRGB colour (IEC 61966-2-1; white point D65).
KEST_API XYZ RGB_to_XYZ(const RGB& color);

/// L*a*b* relative to the white point D65, 2 degrees: 95.047, 100, 108.883 (CIE 15, section 8.2.1).
KEST_API Lab XYZ_to_Lab(const XYZ& color);

/// The colour difference of CIE 142-2001 (CIEDE2000), all three weighting factors 1. About 1 is
/// just noticeable, black and white are 100 apart.
///
/// 0 for equal colours and the same in both directions. Every pair of finite values has a result
/// that is a number; where lightnesses are more than 1e154 apart it may be infinite.
///
/// Exists for Lab, and for YUV, which is converted first by the functions above.
template <typename Color>
double diff_ciede2000(const Color& first, const Color& second) = delete;

/// Of two L*a*b* colours.
template <>
KEST_API double diff_ciede2000<Lab>(const Lab& first, const Lab& second);

/// Of two pixels.
template <>
KEST_API double diff_ciede2000<YUV>(const YUV& first, const YUV& second);

}  // namespace kest::utils::color
