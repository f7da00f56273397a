#pragma once
/// Headers of the output datasets, and the summary of the run parameters.
#include <string_view>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Each writes n, d, o of five axes and esize to the history of `tag` ("out" is standard output's dataset).
/// Lateral, unit axis, depth: slowness, velocity and gradient panels.
void write_model_shape(qas::Session& session, const Parms& par, std::string_view tag);
/// Lateral, offset or time shift, depth: image gathers.
void write_image_shape(qas::Session& session, const Parms& par, std::string_view tag);
/// Window, depth, two unit axes, frequency (cycles/s, as long as rec.w is not in radians): complex wavefields.
void write_wavefield_shape(qas::Session& session, const Parms& par, std::string_view tag);

/// Prints the summary on standard error.
void print_summary(const Parms& par);

}  // namespace morvane
