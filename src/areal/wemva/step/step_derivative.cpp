#include "src/areal/wemva/step/step_derivative.h"

#include <algorithm>

#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

namespace {

std::size_t at(std::ptrdiff_t i) {
    return static_cast<std::size_t>(i);
}

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

/// The transpose of shift(); gradient += Re(conj(field) factor derivative).
void shift_transposed(const DepthStep& step, const LateralFft& fft, const Side& side, cf factor,
                      View<const cf, 1> derivative, View<float, 1> gradient, StepScratch& s) {
    const bool conjugate = side.sign > 0;
    const View<cf, 1> spectrum = s.spectrum, shifted = s.shifted, work = s.field;
    correlate_and_multiply(side.field, factor, derivative, step.space.slice(0), conjugate, gradient,
                           step.blends ? side.field.p : work.p);
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        if (step.blends) {
            weigh(side.field, step.level->weight.view().slice(k), work.p);
        } else if (k > 0) {
            multiply(side.field, step.space.slice(k), conjugate, work.p);
        }
        fft.forward.run(work, shifted);
        (k == 0 ? multiply : multiply_add)(shifted, step.phase.slice(k), conjugate, spectrum.p);
    }
    fft.inverse.run(spectrum, side.field);
}

struct Complex {
    float re, im;
};
Complex operator*(Complex a, Complex b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}

/// Second differences, T(f - u) and T(f + u), of the fields f before a stage and u after it.
struct Differences {
    float *less, *sum;  // (2 nx)
};
void stage_differences(View<const cf, 1> before, View<const cf, 1> after, Differences out) {
    const std::ptrdiff_t n = 2 * before.n[0];
    const float *const f = parts(before.p), *const u = parts(after.p);
    const auto put = [&](std::ptrdiff_t i, float tf, float tu) {
        out.less[i] = tf - tu;
        out.sum[i] = tf + tu;
    };
    const auto end = [&](std::ptrdiff_t i) {
        const auto t = [&](const float* z) {
            return (i >= 2 ? z[i - 2] : 0.0f) - 2.0f * z[i] + (i + 2 < n ? z[i + 2] : 0.0f);
        };
        put(i, t(f), t(u));
    };
    for (std::ptrdiff_t i = 0; i < 2; ++i) end(i);
#pragma GCC ivdep
    for (std::ptrdiff_t i = 2; i < n - 2; ++i)
        put(i, f[i - 2] - 2.0f * f[i] + f[i + 2], u[i - 2] - 2.0f * u[i] + u[i + 2]);
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(n - 2, 2); i < n; ++i) end(i);
}

/// a = b - i c of a stage, b = beta/w^2 (v^2 + v r + r^2) / dx^2 + trick and c = alph/w dz/2 (v - r) / dx^2 with the
/// velocity v and its reference r; its inverse; and its derivative with respect to slowness, db - i dc.
struct StageTerms {
    const float* v;
    float r, of_b, of_c, trick;
    StageTerms(const DepthStep& step, const FfdStage& stage)
        : v(step.level->velocity.view().p),
          r(step.level->vref[0]),
          of_b(stage.beta_w2 / step.dx2),
          of_c(stage.alph_w * step.half_dz / step.dx2),
          trick(step.trick) {}
    float c(std::ptrdiff_t i) const { return of_c * (v[i] - r); }
    float dc(std::ptrdiff_t i) const { return -of_c * v[i] * v[i]; }
    float db(std::ptrdiff_t i) const { return -of_b * (2.0f * v[i] + r) * v[i] * v[i]; }
    Complex inverse(std::ptrdiff_t i) const {
        const float b = of_b * (v[i] * v[i] + v[i] * r + r * r) + trick;
        const float size = 1.0f / std::max(b * b + c(i) * c(i), 1e-30f);
        return {b * size, c(i) * size};
    }
};

/// R = (conj(a') T f - a' T u) / a = (db T(f - u) + i dc T(f + u)) / a of a stage; on the receiver side (sign -1) with
/// the conjugates of a and a'.
cf stage_response(const StageTerms& terms, int sign, const Differences& t, std::ptrdiff_t i) {
    const auto side = static_cast<float>(sign);
    const cf less(t.less[2 * i], t.less[2 * i + 1]), sum(t.sum[2 * i], t.sum[2 * i + 1]);
    const Complex inverse = terms.inverse(i);
    return cf(inverse.re, side * inverse.im) * (terms.db(i) * less + cf(0.0f, side * terms.dc(i)) * sum);
}

/// The two fields side by side, the first conjugated.
void put_pair(View<const cf, 1> source, View<const cf, 1> receiver, cf* pair) {
    const float* const a = parts(source.p);
    const float* const b = parts(receiver.p);
    float* const z = parts(pair);
    for (std::ptrdiff_t i = 0; i < source.n[0]; ++i) {
        z[4 * i] = a[2 * i];
        z[4 * i + 1] = -a[2 * i + 1];
        z[4 * i + 2] = b[2 * i];
        z[4 * i + 3] = b[2 * i + 1];
    }
}

