#pragma once
/// Tables of the finite-difference stages through a range of levels at one frequency.
#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

/// The stages of one medium. One per thread.
template <class Real>
class FfdTables {
public:
    /// Without stages if the medium has none.
    /// @param most_levels levels that prepare() is asked for at a time
    /// @param arena       where the tables are taken from
    FfdTables(const Parms& par, const StageMedium<Real>& medium, int most_levels, Arena& arena);
    bool empty() const { return nstage_ == 0; }
    /// @param w     angular frequency, not zero
    /// @param count levels from `first` on
    void prepare(float w, int first, int count);
    /// The stages of a level that is prepared.
    std::span<const FfdStage> stages(int level) const {
        return {stages_[static_cast<std::size_t>(level - first_)].data(), static_cast<std::size_t>(nstage_)};
    }

private:
    void prepare_block(float w, int block, int first, int count);

    const StageMedium<Real>& medium_;
    float trick_, half_dz_, dx2_;
    int nstage_ = 0;
    int first_ = 0;
    std::array<float, 5> alph_{}, beta_{};
    View<cf, 3> q_;                          // (nx, stage, levels)
    View<Real, 4> pivots_;                   // (4, nx/2, stage, levels)
    View<Float8, 2> q_lanes_;                // (nx, 2)
    View<LevelLanes<Real>, 2> pivot_lanes_;  // (nx, 2)
    std::vector<std::array<FfdStage, 5>> stages_;
};

}  // namespace morvane
