#include "src/areal/wemva/image/triang.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <vector>

#include "lib/base/fixed_format.h"

namespace morvane {

namespace {

/// 2 h + 1 weights, the last of them 0 for an even length.
std::vector<float> triangle_weights(int r) {
    const int h = r / 2;
    if (r < 2) return {1.0f};
    std::vector<float> c(static_cast<std::size_t>(2 * h) + 1);
    const auto steps = static_cast<float>(r - 1), half = static_cast<float>(h);
    for (int i = 0; i < r; ++i) {
        const float rise = 2.0f * static_cast<float>(i) / steps / half;
        const float fall = (1.0f - 2.0f * static_cast<float>(i - h) / steps) / half;
        c[static_cast<std::size_t>(i)] = i < h ? rise : fall;
    }
    return c;
}

/// One line of n samples `stride` apart.
void weighted_sums(const std::vector<float>& c, int n, std::size_t stride, const float* in, float* out,
                   std::vector<float>& temp) {
    const int h = static_cast<int>(c.size()) / 2;
    temp.assign(static_cast<std::size_t>(n), 0.0f);
    for (int i = 0; i < n; ++i)
        for (int k = std::max(i - h, 0); k <= std::min(i + h, n - 1); ++k)
            temp[static_cast<std::size_t>(i)] +=
                c[static_cast<std::size_t>(k - i + h)] * in[static_cast<std::size_t>(k) * stride];
    for (std::size_t i = 0; i < temp.size(); ++i) out[i * stride] = temp[i];
}

}  // namespace

void triangle3(int rect1, int rect2, int n1, int n2, std::span<const float> uu, std::span<float> vv) {
    const auto rows = static_cast<std::size_t>(n1), lines = static_cast<std::size_t>(n2);
    assert(uu.size() >= rows * lines && vv.size() >= rows * lines);
    const std::vector<float> c1 = triangle_weights(rect1), c2 = triangle_weights(rect2);
    std::vector<float> temp;
    for (std::size_t i2 = 0; i2 < lines; ++i2)
        weighted_sums(c2, n1, 1, uu.data() + i2 * rows, vv.data() + i2 * rows, temp);
    for (std::size_t i1 = 0; i1 < rows; ++i1) weighted_sums(c1, n2, rows, vv.data() + i1, vv.data() + i1, temp);
}

void triangle2(int rect1, int rect2, int n1, int n2, std::span<const float> uu, std::span<float> vv) {
    std::printf("%s\n", list_line({static_cast<long long>(rect1), static_cast<long long>(rect2),
                                   static_cast<long long>(n1), static_cast<long long>(n2)})
                            .c_str());
    const auto rows = static_cast<std::size_t>(n1), lines = static_cast<std::size_t>(n2);
    for (std::size_t i2 = 0; i2 < lines; ++i2)
        triangle(rect1, 1, n1, uu.subspan(i2 * rows, rows), vv.subspan(i2 * rows, rows));
    for (std::size_t i1 = 0; i1 < rows; ++i1) triangle(rect2, n1, n2, vv.subspan(i1), vv.subspan(i1));
}

void triangle(int nr, int m1, int n12, std::span<const float> uu, std::span<float> vv) {
    const auto n = static_cast<std::size_t>(n12), step = static_cast<std::size_t>(m1);
    std::vector<float> tt(n);
    for (std::size_t i = 0; i < n; ++i) tt[i] = uu[i * step];
    nr = std::min(nr, n12 + 1);
    if (nr > 1) {
        const auto r = static_cast<std::size_t>(nr);
        std::vector<float> pp(r + n - 1), qq(r + pp.size() - 1);
        boxconv(nr, n12, tt, pp);
        boxconv(nr, static_cast<int>(pp.size()), pp, qq);
        std::copy_n(qq.begin() + nr - 1, n, tt.begin());
        for (std::size_t i = 1; i < r; ++i) {
            tt[i - 1] += qq[r - 1 - i];
            tt[n - i] += qq[n + r - 2 + i];
        }
    }
    for (std::size_t i = 0; i < n; ++i) vv[i * step] = tt[i];
}

void boxconv(int nb, int nx, std::span<const float> xx, std::span<float> yy) {
    const auto box = static_cast<std::size_t>(nb), n = static_cast<std::size_t>(nx), ny = n + box - 1;
    assert(nb > 0 && nx > 0 && yy.size() >= ny);
    std::vector<float> bb(ny);
    bb[0] = xx[0];
    for (std::size_t i = 1; i < ny; ++i) bb[i] = i < n ? bb[i - 1] + xx[i] : bb[i - 1];
    for (std::size_t i = 0; i < ny; ++i) {
        const float sum = i < box ? bb[i] : bb[i] - bb[i - box];
        yy[i] = sum / static_cast<float>(nb);
    }
}

}  // namespace morvane
