#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "lib/class/filters_mod.h"
#include "lib/class/helix/lapfac.h"
#include "lib/class/helix/polydiv.h"
#include "lib/class/interp_new.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

using testing::FloatNear;
using testing::Pointwise;

FilterChoice steering(int lags, bool triangle) {
    return {0.0f, 0.999f, 0, lags, 1.25f, triangle};
}

constexpr int nz = 400, nx = 60, middle = 250;

/// Dips of the panel from a function of the column, and plane layers of a slope in samples per column.
std::vector<float> dips(const auto& dip_of_column) {
    std::vector<float> angle;
    for (int ix = 0; ix < nx; ++ix) angle.insert(angle.end(), nz, static_cast<float>(dip_of_column(ix)));
    return angle;
}

/// How much polynomial division strengthens layers at depths that a function of the column gives, around mid-depth in
/// columns 45 to 59.
double gain(const Filter& filt, const auto& depth_of_column) {
    std::vector<float> layers, out(nz * nx);
    for (int ix = 0; ix < nx; ++ix)
        for (int iz = 0; iz < nz; ++iz)
            layers.push_back(static_cast<float>(std::cos(2 * std::numbers::pi / 24 * (iz - depth_of_column(ix)))));
    polydiv_lop(filt, false, false, layers, out);
    double before = 0, after = 0;
    for (std::size_t ix = 45; ix < nx; ++ix)
        for (std::size_t iz = middle - 24; iz < middle + 24; ++iz) {
            before += layers[ix * nz + iz] * layers[ix * nz + iz];
            after += out[ix * nz + iz] * out[ix * nz + iz];
        }
    return std::sqrt(after / before);
}

double slope(double degrees) {
    return std::tan(degrees * std::numbers::pi / 180);
}

}  // namespace

TEST(Filters, RefusesBadChoicesInOrder) {
    struct Case {
        const char* text;
        FilterChoice choice;
    };
    for (const Case& c : {
             Case{"laplacian scale + steering scale must be < 1.\n", {0.4f, 0.6f, 0, 0, 1, false}},
             Case{"must supply lapacian lags if lapacian_scale > 0\n", {0.1f, 0.5f, 0, 0, 1, false}},
             Case{"must supply steering lags if steering_scale > 0\n", {0, 0.5f, 4, 0, 1, false}},
             Case{"must specify steering and/or laplacian\n", {0, 0, 0, 0, 1, false}},
             Case{"number of lags in the laplacian > 3\n", {0.1f, 0.5f, 2, 2, 1, false}},
             Case{"must have even number of coefficients laplacian lags\n", {0.1f, 0.5f, 5, 2, 1, false}},
             Case{"accepted", {0.1f, 0.5f, 4, 2, 1, false}},
         })
        EXPECT_EQ(refusal([&] { init_filters(c.choice); }), c.text);
}

TEST(LgInt, WeightsAtAndBetweenNodes) {
    std::vector<float> w(4);
    lg_int(3.0f, w);
    EXPECT_EQ(w, (std::vector<float>{0, 0, 1, 0}));
    lg_int(2.5f, w);
    EXPECT_THAT(w, Pointwise(FloatNear(1e-6f), std::vector<float>{-1.0f / 16, 9.0f / 16, 9.0f / 16, -1.0f / 16}));
    std::vector<float> one(1);
    lg_int(7.0f, one);
    EXPECT_EQ(one[0], 1.0f) << "an empty product";
}

TEST(BuildSteering, LagsAndCoefficientsByHand) {
    constexpr int column = 100;
    const float dip = static_cast<float>(std::atan(0.4) * 180 / std::numbers::pi);
    struct Case {
        const char* fault;
        FilterChoice choice;
        float angle;
        std::vector<int> lags;
        std::vector<float> coef;
    };
    for (const Case& c : {
             // triangle around p = 0.4: 1 - 1.4 / 1.25 < 0, 1 - 0.4 / 1.25, 1 - 0.6 / 1.25
             Case{"triangle", steering(3, true), dip, {99, 100, 101}, {0, -0.68f / 1.2f, -0.52f / 1.2f}},
             // p = -0.4: floor -1
             Case{"triangle, negative", steering(3, true), -dip, {98, 99, 100}, {0, -0.52f / 1.2f, -0.68f / 1.2f}},
             // position 1.4 of nodes 1, 2, 3: 0.6 * 1.6 / 2, 0.4 * 1.6, negative
             Case{"Lagrange", steering(3, false), dip, {99, 100, 101}, {-0.48f / 1.12f, -0.64f / 1.12f, 0}},
             Case{"Lagrange, mirrored", steering(3, false), -dip, {98, 99, 100}, {0, -0.64f / 1.12f, -0.48f / 1.12f}},
             // position 0.4 of nodes 1, 2: 1.6, and a negative one clipped
             Case{"two lags", steering(2, false), dip, {100, 101}, {-1, 0}},
             Case{"two lags, mirrored", steering(2, false), -dip, {99, 100}, {0, -1}},
             Case{"flat", steering(2, false), 0, {100, 101}, {-1, 0}},
             Case{"steep", steering(3, false), 89.5f, {1, 101, 101}, {-1 / 1.2f, -0.2f / 1.2f, 0}},
             Case{"vertical", steering(3, false), 90, {1, 101, 101}, {-1 / 1.2f, -0.2f / 1.2f, 0}},
             Case{"vertical, negative", steering(3, false), -90, {1, 101, 101}, {-1 / 1.2f, -0.2f / 1.2f, 0}},
             Case{"lags that would not be positive", steering(2, true), -89.5f, {1, 101}, {-1 / 1.2f, -0.2f / 1.2f}},
             Case{"steep and negative with positive lags", steering(1, true), -89, {42}, {-1}},
             Case{"steep with a single lag", steering(1, false), 90, {1}, {-1}},
         }) {
        SCOPED_TRACE(c.fault);
        std::vector<int> lags(c.lags.size());
        std::vector<float> coef(c.lags.size());
        build_steering(c.choice, 1, column, c.angle, lags, coef);
        EXPECT_EQ(lags, c.lags);
        EXPECT_THAT(coef, Pointwise(FloatNear(2e-6f), c.coef));
    }
}

