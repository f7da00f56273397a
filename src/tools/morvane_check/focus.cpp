#include "src/tools/morvane_check/focus.h"

#include <algorithm>
#include <cmath>

#include "src/areal/wemva/passes/ow_wei_areal.h"

namespace morvane {
namespace {

void conjugate(View<cf, 2> field) {
    for (cf& sample : field.flat()) sample = std::conj(sample);
}

/// The fields of the shot at hand. One source function for all shots has been changed before.
void change(const Parms& par, const Variant& variant, Shots& shots) {
    if (variant.conjugate_rec) conjugate(shots.recv);
    if (variant.conjugate_sou && par.areal) conjugate(shots.source);
    if (variant.shift == 0.0) return;
    for (int iw = 0; iw < par.rec.w.n; ++iw) {
        const double w = static_cast<double>(par.rec.w.o) + iw * static_cast<double>(par.rec.w.d);
        const cf turn(std::polar(1.0, w * variant.shift));
        for (std::ptrdiff_t i = 0; i < par.rec.h.n; ++i) shots.recv(i, iw) *= turn;
    }
}

}  // namespace

double Focus::share(std::size_t first, std::size_t end) const {
    double a = 0.0, b = 0.0;
    for (std::size_t i = first; i < end; ++i) {
        a += zero[i];
        b += all[i];
    }
    return b > 0.0 ? a / b : 0.0;
}

Focus focus_of(const Inversion& run, Shots& shots, View<const float, 2> model, const std::vector<int>& used,
               const Variant& variant) {
    const Parms& par = run.par;
    Array<float, 3> image({par.img.xm.n, par.nsecdim, par.img.z.n}), window({par.kxm.n, par.nsecdim, par.img.z.n});
    shots.rewind(run);
    if (variant.conjugate_sou && !par.areal) conjugate(shots.source);
    for (int ishot = 1; ishot <= par.rec.xd.n; ++ishot) {
        shots.load(run, model, ishot);
        if (!std::ranges::binary_search(used, ishot)) continue;
        change(par, variant, shots);
        window.fill(0.0f);
        const int nodes = owwei_init(par);
        owwei(shots.context(run, nodes), shots.recv, shots.source, shots.vel, window, {});
        stack(window, image, shots.first_column(), nodes);
    }
    Focus focus;
    const std::ptrdiff_t zero = std::clamp<std::ptrdiff_t>(std::lround(-par.osecdim / par.dsecdim), 0, par.nsecdim - 1);
    for (std::ptrdiff_t iz = 0; iz < par.img.z.n; ++iz) {
        double sums[2] = {};
        for (std::ptrdiff_t ih = 0; ih < par.nsecdim; ++ih)
            for (std::ptrdiff_t ix = 0; ix < par.img.xm.n; ++ix) {
                const double e = static_cast<double>(image(ix, ih, iz)) * static_cast<double>(image(ix, ih, iz));
                sums[1] += e;
                if (ih == zero) sums[0] += e;
            }
        focus.zero.push_back(sums[0]);
        focus.all.push_back(sums[1]);
    }
    return focus;
}

}  // namespace morvane
