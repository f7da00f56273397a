#pragma once
/// Scattering: the derivative of one depth step with respect to slowness, as a series in even powers of kx v / w.
#include <array>

#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// Coefficients of the series: term k has the power 2k. Terms with a zero coefficient cost nothing.
inline constexpr std::array<float, 10> scattering_series = {1.0f, 0, 0, 0, 0, 0, 0, 0, 0, 0};

/// ddws = (ddws + sign sum_k c_k (vel / w)^2k F^-1 |kx|^2k F wv) * a exp(i pi/2), a = dz w, with the cosine of pi/2 as
/// single precision rounds it (-4.37e-8, not zero). What ddws held on entry is scaled too.
/// @param iw    frequency index; its angular frequency must not be zero (divided by without a test)
/// @param sign  +1 source side, -1 receiver side
/// @param ddws  (kxm.n) in and out
/// @param wv    (kxm.n) background field
/// @param vel   (kxm.n) slowness at this depth
/// @param work  (kxm.n, 3) overwritten if the series has terms beyond the first
void owscctr(const Parms& par, const LateralFft& fft, const std::array<float, 10>& series, int iw, int sign,
             View<cf, 1> ddws, View<const cf, 1> wv, View<const float, 1> vel, View<cf, 2> work);

}  // namespace morvane
