#include "lib/class/chain_mod.h"

namespace morvane {

int chain20(const LinOp& op1, const LinOp& op2, bool adj, bool add, std::span<float> m, std::span<float> d,
            std::span<float> t) {
    constexpr bool fresh = false;
    if (adj) {
        op1(adj, fresh, t, d);
        op2(adj, add, m, t);
    } else {
        op2(adj, fresh, m, t);
        op1(adj, add, t, d);
    }
    return 0;
}

}  // namespace morvane
