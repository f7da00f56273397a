#include "lib/class/igrad1.h"

#include <cassert>
#include <cstddef>

#include "lib/base/lin_op.h"

namespace morvane {

int igrad1_lop(bool adj, bool add, std::span<float> xx, std::span<float> yy) {
    adjnull(adj, add, xx, yy);
    return igrad1_lop2(adj, add, xx, yy);
}

int igrad1_lop2(bool adj, bool /*add*/, std::span<float> xx, std::span<float> yy) {
    assert(xx.size() == yy.size());
    for (std::size_t i = 0; i + 1 < xx.size(); ++i) {
        if (adj) {
            xx[i + 1] += yy[i];
            xx[i] -= yy[i];
        } else {
            yy[i] += xx[i + 1] - xx[i];
        }
    }
    return 0;
}

}  // namespace morvane
