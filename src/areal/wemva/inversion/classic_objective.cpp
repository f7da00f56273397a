#include <algorithm>
#include <cmath>
#include <vector>

#include "lib/class/geodip.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/inversion/objective.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/run/exec_time.h"

namespace morvane {

namespace {

/// The residual is carried back by the linearised operator, and the gradient conditioned.
class ClassicObjective : public Objective {
    const Parms& par_;
    Array<float, 3> r_image_;    // prediction, envelope; only with nxfilt or l1norm
    std::vector<double> knots_;  // spline coefficients of the gradient; only with knots

public:
    explicit ClassicObjective(const Parms& par) : par_(par) {
        const Extents<3> image{par.img.xm.n, par.nsecdim, par.img.z.n};
        if (par.l1norm || par.nxfilt != not_given) r_image_ = Array<float, 3>(image);
        if (!par.spline_grad()) return;
        const std::size_t samples = static_cast<std::size_t>(par.img.xm.n) * static_cast<std::size_t>(par.img.z.n);
        knots_.resize(std::max(samples, static_cast<std::size_t>(par.axk.n) * static_cast<std::size_t>(par.azk.n)));
    }

    bool is_smooth() const override { return false; }

    void form_residual(const Inversion& run, View<float, 3> image, int titer) override {
        constexpr bool forward = false, adjoint = true;
        owdso(par_, forward, image, run.pick1);
        if (par_.nxfilt != not_given) {
            const FilterOutput filters{run.session, titer};
            fx2d_lop(fx2d_design(par_), image, r_image_, run.panels ? &filters : nullptr);
            std::ranges::copy(r_image_.flat(), image.flat().begin());
        }
        if (par_.l1norm) {
            owsmooth(par_, image, r_image_);
            reweight(image, r_image_);
        }
        owdso(par_, adjoint, image, run.pick1);
    }

    /// Terms in single precision, their sum in double. The second axis is that of offsets, which is empty with time
    /// shifts.
    double value(View<const float, 3> residual, int) const override {
        double fun = 0.0;
        for (std::ptrdiff_t iz = 0; iz < residual.n[2]; ++iz)
            for (std::ptrdiff_t ish = 0; ish < par_.img.sh.n; ++ish)
                for (const float r : residual.slice(iz).slice(ish).flat()) fun += par_.l1norm ? std::abs(r) : r * r;
        return fun;
    }

    void differentiate(const Inversion&, View<float, 3>, double) override {}

    void back_project(const WaveContext& context, const Shots& shot, View<float, 3> window, View<float, 2> update,
                      qas::Session& session) const override {
        constexpr bool adjoint = true;
        owwemva(context, adjoint, shot.recv, shot.source, shot.vel, update, window, &session);
    }

    void gradient(const Inversion&, View<const float, 2> updates, View<double, 2> g) const override {
        std::ranges::transform(updates.flat(), g.flat().begin(), [](float s) { return -static_cast<double>(s); });
    }

    double regularise(const Inversion&, double, std::span<const double>, std::span<double>) override { return 0.0; }
    void archive(Archive&) override {}

    /// On the spline knots and back, g = B B' g, then along dips.
    float condition(const Inversion& run, View<double, 2> g) override {
        float seconds = 0.0f;
        if (run.spline) {
            constexpr bool adjoint = true, forward = false, fresh = false;
            const float start = owexec_time();
            base_spln2d_oper(*run.spline, adjoint, fresh, knots_, g.flat());
            base_spln2d_oper(*run.spline, forward, fresh, knots_, g.flat());
            seconds = owexec_time() - start;
        }
        if (par_.dipflt) {
            const std::vector<float> pick =
                run.pick1.empty() ? std::vector<float>() : owgeodip_init(run.pick1, !par_.quiet);
            ow_geodip(run.session, par_.img.z, par_.img.xm, par_.frame, pick, g, !par_.quiet);
        }
        return seconds;
    }
};

}  // namespace

std::unique_ptr<Objective> classic_objective(const Parms& par) {
    return std::make_unique<ClassicObjective>(par);
}

}  // namespace morvane
