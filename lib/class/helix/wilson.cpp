#include "lib/class/helix/wilson.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <vector>

#include "lib/base/report.h"
#include "lib/class/helix/helicon.h"
#include "lib/class/helix/polydiv.h"

namespace morvane {

float wilson_factor(int nmax, int niter, float s0, const Filter& ss, Filter& aa, bool verb) {
    constexpr bool adjoint = true, forward = false, fresh = false;
    const auto n = static_cast<std::size_t>(nmax);
    const std::size_t middle = n - 1, length = 2 * n - 1;
    std::vector<float> autoc(length), bb(length), cc(length), b(n), c(n);
    autoc[middle] = s0;
    for (std::ptrdiff_t ia = 0; ia < ss.na(); ++ia) {
        const auto lag = static_cast<std::size_t>(ss.lags(ia, 0));
        assert(lag < n);
        autoc[middle + lag] = autoc[middle - lag] = ss.coeffs(ia, 0);
    }
    b[0] = 1.0f;
    aa.datadims = aa.filterdims = {static_cast<int>(length)};
    aa.filterj = static_cast<std::ptrdiff_t>(length);
    polydiv_init(aa);

    for (int iter = 1; iter <= niter; ++iter) {
        polydiv_lop(aa, forward, fresh, autoc, bb);
        polydiv_lop(aa, adjoint, fresh, cc, bb);
        float eps = 0.0f;
        for (std::size_t i = 1; i < n; ++i) {
            b[i] = 0.5f * (cc[middle - i] + cc[middle + i]) / cc[middle];
            eps = std::max(eps, std::abs(b[i]));
        }
        if (verb) report({static_cast<long long>(iter), static_cast<double>(eps)});
        helicon_lop(aa, forward, fresh, b, c);
        for (std::ptrdiff_t ia = 0; ia < aa.na(); ++ia) aa.coeffs(ia, 0) = c[static_cast<std::size_t>(aa.lags(ia, 0))];
        if (eps < std::numeric_limits<float>::epsilon()) break;
    }
    return std::sqrt(cc[middle]);
}

}  // namespace morvane
