#pragma once
/// A survey of one shot with random surface fields, and the image operators on it.
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/step/ow_taper_areal.h"
#include "tests/src/areal/wemva/step/wave_case.h"

namespace morvane {

struct Shot {
    Parms par;
    LateralFft fft;
    std::vector<float> taper;
    Array<float, 2> vel;
    Array<cf, 2> recv, source;
    Array<float, 3> sref;       ///< region table, if any
    ReferenceTable references;  ///< of the model the shot was made with

    Shot(const WaveCase& wave, float variation, float trend = 0.02f) : Shot(wave.parms(), variation, trend) {}
    Shot(const Parms& parms, float variation, float trend)
        : par(parms),
          fft(par.kxm.n, FFTW_ESTIMATE),
          taper(static_cast<std::size_t>(par.kxm.n)),
          vel(slowness(par.kxm.n, par.nz, variation, trend)),
          recv({par.rec.h.n, par.rec.w.n}),
          source({par.rec.h.n, par.rec.w.n}) {
        owtaper(par.tapertr, taper);
        randomize(recv.flat(), 31);
        randomize(source.flat(), 32);
        references = references_of(prepare_medium(par, vel, {}, {}));
    }
    /// Pick fields by slowness regions with these centres, bounded halfway between them.
    void set_regions(const std::vector<float>& centres) {
        const auto n = static_cast<std::ptrdiff_t>(centres.size());
        sref = Array<float, 3>({n, 2, par.nz});
        for (std::ptrdiff_t iz = 0; iz < par.nz; ++iz) {
            for (std::ptrdiff_t i = 0; i < n; ++i) {
                const auto at = static_cast<std::size_t>(i);
                sref(i, 0, iz) = centres[at];
                sref(i, 1, iz) = i + 1 < n ? 0.5f * (centres[at] + centres[at + 1]) : 1e6f;
            }
        }
        references = references_of(prepare_medium(par, vel, sref.view(), {}));
    }
    WaveContext context(int nodes = 1) const {
        const View<const float, 3> table = sref.n()[0] > 0 ? sref.view() : View<const float, 3>{};
        return {par, fft, nodes, View<const float, 1>{taper.data(), {par.kxm.n}}, table};
    }
    /// With fixed references and clear margins, so that the image is a function of the slowness alone.
    WaveContext exact_context(int nodes = 1) const {
        WaveContext exact = context(nodes);
        exact.frozen = {&references, vel};
        exact.clear_margins = true;
        return exact;
    }
    Array<float, 3> image_with(const WaveContext& with, const Array<float, 2>& slow) const {
        Array<float, 3> out({par.kxm.n, par.nsecdim, par.nz});
        Array<float, 2> illum({par.kxm.n, par.nz});
        owwei(with, recv.view(), source.view(), slow.view(), out, illum);
        return out;
    }
    Array<float, 3> image(int nodes = 1) const { return image_with(context(nodes), vel); }
    Array<float, 3> linearised(const Array<float, 2>& deltas, int nodes = 1) const {
        Array<float, 3> out({par.kxm.n, par.nsecdim, par.nz});
        Array<float, 2> in = deltas;
        owwemva(context(nodes), false, recv.view(), source.view(), vel.view(), in, out, nullptr);
        return out;
    }
    Array<float, 2> adjoint(const Array<float, 3>& deltai, int nodes = 1) const {
        Array<float, 2> out({par.kxm.n, par.nz});
        Array<float, 3> in = deltai;
        owwemva(context(nodes), true, recv.view(), source.view(), vel.view(), out, in, nullptr);
        return out;
    }
    Array<float, 3> derivative(const Array<float, 2>& deltas) const {
        Array<float, 3> out({par.kxm.n, par.nsecdim, par.nz});
        owwei_derivative(exact_context(), recv.view(), source.view(), vel.view(), deltas.view(), out);
        return out;
    }
    Array<float, 2> gradient(const Array<float, 3>& deltai, int nodes = 1) const {
        Array<float, 2> out({par.kxm.n, par.nz});
        owwei_gradient(exact_context(nodes), recv.view(), source.view(), vel.view(), out, deltai.view());
        return out;
    }
};

}  // namespace morvane
