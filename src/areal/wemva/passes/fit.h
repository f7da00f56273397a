#pragma once
/// Fit: how well the data that the zero-offset image predicts agree with the recorded ones.
///
/// The image at zero offset (or zero time lag) and the background source field give, by the receiver side of the
/// image's transpose carried up to the surface, the data d that this image predicts. With each frequency of d scaled,
/// over all shots, to the power of the recorded data there, fit = Re<d, rec> / (|d| |rec|), over live traces.
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// The sample of the image's second axis that lies at zero; -1 if none does.
int zero_sample(const Parms& par);

/// What the gradient pass takes and leaves for one shot. Each frequency has its own sums, so that no two threads meet.
struct Prediction {
    View<const float, 2> image;  ///< (kxm.n, img.z.n) zero-offset image in the shot's window
    View<double, 2> sums;        ///< (3, rec.w.n) += Re<d, rec>, |d|^2, |rec|^2 over the live traces
};

/// fit of such sums over all shots; 0 where nothing is predicted or recorded.
double fit_of(View<const double, 2> sums);

}  // namespace morvane
