#pragma once
/// Phase shift with split-step correction at one or several reference velocities.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// Carry one monochromatic wavefield one depth step down through laterally varying slowness.
/// @param iw    frequency index
/// @param sign  +1 source side, -1 receiver side
/// @param ws    (kxm.n) in: field at depth z, out: field at z + dz
/// @param vel   (kxm.n) slowness at depth z, each > 0, not checked
/// @param vref1 (nref, 2) region table, or empty
/// Prepares and applies; inside a loop use depth_step.h, which keeps the two apart.
void owpspi(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel,
            View<const float, 2> vref1);

}  // namespace morvane
