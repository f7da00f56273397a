#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lib/base/fixed_format.h"

using namespace morvane;

TEST(FixedFormat, ColumnsAreFilledFromTheRightAndOverflowShowsAsAsterisks) {
    EXPECT_EQ(column_int(7, 4), "   7");
    EXPECT_EQ(column_int(-123, 4), "-123");
    EXPECT_EQ(column_int(12345, 4), "****");
    EXPECT_EQ(column_fixed(0.056, 6, 2), "  0.06");
    EXPECT_EQ(column_fixed(1234.5, 6, 2), "******");
    EXPECT_EQ(column_fixed(0.25, 7, 5), "0.25000");
    EXPECT_EQ(column_fixed(0.25, 3, 2), ".25");
    EXPECT_EQ(column_fixed(-0.25, 4, 2), "-.25");
}

TEST(FixedFormat, ScientificFormHasOneDigitBeforeThePoint) {
    EXPECT_EQ(column_exp(123.456, 15, 6), "   1.234560E+02");
    EXPECT_EQ(column_exp(-0.00123456, 12, 5, 'D'), "-1.23456D-03");
    EXPECT_EQ(column_exp(0.0, 10, 3, 'D'), " 0.000D+00");
    EXPECT_EQ(column_exp(1e-120, 12, 5, 'D'), " 1.00000-120");
    EXPECT_EQ(column_exp(std::nan(""), 7, 1), "*******");
    EXPECT_EQ(column_exp(std::numeric_limits<double>::infinity(), 7, 1), "*******");
    EXPECT_EQ(column_exp(1.0, 5, 3), "*****");
}

TEST(FixedFormat, ListLinesStartWithABlankAndPartNumbersFromText) {
    EXPECT_EQ(list_line({"N = ", 25LL, "    M = ", 5LL}), " N =           25     M =            5");
    EXPECT_EQ(list_line({"There are ", 3LL, "  breakpoints "}), " There are            3   breakpoints ");
    EXPECT_EQ(list_line({" F =", 0.5}), "  F = 0.50000000000000000");
    EXPECT_EQ(list_line({1e20}), " 1.0000000000000000E+20");
}

TEST(FixedFormat, ListedRealsHaveSeventeenDigitsAlsoJustBelowAPowerOfTen) {
    for (const auto& [value, text] : {std::pair(0.0, "0.0000000000000000"),
                                      {-0.1, "-0.10000000000000001"},
                                      {0.1 - 1e-17, "9.9999999999999992E-02"},
                                      {1 - 1e-16, "0.99999999999999989"},
                                      {1e5 - 1e-11, "99999.999999999985"},
                                      {-1e15 + 0.125, "-999999999999999.88"},
                                      {1e17 - 16, "99999999999999984."},
                                      {1e17, "1.0000000000000000E+17"}})
        EXPECT_EQ(list_line({value}), std::string(" ") + text);
}
