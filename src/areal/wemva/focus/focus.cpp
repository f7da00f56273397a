#include "src/areal/wemva/focus/focus.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "src/areal/wemva/passes/fit.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {
namespace {

/// The run with one of `every` frequencies.
Parms thinned(Parms par, int every) {
    Axis& w = par.rec.w;
    w.n = (w.n + every - 1) / every;
    w.d *= static_cast<float>(every);
    std::vector<float> kept;
    for (std::size_t i = 0; i < w.all.size(); i += static_cast<std::size_t>(every)) kept.push_back(w.all[i]);
    w.all = std::move(kept);
    par.sou.w.n = w.n;
    par.sou.w.d *= static_cast<float>(every);
    // of the frequencies that a stage takes; where none of them is left, the others hold zeros
    const int first = (par.limits.first_frequency + every - 1) / every;
    const int end = (par.limits.end_frequency + every - 1) / every;
    par.limits.first_frequency = first < end ? first : 0;
    par.limits.end_frequency = first < end ? end : 0;
    return par;
}

/// The run with zero as the only subsurface offset.
Parms at_zero_offset(Parms par) {
    par.nsecdim = par.img.sh.n = 1;
    par.osecdim = par.img.sh.o = 0.0f;
    return par;
}

Array<cf, 2> thinned(const Array<cf, 2>& field, int every) {
    Array<cf, 2> kept({field.n()[0], (field.n()[1] + every - 1) / every});
    for (std::ptrdiff_t k = 0; k < kept.n()[1]; ++k)
        std::ranges::copy(field.view().slice(k * every).flat(), kept.view().slice(k).flat().begin());
    return kept;
}

void conjugate(View<cf, 2> field) {
    for (cf& sample : field.flat()) sample = std::conj(sample);
}

/// References that stay below all velocities of the window.
ReferenceTable references(const Parms& par, View<const float, 2> vel, View<const float, 3> vref) {
    ReferenceTable table = references_of(prepare_medium(par, vel, vref, {}));
    if (!par.ffd()) return table;
    for (std::size_t iz = 0; iz < table.size(); ++iz)
        table[iz][0] =
            ffd_reference_share(par.dipop) / std::ranges::max(vel.slice(static_cast<std::ptrdiff_t>(iz)).flat());
    return table;
}

int threads(const Parms& par) {
    return par.node == node_default ? omp_get_max_threads() : par.node;
}

double energy(std::span<const float> samples) {
    double sum = 0.0;
    for (const float s : samples) sum += static_cast<double>(s) * static_cast<double>(s);
    return sum;
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

std::size_t Focus::shallow_end() const {
    const double third = std::accumulate(all.begin(), all.end(), 0.0) / 3.0;
    double sum = 0.0;
    for (std::size_t i = 0; i < all.size(); ++i)
        if ((sum += all[i]) >= third) return i + 1;
    return all.size();
}

FewShots::FewShots(const Parms& par, const LateralFft& fft, View<const float, 1> taper, View<const float, 3> vref,
                   std::vector<ShotFields> shots, int every)
    : par_(thinned(par, every)),
      at_zero_(at_zero_offset(par_)),
      fft_(fft),
      taper_(taper),
      vref_(vref),
      shots_(std::move(shots)),
      nodes_(threads(par)) {
    int last = 1;
    first_ = shots_.empty() ? 1 : shots_[0].column;
    for (ShotFields& shot : shots_) {
        shot.recv = thinned(shot.recv, every);
        shot.source = thinned(shot.source, every);
        first_ = std::min(first_, shot.column);
        last = std::max(last, shot.column + par.kxm.n - 1);
        references_.push_back(references(par_, shot.vel, vref_));
    }
    width_ = last - first_ + 1;
}

void FewShots::take(const ShotFields& shot, const Variant& variant) {
    recv_ = shot.recv;
    source_ = shot.source;
    if (variant.conjugate_rec) conjugate(recv_);
    if (variant.conjugate_sou) conjugate(source_);
    if (variant.shift == 0.0) return;
    for (std::ptrdiff_t iw = 0; iw < recv_.n()[1]; ++iw) {
        const double w = static_cast<double>(par_.rec.w.all[static_cast<std::size_t>(iw)]);
        const cf turn(std::polar(1.0, w * variant.shift));
        for (cf& sample : recv_.view().slice(iw).flat()) sample *= turn;
    }
}

WaveContext FewShots::context(const Parms& par, std::size_t shot) {
    WaveContext context{par, fft_, nodes_, taper_, vref_};
    context.frozen = {&references_[shot], shots_[shot].vel};
    context.clear_margins = true;
    context.memory = &memory_;
    return context;
}

void FewShots::scale_velocity(double factor) {
    const float of_slowness = static_cast<float>(factor_ / factor);
    factor_ = factor;
    for (std::size_t i = 0; i < shots_.size(); ++i) {
        for (float& slowness : shots_[i].vel.flat()) slowness *= of_slowness;
        references_[i] = references(par_, shots_[i].vel, vref_);
    }
}

Array<float, 3> FewShots::image(const Parms& par, const Variant& variant) {
    const std::ptrdiff_t nx = par.kxm.n, nh = par.nsecdim, nz = par.img.z.n;
    Array<float, 3> image({width_, nh, nz}), window({nx, nh, nz});
    for (std::size_t i = 0; i < shots_.size(); ++i) {
        take(shots_[i], variant);
        window.fill(0.0f);
        owwei(context(par, i), recv_, source_, shots_[i].vel, window, {});
        for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
            for (std::ptrdiff_t ih = 0; ih < nh; ++ih)
                for (std::ptrdiff_t ix = 0; ix < nx; ++ix)
                    image(shots_[i].column - first_ + ix, ih, iz) += window(ix, ih, iz);
    }
    return image;
}

Focus FewShots::focus(const Variant& variant) {
    const Array<float, 3> all = image(par_, variant);
    const std::ptrdiff_t zero = std::max(zero_sample(par_), 0);
    Focus focus;
    for (std::ptrdiff_t iz = 0; iz < par_.img.z.n; ++iz) {
        focus.zero.push_back(energy(all.view().slice(iz).slice(zero).flat()));
        focus.all.push_back(energy(all.view().slice(iz).flat()));
    }
    return focus;
}

double FewShots::fit(const Variant& variant) {
    const std::ptrdiff_t nx = par_.kxm.n, nz = par_.img.z.n;
    const Array<float, 3> section = image(at_zero_, variant), nothing({nx, 1, nz});
    Array<float, 2> window({nx, nz}), unused({nx, nz});
    Array<double, 2> sums({3, par_.rec.w.n});
    const Prediction prediction{window, sums};
    for (std::size_t i = 0; i < shots_.size(); ++i) {
        take(shots_[i], variant);
        for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
            std::copy_n(section.view().slice(iz).p + (shots_[i].column - first_), nx, window.view().slice(iz).p);
        WaveContext with_prediction = context(at_zero_, i);
        with_prediction.prediction = &prediction;
        owwei_gradient(with_prediction, recv_, source_, shots_[i].vel, unused, nothing);
    }
    return fit_of(sums);
}

}  // namespace morvane
