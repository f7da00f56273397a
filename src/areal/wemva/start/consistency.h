#pragma once
/// Whether the grids of data, model and image agree. What does not ends the run with what was found.
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Frequencies, shots and traces of `sou` against those of `rec`.
void compare_data_and_source(const Parms& par);
/// A slowness perturbation's grid against the model's.
void compare_perturbation_and_model(const Axis& z, const Axis& x, const Velo& v);
/// The image must lie within the model.
void compare_image_and_model(const Parms& par);

}  // namespace morvane
