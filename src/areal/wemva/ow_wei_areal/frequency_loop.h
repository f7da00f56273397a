#pragma once
/// What the frequency loops of migration and of the linearised operator share.
#include "src/areal/wemva/depth_step.h"
#include "src/areal/wemva/ow_image_areal.h"
#include "src/areal/wemva/ow_wei_areal.h"

/// Whether the fields are stepped at frequency iw: not with an extrapolator of another name, and the finite-difference
/// form leaves the zero frequency alone.
bool steps_at(const Parms& par, int iw);

/// Levels that are imaged, from 0: first (1 at the earliest, the surface never is) to end.
struct DepthRange {
    int first, end;
    explicit DepthRange(const Parms& par);
};

/// Write the surface fields of frequency iw into the middle of the columns. The margins keep what the thread's
/// preceding frequency left there at its last depth, unless `clear`.
void load_surface(const Parms& par, View<const cf, 2> surface, int iw, bool clear, View<cf, 1> column);

/// column *= taper
void apply_taper(View<const float, 1> taper, View<cf, 1> column);

/// sum += part, sample by sample
void add_to(std::span<const float> part, std::span<float> sum);

/// The progress line of every 50th frequency, on standard output.
void report_frequency(const Parms& par, int iw, int inode);
