#pragma once
#include <span>

#include "lib/class/helix/helix.h"

namespace morvane {

/// Check that a filter fits its panel: sizes of the coefficient table, and lags that are positive. Ends the run if not.
void polydiv_init(const Filter& aa);

/// Polynomial division by a filter, the inverse of convolution: yy(i) += xx(i), then from the first sample to the last
/// yy(i) -= sum over a of coeffs(a, set of i) yy(i - lag(a, set of i)). The adjoint runs backward over xx.
/// The recursion runs in place over the output, also over what add true left there: y + F x comes out as F (y + x), so
/// that the pair is an exact transpose with add false only.
/// @param xx, yy of one size, at most filterj nfilters samples
int polydiv_lop(const Filter& aa, bool adj, bool add, std::span<float> xx, std::span<float> yy);

}  // namespace morvane
