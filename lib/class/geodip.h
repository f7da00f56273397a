#pragma once
/// Smoothing of a gradient along dips.
#include <span>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// The horizon for the mask of ow_geodip: a copy of pick_in; with `verb` its extremes are printed on standard error.
std::vector<float> owgeodip_init(std::span<const float> pick_in, bool verb);

/// Smooth a gradient along the dips of "dipfile", in place (see inv_tomo), and give it back its rms. The panel is
/// padded by `frame` rows at each end, which repeat the first and last image row. Keys and dips are read anew at each
/// call. Writes the padded result before the rms is matched to "maskout", if that tag was given.
/// @param z, xm axes of the image
/// @param pick  horizon of each column, or empty: no mask. Counted in samples of the padded column: rows 1 to
///              trunc(pick) - 1 of it are held at zero, the frame's among them
/// @param g     (xm.n, z.n) in and out
/// @param verb  report parameters and iterations on standard error
/// Ends the run with a message when the dips do not fit the image, when nothing is left to filter, and when an rms lies
/// outside single precision.
void ow_geodip(qas::Session& session, const Axis& z, const Axis& xm, int frame, std::span<const float> pick,
               View<double, 2> g, bool verb);

}  // namespace morvane
