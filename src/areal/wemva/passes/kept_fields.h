#pragma once
/// Background fields that the migration leaves for the gradient pass over the same shot, which else computes them
/// again.
#include <memory>
#include <mutex>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "src/areal/wemva/passes/block_queue.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/block_step.h"

namespace morvane {

/// The fields of one shot, block by block.
class KeptFields {
public:
    /// Forgets what is kept; the memory stays. From now on records are kept for this model and the frequencies in use.
    /// @param vel (kxm.n, img.z.n) slowness
    void start(const Parms& par, View<const float, 2> vel);
    /// Memory for the records of a block. For any number of threads at once.
    BlockRecord& record(const Parms& par, const Medium& medium, const Block& block);
    /// That every block has been recorded.
    void finish() { whole_ = true; }
    /// Whether the fields of this model at these frequencies are there, all of them.
    bool holds(const Parms& par, View<const float, 2> vel) const;
    /// The blocks, in the order of their frequencies.
    const std::vector<Block>& blocks() const { return blocks_; }
    const BlockRecord& record(const Block& block) const;

private:
    std::mutex guard_;
    Arena arena_;
    std::vector<float> vel_;
    std::vector<Block> blocks_;
    std::vector<std::unique_ptr<BlockRecord>> records_;  // by turn
    int first_ = 0, end_ = 0;                            // frequencies
    bool whole_ = false;
};

}  // namespace morvane
