#pragma once
/// The derivative of a depth step with respect to its field and to slowness, and the exact transpose of both.
///
/// With given reference velocities a step is out = Step(in, s), and d out = Step d in + (derivative in s) ds:
///   thin lens and phase shift: i sign dz w out, and the change of the blending weights, sample by sample;
///   a finite-difference stage u = M^-1 conj(M) f, M = I + a T: du = M^-1 (conj(M) df + (conj(a') T f - a' T u) ds).
/// The transpose runs the factors in reverse order; S of ffd_stage.h is symmetric, so its pivots serve again:
/// p = conj(S)^-1 x, out = x + T (conj(q) p), gradient Re(conj(p) R) with R = (conj(a') T f - a' T u) / a.
#include "src/areal/wemva/step/depth_step.h"

namespace morvane {

/// Complex columns that a recorded step leaves for its derivative besides its result.
int record_columns(const DepthStep& step);
/// The most that any step of these run parameters and this medium leaves.
int record_columns(const Parms& par, const Medium& medium);

/// A field, and what a step through it leaves behind. Fields are taken and left after one taper and before
/// the next, which is not part of the step.
struct Side {
    int sign;            ///< +1 source side, -1 receiver side
    View<cf, 1> field;   ///< (nx) what is stepped: the field, the adjoint field, the change of the field
    View<cf, 1> out;     ///< (nx) the field after the recorded step
    View<cf, 2> record;  ///< (nx, record_columns) the field before each stage, or the derivative of blended references
};

/// As apply_step_pair for sides of opposite sign, from `field` to `out`, keeping the records.
void apply_step_recorded(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                         StepScratch& scratch);

/// The transpose: the adjoint fields after the step go back to those before it, and the gradient of the step's slowness
/// row is added.
/// @param gradient (nx) += Re(conj(adjoint) d out / d s) of both sides
void apply_step_transposed(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                           View<float, 1> gradient, StepScratch& scratch);

/// The derivative forward: each side's field holds d in and receives d out for a change ds of the slowness row.
void apply_step_derivative(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                           View<const float, 1> ds, StepScratch& scratch);

}  // namespace morvane
