// Statistics and comparisons of samples.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "src/tools/qas/comparison.h"
#include "src/tools/qas/statistics.h"

using qastool::Comparison;
using qastool::Kind;
using qastool::Statistics;

namespace {

constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();
constexpr float infinite = std::numeric_limits<float>::infinity();

template <class T>
std::vector<char> bytes_of(const std::vector<T>& values) {
    std::vector<char> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

Comparison compared(Kind kind, const std::vector<float>& a, const std::vector<float>& b) {
    Comparison comparison;
    comparison.add(kind, bytes_of(a), kind, bytes_of(b));
    return comparison;
}

}  // namespace

TEST(Statistics, OfRealSamplesKeepSignsAndLeaveOutWhatIsNotFinite) {
    Statistics s;
    s.add(Kind::real, bytes_of<float>({-3, not_a_number, 0, 4}));
    s.add(Kind::real, bytes_of<float>({infinite, -0.0f, -infinite, -1}));
    EXPECT_EQ(statistics_text(s), "min=-3 max=4 mean=0 rms=2.28035085 zeros=2 nonfinite=3");  // rms^2 = 26/5
}

TEST(Statistics, OfOtherKinds) {
    const struct {
        Kind kind;
        std::vector<char> bytes;
        const char* text;
    } rows[] = {
        // the modulus counts; rms^2 = 26/3
        {Kind::complex, bytes_of<float>({-3, 4, 0, 0, 1, not_a_number, 0, -1}),
         "min=0 max=5 mean=2 rms=2.94392029 zeros=1 nonfinite=1"},
        {Kind::integer, bytes_of<std::int32_t>({-2147483647 - 1, 2147483647}),
         "min=-2.14748365e+09 max=2.14748365e+09 mean=-0.5 rms=2.14748365e+09 zeros=0 nonfinite=0"},
        {Kind::byte, bytes_of<unsigned char>({255, 0, 255}),  // bytes have no sign
         "min=0 max=255 mean=170 rms=208.206628 zeros=1 nonfinite=0"},
        {Kind::real, bytes_of<float>({not_a_number}), "min=none max=none mean=none rms=none zeros=0 nonfinite=1"},
    };
    for (const auto& row : rows) {
        Statistics s;
        s.add(row.kind, row.bytes);
        EXPECT_EQ(statistics_text(s), row.text);
    }
}

TEST(Statistics, SumsInDoublePrecisionAndOverPanels) {
    Statistics all;
    for (int i = 0; i < 2; ++i) {
        Statistics one;
        one.add(Kind::real, bytes_of(std::vector<float>(1000, 3e38f)));  // squares and sums beyond single precision
        one.add(Kind::real, bytes_of<float>({1}));
        all.add(one);
    }
    EXPECT_EQ(all.finite, 2002);
    EXPECT_NEAR(all.mean() / (3e38 * 2000 / 2002), 1, 1e-6);
    EXPECT_NEAR(all.rms() / (3e38 * std::sqrt(2000.0 / 2002)), 1, 1e-6);
    EXPECT_EQ(all.least, 1);
}

TEST(Comparison, MeasuresAgainstTheFirstAndFindsTheLargestDifference) {
    Comparison c;
    c.add(Kind::real, bytes_of<float>({3, 4}), Kind::real, bytes_of<float>({3, 4}));
    EXPECT_EQ(c.largest_at, -1);
    EXPECT_EQ(c.relative(), 0);
    c.add(Kind::real, bytes_of<float>({0, 12, 0}), Kind::real, bytes_of<float>({1, 10, -2}));
    EXPECT_DOUBLE_EQ(c.relative(), 3.0 / 13.0);
    EXPECT_EQ(c.largest, 2);
    EXPECT_EQ(c.largest_at, 3) << "the first of equal ones, counted over blocks";
    EXPECT_EQ(c.a, 12);
    EXPECT_EQ(c.b, 10);
}

TEST(Comparison, WithAFirstOfZerosIsInfinite) {
    EXPECT_EQ(compared(Kind::real, {0, 0}, {0, 1}).relative(), infinite);
    EXPECT_EQ(compared(Kind::real, {0, 0}, {0, -0.0f}).relative(), 0);
}

TEST(Comparison, TakesComplexSamplesTogether) {
    const Comparison c = compared(Kind::complex, {0, 0, 1, 1}, {0, 0, 4, 5});
    EXPECT_EQ(c.samples, 2);
    EXPECT_EQ(c.largest, 5);
    EXPECT_EQ(c.largest_at, 1);
    EXPECT_DOUBLE_EQ(c.relative(), 5 / std::sqrt(2.0));
}

TEST(Comparison, OfWhatIsNotFinite) {
    const std::vector<float> any{not_a_number, infinite, -infinite, 1};
    EXPECT_EQ(compared(Kind::real, any, any).clashes, 0);
    for (const auto& [a, b] : {std::pair<float, float>{not_a_number, 1.0f},
                               {1.0f, not_a_number},
                               {infinite, -infinite},
                               {infinite, not_a_number},
                               {1.0f, infinite}}) {
        const Comparison c = compared(Kind::real, {0, a, 2}, {0, b, 2});
        EXPECT_EQ(c.clashes, 1) << a << " " << b;
        EXPECT_EQ(c.first_clash, 1);
        EXPECT_EQ(c.relative(), 0) << "it enters no sum";
    }
    EXPECT_EQ(compared(Kind::complex, {not_a_number, 1}, {not_a_number, 2}).clashes, 1);
}

TEST(Position, NamesTheAxesThatAreGiven) {
    const std::vector<qastool::GridAxis> axes{{4, 1, 0, true, ""}, {}, {5, 1, 0, true, ""}};
    EXPECT_EQ(qastool::position_text(axes, 0), "f1=0 f3=0");
    EXPECT_EQ(qastool::position_text(axes, 11), "f1=3 f3=2");
}
