#include "src/areal/wemva/step/depth_step.h"

#include <algorithm>
#include <cmath>

#include "lib/base/index.h"
#include "lib/base/simd_math.h"

namespace morvane {

namespace {

/// out = in * table, or out += in * table
template <bool add>
void product(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out) {
    const std::ptrdiff_t n = in.n[0];
    const float* const x = parts(in.p);
    const float* const t = parts(table.p);
    float* const y = parts(out);
    const float turn = conjugate ? -1.0f : 1.0f;
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        const float xr = x[2 * i], xi = x[2 * i + 1];
        const float re = xr * tr - xi * ti, im = xr * ti + xi * tr;
        y[2 * i] = add ? y[2 * i] + re : re;
        y[2 * i + 1] = add ? y[2 * i + 1] + im : im;
    }
}

/// out = in * weight, or out += in * weight
template <bool add>
void weighted(View<const cf, 1> in, View<const float, 1> weight, cf* out) {
    const std::ptrdiff_t n = in.n[0];
    const float *const x = parts(in.p), *const share = weight.p;
    float* const y = parts(out);
#pragma GCC ivdep
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const float re = share[i] * x[2 * i], im = share[i] * x[2 * i + 1];
        y[2 * i] = add ? y[2 * i] + re : re;
        y[2 * i + 1] = add ? y[2 * i + 1] + im : im;
    }
}

/// With the shifted fields v_k: out (+)= weight_k v_k, record (+)= dweight_k v_k.
template <bool add>
void blend(View<const cf, 1> in, const float* weight, const float* dweight, cf* out, cf* record) {
    const float* const x = parts(in.p);
    float* const y = parts(out);
    float* const d = parts(record);
    for (std::ptrdiff_t i = 0; i < in.n[0]; ++i) {
        const float re = x[2 * i], im = x[2 * i + 1];
        y[2 * i] = (add ? y[2 * i] : 0.0f) + weight[i] * re;
        y[2 * i + 1] = (add ? y[2 * i + 1] : 0.0f) + weight[i] * im;
        d[2 * i] = (add ? d[2 * i] : 0.0f) + dweight[i] * re;
        d[2 * i + 1] = (add ? d[2 * i + 1] : 0.0f) + dweight[i] * im;
    }
}

/// After the last: out *= space, record = space record + i c out
void finish_blend(View<const cf, 1> space, bool conjugate, float c, cf* out, cf* record) {
    const float* const t = parts(space.p);
    float* const y = parts(out);
    float* const d = parts(record);
    const float turn = conjugate ? -1.0f : 1.0f;
    for (std::ptrdiff_t i = 0; i < space.n[0]; ++i) {
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        const float yr = y[2 * i] * tr - y[2 * i + 1] * ti, yi = y[2 * i] * ti + y[2 * i + 1] * tr;
        const float dr = d[2 * i] * tr - d[2 * i + 1] * ti, di = d[2 * i] * ti + d[2 * i + 1] * tr;
        y[2 * i] = yr;
        y[2 * i + 1] = yi;
        d[2 * i] = dr - c * yi;
        d[2 * i + 1] = di + c * yr;
    }
}

}  // namespace

void multiply(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out) {
    product<false>(in, table, conjugate, out);
}

void multiply_add(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out) {
    product<true>(in, table, conjugate, out);
}

void weigh(View<const cf, 1> in, View<const float, 1> weight, cf* out) {
    weighted<false>(in, weight, out);
}

void prepare_phases(const Parms& par, float w, View<cf, 2> phase, View<cf, 2> space, View<float, 2> work,
                    DepthStep& step) {
    const MediumLevel& level = *step.level;
    step.blends = level.dweight.n()[0] > 0;
    phase.n[1] = static_cast<std::ptrdiff_t>(level.vref.size());
    space.n[1] = step.blends ? 1 : phase.n[1];
    const std::ptrdiff_t nx = par.kxm.n;
    const float dz = par.v.z.d;
    const float dz_w = dz * w;
    const float unscale = 1.0f / static_cast<float>(nx);  // both transforms
    float* const angle = work.slice(0).p;
    float* const scale = work.slice(1).p;
    const float* const kx = par.kxm.all.data();
    for (std::ptrdiff_t k = 0; k < phase.n[1]; ++k) {
        const float w_over_c = w / level.vref[at(k)];
        const float k2 = w_over_c * w_over_c;
        const float lens = step.blends ? dz_w * (1.0f / level.vref[0] - 1.0f / level.vref[at(k)]) : 0.0f;
        for (std::ptrdiff_t i = 0; i < nx; ++i) {
            const float kz2 = k2 - kx[i] * kx[i];
            scale[i] = kz2 >= 0.0f ? 1.0f : 0.0f;
            angle[i] = std::sqrt(std::max(kz2, 0.0f)) * dz + lens;
        }
        cis_table(angle, scale, phase.slice(k).p, nx);
        if (k >= space.n[1]) continue;
        const float* const sdiff = level.sdiff.view().slice(k).p;
        for (std::ptrdiff_t i = 0; i < nx; ++i) angle[i] = dz_w * sdiff[i];
        if (space.n[1] == 1) {
            std::fill_n(scale, nx, unscale);
        } else {
            const float* const weight = level.weight.view().slice(k).p;
            for (std::ptrdiff_t i = 0; i < nx; ++i) scale[i] = weight[i] * unscale;
        }
        cis_table(angle, scale, space.slice(k).p, nx);
    }
    step.phase = phase;
    step.space = space;
    step.dz_w = dz_w;
}

