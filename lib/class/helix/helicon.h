#pragma once
#include <span>

#include "lib/class/helix/helix.h"

namespace morvane {

/// Convolution with a stationary filter: yy += xx, then yy(i) += coeffs(a) xx(i - lag(a)) for each lag and every sample
/// i that `edges` does not mark. xx and yy of one size.
int helicon_lop(const Filter& aa, bool adj, bool add, std::span<float> xx, std::span<float> yy);

/// The same without clearing: the caller prepares the output, whatever add says.
int helicon_lop2(const Filter& aa, bool adj, bool add, std::span<float> xx, std::span<float> yy);

}  // namespace morvane
