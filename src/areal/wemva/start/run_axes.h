#pragma once
/// Axes that follow from those of data and model.
#include <vector>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// The last coordinate.
float end_of(const Axis& axis);
/// The line of image columns: what the shots cover, with tapers and padding.
void set_image_line(Parms& par);
/// Levels of the image, nz, and its first and last in the model, nzmin and nzmax, counted from 1.
void set_depth_counts(Parms& par);
/// The depths, wavenumbers and frequencies, and the image's second axis: subsurface offset or time shift.
void set_image_axes(Parms& par);
/// Frequencies of `rec` from cycles/s to rad/s.
void set_frequencies(Parms& par);

}  // namespace morvane
