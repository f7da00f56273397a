#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "src/areal/wemva/image/ow_tim2ang.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

constexpr bool forward = false, adjoint = true, fresh = false;

struct Case {
    Parms par;
    Array<float, 2> vv;
};

Case slant_case(int nxw, int nt, float ot, int nz = 14) {
    Case c;
    Parms& p = c.par;
    p.img.xm = {9, 10, 0, {}};
    p.img.z = {nz, 10, 50, {}};
    p.img.th = {nt, 0.004f, ot, {}};
    p.nxw = nxw;
    p.nah = 3;
    p.dah = 20;
    p.oah = -20;
    p.nax = 2;
    p.dax = 15;
    p.oax = 0;
    p.node = 1;
    Array<float, 2> vel({9, nz});
    for (int iz = 0; iz < nz; ++iz)
        for (int ix = 0; ix < 9; ++ix) vel(ix, iz) = 0.15f + 0.01f * static_cast<float>(ix + iz);
    testing::internal::CaptureStdout();
    c.vv = owslant_init(p, vel);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              nz == 14 ? "           9          14\n" : "           9           1\n");
    return c;
}

/// Every term of the sum by itself, added to modl or data.
void direct(const Parms& p, View<const float, 2> vv, bool adj, View<float, 3> modl, View<float, 3> data) {
    const auto cosd = [](double a) { return std::cos(a * std::numbers::pi / 180); };
    for (int ix = 0; ix < p.img.xm.n; ++ix)
        for (int ixm = std::max(ix - p.nxw, 0); ixm <= std::min(ix + p.nxw, p.img.xm.n - 1); ++ixm)
            for (int iax = 0; iax < p.nax; ++iax)
                for (int iah = 0; iah < p.nah; ++iah)
                    for (int it = 0; it < p.img.th.n; ++it)
                        for (int izm = 0; izm < p.img.z.n; ++izm) {
                            const double t = it * double{p.img.th.d} + p.img.th.o;
                            const double zd = izm - t / vv(ix, izm) / cosd(iax * p.dax + p.oax) /
                                                        cosd(iah * p.dah + p.oah) / p.img.z.d;
                            const int izd = static_cast<int>(std::trunc(zd + 1e-6));
                            if (zd <= -1 || izd >= p.img.z.n - 1) continue;
                            const auto fx = static_cast<float>(zd - izd), gx = 1 - fx;
                            if (adj) {
                                modl(ix, iah, izm) += gx * data(ixm, it, izd) + fx * data(ixm, it, izd + 1);
                            } else {
                                data(ixm, it, izd + 1) += modl(ix, iah, izm) * fx;
                                data(ixm, it, izd) += modl(ix, iah, izm) * gx;
                            }
                        }
}

}  // namespace

TEST(Owslant, MeanVelocityDownToEachDepth) {
    const Case c = slant_case(1, 3, -0.004f);
    EXPECT_FLOAT_EQ(c.vv(2, 0), 0.17f);
    EXPECT_FLOAT_EQ(c.vv(2, 2), 0.18f);
}

TEST(Owslant, AgreesWithTheSumTermByTerm) {
    for (const int nxw : {0, 2, 31}) {
        SCOPED_TRACE(nxw);
        const Case c = slant_case(nxw, 5, -0.008f);
        Array<float, 3> modl({9, 3, 14}), data({9, 5, 14}), expected_modl({9, 3, 14}), expected_data({9, 5, 14});
        std::ranges::copy(random_vector<float>(data.flat().size(), 1), data.flat().begin());
        modl.fill(7.0f);
        EXPECT_EQ(owslant(c.par, c.vv, adjoint, fresh, modl, data), 0);
        direct(c.par, c.vv, adjoint, expected_modl, data);
        for (std::size_t i = 0; i < modl.flat().size(); ++i)
            ASSERT_NEAR(modl.flat()[i], expected_modl.flat()[i], 2e-4) << i;

        std::ranges::copy(random_vector<float>(modl.flat().size(), 2), modl.flat().begin());
        data.fill(7.0f);
        owslant(c.par, c.vv, forward, fresh, modl, data);
        direct(c.par, c.vv, forward, modl, expected_data);
        for (std::size_t i = 0; i < data.flat().size(); ++i)
            ASSERT_NEAR(data.flat()[i], expected_data.flat()[i], 2e-4) << i;
    }
}

TEST(Owslant, PassesTheDotTest) {
    for (const int nt : {6, 5, 1}) {
        const Case c = slant_case(3, nt, -0.01f);
        const auto op = [&](bool adj, bool add, std::span<float> x, std::span<float> y) {
            return owslant(c.par, c.vv, adj, add, {x.data(), {9, 3, 14}}, {y.data(), {9, nt, 14}});
        };
        EXPECT_LT(dot_mismatch(op, 9 * 3 * 14, static_cast<std::size_t>(9 * nt * 14)), 1e-6) << nt;
    }
}

TEST(Owslant, OneDepthHasNoTwoToInterpolateBetween) {
    const Case c = slant_case(0, 3, 0.0001f, 1);  // shifts of less than a sample upwards
    Array<float, 3> modl({9, 3, 1}), data({9, 3, 1});
    data.fill(1.0f);
    owslant(c.par, c.vv, adjoint, fresh, modl, data);
    for (const float sample : modl.flat()) EXPECT_EQ(sample, 0.0f);
}

TEST(Owslant, TheNumberOfThreadsChangesNothing) {
    Case c = slant_case(3, 5, -0.008f);
    Array<float, 3> modl({9, 3, 14}), one({9, 5, 14}), many({9, 5, 14});
    std::ranges::copy(random_vector<float>(modl.flat().size(), 2), modl.flat().begin());
    owslant(c.par, c.vv, forward, fresh, modl, one);
    c.par.node = 4;
    owslant(c.par, c.vv, forward, fresh, modl, many);
    EXPECT_TRUE(std::ranges::equal(one.flat(), many.flat()));
}

TEST(OwslantExe, DifferencesWhatTheDataHeld) {
    const Case c = slant_case(0, 4, 0.0f);
    Array<float, 3> modl({9, 3, 14}), data({9, 4, 14});
    for (int it = 0; it < 4; ++it) data(2, it, 5) = static_cast<float>(it * it);
    owslant_exe(c.par, c.vv, forward, fresh, modl, data);
    const float expected[] = {1, 3, 5, 0};
    for (int it = 0; it < 4; ++it) EXPECT_EQ(data(2, it, 5), expected[it]);
}
