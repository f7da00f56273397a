#pragma once
/// The derivative of a depth step with respect to its field and to slowness, and the exact transpose of both.
///
/// With given reference velocities a step is out = Step(in, s), and d out = Step d in + (derivative in s) ds:
///   thin lens and phase shift: i sign dz w out, and the change of the blending weights, sample by sample;
///   a finite-difference stage u = M^-1 conj(M) f, M = I + a T: du = M^-1 (conj(M) df + (conj(a') T f - a' T u) ds).
/// The transpose runs the factors in reverse order; S of ow_ffd_areal.h is symmetric, so its pivots serve again:
/// p = conj(S)^-1 x, out = x + T (conj(q) p), gradient Re(conj(p) R) with R = (conj(a') T f - a' T u) / a.
#include "src/areal/wemva/depth_step.h"

/// Complex columns that a recorded step leaves for its derivative.
int record_columns(const DepthStep& step);
/// The most that any step of these run parameters and this medium leaves.
int record_columns(const Parms& par, const Medium& medium);

/// A field and what its steps leave behind.
struct Side {
    int sign;            ///< +1 source side, -1 receiver side
    View<cf, 1> field;   ///< (nx) the field that is stepped; of the transpose: the adjoint field
    View<cf, 2> record;  ///< (nx, record_columns)
};

/// As apply_step_pair for sides of opposite sign, keeping the records. The taper is applied to fields and records here.
void apply_step_recorded(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                         Side receiver, StepScratch& scratch);

/// One side's transpose: the adjoint field of a level goes back to the level above, and the gradient of the step's
/// slowness row is added.
/// @param out      (nx) the side's tapered field after the step
/// @param gradient (nx) += Re(conj(adjoint) d out / d s)
/// Both sides are carried together.
void apply_step_transposed(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                           View<const cf, 1> source_out, Side receiver, View<const cf, 1> receiver_out,
                           View<float, 1> gradient, StepScratch& scratch);

/// The derivative forward: each side's field holds d in and receives d out for a change ds of the slowness row.
void apply_step_derivative(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                           View<const cf, 1> source_out, Side receiver, View<const cf, 1> receiver_out,
                           View<const float, 1> ds, StepScratch& scratch);
