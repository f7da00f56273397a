#include "src/areal/wemva/step/medium.h"

#include "lib/base/index.h"
#include "src/areal/wemva/step/ffd_stage.h"
#include "src/areal/wemva/step/pspi_level.h"

namespace morvane {

namespace {

/// The levels of the finite-difference form.
template <class Real>
void prepare_levels(const Parms& par, View<const float, 2> vel, const ReferenceTable* given,
                    std::vector<MediumLevel>& levels, StageMedium<Real>& medium) {
    const std::ptrdiff_t nx = vel.n[0], nz = vel.n[1], blocks = (nz + levels_at_a_time - 1) / levels_at_a_time;
    medium.alpha_term = Array<LevelLanes<Real>, 2>({nx, blocks});
    medium.beta_term = Array<LevelLanes<Real>, 2>({nx, blocks});
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
        const float* const vref = given ? &(*given)[at(iz)][0] : nullptr;
        ffd_level<Real>(par, vel.slice(iz).flat(), vref, levels[at(iz)],
                        medium.alpha_term.view().slice(iz / levels_at_a_time).flat(),
                        medium.beta_term.view().slice(iz / levels_at_a_time).flat(),
                        static_cast<int>(iz % levels_at_a_time));
    }
}

}  // namespace

Medium prepare_ffd_medium(const Parms& par, View<const float, 2> vel, const FixedReferences& frozen) {
    Medium medium;
    medium.levels.resize(at(vel.n[1]));
    if (frozen.references && ffd_needs_double(par.dipop))
        prepare_levels(par, vel, frozen.references, medium.levels, medium.fine);
    else
        prepare_levels(par, vel, frozen.references, medium.levels, medium.stages);
    return medium;
}

Medium prepare_pspi_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref,
                           const FixedReferences& frozen) {
    Medium medium;
    medium.levels.resize(at(vel.n[1]));
    for (std::ptrdiff_t iz = 0; iz < vel.n[1]; ++iz) {
        const std::span<const float> row = vel.slice(iz).flat();
        const View<const float, 2> table = sref.p ? sref.slice(iz) : View<const float, 2>{};
        MediumLevel& level = medium.levels[at(iz)];
        if (frozen.references)
            pspi_level_given(row, table, (*frozen.references)[at(iz)], frozen.start.slice(iz).flat(), level);
        else
            pspi_level(par, row, table, level);
    }
    return medium;
}

Medium prepare_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref,
                      const FixedReferences& frozen) {
    if (par.ffd()) return prepare_ffd_medium(par, vel, frozen);
    if (par.pspi()) return prepare_pspi_medium(par, vel, sref, frozen);
    Medium medium;
    medium.levels.resize(at(vel.n[1]));
    return medium;
}

ReferenceTable references_of(const Medium& medium) {
    ReferenceTable table;
    for (const MediumLevel& level : medium.levels) table.push_back(level.vref);
    return table;
}

}  // namespace morvane
