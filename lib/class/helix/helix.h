#pragma once
/// Filters on a helix: a panel is read as one long vector, first index fastest, and a filter is a set of positive lags
/// in that vector.
#include <cstddef>
#include <vector>

#include "lib/base/array.h"

namespace morvane {

/// Coefficients at positive lags. The leading coefficient 1 at lag 0 is implied and not stored. A non-stationary filter
/// has one set for every `filterj` samples of the vector, a stationary one a single set.
struct Filter {
    Array<float, 2> coeffs;       ///< (na, nfilters)
    Array<int, 2> lags;           ///< (na, nfilters), each >= 1
    std::vector<char> edges;      ///< a mark for each data sample that a convolution is not to form; empty: none
    std::vector<int> datadims;    ///< size of the panel on each axis
    std::vector<int> filterdims;  ///< samples on each axis that share a set
    std::ptrdiff_t filterj = 1;   ///< samples of the vector that share a set
    std::ptrdiff_t na() const { return coeffs.n()[0]; }
    std::ptrdiff_t nfilters() const { return coeffs.n()[1]; }
};

/// A filter of na coefficients in nfilters sets, all zero; the caller fills in the rest.
Filter allocatehelix(std::ptrdiff_t na, std::ptrdiff_t nfilters);

/// A stationary filter for vectors of n samples, with the given lags and zero coefficients.
Filter stationary_filter(std::ptrdiff_t n, const std::vector<int>& lags);

}  // namespace morvane
