#pragma once
/// One evaluation of objective and gradient: migrate all shots, weight the stacked image, carry the residual back.
#include <memory>
#include <span>

#include "lib/base/array.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/measures.h"
#include "src/areal/wemva/inversion/objective.h"
#include "src/areal/wemva/inversion/shots.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// The arrays an evaluation works in, allocated once for a run.
struct EvaluationArrays {
    std::unique_ptr<Objective> objective;
    Shots shots;
    Array<float, 2> model;    ///< (img.xm.n, img.z.n) the slowness in single precision
    Array<float, 3> b_image;  ///< (img.xm.n, nsecdim, img.z.n) stacked image, residual, what is carried back
    Array<float, 3> deltai;   ///< (kxm.n, nsecdim, img.z.n) one shot's image, or residual in its window
    Array<float, 2> deltas;   ///< (kxm.n, img.z.n) one shot's update
    Array<float, 2> scats;    ///< (img.xm.n, img.z.n) sum of deltas over shots
    Array<float, 2> illum, illumination;  ///< light: (kxm.n, img.z.n) one shot's illumination, (img.xm.n, img.z.n) sum
    bool warned_of_signs = false;         ///< a model with samples that are not positive has been met
    Measures measures;                    ///< of the last evaluation
    Array<float, 2> zero_offset;          ///< fit: (img.xm.n, img.z.n) the image there
    Array<float, 2> zero_window;          ///< fit: (kxm.n, img.z.n) the same in one shot's window
    Array<double, 2> fit_sums;            ///< fit: (3, rec.w.n) sums over shots
    Position position;                    ///< how far it has come; an evaluation goes on from there
    explicit EvaluationArrays(const Parms& par);
    /// What an evaluation that is interrupted before a shot needs to go on.
    void archive(Archive& archive);
};

/// Migrates every shot, or from `arrays.position` on, through `arrays.model` and stacks into `arrays.b_image`. With
/// light the illumination of each shot is added to `arrays.illumination`, which no evaluation clears, and the stack so
/// far is divided by it after each shot.
void form_image(const Inversion& run, EvaluationArrays& arrays, int iter);

/// Carries the residual (exact: the derivative of fun) back shot by shot and sums the updates in `arrays.scats`; with
/// fit also compares the data that `arrays.zero_offset` predicts. Reads "rec" and "sou" again.
void back_project(const Inversion& run, EvaluationArrays& arrays);

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
