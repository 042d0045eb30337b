#include <gtest/gtest.h>
#include <kest/utils/color.h>

#include <cfloat>
#include <cmath>

namespace {

using namespace kest::utils::color;

TEST(ColorTest, PixelsReachLab) {
    const short cases[][6] = {{16, 128, 128, 16, 16, 16},
                              {255, 255, 255, 255, 120, 255},
                              {100, 128, 100, 60, 120, 100},
                              {-32768, 32767, -32768, 0, 0, 255}};
    for (const auto& each : cases) {
        const RGB rgb = YUV_to_RGB({each[0], each[1], each[2]});
        EXPECT_TRUE(rgb.r == each[3] && rgb.g == each[4] && rgb.b == each[5]) << each[0];
    }
    const XYZ white = RGB_to_XYZ({255, 255, 255});
    EXPECT_NEAR(0, std::hypot(white.x - 95.047, white.y - 100, white.z - 108.883), 1e-4);
    const Lab red = XYZ_to_Lab(RGB_to_XYZ({255, 0, 0}));
    EXPECT_NEAR(0, std::hypot(red.L - 53.2408, red.a - 80.0925, red.b - 67.2032), 1e-3);
    EXPECT_NEAR(2.7417, XYZ_to_Lab(RGB_to_XYZ({10, 10, 10})).L, 1e-3);  // both curves' linear part
}

constexpr double kPairs[34][7] = {
#include "support/ciede2000_pairs.inc"
};

TEST(ColorTest, DifferencesOfThePublishedPairs) {
    for (const auto& p : kPairs) {
        const Lab first = {p[0], p[1], p[2]}, second = {p[3], p[4], p[5]};
        EXPECT_NEAR(p[6], diff_ciede2000(first, second), 0.5e-4) << &p - kPairs + 1;
        EXPECT_EQ(diff_ciede2000(second, first), diff_ciede2000(first, second));
        EXPECT_EQ(0, diff_ciede2000(first, first));
    }
    // The mean of hues that lie alike on both sides of 0 is 0, not 360.
    EXPECT_NEAR(40.90830, diff_ciede2000<Lab>({40, 7, -14}, {55, 35, 70}), 1e-5);
    EXPECT_NEAR(100, diff_ciede2000<YUV>({255, 128, 128}, {0, 128, 128}), 1e-4);
}

TEST(ColorTest, NoFiniteColoursDifferByNaN) {
    constexpr double values[] = {0, -DBL_TRUE_MIN, 1e-60, -50, 1e50, -1e154, DBL_MAX, -DBL_MAX};
    Lab each[2];
    double* const fields[] = {&each[0].L, &each[0].a, &each[0].b,
                              &each[1].L, &each[1].a, &each[1].b};
    for (int code = 0; code < 1 << 18; ++code) {
        int digits = code;
        for (double* field : fields)
            *field = values[digits % 8], digits /= 8;
        const double difference = diff_ciede2000(each[0], each[1]);
        ASSERT_TRUE(difference >= 0) << code;
        ASSERT_EQ(difference, diff_ciede2000(each[1], each[0])) << code;
        ASSERT_EQ(0, diff_ciede2000(each[0], each[0])) << code;
    }
}

// Where the chroma is that large only ratios count.
TEST(ColorTest, LargestCoordinatesDifferAsLargeOnesDo) {
    const double large = diff_ciede2000<Lab>({50, 3e20, 1e20}, {50, -1e20, 2e20});
    EXPECT_NEAR(1, diff_ciede2000<Lab>({50, 3e305, 1e305}, {50, -1e305, 2e305}) / large, 1e-12);
    EXPECT_NEAR(1 / 0.015, diff_ciede2000<Lab>({1e200, 0, 0}, {1e200 * 1.5, 0, 0}) / 0.4, 1e-9);
}

}  // namespace
