#pragma once
/// Migration, the linearised imaging operator and the weights on image gathers.
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/depth_step.h"
#include "src/areal/wemva/ow_fftw_areal.h"
#include "src/areal/wemva/ow_parms_areal.h"

/// Number of threads of the frequency loops: `node`, or the runtime's team size if node is 9999. Prints three lines on
/// standard output.
int owwei_init(const Parms& par);

/// As owwei_init, before each owwemva of shot `ishot`.
int owwemva_init(const Parms& par, int ishot);

/// What the wavefield routines share besides the run parameters.
struct WaveContext {
    const Parms& par;
    const LateralFft& fft;       ///< of par.kxm.n samples
    int nodes;                   ///< threads of the frequency loops
    View<const float, 1> taper;  ///< (kxm.n) lateral taper
    View<const float, 3> sref;   ///< (nref, 2, img.z.n) region table of lloyd_vel1, or empty
    Frozen frozen = {};          ///< what stays while the model changes
    bool clear_margins = false;  ///< start each frequency from clear columns; otherwise a thread carries margins over
    std::vector<Arena>* memory = nullptr;  ///< keeps the threads' work arrays for the next pass; null: none are kept
};

/// Form the subsurface image of one shot: carry both wavefields down at every frequency and correlate them.
/// @param recv    (rec.h.n, rec.w.n) receiver wavefield at the surface
/// @param source  (>= rec.h.n, rec.w.n) source wavefield at the surface; its first rec.h.n traces are used
/// @param vel     (kxm.n, img.z.n) slowness (s/length), each > 0
/// @param image   (kxm.n, nsecdim, nz) added to, never cleared
/// @param illum   (kxm.n, img.z.n) source illumination, added to, never cleared; empty: none is summed
void owwei(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source, View<const float, 2> vel,
           View<float, 3> image, View<float, 2> illum);

/// Linearised imaging operator of one shot. adj false: deltai += A deltas; adj true: deltas += A' deltai.
/// The step with the opposite sign serves as the adjoint of a step, which makes the pair exact transposes in a
/// laterally constant medium only; the image is formed from the field stepped to level iz+1 and the background of level
/// iz.
/// @param deltas  (kxm.n, img.z.n) slowness perturbation
/// @param deltai  (kxm.n, nsecdim, img.z.n) image perturbation in the shot's window
/// @param session where the wavefield histories "ddws", "ddwr", "ddwsz", "ddwrz" go, if asked for; null: none
void owwemva(const WaveContext& context, bool adj, View<const cf, 2> recv, View<const cf, 2> source,
             View<const float, 2> vel, View<float, 2> deltas, View<float, 3> deltai, qas::Session* session);

/// Objective and gradient of one shot in a single pass: each frequency is imaged from its own background fields, the
/// image weighted twice by owdso (without a horizon), measured and carried back, before the next frequency. A thread's
/// image is not cleared between its frequencies: what the earlier ones left is weighted again. No run calls it.
/// @param f       += for each thread the sum of squares of its image at its last frequency, in single precision; on
///                several threads it depends on which frequencies each of them took
/// @param deltas  (kxm.n, img.z.n) += as owwemva with adj true, the weighted image as residual
/// @param deltai  (kxm.n, nsecdim, img.z.n) += the threads' weighted images from level nzmin down
void owwemva_adj(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source, View<const float, 2> vel,
                 double& f, View<float, 2> deltas, View<float, 3> deltai);

/// Exact derivative of the image that owwei forms, with respect to slowness: deltai += J deltas. For "imgprim"; needs
/// context.references and context.clear_margins, without which the image is not a function of the slowness alone.
/// Piecewise choices (regions, integer parts of the references) count as fixed.
void owwei_derivative(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                      View<const float, 2> vel, View<const float, 2> deltas, View<float, 3> deltai);

/// Its exact transpose: deltas += J' deltai, the discrete adjoint of owwei's recursion. If deltai is the derivative of
/// a function of the image, deltas is the function's gradient. Shapes as owwemva.
void owwei_gradient(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 2> deltas, View<const float, 3> deltai);

/// Weight image gathers by offset, in place: |h / max(h)| ** expdso (max signed), then zero the samples at and above a
/// horizon. Diagonal, so `adj` changes nothing.
/// @param wgcig (img.xm.n, nsecdim, img.z.n)
/// @param pick  horizon depth of each midpoint, or empty: no mute
void owdso(const Parms& par, bool adj, View<float, 3> wgcig, std::span<const float> pick);

/// Local average of |wgcig| in boxes of 2 windz - 1, 2 windx - 1, 2 windh - 1 samples, clipped at the ends.
/// @param wgcig (img.xm.n, nsecdim, img.z.n) in
/// @param odcig same shape, overwritten
void owsmooth(const Parms& par, View<const float, 3> wgcig, View<float, 3> odcig);

/// The transpose of owsmooth's average, which is linear in |wgcig|, in place.
void owsmooth_transpose(const Parms& par, View<float, 3> odcig);

// The rest of the family of image filters; no run calls them. Gathers have the shapes of owsmooth.

/// Moving average along midpoint over 2 h + 1 samples, h = nxfilt / 2, divided by nxfilt; recursive, since it runs in
/// place in rising order, and leaving h samples at each end alone. adj true fills wgcig from ofcig, adj false ofcig
/// from wgcig, both by the same filter: not a transpose. nxfilt below 1 copies.
void owxwht(const Parms& par, bool adj, View<float, 3> wgcig, View<float, 3> ofcig);

/// Multiply each depth trace by the average of its magnitude over 9 samples; recursive as owxwht, and the bare
/// magnitude in the 4 samples at each end.
void owzwht(View<float, 3> wgcig);

/// Multiply depth slice iz = 1, 2, ... by iz ** zwgt. With zwgt not given that overflows below the first slice.
void owzlinwht(const Parms& par, View<float, 3> wgcig);

/// Filter each depth trace by minus exp(sqrt(i |kz|)) in its spectrum: a phase of sqrt(|kz| / 2), and a gain that grows
/// by the exponential of the same. Writes the spectral factors to standard error. Reads img.z.n and kz.all.
void owzphase(const Parms& par, View<float, 3> wgcig);

/// Replace the gathers by (a + e)^2: e the envelope of each depth trace at half amplitude, smoothed by triangle3 of tc2
/// and tc1, 1 where it is zero, and a its maximum. The smoothing takes each midpoint's panel, which is stored depth
/// fastest, for one of nsecdim by img.z.n: its first axis, smoothed by tc1, is a stretch of nsecdim depths, its second,
/// by tc2, goes on from stretch to stretch and trace to trace.
void owenvelope(const Parms& par, View<float, 3> b_image);
