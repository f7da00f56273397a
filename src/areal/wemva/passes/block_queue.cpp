#include "src/areal/wemva/passes/block_queue.h"

#include <algorithm>

namespace morvane {

std::vector<Block> cut_into_blocks(int first, int end, int threads, int most) {
    const int frequencies = end - first, rounds = (frequencies + threads * most - 1) / (threads * most);
    const int count = std::min(frequencies, rounds * threads);
    std::vector<Block> blocks;
    for (int turn = 0; turn < count; ++turn) {
        const int from = first + turn * frequencies / count, to = first + (turn + 1) * frequencies / count;
        blocks.push_back({from, to - from, turn});
    }
    return blocks;
}

}  // namespace morvane
