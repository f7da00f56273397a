#pragma once
/// The passes of the exact mode carry blocks of frequencies down together, so that every depth of the image is touched
/// once for all of them. One image serves all threads, which take turns at each depth.
#include <vector>

#include "lib/base/parallel.h"
#include "src/areal/wemva/image/offset_band.h"
#include "src/areal/wemva/passes/block_queue.h"
#include "src/areal/wemva/passes/frequency_loop.h"
#include "src/areal/wemva/step/block_step.h"

namespace morvane {

/// Memory that all threads share for one pass.
class SharedImage {
public:
    /// @param arena where a banded image lies
    SharedImage(const WaveContext& context, const ImageCondition& condition, Arena& arena);
    const ImageCondition& condition() const { return condition_; }
    const OffsetBand& band() const { return band_; }
    float* slice(std::ptrdiff_t iz) const { return samples_.p + iz * samples_.n[0]; }
    /// The slice below, null below the last.
    float* slice_after(std::ptrdiff_t iz) const { return iz + 1 < samples_.n[1] ? slice(iz + 1) : nullptr; }
    /// Whether slices are banded; if not they are those of the image itself.
    bool banded() const { return band_.serves(); }
    /// Frequencies that are worth carrying together: many where the image or the stages gain by it, else few, whose
    /// fields stay in the cache.
    int worthwhile_block() const { return banded() || ffd_ ? lane_count : 2; }
    /// The phases that turn the receiver fields of a block.
    void phases(const Block& block, cf* phase) const;

    /// Starts a sum over frequencies.
    void clear();
    /// image += the sum, its first level that of `first`. Without a band the sum is in the image already.
    void add_to(View<float, 3> image, int first) const;
    /// Takes the image that is to be spread.
    void take(View<const float, 3> image);

private:
    int nodes_;
    bool ffd_;
    const ImageCondition& condition_;
    OffsetBand band_;
    DepthRange depths_;
    View<float, 2> samples_;  // (samples of a slice, nz)
};

/// Imaging of a block: as BandKernels where the image is banded, or frequency by frequency. One per thread.
class BlockImaging {
public:
    BlockImaging(const WaveContext& context, const SharedImage& shared, Arena& arena);
    void start(const Block& block);
    /// What can be done before it is the thread's turn, and then the sum.
    /// @param plain (nx, nsecdim) the slice of the image, for images without a band
    void load(const BlockPair& fields);
    void add(const BlockPair& fields, int iz, View<float, 2> plain);
    bool banded() const { return shared_.banded(); }
    /// J' image on each side, where J takes fields from before the taper, but for the taper that follows. For banded
    /// images.
    /// @param fields before the taper
    /// @return lanes that live until the next call
    LanePair spread(const LanePair& fields, int iz);
    /// The same for others: out = taper out + J' image.
    /// @param plain (nx, nsecdim, nz) the image
    void spread(const BlockPair& fields, int iz, View<const float, 3> plain, const BlockPair& out);

private:
    void spread_side(Spread side, ConstLaneField fields, int iz, LaneField sum);

    const WaveContext& context_;
    const SharedImage& shared_;
    BandKernels kernels_;
    ImageScratch scratch_;
    Block block_{};
    std::vector<cf> phase_;
    LaneField known_;
    LanePair sum_;
};

/// A pass over the frequencies of a shot: `work(slot, block)` for each block, with the slot of its thread. `turns` are
/// skipped for blocks that nobody works on, since the shot is dropped.
template <class Slot, class Work>
void over_blocks(const WaveContext& context, const std::vector<Block>& blocks, std::vector<Slot>& slots, Turns& turns,
                 Work work) {
    BlockQueue queue(blocks);
    in_parallel(context.nodes, [&](int inode) {
        while (const Block* block = queue.next()) {
            if (interruption::is_overdue()) {  // whoever listens drops the shot
                turns.skip(block->turn);
                continue;
            }
            try {
                work(slots[static_cast<std::size_t>(inode)], *block);
            } catch (...) {
                turns.skip(block->turn);
                throw;
            }
            for (int i = 0; i < block->count; ++i) report_frequency(context.par, block->first + i, inode);
        }
    });
    std::fflush(stdout);
}

}  // namespace morvane
