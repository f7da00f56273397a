#pragma once
/// The derivative of a depth step with respect to its field and to slowness, and the exact transpose of both.
///
/// With given reference velocities a step is out = Step(in, s), and d out = Step d in + (derivative in s) ds:
///   thin lens and phase shift: i sign dz w out, and the change of the blending weights, sample by sample;
///   finite-difference stages: ffd_derivative.h.
/// The transpose runs the factors in reverse order.
#include "src/areal/wemva/step/depth_step.h"

namespace morvane {

/// Complex columns that a recorded step leaves for its derivative besides its result.
int record_columns(const DepthStep& step);
/// The most that any step of these run parameters and this medium leaves.
int record_columns(const Parms& par, const Medium& medium);

/// A field, and what a step through it leaves behind. Fields are taken and left after one taper and before
/// the next, which is not part of the step.
struct SteppedField {
    int sign;            ///< +1 source side, -1 receiver side
    View<cf, 1> field;   ///< (nx) what is stepped: the field, the adjoint field, the change of the field
    View<cf, 1> out;     ///< (nx) the field after the recorded step
    View<cf, 2> record;  ///< (nx, record_columns) the field before each stage, or the derivative of blended references
};

/// As apply_step_pair for sides of opposite sign, from `field` to `out`, keeping the records.
void apply_step_recorded(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                         StepScratch& scratch);

/// The transpose: the adjoint fields after the step go back to those before it, and the gradient of the step's slowness
/// row is added.
/// @param gradient (nx) += Re(conj(adjoint) d out / d s) of both sides
void apply_step_transposed(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                           View<float, 1> gradient, StepScratch& scratch);

/// The transpose for a receiver field alone, without a gradient.
void apply_receiver_step_transposed(const DepthStep& step, const LateralFft& fft, View<cf, 1> field,
                                    StepScratch& scratch);

/// The derivative forward: each side's field holds d in and receives d out for a change ds of the slowness row.
void apply_step_derivative(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                           View<const float, 1> ds, StepScratch& scratch);

}  // namespace morvane
