#pragma once
/// The finite-difference stages of a block of frequencies, one per SIMD lane; their derivative with respect to field
/// and slowness, and the exact transpose of both.
///
/// Every frequency is a tridiagonal system of its own, so that factors, elimination and correction run in lanes and
/// nothing is kept from level to level. A stage u = M^-1 conj(M) f, M = I + a T (see ffd_stage.h), has
/// du = M^-1 (conj(M) df + (conj(a') T f - a' T u) ds). S of ffd_stage.h is symmetric and serves the transpose too:
/// p = conj(S)^-1 x, out = x + T (conj(q) p), gradient Re(conj(p) R) with R = (conj(a') T f - a' T u) / a.
#include <array>
#include <span>

#include "lib/base/arena.h"
#include "lib/base/lanes.h"
#include "src/areal/wemva/step/medium.h"

namespace morvane {

/// Source and receiver side of a block; the receiver side has the conjugates of the factors.
struct LanePair {
    LaneField source, receiver;
};

/// The stages of one block at one level at a time. One per thread.
class LaneStages {
public:
    /// Without stages if the medium has none.
    LaneStages(const Parms& par, const Medium& medium, Arena& arena);
    /// Number of stages of a step.
    static int count(const Parms& par, const Medium& medium);
    int count() const { return count_; }
    /// @param w angular frequencies, at most lane_count; the stages leave a frequency of zero alone
    void set_frequencies(std::span<const float> w);
    void set_level(int level) { level_ = level; }

    /// One stage of both sides. `after` may be `before`.
    void apply(int stage, const LanePair& before, const LanePair& after);
    /// The derivative forward: `carried` holds d in and receives d out for a change ds (nx) of the slowness row.
    /// @param before, after the fields around the stage, as apply() had and left them
    void derivative(int stage, const LanePair& before, const LanePair& after, View<const float, 1> ds,
                    const LanePair& carried);
    /// The transpose: `carried` holds the adjoint fields after the stage and receives those before it.
    /// Call it for the last stage first, down to stage 0.
    void transposed(int stage, const LanePair& before, const LanePair& after, const LanePair& carried);
    /// After stage 0: adds the derivative of the thin lens before it, i sign dz w `before`, for the adjoint fields
    /// there.
    void add_thin_lens(float dz, const LanePair& before, const LanePair& adjoint);
    /// gradients(x, frequency) = Re(conj(adjoint) d out / d s) of both sides, of all that came since the last stage.
    /// @param gradients (nx, frequencies)
    void get_gradients(View<float, 2> gradients) const { from_lanes(contribution_, gradients); }
    /// The transpose for the receiver side alone, without a gradient.
    void transposed(int stage, LaneField receiver);

private:
    template <class Real, class Work>
    void in_lanes(int stage, Work work);
    template <class Work>
    void in_precision(int stage, Work work);

    const Medium& medium_;
    bool fine_;
    int count_ = 0, nfreq_ = 0, level_ = 0;
    float trick_;
    double half_dz_, dx2_;
    std::array<float, 5> alph_{}, beta_{};
    std::array<float, lane_count> w_{};
    View<float, 1> scratch_;       // what a solution keeps of each sample
    View<float, 3> weights_;       // (2 lane_count, 2, nx) what the second difference of a transpose takes
    View<float, 2> contribution_;  // (lane_count, nx) to the gradients
};

}  // namespace morvane
