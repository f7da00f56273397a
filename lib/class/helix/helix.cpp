#include "lib/class/helix/helix.h"

#include <algorithm>

namespace morvane {

Filter allocatehelix(std::ptrdiff_t na, std::ptrdiff_t nfilters) {
    Filter aa;
    aa.coeffs = Array<float, 2>({na, nfilters});
    aa.lags = Array<int, 2>({na, nfilters});
    return aa;
}

Filter stationary_filter(std::ptrdiff_t n, const std::vector<int>& lags) {
    Filter aa = allocatehelix(std::ssize(lags), 1);
    std::ranges::copy(lags, aa.lags.flat().begin());
    aa.datadims = aa.filterdims = {static_cast<int>(n)};
    aa.filterj = n;
    return aa;
}

}  // namespace morvane
