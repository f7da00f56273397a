#include <gtest/gtest.h>

#include "lib/base/lanes.h"

using namespace morvane;

TEST(Lanes, ColumnsGoThereAndBack) {
    for (const int nx : {1, 2, 3, 4, 5, 7, 8, 9, 16, 33}) {
        for (const int count : {1, 3, 7, 8, 9, 15, 16}) {
            Array<cf, 2> columns({nx, count}), back({nx, count});
            Array<float, 3> lanes({lane_count, 2, nx});
            Array<float, 2> real({lane_count, nx}), rows({nx, count});
            lanes.fill(7.0f);
            for (int b = 0; b < count; ++b)
                for (int x = 0; x < nx; ++x) columns(x, b) = cf(static_cast<float>(100 * b + x), -0.5f);
            to_lanes(columns.view(), lanes);
            for (int x = 0; x < nx; ++x)
                for (int b = 0; b < lane_count; ++b) {
                    EXPECT_EQ(lanes(b, 0, x), b < count ? columns(x, b).real() : 0.0f) << nx << ' ' << count;
                    EXPECT_EQ(lanes(b, 1, x), b < count ? -0.5f : 0.0f) << nx << ' ' << count;
                    real(b, x) = lanes(b, 0, x);
                }
            from_lanes(lanes.view(), back.view());
            EXPECT_TRUE(std::ranges::equal(columns.flat(), back.flat())) << nx << ' ' << count;
            from_lanes(real.view(), rows.view());
            for (int b = 0; b < count; ++b)
                for (int x = 0; x < nx; ++x) EXPECT_EQ(rows(x, b), columns(x, b).real()) << nx << ' ' << count;
        }
    }
}
