#include "src/areal/wemva/passes/kept_fields.h"

#include <algorithm>

#include "lib/base/index.h"

namespace morvane {

void KeptFields::start(const Parms& par, View<const float, 2> vel) {
    records_.clear();
    blocks_.clear();
    arena_.rewind();
    vel_.assign(vel.flat().begin(), vel.flat().end());
    first_ = par.first_frequency();
    end_ = par.end_frequency();
    whole_ = false;
}

BlockRecord& KeptFields::record(const Parms& par, const Medium& medium, const Block& block) {
    const std::lock_guard lock(guard_);
    if (records_.size() <= at(block.turn)) {
        records_.resize(at(block.turn) + 1);
        blocks_.resize(at(block.turn) + 1);
    }
    blocks_[at(block.turn)] = block;
    records_[at(block.turn)] = std::make_unique<BlockRecord>(par, medium, block.count, arena_);
    return *records_[at(block.turn)];
}

bool KeptFields::holds(const Parms& par, View<const float, 2> vel) const {
    return whole_ && first_ == par.first_frequency() && end_ == par.end_frequency() &&
           std::ranges::equal(vel.flat(), vel_);
}

const BlockRecord& KeptFields::record(const Block& block) const {
    return *records_[at(block.turn)];
}

}  // namespace morvane
