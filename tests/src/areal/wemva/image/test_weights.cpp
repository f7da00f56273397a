#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "src/areal/wemva/image/depth_difference.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "tests/dot_test.h"

using namespace morvane;

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

namespace {

Array<float, 3> random_gather(Extents<3> n) {
    Array<float, 3> image(n);
    std::ranges::copy(random_vector<float>(image.flat().size(), 6), image.flat().begin());
    return image;
}

}  // namespace

TEST(DepthDifference, CentralDifferencesAndTheirTranspose) {
    for (const int times : {1, 2}) {
        for (const int nz : {4, 7}) {
            const std::size_t n = static_cast<std::size_t>(6 * nz);
            const auto apply = [&](bool adjoint, bool, std::span<float> x, std::span<float> y) {
                std::ranges::copy(adjoint ? y : x, (adjoint ? x : y).begin());
                const View<float, 3> gathers{(adjoint ? x : y).data(), {3, 2, nz}};
                (adjoint ? depth_difference_transpose : depth_difference)(times, gathers);
            };
            EXPECT_LT(dot_mismatch(apply, n, n), 1e-6) << times << ' ' << nz;
        }
    }
    std::vector<float> trace = {1, 4, 9, 16, 25};
    depth_difference(1, {trace.data(), {1, 1, 5}});
    EXPECT_EQ(trace, (std::vector<float>{0, 4, 6, 8, 0}));
    depth_difference(1, {trace.data(), {1, 1, 5}});
    EXPECT_EQ(trace, (std::vector<float>{0, 3, 2, -3, 0}));
}

TEST(Owxwht, RecursiveAverageAlongMidpoint) {
    for (const int nxfilt : {1, 3, 4, 9, 20, 0, -3}) {
        SCOPED_TRACE(nxfilt);
        Parms p;
        p.nxfilt = nxfilt;
        const Array<float, 3> image = random_gather({9, 2, 3});
        Array<float, 3> in = image, out({9, 2, 3});
        out.fill(7.0f);
        owxwht(p, false, in, out);
        const int nh = nxfilt > 0 ? nxfilt / 2 : 99;
        for (int iz = 0; iz < 3; ++iz)
            for (int ih = 0; ih < 2; ++ih) {
                std::vector<double> line;
                for (int ix = 0; ix < 9; ++ix) line.push_back(image(ix, ih, iz));
                for (int ix = nh; ix < 9 - nh; ++ix) {  // in place: samples below have been averaged
                    double sum = 0;
                    for (int k = ix - nh; k <= ix + nh; ++k) sum += line[static_cast<std::size_t>(k)];
                    line[static_cast<std::size_t>(ix)] = sum / nxfilt;
                }
                for (int ix = 0; ix < 9; ++ix) EXPECT_NEAR(out(ix, ih, iz), line[static_cast<std::size_t>(ix)], 1e-6);
            }
        Array<float, 3> back({9, 2, 3});
        owxwht(p, true, back, in);
        EXPECT_TRUE(std::ranges::equal(back.flat(), out.flat())) << "adj exchanges input and output";
    }
}

TEST(Owzwht, WeightsByTheAveragedMagnitude) {
    for (const int nz : {1, 3, 8, 9, 20}) {
        SCOPED_TRACE(nz);
        const Array<float, 3> image = random_gather({2, 3, nz});
        Array<float, 3> out = image;
        owzwht(out);
        for (int ih = 0; ih < 3; ++ih)
            for (int ix = 0; ix < 2; ++ix) {
                std::vector<double> temp;
                for (int iz = 0; iz < nz; ++iz) temp.push_back(std::abs(image(ix, ih, iz)));
                for (int iz = 5; iz <= nz - 4; ++iz) {
                    double sum = 0;
                    for (int k = iz - 4; k <= iz + 4; ++k) sum += temp[static_cast<std::size_t>(k - 1)];
                    temp[static_cast<std::size_t>(iz - 1)] = sum / 9;
                }
                for (int iz = 0; iz < nz; ++iz)
                    EXPECT_NEAR(out(ix, ih, iz), image(ix, ih, iz) * temp[static_cast<std::size_t>(iz)], 1e-6);
            }
    }
}

TEST(Owzlinwht, WeightsByTheDepthNumber) {
    Parms p;
    p.zwgt = 2.0f;
    Array<float, 3> image({2, 2, 3});
    image.fill(2.0f);
    owzlinwht(p, image);
    for (int iz = 0; iz < 3; ++iz)
        for (const float v : image.view().slice(iz).flat())
            EXPECT_EQ(v, 2.0f * static_cast<float>((iz + 1) * (iz + 1)));
    p.zwgt = 99999.0f;
    owzlinwht(p, image);
    EXPECT_EQ(image(0, 0, 0), 2.0f);
    EXPECT_TRUE(std::isinf(image(0, 0, 1))) << "not given: overflows";
}