TEST(BuildSteering, RefusesAnglesAndArrays) {
    std::vector<int> lags(3);
    std::vector<float> coef(3);
    const auto at = [&](float angle, std::size_t nlags, std::size_t ncoef, float half_width) {
        FilterChoice choice = steering(3, true);
        choice.half_width = half_width;
        return refusal(
            [&] { build_steering(choice, 1, 100, angle, std::span(lags).first(nlags), std::span(coef).first(ncoef)); });
    };
    EXPECT_EQ(at(90.5f, 3, 3, 1), "angle must be less than 90\n");
    EXPECT_EQ(at(-90.5f, 3, 3, 1), "angles must be greater than -90.\n");
    EXPECT_EQ(at(0, 2, 3, 1), "steering lags to small\n");
    EXPECT_EQ(at(0, 3, 2, 1), "steering coeficients to small\n");
    EXPECT_THAT(at(26.565f, 3, 3, 0.25f), testing::HasSubstr("tri_width"));
}

TEST(NewSteering, PassesLayersOfItsOwnDipOnly) {
    for (const int degrees : {-60, -45, -30, -10, 0, 10, 30, 45, 60}) {
        SCOPED_TRACE(degrees);
        const Filter filt = new_steering(steering(4, true), {nz, nx}, {1, 1}, dips([&](int) { return degrees; }));
        const auto passed = [&](double dip) { return gain(filt, [&](int ix) { return slope(dip) * ix; }); };
        const double own = passed(degrees);
        EXPECT_GT(own, 15);
        for (const int other : {-60, -30, 0, 30, 60}) {
            if (std::abs(other - degrees) >= 30) {
                EXPECT_GT(own, 3 * passed(other)) << other;
            }
        }
    }
}

TEST(NewSteering, LagrangeWeightsFollowWholeDips) {
    // two lags: the dip cut to a whole number of samples
    const Filter filt = new_steering(steering(2, false), {nz, nx}, {1, 1}, dips([](int) { return 60; }));
    const auto passed = [&](double p) { return gain(filt, [&](int ix) { return p * ix; }); };
    EXPECT_GT(passed(1), 45);
    EXPECT_GT(passed(1), 5 * passed(2));
    EXPECT_GT(passed(1), 5 * passed(0));
}

TEST(NewSteering, FollowsDipsOfBothSigns) {
    // a ridge: rising to column 40, falling behind it; sampled where both limbs have been passed
    const auto ridge = [](int ix) { return -slope(30) * (40 - std::abs(40 - ix)); };
    const Filter own =
        new_steering(steering(4, true), {nz, nx}, {1, 1}, dips([](int ix) { return ix <= 40 ? -30 : 30; }));
    const Filter mirrored =
        new_steering(steering(4, true), {nz, nx}, {1, 1}, dips([](int ix) { return ix <= 40 ? 30 : -30; }));
    EXPECT_GT(gain(own, ridge), 15);
    EXPECT_GT(gain(own, ridge), 3 * gain(mirrored, ridge));
}

TEST(NewSteering, LaplacianStandsInFront) {
    FilterChoice choice{0.3f, 0.5f, 4, 2, 1.25f, false};
    const std::vector<float> angle(20 * 3, 0.0f);
    const Filter filt = new_steering(choice, {20, 3}, {1, 1}, angle), laplacian = lapfac2(0.01f, 20, 2);
    ASSERT_EQ(filt.na(), 6);
    ASSERT_EQ(filt.nfilters(), 60);
    for (const int ifilt : {0, 59}) {
        for (int ia = 0; ia < 4; ++ia) {
            EXPECT_EQ(filt.lags(ia, ifilt), laplacian.lags(ia, 0));
            EXPECT_EQ(filt.coeffs(ia, ifilt), 0.3f * laplacian.coeffs(ia, 0));
        }
        EXPECT_EQ(filt.lags(4, ifilt), 20);
        EXPECT_EQ(filt.coeffs(4, ifilt), -0.5f);
        EXPECT_EQ(filt.coeffs(5, ifilt), 0.0f);
    }
    polydiv_init(filt);
}

TEST(NewSteering, RefusesSizesThatDoNotFit) {
    const std::vector<float> angle(20);
    EXPECT_EQ(refusal([&] { new_steering(steering(2, false), {7, 3}, {2, 1}, angle); }), "invalid filterJ parameter\n");
    EXPECT_EQ(refusal([&] {
                  new_steering(steering(2, false), {7, 3}, {1, 1}, {});
              }),
              "must supply angle array when constructing steering filters\n");
    EXPECT_EQ(refusal([&] {
                  new_steering(steering(2, false), {7, 3}, {1, 1}, angle);
              }),
              "size(angle) must be the same size as number of filters\n");
}
