#pragma once
#include "lib/class/helix/helix.h"

namespace morvane {

/// Minimum-phase factor of the negative Laplacian (4 + eps; -1 at lags 1 and n1) of a panel read as a helix.
/// @param n1 length of the fast axis
/// @param na coefficients at lags 1..na, and as many at n1-na+1..n1; 1 <= na <= n1 / 2
/// @return stationary filter; its leading factor a0 is dropped
Filter lapfac2(float eps, int n1, int na);

}  // namespace morvane
