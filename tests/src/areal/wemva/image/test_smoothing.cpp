#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

Parms gather_parms(int nx, int nh, int nz) {
    Parms p;
    p.img.xm = {nx, 10, 0, {}};
    p.img.sh = {nh, 10, 0, {}};
    p.img.z = {nz, 10, 0, {}};
    p.nsecdim = nh;
    return p;
}

Array<float, 3> random_gather(const Parms& p, unsigned seed) {
    Array<float, 3> image({p.img.xm.n, p.nsecdim, p.img.z.n});
    std::ranges::copy(random_vector<float>(image.flat().size(), seed), image.flat().begin());
    return image;
}

/// Mean over the box of |image| with windows clipped on every axis; separable, since the clipped box is a product.
double box_mean(View<const float, 3> image, const Extents<3>& at, const Extents<3>& wind) {
    std::ptrdiff_t lo[3], hi[3];
    double count = 1;
    for (std::size_t a = 0; a < 3; ++a) {
        lo[a] = std::max<std::ptrdiff_t>(at[a] - wind[a] + 1, 0);
        hi[a] = std::min(at[a] + wind[a] - 1, image.n[a] - 1);
        count *= static_cast<double>(hi[a] - lo[a] + 1);
    }
    double sum = 0;
    for (std::ptrdiff_t iz = lo[2]; iz <= hi[2]; ++iz)
        for (std::ptrdiff_t ih = lo[1]; ih <= hi[1]; ++ih)
            for (std::ptrdiff_t ix = lo[0]; ix <= hi[0]; ++ix) sum += std::abs(image(ix, ih, iz));
    return sum / count;
}

}  // namespace

TEST(Owsmooth, MeanOfTheClippedBox) {
    struct Case {
        const char* fault;
        int nx, nh, nz, windx, windh, windz;
    };
    for (const Case& c : {
             Case{"windows exchanged", 20, 7, 26, 5, 2, 4},
             Case{"the defaults", 30, 5, 24, 11, 3, 11},
             Case{"windows longer than the axes", 6, 3, 5, 11, 9, 40},
             Case{"depth alone", 6, 3, 9, 1, 1, 3},
             Case{"midpoint alone", 9, 3, 4, 3, 1, 1},
             Case{"offset alone", 5, 8, 4, 1, 3, 1},
             Case{"one sample", 1, 1, 1, 11, 3, 11},
         }) {
        SCOPED_TRACE(c.fault);
        Parms p = gather_parms(c.nx, c.nh, c.nz);
        p.windx = c.windx;
        p.windh = c.windh;
        p.windz = c.windz;
        const Array<float, 3> image = random_gather(p, 8);
        Array<float, 3> out({c.nx, c.nh, c.nz});
        out.fill(9.0f);
        owsmooth(p, image, out);
        for (int iz = 0; iz < c.nz; ++iz)
            for (int ih = 0; ih < c.nh; ++ih)
                for (int ix = 0; ix < c.nx; ++ix)
                    ASSERT_NEAR(out(ix, ih, iz), box_mean(image, {ix, ih, iz}, {c.windx, c.windh, c.windz}), 2e-6)
                        << ix << ' ' << ih << ' ' << iz;
        // the transpose: <B |x|, y> = <|x|, B' y>
        Array<float, 3> size = image, back = random_gather(p, 10);
        for (float& sample : size.flat()) sample = std::abs(sample);
        const Array<float, 3> y = back;
        owsmooth_transpose(p, back);
        EXPECT_LT(mismatch<float>(size.flat(), out.flat(), y.flat(), back.flat()), 1e-6);
    }
}

TEST(Owsmooth, ZeroOnlyWhereTheNeighbourhoodIsZero) {
    Parms p = gather_parms(15, 1, 15);
    p.windx = p.windz = 3;
    Array<float, 3> image({15, 1, 15}), out({15, 1, 15});
    image(7, 0, 7) = -1e30f;
    owsmooth(p, image, out);
    for (int iz = 0; iz < 15; ++iz)
        for (int ix = 0; ix < 15; ++ix) {
            const bool near = std::abs(ix - 7) <= 2 && std::abs(iz - 7) <= 2;
            EXPECT_EQ(out(ix, 0, iz) > 0.0f, near) << ix << ' ' << iz;
        }
}
