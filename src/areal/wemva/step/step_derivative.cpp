#include "src/areal/wemva/step/step_derivative.h"

#include <algorithm>

#include "lib/base/index.h"
#include "src/areal/wemva/step/ffd_derivative.h"

namespace morvane {

namespace {

int stage_count(const DepthStep& step) {
    return static_cast<int>(step.stages.size());
}

/// gradient += Re(conj(field) factor derivative), out = field table
void correlate_and_multiply(View<const cf, 1> field, cf factor, View<const cf, 1> derivative, View<const cf, 1> table,
                            bool conjugate, View<float, 1> gradient, cf* out) {
    const float *const x = parts(field.p), *const d = parts(derivative.p), *const t = parts(table.p);
    float *const g = gradient.p, *const y = parts(out);
    const float c = factor.real(), s = factor.imag(), turn = conjugate ? -1.0f : 1.0f;
#pragma GCC ivdep
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) {
        const float xr = x[2 * i], xi = x[2 * i + 1], dr = d[2 * i], di = d[2 * i + 1];
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        g[i] += c * (xr * dr + xi * di) + s * (xi * dr - xr * di);
        y[2 * i] = xr * tr - xi * ti;
        y[2 * i + 1] = xr * ti + xi * tr;
    }
}

/// Where the first product of a transposed shift goes.
cf* first_product(const DepthStep& step, View<cf, 1> field, StepScratch& s) {
    return step.blends ? field.p : s.field.view().p;
}

/// What of the transpose of shift() follows that product: the sum over the references.
void sum_references(const DepthStep& step, const LateralFft& fft, bool conjugate, View<cf, 1> field, StepScratch& s) {
    const View<cf, 1> spectrum = s.spectrum, shifted = s.shifted, work = s.field;
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        if (step.blends) {
            weigh(field, step.level->weight.view().slice(k), work.p);
        } else if (k > 0) {
            multiply(field, step.space.slice(k), conjugate, work.p);
        }
        fft.forward.run(work, shifted);
        (k == 0 ? multiply : multiply_add)(shifted, step.phase.slice(k), conjugate, spectrum.p);
    }
    fft.inverse.run(spectrum, field);
}

/// The transpose of shift(); gradient += Re(conj(field) factor derivative).
void shift_transposed(const DepthStep& step, const LateralFft& fft, const SteppedField& side, cf factor,
                      View<const cf, 1> derivative, View<float, 1> gradient, StepScratch& s) {
    const bool conjugate = side.sign > 0;
    correlate_and_multiply(side.field, factor, derivative, step.space.slice(0), conjugate, gradient,
                           first_product(step, side.field, s));
    sum_references(step, fft, conjugate, side.field, s);
}

/// The field before a stage, and the field after it.
View<const cf, 1> before_stage(const SteppedField& side, int stage) {
    return side.record.slice(stage);
}
View<cf, 1> after_stage(const DepthStep& step, const SteppedField& side, int stage) {
    return stage + 1 < stage_count(step) ? side.record.slice(stage + 1) : side.out;
}

/// What a stage's derivative takes of one side.
StageFields around_stage(const DepthStep& step, const SteppedField& side, int stage) {
    return {before_stage(side, stage), after_stage(step, side, stage), side.field};
}

/// The derivative of the shifted field with respect to slowness: a factor, and the field that it multiplies.
std::pair<cf, View<const cf, 1>> shift_derivative(const DepthStep& step, const SteppedField& side) {
    const cf thin_lens(0.0f, static_cast<float>(side.sign) * step.dz_w);
    if (step.blends) return {1.0f, side.record.slice(0)};
    return {thin_lens, stage_count(step) > 0 ? before_stage(side, 0) : side.out};
}

}  // namespace

int record_columns(const DepthStep& step) {
    return stage_count(step) > 0 ? stage_count(step) : step.blends ? 1 : 0;
}

int record_columns(const Parms& par, const Medium& medium) {
    if (par.ffd()) return ifd_coeffts(par.dipop).nstage;
    const auto blend = [](const MediumLevel& level) { return level.dweight.n()[0] > 0; };
    return std::any_of(medium.levels.begin(), medium.levels.end(), blend) ? 1 : 0;
}

void apply_step_recorded(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                         StepScratch& scratch) {
    for (const SteppedField& side : {source, receiver}) {
        shift(step, fft, side.sign, side.field, stage_count(step) > 0 ? side.record.slice(0) : side.out,
              step.blends ? side.record.slice(0).p : nullptr, scratch);
    }
    for (int i = 0; i < stage_count(step); ++i) {
        apply_stage(step.stages[at(i)], source.sign, before_stage(source, i), before_stage(receiver, i),
                    after_stage(step, source, i), after_stage(step, receiver, i), scratch.stages);
    }
}

void apply_step_transposed(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                           View<float, 1> gradient, StepScratch& scratch) {
    for (int i = stage_count(step) - 1; i >= 0; --i)
        apply_stage_transposed(step.stages[at(i)], *step.level, around_stage(step, source, i),
                               around_stage(step, receiver, i), gradient, scratch.stages);
    for (const SteppedField& side : {source, receiver}) {
        const auto [factor, derivative] = shift_derivative(step, side);
        shift_transposed(step, fft, side, factor, derivative, gradient, scratch);
    }
}

void apply_receiver_step_transposed(const DepthStep& step, const LateralFft& fft, View<cf, 1> field,
                                    StepScratch& scratch) {
    for (int i = stage_count(step) - 1; i >= 0; --i)
        apply_receiver_stage_transposed(step.stages[at(i)], *step.level, field, scratch.stages);
    constexpr bool conjugate = false;
    multiply(field, step.space.slice(0), conjugate, first_product(step, field, scratch));
    sum_references(step, fft, conjugate, field, scratch);
}

void apply_step_derivative(const DepthStep& step, const LateralFft& fft, SteppedField source, SteppedField receiver,
                           View<const float, 1> ds, StepScratch& scratch) {
    const std::ptrdiff_t n = source.field.n[0];
    for (const SteppedField& side : {source, receiver}) {
        const auto [factor, derivative] = shift_derivative(step, side);
        shift(step, fft, side.sign, side.field, side.field, nullptr, scratch);
        for (std::ptrdiff_t i = 0; i < n; ++i) side.field(i) += factor * derivative(i) * ds(i);
    }
    for (int i = 0; i < stage_count(step); ++i)
        apply_stage_derivative(step.stages[at(i)], *step.level, around_stage(step, source, i),
                               around_stage(step, receiver, i), ds, scratch.stages);
}

}  // namespace morvane
