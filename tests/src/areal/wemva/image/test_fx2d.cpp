#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/image/fx2d.h"
#include "tests/dataset_files.h"
#include "tests/dense.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

using cd = std::complex<double>;
using Line = std::vector<cd>;

/// One-step prediction by the normal equations, term by term.
Line predicted(const Line& x, int noper, double lambda) {
    const int m = noper - 1, n = static_cast<int>(x.size());
    const auto at = [&](int i) { return i < 0 || i >= n ? cd(0) : x[static_cast<std::size_t>(i)]; };
    std::vector<Line> a(static_cast<std::size_t>(m), Line(static_cast<std::size_t>(m)));
    Line right(static_cast<std::size_t>(m)), out(x.size());
    for (int j = 1; j <= m; ++j)
        for (int i = 0; i < n + m; ++i) {
            for (int k = 1; k <= m; ++k)
                a[static_cast<std::size_t>(j - 1)][static_cast<std::size_t>(k - 1)] += std::conj(at(i - j)) * at(i - k);
            right[static_cast<std::size_t>(j - 1)] += std::conj(at(i - j)) * at(i);
        }
    if (m == 0 || a[0][0] == 0.0) return out;
    const auto size = static_cast<std::size_t>(m);
    for (std::size_t j = 0; j < size; ++j) {
        if (lambda == -999) {
            for (std::size_t k = 0; k < size; ++k)
                if (k != j) a[j][k] = 0;
        } else {
            a[j][j] *= 1 + lambda * lambda;
        }
    }
    const Line f = dense_solve(a, right);
    for (int i = 1; i < n; ++i)
        for (int k = 1; k <= m; ++k) out[static_cast<std::size_t>(i)] += f[static_cast<std::size_t>(k - 1)] * at(i - k);
    return out;
}

Line transformed(const Line& x, int sign) {
    const std::size_t n = x.size();
    Line y(n);
    for (std::size_t k = 0; k < n; ++k)
        for (std::size_t i = 0; i < n; ++i)
            y[k] += x[i] *
                    std::polar(1 / std::sqrt(static_cast<double>(n)),
                               sign * 2 * std::numbers::pi * static_cast<double>(k * i % n) / static_cast<double>(n));
    return y;
}

using Panel = std::vector<std::vector<double>>;  // [offset][depth]

Panel fxdecon(const Panel& patch, const FxDesign& d) {
    std::size_t nfreq = 1;
    while (static_cast<int>(nfreq) < d.w1) nfreq *= 2;
    std::vector<Line> columns;
    for (const auto& column : patch) {
        Line x(column.begin(), column.end());
        x.resize(nfreq);
        columns.push_back(transformed(x, -1));
    }
    const std::size_t n = columns.size();
    for (std::size_t i = 0; i < nfreq; ++i) {
        Line line;
        for (const Line& column : columns) line.push_back(column[i]);
        Line up = predicted(line, d.noper, d.lambda);
        std::ranges::reverse(line);
        Line down = predicted(line, d.noper, d.lambda);
        std::ranges::reverse(down);
        for (std::size_t c = 0; c < n; ++c) {
            cd mean = (up[c] + down[c]) * 0.5;
            if (c == 0) mean = down[c];
            if (c == n - 1) mean = up[c];
            columns[c][i] = mean;
        }
    }
    Panel out;
    for (const Line& column : columns) {
        const Line x = transformed(column, +1);
        out.emplace_back();
        for (int i = 0; i < d.w1; ++i) out.back().push_back(x[static_cast<std::size_t>(i)].real());
    }
    return out;
}

/// Patches of a panel, masked, added and divided by their number.
Panel direct(const Panel& data, const FxDesign& d) {
    const int n2 = static_cast<int>(data.size()), n1 = static_cast<int>(data[0].size());
    Panel sum(data.size(), std::vector<double>(data[0].size())), count = sum;
    const auto origin = [](int n, int w, int j, int k) {
        return k == 1 ? 0 : static_cast<int>(1.5f + static_cast<float>((n - w) * j) / static_cast<float>(k - 1)) - 1;
    };
    for (int j2 = 0; j2 < d.k2; ++j2)
        for (int j1 = 0; j1 < d.k1; ++j1) {
            const int o1 = origin(n1, d.w1, j1, d.k1), o2 = origin(n2, d.w2, j2, d.k2);
            Panel patch;
            for (int i2 = 0; i2 < d.w2; ++i2) {
                const auto column = data[static_cast<std::size_t>(o2 + i2)].begin() + o1;
                patch.emplace_back(column, column + d.w1);
            }
            patch = fxdecon(patch, d);
            for (int i2 = 0; i2 < d.w2; ++i2) {
                if ((j2 > 0 && i2 < d.noper) || (j2 < d.k2 - 1 && i2 >= d.w2 - d.noper)) continue;
                for (int i1 = 0; i1 < d.w1; ++i1) {
                    sum[static_cast<std::size_t>(o2 + i2)][static_cast<std::size_t>(o1 + i1)] +=
                        patch[static_cast<std::size_t>(i2)][static_cast<std::size_t>(i1)];
                    count[static_cast<std::size_t>(o2 + i2)][static_cast<std::size_t>(o1 + i1)] += 1;
                }
            }
        }
    for (std::size_t i2 = 0; i2 < data.size(); ++i2)
        for (std::size_t i1 = 0; i1 < data[0].size(); ++i1) sum[i2][i1] *= count[i2][i1] == 0 ? 0 : 1 / count[i2][i1];
    return sum;
}

