#pragma once
/// The model of one shot, prepared for the extrapolator of the run.
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ffd_stage.h"
#include "src/areal/wemva/step/medium_level.h"

namespace morvane {

/// The model of one shot, prepared for the extrapolator of the run.
struct Medium {
    std::vector<MediumLevel> levels;
    StageMedium<float> stages;  ///< finite-difference form
    StageMedium<double> fine;   ///< instead, with given references, for stages that need double precision
};

/// Reference velocities of every level of a shot's window.
using ReferenceTable = std::vector<std::vector<float>>;

/// What is kept while the model of a shot changes, so that its steps depend on slowness smoothly.
struct FixedReferences {
    const ReferenceTable* references = nullptr;  ///< null: the model chooses its own
    View<const float, 2> start;                  ///< (kxm.n, levels) the slowness by which samples choose among them
};

/// Prepare the model of one shot.
/// @param vel    (kxm.n, levels) slowness (s/length), each > 0
/// @param sref   (nref, 2, levels) region table, or empty
/// @param frozen if it has references: they are used instead of the model's own, a tie of region bounds goes to the
///               slower region, and the samples' derivatives are prepared
Medium prepare_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref,
                      const FixedReferences& frozen);

/// The same for one form, whatever extrapolator the run names.
Medium prepare_ffd_medium(const Parms& par, View<const float, 2> vel, const FixedReferences& frozen);
Medium prepare_pspi_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref,
                           const FixedReferences& frozen);

/// The reference velocities that a medium uses.
ReferenceTable references_of(const Medium& medium);

}  // namespace morvane
