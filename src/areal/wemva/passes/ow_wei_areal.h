#pragma once
/// Migration of a shot and the linearised imaging operator.
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/depth_step.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// Number of threads of the frequency loops: `node`, or the runtime's team size if node is 9999. Prints three lines on
/// standard output.
int owwei_init(const Parms& par);

/// As owwei_init, before each owwemva of shot `ishot`.
int owwemva_init(const Parms& par, int ishot);

class KeptFields;

/// What the wavefield routines share besides the run parameters.
struct WaveContext {
    const Parms& par;
    const LateralFft& fft;        ///< of par.kxm.n samples
    int nodes;                    ///< threads of the frequency loops
    View<const float, 1> taper;   ///< (kxm.n) lateral taper
    View<const float, 3> sref;    ///< (nref, 2, img.z.n) region table of lloyd_vel1, or empty
    FixedReferences frozen = {};  ///< what stays while the model changes
    bool reproducible = false;    ///< clear margins: sums in the order of the frequencies, whatever `nodes` is
    bool clear_margins = false;   ///< start each frequency from clear columns; otherwise a thread carries margins over
    const Prediction* prediction = nullptr;  ///< owwei_gradient: data to predict and compare; null: none
    KeptFields* kept =
        nullptr;  ///< clear margins: owwei leaves the background fields there for owwei_gradient; or null
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
/// a function of the image, deltas is the function's gradient. Shapes as owwemva. With context.prediction the data that
/// its image predicts are compared with recv on the way, at every frequency that is stepped.
void owwei_gradient(const WaveContext& context, View<const cf, 2> recv, View<const cf, 2> source,
                    View<const float, 2> vel, View<float, 2> deltas, View<const float, 3> deltai);

}  // namespace morvane
