#include "lib/base/lin_op.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

namespace morvane {

void adjnull(bool adj, bool add, std::span<float> x, std::span<float> y) {
    if (!add) std::ranges::fill(adj ? x : y, 0.0f);
}

int i_op(bool adj, bool add, std::span<float> m, std::span<float> d) {
    assert(m.size() == d.size());
    adjnull(adj, add, m, d);
    for (std::size_t i = 0; i < m.size(); ++i) (adj ? m[i] : d[i]) += adj ? d[i] : m[i];
    return 0;
}

}  // namespace morvane