Array<float, 3> random_gather(Extents<3> n) {
    Array<float, 3> image(n);
    std::ranges::copy(random_vector<float>(image.flat().size(), 6), image.flat().begin());
    return image;
}

}  // namespace

TEST(Fx2d, AgreesWithTheDirectEvaluation) {
    struct Case {
        const char* fault;
        int n1, n2;
        FxDesign d;
    };
    for (const Case& c : {
             Case{"axes exchanged", 40, 33, {15, 20, 5, 4, 3, 2.0f}},
             Case{"one patch", 12, 30, {12, 30, 4, 1, 1, 0.5f}},
             Case{"a patch as wide as the panel, many times", 30, 14, {15, 14, 5, 5, 4, 20.0f}},
             Case{"the diagonal alone", 20, 24, {15, 24, 5, 2, 1, -999.0f}},
             Case{"a longer transform", 40, 12, {40, 12, 3, 1, 1, 1.0f}},
             Case{"one depth", 1, 40, {1, 40, 5, 1, 1, 0.3f}},
             Case{"fewer offsets than coefficients", 20, 3, {15, 3, 5, 2, 1, 1.0f}},
             Case{"no filter", 20, 30, {15, 30, 1, 2, 1, 1.0f}},
         }) {
        SCOPED_TRACE(c.fault);
        ASSERT_TRUE(fx2d_fit(c.d, c.n1, c.n2).notes.empty());
        const int nx = 37;  // more than the midpoints that go together, and a part of them
        const Array<float, 3> image = random_gather({nx, c.n2, c.n1});
        Array<float, 3> out(image.n());
        out.fill(9.0f);
        fx2d_lop(c.d, image, out, nullptr);
        for (const int ix : {0, 15, 16, 36}) {
            Panel panel(static_cast<std::size_t>(c.n2));
            for (int ih = 0; ih < c.n2; ++ih)
                for (int iz = 0; iz < c.n1; ++iz) panel[static_cast<std::size_t>(ih)].push_back(image(ix, ih, iz));
            const Panel expected = direct(panel, c.d);
            for (int ih = 0; ih < c.n2; ++ih)
                for (int iz = 0; iz < c.n1; ++iz)
                    ASSERT_NEAR(out(ix, ih, iz), expected[static_cast<std::size_t>(ih)][static_cast<std::size_t>(iz)],
                                2e-5)
                        << ix << ' ' << ih << ' ' << iz;
        }
    }
}

TEST(Fx2d, TheNumberOfThreadsChangesNothing) {
    FxDesign d{15, 20, 5, 4, 3, 2.0f, 1};
    const Array<float, 3> image = random_gather({70, 33, 40});
    Array<float, 3> one(image.n()), many(image.n());
    fx2d_lop(d, image, one, nullptr);
    d.node = 3;
    fx2d_lop(d, image, many, nullptr);
    EXPECT_TRUE(std::ranges::equal(one.flat(), many.flat()));
}

TEST(Fx2d, AnEmptyPanelStaysEmpty) {
    Array<float, 3> image({2, 20, 20}), out({2, 20, 20});
    out.fill(5.0f);
    fx2d_lop({15, 20, 5, 3, 1, 20.0f}, image, out, nullptr);
    for (const float v : out.flat()) EXPECT_EQ(v, 0.0f);
}

