#pragma once
/// How the frequencies of a pass are cut into blocks that travel together, and handed to the threads.
#include <atomic>
#include <vector>

namespace morvane {

/// Some frequencies of the data, the turn-th block of a pass.
struct Block {
    int first, count, turn;
};

/// Cuts the frequencies first..end-1 in their order: as many blocks for each thread, and as few, of nearly one size.
/// @param most frequencies of a block, at most lane_count
std::vector<Block> cut_into_blocks(int first, int end, int threads, int most);

/// Hands out blocks in the order of their turns.
class BlockQueue {
public:
    explicit BlockQueue(const std::vector<Block>& blocks) : blocks_(blocks) {}
    /// Null when all are handed out.
    const Block* next() {
        const std::size_t i = next_++;
        return i < blocks_.size() ? &blocks_[i] : nullptr;
    }

private:
    const std::vector<Block>& blocks_;
    std::atomic<std::size_t> next_ = 0;
};

}  // namespace morvane
