#include "src/areal/wemva/focus/signs.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "lib/corelibs/qas/messages/notes.h"
#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/run/muted.h"

namespace morvane {

SignShares shares_of(const std::array<Focus, 4>& images) {
    SignShares shares{};
    std::ranges::transform(images, shares.begin(), &Focus::shallow_share);
    return shares;
}

std::size_t best_other(const SignShares& shares) {
    return static_cast<std::size_t>(std::max_element(shares.begin() + 1, shares.end()) - shares.begin());
}

const char* cure_of_sign(std::size_t variant) {
    constexpr const char* cures[] = {"", "take the complex conjugates of rec and sou: U(w) = sum u(t) exp(+i w t)",
                                     "take the complex conjugate of rec", "take the complex conjugate of sou"};
    return cures[variant];
}

SignPlan plan_signs(const Parms& par) {
    constexpr int most = 6, coarse = 4, fine = 2, variants = 4,
                  passes = 3;  // an evaluation takes as long as 3 migrations
    SignPlan plan;
    if (!par.check_signs || par.timeshift || par.imgcon != "imgprim" || par.nsecdim < 3 || zero_sample(par) < 0)
        return plan;
    const int all = par.rec.xd.n;
    const double apart = par.areal ? 1.0 : static_cast<double>(par.rec.xd.d),
                 spread = par.rec.h.n * static_cast<double>(par.rec.h.d);
    const int widest = std::max(1, all / most);
    const int stride =
        par.areal ? std::max(1, all / 24) : std::max(1, static_cast<int>(std::lround(spread / 24.0 / apart)));
    const int step = std::min(stride, widest), count = std::min(most, all);
    for (int i = 0; i < count; ++i) plan.shots.push_back((all - step * (count - 1) - 1) / 2 + 1 + step * i);
    const double run = passes * (par.niter + 1.0) * all;
    plan.every = count * variants / static_cast<double>(fine) <= 0.01 * run ? fine : coarse;
    return plan;
}

std::string doubt_of_signs(FewShots& few) {
    std::array<Focus, 4> images;
    {
        const Muted progress(stdout);
        std::ranges::transform(sign_variants, images.begin(), [&](const Variant& v) { return few.focus(v); });
    }
    if (interruption::is_overdue()) return "";
    const SignShares shares = shares_of(images);
    const std::size_t best = best_other(shares);
    const double of_noise = 1.0 / few.offsets();  // what has no focus is spread over all offsets alike
    if (!(shares[best] > 1.1 * shares[0] && shares[best] > 1.4 * of_noise)) return "";
    return qas::strprintf(
        "evaluation 1: the image of %zu shots has %.3g of its energy at zero offset, but %.3g if you %s; morvane_check tells "
        "more, and check_signs=n leaves this look out",
        few.size(), shares[0], shares[best], cure_of_sign(best));
}

}  // namespace morvane
