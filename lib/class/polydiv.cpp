#include "lib/class/polydiv.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <functional>
#include <numeric>

#include "lib/class/lin_op.h"
#include "lib/corelibs/qas/qaserr.h"

namespace {

std::ptrdiff_t product(const std::vector<int>& dims) {
    return std::accumulate(dims.begin(), dims.end(), std::ptrdiff_t{1}, std::multiplies<>());
}

}  // namespace

void polydiv_init(const Filter& aa) {
    if (aa.filterj < 1 || product(aa.datadims) != aa.filterj * aa.nfilters())
        qas::erexit("polydiv_init: number of coffients .ne. ndata/filterJ");
    if (aa.datadims.size() != aa.filterdims.size() || product(aa.filterdims) != aa.filterj)
        qas::erexit("polydiv_init: its my first day");
    if (std::ranges::any_of(aa.lags.flat(), [](int lag) { return lag < 1; }))
        qas::erexit("polydiv_init: lags must be positive");
}

int polydiv_lop(const Filter& aa, bool adj, bool add, std::span<float> xx, std::span<float> yy) {
    assert(xx.size() == yy.size());
    const std::ptrdiff_t n = std::ssize(xx), na = aa.na();
    assert(n <= aa.filterj * aa.nfilters());
    adjnull(adj, add, xx, yy);
    const float* const coeffs = aa.coeffs.view().p;
    const int* const lags = aa.lags.view().p;
    if (!adj) {
        float* const y = yy.data();
        for (std::ptrdiff_t iy = 0; iy < n; ++iy) {
            const std::ptrdiff_t set = iy / aa.filterj * na;
            float sum = y[iy] + xx[static_cast<std::size_t>(iy)];
            for (std::ptrdiff_t ia = set; ia < set + na; ++ia)
                if (const std::ptrdiff_t ix = iy - lags[ia]; ix >= 0) sum -= coeffs[ia] * y[ix];
            y[iy] = sum;
        }
    } else {
        float* const x = xx.data();
        for (std::ptrdiff_t i = 0; i < n; ++i) x[i] += yy[static_cast<std::size_t>(i)];
        for (std::ptrdiff_t iy = n; iy-- > 0;) {
            const std::ptrdiff_t set = iy / aa.filterj * na;
            for (std::ptrdiff_t ia = set; ia < set + na; ++ia)
                if (const std::ptrdiff_t ix = iy - lags[ia]; ix >= 0) x[ix] -= coeffs[ia] * x[iy];
        }
    }
    return 0;
}
