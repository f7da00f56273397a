#include "src/areal/wemva/step/ffd_derivative.h"

#include <algorithm>
#include <complex>
#include <utility>

namespace morvane {

namespace {

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
    StageTerms(const MediumLevel& level, const FfdStage& stage)
        : v(level.velocity.view().p),
          r(level.vref[0]),
          of_b(stage.beta_share),
          of_c(stage.alpha_share),
          trick(stage.trick) {}
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

/// Both sides' differences, in the scratch.
std::pair<Differences, Differences> differences(const StageFields& source, const StageFields& receiver,
                                                StageScratch& scratch) {
    const View<float, 2> rows = scratch.differences;
    const std::pair out(Differences{rows.slice(0).p, rows.slice(1).p}, Differences{rows.slice(2).p, rows.slice(3).p});
    stage_differences(source.before, source.after, out.first);
    stage_differences(receiver.before, receiver.after, out.second);
    return out;
}

}  // namespace

void apply_stage_derivative(const FfdStage& stage, const MediumLevel& level, const StageFields& source,
                            const StageFields& receiver, View<const float, 1> ds, StageScratch& scratch) {
    const std::ptrdiff_t n = ds.n[0];
    apply_stage(stage, +1, source.carried, receiver.carried, source.carried, receiver.carried, scratch);
    const View<cf, 2> p = scratch.correction;  // + S^-1 (R ds)
    const StageTerms terms(level, stage);
    const auto [us, ur] = differences(source, receiver, scratch);
    for (std::ptrdiff_t k = 0; k < n; ++k) {
        p(0, k) = stage_response(terms, +1, us, k) * ds(k);
        p(1, k) = std::conj(stage_response(terms, -1, ur, k) * ds(k));
    }
    ffd_solve(stage, scratch);
    for (std::ptrdiff_t k = 0; k < n; ++k) {
        source.carried(k) += p(0, k);
        receiver.carried(k) += std::conj(p(1, k));
    }
}

void apply_stage_transposed(const FfdStage& stage, const MediumLevel& level, const StageFields& source,
                            const StageFields& receiver, View<float, 1> gradient, StageScratch& scratch) {
    const auto [ds, dr] = differences(source, receiver, scratch);
    cf* const pair = scratch.correction.view().p;
    put_pair(source.carried, receiver.carried, pair);  // conj(S)^-1 x = conj(S^-1 conj(x)); the receiver side has
    ffd_solve(stage, scratch);                         // conj(S) for S
    cf *const ws = scratch.solution.view().slice(0).p, *const wr = scratch.solution.view().slice(1).p;
    use_solution(StageTerms(level, stage), pair, ds, dr, gradient, ws, wr);
    add_second_difference(ws, source.carried);
    add_second_difference(wr, receiver.carried);
}

void apply_receiver_stage_transposed(const FfdStage& stage, const MediumLevel& level, View<cf, 1> field,
                                     StageScratch& scratch) {
    const StageTerms terms(level, stage);
    const View<cf, 2> pair = scratch.correction;
    for (std::ptrdiff_t k = 0; k < field.n[0]; ++k) {
        pair(0, k) = {};
        pair(1, k) = field(k);
    }
    ffd_solve(stage, scratch);
    const View<cf, 1> w = scratch.solution.view().slice(0);  // q p
    for (std::ptrdiff_t k = 0; k < field.n[0]; ++k) {
        const Complex p = terms.inverse(k) * Complex{pair(1, k).real(), pair(1, k).imag()};
        const float c2 = 2.0f * terms.c(k);
        w(k) = {-c2 * p.im, c2 * p.re};
    }
    add_second_difference(w.p, field);
}

}  // namespace morvane
