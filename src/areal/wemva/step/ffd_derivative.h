#pragma once
/// The derivative of a finite-difference stage with respect to its field and to slowness, and the exact transpose of
/// both.
///
/// A stage u = M^-1 conj(M) f, M = I + a T, has du = M^-1 (conj(M) df + (conj(a') T f - a' T u) ds). S of ffd_stage.h
/// is symmetric, so its pivots serve the transpose: p = conj(S)^-1 x, out = x + T (conj(q) p), gradient Re(conj(p) R)
/// with R = (conj(a') T f - a' T u) / a.
#include "lib/base/array.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

/// A stage of one side: its recorded fields, and what is carried through it, in place.
struct StageFields {
    View<const cf, 1> before, after;  ///< (nx) of the recorded step
    View<cf, 1> carried;              ///< (nx) change of the field, or the adjoint field
};

/// The derivative forward, of the source side (sign +1) and the receiver side (sign -1): `carried` holds d in and
/// receives d out for a change ds of the slowness row.
/// @param level its velocities and reference, with given references
/// @param ds    (nx)
void apply_stage_derivative(const FfdStage& stage, const MediumLevel& level, const StageFields& source,
                            const StageFields& receiver, View<const float, 1> ds, StageScratch& scratch);

/// The transpose: `carried` holds the adjoint field after the stage and receives the one before it.
/// @param gradient (nx) += Re(conj(adjoint) d out / d s) of both sides
void apply_stage_transposed(const FfdStage& stage, const MediumLevel& level, const StageFields& source,
                            const StageFields& receiver, View<float, 1> gradient, StageScratch& scratch);

/// The transpose of a receiver field alone, in place, without a gradient.
void apply_receiver_stage_transposed(const FfdStage& stage, const MediumLevel& level, View<cf, 1> field,
                                     StageScratch& scratch);

}  // namespace morvane
