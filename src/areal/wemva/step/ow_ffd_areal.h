#pragma once
/// Fourier finite differences: phase shift at the smallest velocity of a level, thin-lens term, and a cascade of
/// implicit finite-difference stages (ffd_stage.h) for what is left of the lateral velocity variation.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// Carry one wavefield one depth step down (see owpspi for the arguments). Leaves the field alone at zero frequency.
void owffd(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel);

}  // namespace morvane
