#pragma once
/// One evaluation of objective and gradient: migrate all shots, weight the stacked image, carry the residual back.
#include <optional>
#include <span>
#include <vector>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/step/depth_step.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// What all evaluations of a run share, read-only. The views belong to the driver.
struct Inversion {
    const Parms& par;
    qas::Session& session;
    TextLog& listing;                   ///< progress lines
    const LateralFft& fft;              ///< of par.kxm.n samples
    View<const float, 1> taper;         ///< (kxm.n) lateral taper
    View<const float, 2> vel0;          ///< (img.xm.n, img.z.n) start model
    View<const float, 3> vref;          ///< (nref, 2, img.z.n) region table, or empty
    std::span<const float> pick1;       ///< (img.xm.n) horizon depths, or empty: no horizon
    std::optional<base_spln2d> spline;  ///< between knots and image grid, if there are knots
    bool panels = true;                 ///< whether evaluations append to the outputs
    View<const float, 2> slowest = {};  ///< (img.xm.n, img.z.n) the greatest slowness a trial can have; empty: vel0
};

/// The arrays an evaluation works in, allocated once for a run.
struct EvaluationArrays {
    Array<float, 2> model;                ///< (img.xm.n, img.z.n) the slowness in single precision
    Array<float, 3> b_image;              ///< (img.xm.n, nsecdim, img.z.n) stacked image, then image residual
    Array<float, 3> r_image;              ///< same shape; only with l1norm or nxfilt
    Array<float, 3> deltai;               ///< (kxm.n, nsecdim, img.z.n) one shot's image, or residual in its window
    Array<float, 2> vel, deltas;          ///< (kxm.n, img.z.n) one shot's slowness, its update
    Array<float, 2> scats;                ///< (img.xm.n, img.z.n) sum of deltas over shots
    Array<float, 2> illum, illumination;  ///< light: (kxm.n, img.z.n) one shot's illumination, (img.xm.n, img.z.n) sum
    Array<cf, 2> recv;                    ///< (rec.h.n, rec.w.n) one shot's receiver wavefield
    Array<cf, 2> source;                  ///< (sou.h.n or rec.h.n, sou.w.n) its source wavefield
    Array<float, 3> image;                ///< exact: the stacked image (normalise), or the once-weighted one (l1norm)
    Array<float, 3> weighted;             ///< exact: the once-weighted image, with both
    Array<float, 2> start;                ///< exact: (kxm.n, img.z.n) one shot's window of the start model
    std::vector<ReferenceTable> references;  ///< exact: of each shot's window of the start model (areal: of the model)
    std::vector<Arena> memory;               ///< work arrays of the passes, one arena a thread
    std::vector<double> gspl;                ///< spline coefficients of the gradient; only with knots
    bool warned_of_signs = false;            ///< a model with samples that are not positive has been met
    explicit EvaluationArrays(const Parms& par);
};

/// Migrates every shot through `arrays.model` and stacks into `arrays.b_image`. Reads "rec" and "sou" from their
/// starts. With light the illumination of each shot is added to `arrays.illumination`, which no evaluation clears, and
/// the stack so far is divided by it after each shot.
void form_image(const Inversion& run, EvaluationArrays& arrays, int iter);

/// Turns the stacked image in `arrays.b_image` into the residual: weight, prediction across offset with nxfilt,
/// reweighting with l1norm, weight again; with the exact gradient also zero outside the columns that count.
/// @param titer number of the evaluation, also that of its set of prediction filters
void form_residual(const Inversion& run, EvaluationArrays& arrays, int titer);

/// Sum of squares of the residual, or of absolute values with l1norm: terms in single precision (in double in the exact
/// mode), sum in double. In the classic mode the second axis is img.sh also with time shifts, where it is empty; in the
/// exact mode it is the one that is there.
double objective(const Parms& par, View<const float, 3> b_image);

/// Turns the residual into the derivative of `fun` with respect to the image: 2 W^2 r; with l1norm
/// W (2 W y / e^e - sign(y) B' (|r| (1 + ln e))), y the once-weighted image, e = B |y| its envelope, which is
/// overwritten; with normalise the derivative of the quotient.
/// @param fun the value of the evaluation (with normalise: objective() over the energy of the image)
void differentiate_objective(const Inversion& run, EvaluationArrays& arrays, double fun);

/// Carries the residual (exact: the derivative of fun) back shot by shot and sums the updates in `arrays.scats`. Reads
/// "rec" and "sou" again.
void back_project(const Inversion& run, EvaluationArrays& arrays);

/// Projects the gradient on the spline knots, if there are any, g = B B' g, then smooths it along dips with dipflt. Not
/// in the exact mode, where the knot coefficients are the variables.
/// @param g (img.xm.n img.z.n) in place
void condition_gradient(const Inversion& run, EvaluationArrays& arrays, std::span<double> g);

/// Objective and gradient at x, in the classic order, one panel appended to "Velout", "bkgimg", "Dimage" and "grad",
/// and to "illum" with light.
/// @param x     (img.xm.n img.z.n) slowness; samples above a horizon go back to the start model, also for the caller
/// @param g     same size, overwritten: minus the sum of the shots' updates, conditioned; in the exact mode the
///              derivative of fun with respect to x
/// @param titer number of the evaluation, also the panel count of the outputs
/// @return fun; the caller checks that it is finite
/// Ends the run when data, image, residual or gradient hold numbers that are not finite, naming the array, the count
/// and the likely cause; the panel concerned has been written by then.
double evaluate(const Inversion& run, EvaluationArrays& arrays, std::span<double> x, std::span<double> g, int iter,
                int titer);

/// As evaluate, the value alone: one pass over the data, no panels, no residual carried back.
double evaluate_fun(const Inversion& run, EvaluationArrays& arrays, std::span<double> x);

}  // namespace morvane
