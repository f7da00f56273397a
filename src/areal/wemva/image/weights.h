#pragma once
/// Weights on image gathers.
#include <span>

#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Weight image gathers by offset, in place: |h / max(h)| ** expdso (max signed), then zero the samples at and above a
/// horizon. Diagonal, so `adj` changes nothing.
/// @param wgcig (img.xm.n, nsecdim, img.z.n)
/// @param pick  horizon depth of each midpoint, or empty: no mute
void owdso(const Parms& par, bool adj, View<float, 3> wgcig, std::span<const float> pick);

// The rest of the family; no run calls them.

/// Moving average along midpoint over 2 h + 1 samples, h = nxfilt / 2, divided by nxfilt; recursive, since it runs in
/// place in rising order, and leaving h samples at each end alone. adj true fills wgcig from ofcig, adj false ofcig
/// from wgcig, both by the same filter: not a transpose. nxfilt below 1 copies.
void owxwht(const Parms& par, bool adj, View<float, 3> wgcig, View<float, 3> ofcig);

/// Multiply each depth trace by the average of its magnitude over 9 samples; recursive as owxwht, and the bare
/// magnitude in the 4 samples at each end.
void owzwht(View<float, 3> wgcig);

/// Multiply depth slice iz = 1, 2, ... by iz ** zwgt. With zwgt not given that overflows below the first slice.
void owzlinwht(const Parms& par, View<float, 3> wgcig);

}  // namespace morvane