StepTables::StepTables(const Parms& par, const Medium& medium, int most_levels, Arena& arena)
    : par_(par),
      medium_(medium),
      stages_(par, medium.stages, most_levels, arena),
      fine_(par, medium.fine, most_levels, arena),
      nrefs_(1),
      steps_(at(most_levels)) {
    const std::ptrdiff_t nx = par.kxm.n;
    for (const MediumLevel& level : medium.levels) nrefs_ = std::max(nrefs_, static_cast<int>(level.vref.size()));
    phase_ = arena.take<cf>(nx, nrefs_, most_levels);
    space_ = arena.take<cf>(nx, nrefs_, most_levels);
    work_ = arena.take<float>(nx, 2);
}

void StepTables::prepare(int iw, int first, int count) {
    const float w = par_.rec.w.all[at(iw)];
    first_ = first;
    for (int j = 0; j < count; ++j) {
        DepthStep& step = steps_[at(j)];
        step.level = &medium_.levels[at(first + j)];
        prepare_phases(par_, w, phase_.slice(j), space_.slice(j), work_, step);
    }
    prepare_stages(stages_, w, first, count);
    prepare_stages(fine_, w, first, count);
}

template <class Real>
void StepTables::prepare_stages(FfdTables<Real>& tables, float w, int first, int count) {
    if (tables.empty()) return;
    tables.prepare(w, first, count);
    for (int j = 0; j < count; ++j) steps_[at(j)].stages = tables.stages(first + j);
}

StepScratch::StepScratch(int nx) : spectrum({nx}), shifted({nx}), field({nx}), stages(nx) {}

void shift(const DepthStep& step, const LateralFft& fft, int sign, View<const cf, 1> in, View<cf, 1> out, cf* record,
           StepScratch& s) {
    const bool conjugate = sign < 0;
    const View<cf, 1> spectrum = s.spectrum, shifted = s.shifted, work = s.field;
    fft.forward.run(in, spectrum);
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        multiply(spectrum, step.phase.slice(k), conjugate, shifted.p);
        fft.inverse.run(shifted, work);  // not into `out`, which may be far from the processor
        if (!step.blends) {
            (k == 0 ? multiply : multiply_add)(work, step.space.slice(k), conjugate, out.p);
            continue;
        }
        const View<const float, 1> weight = step.level->weight.view().slice(k);
        if (record) {
            (k == 0 ? blend<false> : blend<true>)(work, weight.p, step.level->dweight.view().slice(k).p, out.p, record);
        } else {
            (k == 0 ? weighted<false> : weighted<true>)(work, weight, out.p);
        }
    }
    if (step.blends && record) {
        finish_blend(step.space.slice(0), conjugate, static_cast<float>(sign) * step.dz_w, out.p, record);
    } else if (step.blends) {
        multiply(out, step.space.slice(0), conjugate, out.p);
    }
    const float scale = std::sqrt(static_cast<float>(fft.n));
    for (const int i : step.level->untouched) out(i) = spectrum(i) / scale;
}

void apply_step(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, StepScratch& scratch) {
    shift(step, fft, sign, field, field, nullptr, scratch);
    const View<cf, 1> nothing = scratch.field;
    std::fill_n(nothing.p, nothing.n[0], cf{});
    for (const FfdStage& stage : step.stages) apply_stage(stage, sign, field, nothing, field, nothing, scratch.stages);
}

void apply_step_pair(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, View<cf, 1> other,
                     StepScratch& scratch) {
    shift(step, fft, sign, field, field, nullptr, scratch);
    shift(step, fft, -sign, other, other, nullptr, scratch);
    for (const FfdStage& stage : step.stages) apply_stage(stage, sign, field, other, field, other, scratch.stages);
}

void apply_alone(const Parms& par, const Medium& medium, const LateralFft& fft, int iw, int sign, View<cf, 1> field) {
    Arena arena;
    StepTables tables(par, medium, 1, arena);
    tables.prepare(iw, 0, 1);
    StepScratch scratch(par.kxm.n);
    apply_step(tables.step(0), fft, sign, field, scratch);
}

}  // namespace morvane
