#include "lib/class/inv_tomo_mod.h"

#include <cassert>
#include <cstddef>

#include "lib/class/cgstep_mod.h"
#include "lib/class/helix/polydiv.h"
#include "lib/class/solver_reg_mod.h"

namespace morvane {

int mask_op(std::span<const float> mask, bool adj, bool add, std::span<float> m, std::span<float> d) {
    adjnull(adj, add, m, d);
    return mask_op2(mask, adj, add, m, d);
}

int mask_op2(std::span<const float> mask, bool adj, bool /*add*/, std::span<float> m, std::span<float> d) {
    assert(m.size() == mask.size() && d.size() == mask.size());
    for (std::size_t i = 0; i < mask.size(); ++i) {
        if (adj) {
            m[i] += mask[i] * d[i];
        } else {
            d[i] += mask[i] * m[i];
        }
    }
    return 0;
}

void inv_tomo(const Filter& filt, std::span<const float> mask, float eps, int niter, std::span<float> slow,
              std::span<const float> slow0, bool verb) {
    const LinOp divide = [&](bool adj, bool add, std::span<float> x, std::span<float> y) {
        return polydiv_lop(filt, adj, add, x, y);
    };
    CgState state;
    const Stepper stepper = [&](bool& forget, std::span<float> x, std::span<const float> g, std::span<float> rr,
                                std::span<const float> gg) { return cgstep(state, forget, x, g, rr, gg); };
    SolverReg options;
    options.verb = verb;
    if (mask.empty()) {
        solver_reg(slow, slow0, divide, i_op, stepper, slow.size(), niter, eps, options);
    } else {
        options.jop = [&](bool adj, bool add, std::span<float> x, std::span<float> y) {
            return mask_op(mask, adj, add, x, y);
        };
        solver_reg(slow, slow0, i_op, divide, stepper, slow.size(), niter, eps, options);
    }
}

}  // namespace morvane
