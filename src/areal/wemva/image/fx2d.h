#pragma once
/// Prediction of image gathers across offset, frequency by frequency: what neighbouring offsets do not predict is lost.
///
/// The depth-by-offset panel of each midpoint is cut into overlapping patches; each patch goes through a transform
/// along depth, a one-step predictor of noper - 1 coefficients for each frequency, forward and backward across offset,
/// and back; the predicted patches are put together again, each without the noper offsets at its sides (the ends of the
/// panel excepted), and averaged where they overlap.
///
/// The predictor's normal equations have 1 + lambda^2 times the autocorrelation's zero lag on their diagonal. With the
/// lambda of 20 that a run uses, a plane event comes out at (noper - 1) / (lambda^2 + noper - 1) of its amplitude,
/// about 1 %, and noise still weaker; the first and last noper - 1 offsets keep less. A lambda of -999 divides by the
/// zero lag instead of solving the equations.
#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/image/patches.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Patches of the prediction that `nxfilt` switches on: fixed but for their numbers, which follow the image.
FxDesign fx2d_design(const Parms& par);

/// Where the filters of a call go: to dataset "oper-fxdecon.H", as the set of this number, from 1.
struct FilterOutput {
    qas::Session& session;
    int set;
};

/// Replace gathers by their prediction, with the design fitted as fx2d_fit does.
/// @param modl    (midpoint, offset, depth)
/// @param resi    same shape, overwritten
/// @param output  for each midpoint and patch, in the order they are used, the prediction-error filter in depth (w1
/// made
///                a power of two) and offset (noper); null: not wanted
void fx2d_lop(const FxDesign& design, View<const float, 3> modl, View<float, 3> resi, const FilterOutput* output);

/// Divide each depth slice by its largest magnitude; a slice of zeros stays.
/// @param data (midpoint, offset, depth), in place
void owscale(View<float, 3> data);

}  // namespace morvane
