#pragma once
#include "lib/class/helix/helix.h"

namespace morvane {

/// Spectral factorisation (Wilson-Burg): the minimum-phase filter a0 (1, aa) whose autocorrelation is (s0, ss).
/// @param nmax  lags taken into account, all lags of ss and aa below it
/// @param niter iterations at most; ends early when the correction falls below the rounding of single precision
/// @param s0    zero-lag value
/// @param ss    stationary; one side of the autocorrelation
/// @param aa    stationary; in: lags and first guess (zeros will do), out: coefficients at these lags
/// @param verb  print iteration and correction on standard error
/// @return a0; not a number where (s0, ss) is no autocorrelation
float wilson_factor(int nmax, int niter, float s0, const Filter& ss, Filter& aa, bool verb);

}  // namespace morvane