TEST(Fx2dFit, CutsPatchesAndCoversThePanel) {
    struct Case {
        const char* what;
        FxDesign asked;
        int n1, n2;
        FxDesign fitted;
        std::size_t notes;
    };
    for (const Case& c : {
             Case{"fits as it is", {15, 150, 5, 50, 10, 20}, 200, 400, {15, 150, 5, 50, 10, 20}, 0},
             Case{"wider than the panel", {15, 150, 5, 50, 10, 20}, 200, 41, {15, 41, 5, 50, 1, 20}, 1},
             Case{"far wider than the panel", {15, 150, 5, 50, 10, 20}, 200, 8, {15, 8, 5, 50, 1, 20}, 1},
             Case{"no patches", {15, 150, 5, 0, 0, 20}, 12, 300, {12, 150, 5, 1, 3, 20}, 2},
             Case{"gaps between patches in depth", {15, 20, 5, 2, 1, 20}, 60, 20, {15, 20, 5, 4, 1, 20}, 1},
             Case{"gaps left by the margins", {15, 20, 5, 1, 2, 20}, 15, 40, {15, 20, 5, 1, 3, 20}, 1},
             Case{"no room beside the margins", {15, 8, 5, 50, 10, 20}, 200, 8, {15, 8, 5, 50, 1, 20}, 1},
             Case{"more patches than offsets", {15, 20, 5, 2, 30, 20}, 20, 21, {15, 20, 5, 2, 30, 20}, 0},
             Case{"one offset", {15, 150, 5, 5, 1, 20}, 20, 1, {15, 1, 5, 5, 1, 20}, 2},
         }) {
        SCOPED_TRACE(c.what);
        const FxFit fit = fx2d_fit(c.asked, c.n1, c.n2);
        const FxDesign &got = fit.design, &expected = c.fitted;
        EXPECT_EQ(got.w1, expected.w1);
        EXPECT_EQ(got.w2, expected.w2);
        EXPECT_EQ(got.k1, expected.k1);
        EXPECT_EQ(got.k2, expected.k2);
        EXPECT_EQ(got.noper, 5);
        EXPECT_EQ(got.lambda, 20);
        EXPECT_EQ(fit.notes.size(), c.notes) << testing::PrintToString(fit.notes);
        EXPECT_TRUE(c.n2 == 1 || fx2d_fit(got, c.n1, c.n2).notes.empty()) << "fits once fitted";
        // nothing the panel holds is lost: a constant across offset comes out everywhere
        Array<float, 3> image({1, c.n2, c.n1}), out({1, c.n2, c.n1});
        image.fill(1.0f);
        fx2d_lop(c.asked, image, out, nullptr);
        if (c.n2 > 1) {
            EXPECT_GT(*std::ranges::min_element(out.flat()), 0.0f);
        }
    }
    EXPECT_THROW(fx2d_fit({15, 10, 5, 1, 1, 20}, 20, 40), qas::Fatal) << "nothing kept beside the margins";
    EXPECT_THROW(fx2d_fit({0, 10, 5, 1, 1, 20}, 20, 40), qas::Fatal);
}

TEST(Fx2d, WritesItsFilters) {
    const files::TempDir dir;
    qas::Session session({"test", "oper-fxdecon.H=" + (dir / "filters"), "datapath=" + dir.text() + "/"});
    const int nx = 2, nh = 12, nz = 16;
    const FxDesign d{nz, nh, 4, 1, 2, 0.5f};
    const Array<float, 3> image = random_gather({nx, nh, nz});
    Array<float, 3> out(image.n());
    for (const int set : {1, 2}) {
        const FilterOutput output{session, set};
        fx2d_lop(d, image, out, &output);
    }
    const std::string header = files::read_text(dir / "filters");
    for (const auto& [key, value] :
         {std::pair{"n1", "16"}, {"n2", "4"}, {"n3", "2"}, {"n4", "2"}, {"n5", "2"}, {"esize", "4"}})
        EXPECT_EQ(files::header_value(header, key), value) << key;
    const std::vector<float> filters = files::read_dataset(dir / "filters");
    const std::size_t panel = 16 * 4;
    ASSERT_EQ(filters.size(), 2 * 2 * 2 * panel) << "calls, midpoints, patches";
    EXPECT_TRUE(std::equal(filters.begin(), filters.begin() + panel, filters.begin() + panel))
        << "one place, one filter";
    EXPECT_FALSE(std::equal(filters.begin(), filters.begin() + panel, filters.begin() + 2 * panel));
    // the last offset is predicted from below alone: the error filter's prediction, circular along depth
    for (int ix = 0; ix < nx; ++ix) {
        const float* const rfilter = filters.data() + static_cast<std::size_t>(ix) * 2 * panel;
        EXPECT_EQ(rfilter[0], 1.0f);
        for (int i = 1; i < nz; ++i) EXPECT_EQ(rfilter[i], 0.0f);
        for (int iz = 0; iz < nz; ++iz) {
            double predicted = 0;
            for (int k = 1; k < 4; ++k)
                for (int j = 0; j < nz; ++j)
                    predicted -= rfilter[k * nz + j] * image(ix, nh - 1 - k, (iz - j + nz) % nz);
            EXPECT_NEAR(out(ix, nh - 1, iz), predicted, 1e-5);
        }
    }
}

TEST(Owscale, EachDepthByItsLargestMagnitude) {
    Array<float, 3> data({2, 2, 2});
    const float slice[] = {1, -4, 2, 0};
    std::ranges::copy(slice, data.flat().begin());
    owscale(data);
    EXPECT_THAT(data.flat(), testing::ElementsAre(0.25f, -1.0f, 0.5f, 0, 0, 0, 0, 0));
}
