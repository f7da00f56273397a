#include <algorithm>
#include <cmath>
#include <cstddef>
#include <optional>

#include "src/areal/wemva/image/depth_difference.h"
#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/inversion/objective.h"
#include "src/areal/wemva/model/ow_grabvel_areal.h"
#include "src/areal/wemva/model/regularisation.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

double energy(std::span<const float> samples) {
    double sum = 0.0;
    for (const float v : samples) sum += static_cast<double>(v) * v;
    return sum;
}

/// What is carried back is the derivative of fun, by the transpose of the derivative of the image.
class ExactObjective : public Objective {
    const Parms& par_;
    Array<float, 3> image_;     // normalise: the stacked image, or its differences
    Array<float, 3> weighted_;  // l1norm: the once-weighted image
    Array<float, 3> envelope_;  // l1norm
    std::optional<double> first_data_;

public:
    explicit ExactObjective(const Parms& par) : par_(par) {
        const Extents<3> image{par.img.xm.n, par.nsecdim, par.img.z.n};
        if (par.normalise) image_ = Array<float, 3>(image);
        if (par.l1norm) weighted_ = envelope_ = Array<float, 3>(image);
    }

    bool is_smooth() const override { return true; }

    void form_residual(const Inversion& run, View<float, 3> image, int) override {
        constexpr bool forward = false, adjoint = true;
        keep_columns(image);
        depth_difference(par_.depthdiff, image);
        if (par_.normalise) std::ranges::copy(image.flat(), image_.flat().begin());
        owdso(par_, forward, image, run.pick1);
        if (par_.l1norm) {
            owsmooth(par_, image, envelope_);
            std::ranges::copy(image.flat(), weighted_.flat().begin());
            reweight(image, envelope_);
        }
        owdso(par_, adjoint, image, run.pick1);
    }

    /// In double precision; with normalise over the energy of the image.
    double value(View<const float, 3> residual, int titer) const override {
        double fun = 0.0;
        for (const float r : residual.flat()) fun += par_.l1norm ? std::abs(r) : static_cast<double>(r) * r;
        if (!par_.normalise) return fun;
        const double all = energy(image_.flat());
        if (all == 0.0)
            refuse(
                "evaluation %d: normalise=yes divides by the energy of the image, which is 0 where it counts in fun: "
                "check rec, sou, fun_xmin and fun_xmax",
                titer);
        return fun / all;
    }

    /// 2 W^2 r; with l1norm see differentiate_reweighting; with normalise the derivative of the quotient; with
    /// depthdiff the transposed differences of that.
    void differentiate(const Inversion& run, View<float, 3> residual, double fun) override {
        constexpr bool forward = false, adjoint = true;
        const auto out = residual.flat();
        if (par_.l1norm) {
            differentiate_reweighting(run, residual);
        } else {
            for (float& r : out) r *= 2.0f;
            owdso(par_, forward, residual, run.pick1);
        }
        owdso(par_, adjoint, residual, run.pick1);
        if (par_.normalise) {
            const auto image = image_.flat();
            const double all = energy(image);
            for (std::size_t i = 0; i < out.size(); ++i)
                out[i] = static_cast<float>((out[i] - 2.0 * fun * image[i]) / all);
        }
        depth_difference_transpose(par_.depthdiff, residual);
        keep_columns(residual);
    }

    void back_project(const WaveContext& context, const Shots& shot, View<float, 3> window, View<float, 2> update,
                      qas::Session&) const override {
        owwei_gradient(context, shot.recv, shot.source, shot.vel, update, window);
    }

    void gradient(const Inversion& run, View<const float, 2> updates, View<double, 2> g) const override {
        std::ranges::copy(updates.flat(), g.flat().begin());
        clear_above_horizon(run, g);
    }

    double regularise(const Inversion& run, double data, std::span<const double> x, std::span<double> g) override {
        if (!(par_.regularise > 0.0f)) return 0.0;
        if (!first_data_) first_data_ = data;
        const View<const float, 2> origin = run.origin.p ? run.origin : run.vel0;
        const double value = roughness(par_, static_cast<double>(par_.regularise) * *first_data_, origin, x, g);
        if (!g.empty()) clear_above_horizon(run, {g.data(), run.vel0.n});
        return value;
    }

    void archive(Archive& archive) override {
        double unit = first_data_.value_or(-1.0);
        archive.value("first data", unit);
        if (archive.reads() && unit >= 0.0) first_data_ = unit;
    }

    /// Nothing: the knot coefficients are the variables.
    float condition(const Inversion&, View<double, 2>) override { return 0.0f; }

private:
    /// What the horizon edit overwrites has no influence.
    void clear_above_horizon(const Inversion& run, View<double, 2> g) const {
        if (run.pick1.empty()) return;
        const Array<float, 2> none({g.n[0], g.n[1]});
        oweditvel(par_, run.pick1, g, none);
    }

    /// Zero outside the columns that count in fun.
    void keep_columns(View<float, 3> image) const {
        for (std::ptrdiff_t ix = 0; ix < image.n[0]; ++ix) {
            if (par_.counts_in_fun(static_cast<int>(ix))) continue;
            for (std::ptrdiff_t iz = 0; iz < image.n[2]; ++iz)
                for (std::ptrdiff_t ih = 0; ih < image.n[1]; ++ih) image(ix, ih, iz) = 0.0f;
        }
    }

    /// From the residual r = W y |y| / e^e and the envelope e = B |y| to the derivative of sum |r| with respect to y,
    /// 2 W y / e^e - sign(y) B' (|r| (1 + ln e)), in place of the residual. The envelope is overwritten.
    void differentiate_reweighting(const Inversion& run, View<float, 3> residual) {
        const auto y = weighted_.flat();
        const auto out = residual.flat();
        const auto envelope = envelope_.flat();
        for (std::size_t i = 0; i < out.size(); ++i) {
            const float e = envelope[i], size = std::abs(out[i]);
            out[i] = 2.0f * y[i] / std::pow(e, e);
            envelope[i] = size > 0.0f ? size * (1.0f + std::log(e)) : 0.0f;
        }
        owdso(par_, false, residual, run.pick1);
        owsmooth_transpose(par_, envelope_);
        for (std::size_t i = 0; i < out.size(); ++i) {
            const float sign = y[i] > 0.0f ? 1.0f : y[i] < 0.0f ? -1.0f : 0.0f;
            out[i] -= sign * envelope[i];
        }
    }
};

}  // namespace

std::unique_ptr<Objective> exact_objective(const Parms& par) {
    return std::make_unique<ExactObjective>(par);
}

}  // namespace morvane
