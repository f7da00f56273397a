#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "src/areal/wemva/image/triang.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

using testing::FloatNear;
using testing::Pointwise;

/// Weight of a triangle of r samples at a distance from its middle: 1/h there, falling to 0 in steps of 2 / (r-1) / h.
double tent(int r, int distance) {
    const int h = r / 2;
    if (r < 2) return distance == 0;
    const int position = distance + h;  // from 0; beyond r-1 there is none
    if (position < 0 || position >= r) return 0;
    const double rise = 2.0 * position / (r - 1), fall = 1 - 2.0 * distance / (r - 1);
    return (distance < 0 ? rise : fall) / h;
}

}  // namespace

TEST(Triangle3, WeightedSumsClippedAtTheEnds) {
    struct Case {
        const char* fault;
        int rect1, rect2, n1, n2;
    };
    for (const Case& c : {
             Case{"axes or lengths exchanged", 5, 9, 20, 14},
             Case{"window longer than the line", 25, 15, 6, 7},
             Case{"even lengths", 4, 6, 12, 9},
             Case{"no smoothing", 1, 1, 5, 4},
             Case{"two", 2, 2, 5, 4},
             Case{"one sample", 7, 5, 1, 1},
         }) {
        SCOPED_TRACE(c.fault);
        const auto n1 = static_cast<std::size_t>(c.n1);
        std::vector<float> u = random_vector<float>(n1 * static_cast<std::size_t>(c.n2), 3), v(u.size(), 9.0f);
        triangle3(c.rect1, c.rect2, c.n1, c.n2, u, v);
        for (int i2 = 0; i2 < c.n2; ++i2)
            for (int i1 = 0; i1 < c.n1; ++i1) {
                double expected = 0;
                for (int k2 = 0; k2 < c.n2; ++k2)
                    for (int k1 = 0; k1 < c.n1; ++k1)
                        expected += tent(c.rect1, k2 - i2) * tent(c.rect2, k1 - i1) *
                                    u[static_cast<std::size_t>(k2) * n1 + static_cast<std::size_t>(k1)];
                EXPECT_NEAR(v[static_cast<std::size_t>(i2) * n1 + static_cast<std::size_t>(i1)], expected, 2e-6);
            }
        triangle3(c.rect1, c.rect2, c.n1, c.n2, u, u);
        EXPECT_EQ(u, v) << "in place";
    }
}

TEST(Triangle, TwoBoxesFoldedAtTheEnds) {
    for (const int nr : {2, 3, 5, 8, 11, 40}) {
        SCOPED_TRACE(nr);
        const int n = 10, used = std::min(nr, n + 1);
        std::vector<float> u = random_vector<float>(static_cast<std::size_t>(n), 4), v(u.size());
        triangle(nr, 1, n, u, v);
        for (int i = 0; i < n; ++i) {
            double expected = 0;
            for (int k = 0; k < n; ++k) {
                // the sample and its images in the edges, which lie half a sample outside
                for (const int from : {k, -1 - k, 2 * n - 1 - k}) {
                    const int distance = std::abs(from - i);
                    if (distance < used)
                        expected += static_cast<double>(used - distance) / used / used * u[static_cast<std::size_t>(k)];
                }
            }
            EXPECT_NEAR(v[static_cast<std::size_t>(i)], expected, 1e-5) << i;
        }
        std::vector<float> constant(u.size(), 3.0f);
        triangle(nr, 1, n, constant, v);
        EXPECT_THAT(v, testing::Each(FloatNear(3.0f, 1e-5f))) << "the fold keeps the sum";
    }
    std::vector<float> u{1, 7, 2, 7, 3}, v{0, 9, 0, 9, 0};
    triangle(1, 2, 3, u, v);
    EXPECT_EQ(v, (std::vector<float>{1, 9, 2, 9, 3})) << "identity, every second sample";
}

TEST(Triangle2, SmoothsBothAxes) {
    const std::size_t n1 = 8, n2 = 6;
    std::vector<float> u = random_vector<float>(n1 * n2, 5), v(u.size()), expected = u;
    for (std::size_t i2 = 0; i2 < n2; ++i2)
        triangle(3, 1, 8, std::span(expected).subspan(i2 * n1, n1), std::span(expected).subspan(i2 * n1, n1));
    for (std::size_t i1 = 0; i1 < n1; ++i1)
        triangle(5, 8, 6, std::span(expected).subspan(i1), std::span(expected).subspan(i1));
    testing::internal::CaptureStdout();
    triangle2(3, 5, 8, 6, u, v);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "           3           5           8           6\n");
    EXPECT_EQ(v, expected);
}
