#include "src/areal/wemva/passes/block_queue.h"

#include <algorithm>

namespace morvane {

std::vector<Block> cut_into_blocks(int first, int end, int threads, int most) {
    const int fewest = std::min({4, most, std::max(1, (end - first) / threads)});
    std::vector<Block> blocks;
    while (first < end) {
        const int left = end - first;
        const int count = std::min(left, std::clamp((left + threads - 1) / threads, fewest, most));
        blocks.push_back({first, count, static_cast<int>(blocks.size())});
        first += count;
    }
    return blocks;
}

}  // namespace morvane
