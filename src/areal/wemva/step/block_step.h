#pragma once
/// One depth step of a block of frequencies, its derivative with respect to field and slowness, and the exact transpose
/// of both.
///
/// With given reference velocities a step is out = Step(in, s), and d out = Step d in + (derivative in s) ds:
///   thin lens and phase shift: i sign dz w out, and the change of the blending weights, sample by sample;
///   finite-difference stages: ffd_lanes.h.
/// The transpose runs the factors in reverse order. A frequency's result is the same in every block.
#include <array>
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/index.h"
#include "lib/base/lanes.h"
#include "src/areal/wemva/step/depth_step.h"
#include "src/areal/wemva/step/ffd_lanes.h"

namespace morvane {

/// Columns (nx, frequencies of the block) of both sides. Fields are taken and left after one taper and before the next,
/// which is not part of the step.
struct BlockPair {
    View<cf, 2> source, receiver;
};

/// What the recorded steps of a block leave for their derivatives, for every level.
class BlockRecord {
public:
    /// @param frequencies of the largest block that is recorded
    BlockRecord(const Parms& par, const Medium& medium, int frequencies, Arena& arena);
    /// The fields after the step that starts at `level`, of the block's first `count` frequencies.
    BlockPair after(int level, int count) const;
    /// The derivative of blended references.
    BlockPair blend(int level, int count) const;
    bool blends() const { return blend_source_.n[0] > 0; }
    /// The fields before finite-difference stage `stage`.
    LanePair before(int level, int stage) const;

private:
    View<cf, 3> source_, receiver_, blend_source_, blend_receiver_;  // (nx, frequencies, levels)
    View<float, 5> stages_;                                          // (lane_count, 2, nx, 2 stages, levels)
};

/// Steps of a block of frequencies. One per thread.
class BlockSteps {
public:
    BlockSteps(const Parms& par, const Medium& medium, const LateralFft& fft, Arena& arena);
    /// The frequencies `first` to `first + count - 1` of the data; at most lane_count.
    void set_frequencies(int first, int count);
    /// Factors of the step that starts at `level`.
    void prepare(int level);

    /// Carries both sides through the step and the taper (nx) that follows it, in place.
    void carry(const BlockPair& fields, View<const float, 1> taper);
    /// The same; the record gets what is before the taper.
    void carry(const BlockPair& fields, View<const float, 1> taper, const BlockRecord& record);
    /// The derivative forward: `fields` hold d in and receive d out for a change ds (nx) of the slowness row.
    void derivative(const BlockPair& fields, const BlockRecord& record, View<const float, 1> ds);
    /// The recorded fields after the step, in lanes that live until the next call.
    LanePair load_after(const BlockRecord& record);
    /// The transpose: the adjoint fields after the step go back to those before it. With an image it
    /// needs load_after() first.
    /// @param image     what the level's image adds to them first, fields = taper (fields + image); empty: that is done
    /// @param gradients (nx, frequencies) = Re(conj(adjoint) d out / d s) of both sides
    void transposed(const BlockPair& fields, const LanePair& image, View<const float, 1> taper,
                    const BlockRecord& record, View<float, 2> gradients);
    /// The transpose for receiver fields alone, without a gradient.
    void transposed(View<cf, 2> receiver);
    /// Whether any step changes the frequency: the finite-difference form leaves zero alone, and an extrapolator of
    /// another name all.
    bool steps(int i) const { return steps_at_[at(i)]; }

private:
    void to_lanes(const BlockPair& fields);
    void from_lanes(const BlockPair& fields) const;
    LanePair after_stage(const BlockRecord& record, int stage) const;
    void transpose_stages(const BlockRecord& record, View<float, 2> gradients);
    void add_image(const BlockPair& fields, const LanePair& image, View<const float, 1> taper);

    const Parms& par_;
    const Medium& medium_;
    const LateralFft& fft_;
    int first_ = 0, count_ = 0, level_ = 0;
    std::array<bool, lane_count> steps_at_{};
    std::array<DepthStep, lane_count> steps_;  // of the frequencies
    View<cf, 3> phase_, space_;                // (nx, nref, frequencies)
    View<float, 2> work_;                      // (nx, 2)
    LaneStages stages_;
    LanePair lanes_, after_;
    View<cf, 2> columns_;  // (nx, lane_count)
    StepScratch scratch_;
};

}  // namespace morvane
