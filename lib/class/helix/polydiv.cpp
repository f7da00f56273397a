#include "lib/class/helix/polydiv.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <functional>
#include <numeric>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

std::ptrdiff_t product(const std::vector<int>& dims) {
    return std::accumulate(dims.begin(), dims.end(), std::ptrdiff_t{1}, std::multiplies<>());
}

/// The recursion in place, for na lags; 0: as many as there are.
template <int na>
void divide(const Filter& aa, bool adj, std::span<float> out) {
    const std::ptrdiff_t n = std::ssize(out), count = na > 0 ? na : aa.na(), shared = aa.filterj;
    const std::ptrdiff_t sets = (n + shared - 1) / shared;
    const float* const coeffs = aa.coeffs.view().p;
    const int* const lags = aa.lags.view().p;
    float* const y = out.data();
    if (!adj) {
        for (std::ptrdiff_t set = 0; set < sets; ++set) {
            const float* const c = coeffs + set * count;
            const int* const lag = lags + set * count;
            for (std::ptrdiff_t iy = set * shared; iy < std::min((set + 1) * shared, n); ++iy) {
                float sum = y[iy];
                for (std::ptrdiff_t ia = 0; ia < count; ++ia)
                    if (iy >= lag[ia]) sum -= c[ia] * y[iy - lag[ia]];
                y[iy] = sum;
            }
        }
        return;
    }
    for (std::ptrdiff_t set = sets; set-- > 0;) {
        const float* const c = coeffs + set * count;
        const int* const lag = lags + set * count;
        for (std::ptrdiff_t iy = std::min((set + 1) * shared, n); iy-- > set * shared;)
            for (std::ptrdiff_t ia = 0; ia < count; ++ia)
                if (iy >= lag[ia]) y[iy - lag[ia]] -= c[ia] * y[iy];
    }
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
    assert(xx.size() == yy.size() && std::ssize(xx) <= aa.filterj * aa.nfilters());
    const std::span<float> in = adj ? yy : xx, out = adj ? xx : yy;
    if (add)
        for (std::size_t i = 0; i < in.size(); ++i) out[i] += in[i];
    else
        std::ranges::copy(in, out.begin());
    switch (aa.na()) {  // the usual numbers of lags with their loops unrolled
        case 2:
            divide<2>(aa, adj, out);
            break;
        case 3:
            divide<3>(aa, adj, out);
            break;
        case 4:
            divide<4>(aa, adj, out);
            break;
        default:
            divide<0>(aa, adj, out);
    }
    return 0;
}

}  // namespace morvane
