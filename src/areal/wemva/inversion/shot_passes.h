#pragma once
/// The passes over the shots of an evaluation, by one process or by a team: what each shot contributes, and its sum.
#include <memory>
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/measures.h"
#include "src/areal/wemva/inversion/objective.h"
#include "src/areal/wemva/inversion/shots.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/team/team.h"

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
    std::vector<char> done;               ///< for each shot whether this pass has added it, 0 or 1
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

/// What the members of a team do in such a pass, `task.what` being the leader's position: compute shots and hand them
/// over. The arrays serve a member alone.
void join_pass(const Inversion& run, EvaluationArrays& arrays, Team::Task task);

}  // namespace morvane
