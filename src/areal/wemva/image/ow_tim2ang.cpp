#include "src/areal/wemva/image/ow_tim2ang.h"

#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <numbers>
#include <string>
#include <vector>

#include "lib/base/fixed_format.h"
#include "lib/class/igrad1.h"

namespace morvane {

namespace {

using Index = std::ptrdiff_t;

float cosd(float degrees) {
    return static_cast<float>(std::cos(static_cast<double>(degrees) * (std::numbers::pi / 180.0)));
}

/// -1 / cos of each angle.
std::vector<float> secants(int n, float d, float o) {
    std::vector<float> sec;
    for (int i = 0; i < n; ++i) sec.push_back(-1.0f / cosd(static_cast<float>(i) * d + o));
    return sec;
}

struct Window {
    Index first, last;
};
Window window(const Parms& par, Index ix) {
    const Index half = std::max(par.nxw, 0);
    return {std::max<Index>(ix - half, 0), std::min<Index>(ix + half, par.img.xm.n - 1)};
}

/// One midpoint's panel over time shift and depth, summed over its window or to be spread over it, against its angles.
/// @param panel (img.th.n, img.z.n)
void one_midpoint(const Parms& par, View<const float, 2> vv, const std::vector<float>& secx,
                  const std::vector<float>& sech, Index ix, bool adj, View<float, 3> modl, View<float, 2> panel) {
    const Axis &z = par.img.z, &th = par.img.th;
    for (const float sx : secx) {
        for (Index iah = 0; iah < par.nah; ++iah) {
            for (Index it = 0; it < th.n; ++it) {
                const float t = static_cast<float>(it) * th.d + th.o;
                for (Index izm = 0; izm < z.n; ++izm) {
                    const float zm = static_cast<float>(izm) * z.d + z.o;
                    const float shift = t / vv(ix, izm) * sech[static_cast<std::size_t>(iah)] * sx;
                    const float zd = (zm - z.o - shift) / z.d;
                    const float whole = std::trunc(zd);
                    if (!(whole > -1.0f && whole < static_cast<float>(z.n - 1))) continue;
                    const auto izd = static_cast<Index>(whole);
                    const float fx = zd - whole, gx = 1.0f - fx;
                    if (adj) {
                        modl(ix, iah, izm) += gx * panel(it, izd) + fx * panel(it, izd + 1);
                    } else {
                        panel(it, izd + 1) += modl(ix, iah, izm) * fx;
                        panel(it, izd) += modl(ix, iah, izm) * gx;
                    }
                }
            }
        }
    }
}

void difference_rows(View<float, 3> data) {
    const auto nt = static_cast<std::size_t>(data.n[1]);
    std::vector<float> row(nt), result(nt);
    for (Index iz = 0; iz < data.n[2]; ++iz)
        for (Index ix = 0; ix < data.n[0]; ++ix) {
            for (std::size_t it = 0; it < nt; ++it) row[it] = data(ix, static_cast<Index>(it), iz);
            std::ranges::fill(result, 0.0f);
            igrad1_lop2(false, false, row, result);
            for (std::size_t it = 0; it < nt; ++it) data(ix, static_cast<Index>(it), iz) = result[it];
        }
}

}  // namespace

Array<float, 2> owslant_init(const Parms& par, View<const float, 2> vel) {
    const std::string sizes = list_line({static_cast<long long>(par.img.xm.n), static_cast<long long>(par.img.z.n)});
    std::printf("%s\n", sizes.c_str());
    Array<float, 2> vv({par.img.xm.n, par.img.z.n});
    for (Index ix = 0; ix < par.img.xm.n; ++ix) {
        float sum = 0.0f;
        for (Index iz = 0; iz < par.img.z.n; ++iz) {
            sum += vel(ix, iz);
            vv(ix, iz) = sum / static_cast<float>(iz + 1);
        }
    }
    return vv;
}

int owslant(const Parms& par, View<const float, 2> vv, bool adj, bool add, View<float, 3> modl, View<float, 3> data) {
    std::ranges::fill(adj ? modl.flat() : data.flat(), 0.0f);
    return owslant_exe(par, vv, adj, add, modl, data);
}

int owslant_exe(const Parms& par, View<const float, 2> vv, bool adj, bool /*add*/, View<float, 3> modl,
                View<float, 3> data) {
    const Index nx = par.img.xm.n, nt = par.img.th.n, nz = par.img.z.n;
    assert(modl.n == (Extents<3>{nx, par.nah, nz}) && data.n == (Extents<3>{nx, nt, nz}));
    const int nodes = par.node == node_default ? omp_get_max_threads() : std::max(par.node, 1);
    const std::vector<float> secx = secants(par.nax, par.dax, par.oax), sech = secants(par.nah, par.dah, par.oah);
    if (!adj) difference_rows(data);
    // No term depends on the distance in the window: the window is summed apart, once per midpoint.
    Array<float, 3> panels({nt, nz, nx});
    if (adj) {
#pragma omp parallel for schedule(dynamic, 1) num_threads(nodes)
        for (Index ix = 0; ix < nx; ++ix) {
            const View<float, 2> panel = panels.view().slice(ix);
            const auto [first, last] = window(par, ix);
            for (Index iz = 0; iz < nz; ++iz)
                for (Index it = 0; it < nt; ++it)
                    for (Index ixm = first; ixm <= last; ++ixm) panel(it, iz) += data(ixm, it, iz);
            one_midpoint(par, vv, secx, sech, ix, adj, modl, panel);
        }
    } else {
#pragma omp parallel for schedule(dynamic, 1) num_threads(nodes)
        for (Index ix = 0; ix < nx; ++ix) one_midpoint(par, vv, secx, sech, ix, adj, modl, panels.view().slice(ix));
#pragma omp parallel for schedule(static) num_threads(nodes)
        for (Index iz = 0; iz < nz; ++iz)
            for (Index it = 0; it < nt; ++it)
                for (Index ixm = 0; ixm < nx; ++ixm) {
                    const auto [first, last] = window(par, ixm);
                    for (Index ix = first; ix <= last; ++ix) data(ixm, it, iz) += panels(it, iz, ix);
                }
    }
    return 0;
}

}  // namespace morvane
