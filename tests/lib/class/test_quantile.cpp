#include <gtest/gtest.h>

#include <vector>

#include "lib/class/quantile_mod.h"

using namespace morvane;

TEST(Quantile, CountsFromOneAndKeepsTheOrder) {
    const std::vector<float> a{5, -1, 3, 3, 8};
    const std::vector<float> sorted{-1, 3, 3, 5, 8};
    for (std::size_t k = 1; k <= a.size(); ++k)
        EXPECT_EQ(quantile(static_cast<std::ptrdiff_t>(k), a), sorted[k - 1]) << k;
    EXPECT_EQ(quantile(0, a), -1) << "an index below the first";
    EXPECT_EQ(quantile(6, a), 8) << "an index beyond the last";
    EXPECT_EQ(a, (std::vector<float>{5, -1, 3, 3, 8})) << "the vector itself";
}
