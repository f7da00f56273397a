#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "src/areal/wemva/ow_wei_areal.h"
#include "tests/dot_test.h"

namespace {

/// nx = 3 midpoints, nz = 4 depths 100, 110, 120, 130.
Parms gather_parms(int nh, float dh, float oh, float expdso) {
    Parms p;
    p.img.xm = {3, 10, 0, {}};
    p.img.z = {4, 10, 100, {}};
    p.img.sh = {nh, dh, oh, {}};
    p.nsecdim = nh;
    p.dsecdim = dh;
    p.osecdim = oh;
    p.expdso = expdso;
    return p;
}

std::vector<float> weights(const Parms& p) {
    Array<float, 3> image({3, p.nsecdim, 4});
    image.fill(1.0f);
    owdso(p, false, image, {});
    std::vector<float> h;
    for (int ih = 0; ih < p.nsecdim; ++ih) {
        h.push_back(image(0, ih, 0));
        for (int iz = 0; iz < 4; ++iz)
            for (int ix = 0; ix < 3; ++ix) EXPECT_EQ(image(ix, ih, iz), h.back());
    }
    return h;
}

}  // namespace

TEST(Owdso, WeightsOfTheOffsetAxis) {
    struct Case {
        const char* fault;
        int nh;
        float dh, oh, expdso;
        std::vector<float> h;
    };
    for (const Case& c : {
             Case{"symmetric axis", 5, 10, -20, 1, {1, 0.5f, 0, 0.5f, 1}},
             Case{"the exponent", 5, 10, -20, 2, {1, 0.25f, 0, 0.25f, 1}},
             Case{"the maximum is the signed one", 5, 1, -3, 1, {3, 2, 1, 0, 1}},
             Case{"exponent 0 is weight 1, at zero offset too", 3, 10, -10, 0, {1, 1, 1}},
         }) {
        SCOPED_TRACE(c.fault);
        EXPECT_EQ(weights(gather_parms(c.nh, c.dh, c.oh, c.expdso)), c.h);
    }
    Array<float, 3> image({3, 1, 4});
    owdso(gather_parms(1, 10, 0, 1), false, image, {});
    EXPECT_TRUE(std::isnan(image(0, 0, 0))) << "a single zero offset has no weight: 0/0";
}

TEST(Owdso, MutesAtAndAboveTheHorizon) {
    const Parms p = gather_parms(3, 10, -10, 0);
    Array<float, 3> image({3, 3, 4});
    image.fill(2.0f);
    const std::vector<float> pick{99.0f, 110.0f, 500.0f};  // above the first sample, on the second, below the last
    owdso(p, false, image, pick);
    for (int ih = 0; ih < 3; ++ih) {
        for (int iz = 0; iz < 4; ++iz) {
            EXPECT_EQ(image(0, ih, iz), 2.0f);
            EXPECT_EQ(image(1, ih, iz), iz < 2 ? 0.0f : 2.0f) << iz;
            EXPECT_EQ(image(2, ih, iz), 0.0f);
        }
    }
}

TEST(Owdso, IsItsOwnAdjoint) {
    const Parms p = gather_parms(5, 10, -20, 1.5f);
    const std::vector<float> pick{105.0f, 90.0f, 120.0f}, values = random_vector<float>(60, 4);
    Array<float, 3> a({3, 5, 4}), b({3, 5, 4});
    std::ranges::copy(values, a.flat().begin());
    std::ranges::copy(values, b.flat().begin());
    owdso(p, false, a, pick);
    owdso(p, true, b, pick);
    EXPECT_TRUE(std::ranges::equal(a.flat(), b.flat()));
}