/// From such a pair z after the transposed solution, p = conj(z) on the source side and z on the receiver side, and
/// y = z / a: gradient += Re(conj(p) R) of both sides, w = conj(q) p and q p, which are conj(2i c y) and 2i c y.
void use_solution(const StageTerms& terms, const cf* pair, const Differences& source, const Differences& receiver,
                  View<float, 1> gradient, cf* source_w, cf* receiver_w) {
    const float* const z = parts(pair);
    float *const ws = parts(source_w), *const wr = parts(receiver_w);
#pragma GCC ivdep
    for (std::ptrdiff_t i = 0; i < gradient.n[0]; ++i) {
        const std::ptrdiff_t re = 2 * i, im = 2 * i + 1;
        const Complex inverse = terms.inverse(i);
        const Complex s = inverse * Complex{z[4 * i], z[4 * i + 1]}, r = inverse * Complex{z[4 * i + 2], z[4 * i + 3]};
        const float by_b =
            s.re * source.less[re] - s.im * source.less[im] + r.re * receiver.less[re] + r.im * receiver.less[im];
        const float by_c =
            s.re * source.sum[im] + s.im * source.sum[re] - r.re * receiver.sum[im] + r.im * receiver.sum[re];
        gradient.p[i] += terms.db(i) * by_b - terms.dc(i) * by_c;
        const float c2 = 2.0f * terms.c(i);
        ws[re] = -c2 * s.im;
        ws[im] = -c2 * s.re;
        wr[re] = -c2 * r.im;
        wr[im] = c2 * r.re;
    }
}

/// x += T w
void add_second_difference(const cf* second, View<cf, 1> x) {
    const std::ptrdiff_t n = 2 * x.n[0];
    const float* const w = parts(second);
    float* const out = parts(x.p);
    for (std::ptrdiff_t i : {std::ptrdiff_t{0}, std::ptrdiff_t{1}}) out[i] += (n > 2 ? w[i + 2] : 0.0f) - 2.0f * w[i];
    for (std::ptrdiff_t i = 2; i < n - 2; ++i) out[i] += w[i - 2] - 2.0f * w[i] + w[i + 2];
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(n - 2, 2); i < n; ++i) out[i] += w[i - 2] - 2.0f * w[i];
}

/// The field before a stage, and the field after it.
View<const cf, 1> before_stage(const Side& side, int stage) {
    return side.record.slice(stage);
}
View<cf, 1> after_stage(const DepthStep& step, const Side& side, int stage) {
    return stage + 1 < stage_count(step) ? side.record.slice(stage + 1) : side.out;
}

/// Both sides' differences of a stage, in the scratch.
std::pair<Differences, Differences> differences(const DepthStep& step, const Side& source, const Side& receiver,
                                                int stage, StepScratch& scratch) {
    const View<float, 2> rows = scratch.stages.differences;
    const std::pair out(Differences{rows.slice(0).p, rows.slice(1).p}, Differences{rows.slice(2).p, rows.slice(3).p});
    stage_differences(before_stage(source, stage), after_stage(step, source, stage), out.first);
    stage_differences(before_stage(receiver, stage), after_stage(step, receiver, stage), out.second);
    return out;
}

/// The derivative of the shifted field with respect to slowness: a factor, and the field that it multiplies.
std::pair<cf, View<const cf, 1>> shift_derivative(const DepthStep& step, const Side& side) {
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

void apply_step_recorded(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                         StepScratch& scratch) {
    for (const Side& side : {source, receiver}) {
        shift(step, fft, side.sign, side.field, stage_count(step) > 0 ? side.record.slice(0) : side.out,
              step.blends ? side.record.slice(0).p : nullptr, scratch);
    }
    for (int i = 0; i < stage_count(step); ++i) {
        apply_stage(step.stages[at(i)], source.sign, before_stage(source, i), before_stage(receiver, i),
                    after_stage(step, source, i), after_stage(step, receiver, i), scratch.stages);
    }
}

void apply_step_transposed(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                           View<float, 1> gradient, StepScratch& scratch) {
    for (int i = stage_count(step) - 1; i >= 0; --i) {
        const FfdStage& stage = step.stages[at(i)];
        const StageTerms terms(step, stage);
        const auto [ds, dr] = differences(step, source, receiver, i, scratch);
        cf* const pair = scratch.stages.correction.view().p;
        put_pair(source.field, receiver.field, pair);  // conj(S)^-1 x = conj(S^-1 conj(x)); the receiver side has
        ffd_solve(stage, scratch.stages);              // conj(S) for S
        cf *const ws = scratch.field.view().p, *const wr = scratch.shifted.view().p;
        use_solution(terms, pair, ds, dr, gradient, ws, wr);
        add_second_difference(ws, source.field);
        add_second_difference(wr, receiver.field);
    }
    for (const Side& side : {source, receiver}) {
        const auto [factor, derivative] = shift_derivative(step, side);
        shift_transposed(step, fft, side, factor, derivative, gradient, scratch);
    }
}

void apply_step_derivative(const DepthStep& step, const LateralFft& fft, Side source, Side receiver,
                           View<const float, 1> ds, StepScratch& scratch) {
    const std::ptrdiff_t n = source.field.n[0];
    for (const Side& side : {source, receiver}) {
        const auto [factor, derivative] = shift_derivative(step, side);
        shift(step, fft, side.sign, side.field, side.field, nullptr, scratch);
        for (std::ptrdiff_t i = 0; i < n; ++i) side.field(i) += factor * derivative(i) * ds(i);
    }
    for (int i = 0; i < stage_count(step); ++i) {
        const FfdStage& stage = step.stages[at(i)];
        apply_stage(stage, source.sign, source.field, receiver.field, source.field, receiver.field, scratch.stages);
        const View<cf, 2> p = scratch.stages.correction;  // + S^-1 (R ds)
        const StageTerms terms(step, stage);
        const auto [us, ur] = differences(step, source, receiver, i, scratch);
        for (std::ptrdiff_t k = 0; k < n; ++k) {
            p(0, k) = stage_response(terms, +1, us, k) * ds(k);
            p(1, k) = std::conj(stage_response(terms, -1, ur, k) * ds(k));
        }
        ffd_solve(stage, scratch.stages);
        for (std::ptrdiff_t k = 0; k < n; ++k) {
            source.field(k) += p(0, k);
            receiver.field(k) += std::conj(p(1, k));
        }
    }
}

}  // namespace morvane
