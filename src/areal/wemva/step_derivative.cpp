#include "src/areal/wemva/step_derivative.h"

#include <algorithm>

#include "src/areal/wemva/ow_ffd_areal.h"

namespace {

std::size_t at(std::ptrdiff_t i) {
    return static_cast<std::size_t>(i);
}

float* parts(cf* z) {
    return reinterpret_cast<float*>(z);
}
const float* parts(const cf* z) {
    return reinterpret_cast<const float*>(z);
}

void taper_column(View<const float, 1> taper, cf* column) {
    float* const z = parts(column);
    for (std::ptrdiff_t i = 0; i < taper.n[0]; ++i) {
        z[2 * i] *= taper.p[i];
        z[2 * i + 1] *= taper.p[i];
    }
}

/// sum += Re(conj(a) b)
void correlate(const cf* a, const cf* b, View<float, 1> sum) {
    const float* const x = parts(a);
    const float* const y = parts(b);
    for (std::ptrdiff_t i = 0; i < sum.n[0]; ++i) sum.p[i] += x[2 * i] * y[2 * i] + x[2 * i + 1] * y[2 * i + 1];
}

/// sum += Re(conj(a) i c b)
void correlate_turned(const cf* a, float c, const cf* b, View<float, 1> sum) {
    const float* const x = parts(a);
    const float* const y = parts(b);
    for (std::ptrdiff_t i = 0; i < sum.n[0]; ++i) {
        sum.p[i] += c * (x[2 * i + 1] * y[2 * i] - x[2 * i] * y[2 * i + 1]);
    }
}

/// v = in * table: field (+)= weight v, and slope (+)= dweight v
template <bool add>
void blend(View<const cf, 1> in, View<const cf, 1> table, const float* weight, const float* dweight, bool conjugate,
           cf* field, cf* slope) {
    const float* const x = parts(in.p);
    const float* const t = parts(table.p);
    float* const y = parts(field);
    float* const d = parts(slope);
    const float turn = conjugate ? -1.0f : 1.0f;
    for (std::ptrdiff_t i = 0; i < in.n[0]; ++i) {
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        const float re = x[2 * i] * tr - x[2 * i + 1] * ti, im = x[2 * i] * ti + x[2 * i + 1] * tr;
        y[2 * i] = (add ? y[2 * i] : 0.0f) + weight[i] * re;
        y[2 * i + 1] = (add ? y[2 * i + 1] : 0.0f) + weight[i] * im;
        d[2 * i] = (add ? d[2 * i] : 0.0f) + dweight[i] * re;
        d[2 * i + 1] = (add ? d[2 * i + 1] : 0.0f) + dweight[i] * im;
    }
}

/// Everything but the finite-difference stages; the blending weights' derivative goes to `slope`, if there is one.
void shift_recorded(const DepthStep& step, const LateralFft& fft, const Side& side, cf* slope, StepScratch& s) {
    const bool conjugate = side.sign < 0;
    if (step.phase.n[1] == 1) {
        fft.forward.run(side.field);
        multiply(side.field, step.phase.slice(0), conjugate, side.field.p);
        fft.inverse.run(side.field);
        multiply(side.field, step.space.slice(0), conjugate, side.field.p);
        return;
    }
    const View<cf, 1> spectrum = s.spectrum, work = s.field;
    std::copy_n(side.field.p, side.field.n[0], spectrum.p);
    fft.forward.run(spectrum);
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        const View<const cf, 1> space = step.space.slice(k);
        multiply(spectrum, step.phase.slice(k), conjugate, work.p);
        fft.inverse.run(work);
        if (slope) {
            (k == 0 ? blend<false> : blend<true>)(work, space, step.level->weight.view().slice(k).p,
                                                  step.level->dweight.view().slice(k).p, conjugate, side.field.p,
                                                  slope);
        } else if (step.blends) {
            (k == 0 ? multiply_weighted : multiply_add_weighted)(work, space, step.level->weight.view().slice(k),
                                                                 conjugate, side.field.p);
        } else {
            (k == 0 ? multiply : multiply_add)(work, space, conjugate, side.field.p);
        }
    }
}

void shift_transposed(const DepthStep& step, const LateralFft& fft, const Side& side, StepScratch& s) {
    const bool conjugate = side.sign > 0;
    if (step.phase.n[1] == 1) {
        multiply(side.field, step.space.slice(0), conjugate, side.field.p);
        fft.forward.run(side.field);
        multiply(side.field, step.phase.slice(0), conjugate, side.field.p);
        fft.inverse.run(side.field);
        return;
    }
    const View<cf, 1> spectrum = s.spectrum, work = s.field;
    for (std::ptrdiff_t k = 0; k < step.phase.n[1]; ++k) {
        if (step.blends) {
            multiply_weighted(side.field, step.space.slice(k), step.level->weight.view().slice(k), conjugate, work.p);
        } else {
            multiply(side.field, step.space.slice(k), conjugate, work.p);
        }
        fft.forward.run(work);
        (k == 0 ? multiply : multiply_add)(work, step.phase.slice(k), conjugate, spectrum.p);
    }
    fft.inverse.run(spectrum);
    std::copy_n(spectrum.p, side.field.n[0], side.field.p);
}

/// T z at sample i, its neighbours weighted by 1, or by 0 beyond the ends
struct Complex {
    float re, im;
};
Complex second_difference(const float* z, std::ptrdiff_t i, std::ptrdiff_t below, std::ptrdiff_t above, float wb,
                          float wa) {
    return {wb * z[2 * below] - 2.0f * z[2 * i] + wa * z[2 * above],
            wb * z[2 * below + 1] - 2.0f * z[2 * i + 1] + wa * z[2 * above + 1]};
}

/// R = (conj(a') T f - a' T u) / a of a stage, f before it and u after it; on the receiver side of the conjugates.
struct StageFields {
    const cf* before;
    const cf* after;
    cf* record;
};
void record_stage(const DepthStep& step, const DepthStep::Stage& stage, const StageFields& source,
                  const StageFields& receiver) {
    const View<const float, 2> fd = step.level->fd.view();
    const std::ptrdiff_t n = fd.n[0];
    const float* const drift = fd.p;
    const float *const curve = drift + n, *const ddrift = curve + n, *const dcurve = ddrift + n;
    const float *const sf = parts(source.before), *const su = parts(source.after);
    const float *const rf = parts(receiver.before), *const ru = parts(receiver.after);
    float* const sr = parts(source.record);
    float* const rr = parts(receiver.record);
    const float trick = step.trick;
    const auto sample = [&](std::ptrdiff_t i, std::ptrdiff_t below, std::ptrdiff_t above, float wb, float wa) {
        // a = bb - i aa, a' = db - i da
        const float aa = stage.alph_w * drift[i], bb = stage.beta_w2 * curve[i] + trick;
        const float da = stage.alph_w * ddrift[i], db = stage.beta_w2 * dcurve[i];
        const float inv = 1.0f / std::max(aa * aa + bb * bb, 1e-30f);
        const float fr = (bb * db - aa * da) * inv, fi = (aa * db + bb * da) * inv;  // conj(a') / a
        const float ur = (bb * db + aa * da) * inv, ui = (aa * db - bb * da) * inv;  // a' / a
        const Complex tsf = second_difference(sf, i, below, above, wb, wa);
        const Complex tsu = second_difference(su, i, below, above, wb, wa);
        sr[2 * i] = fr * tsf.re - fi * tsf.im - (ur * tsu.re - ui * tsu.im);
        sr[2 * i + 1] = fr * tsf.im + fi * tsf.re - (ur * tsu.im + ui * tsu.re);
        const Complex trf = second_difference(rf, i, below, above, wb, wa);
        const Complex tru = second_difference(ru, i, below, above, wb, wa);
        rr[2 * i] = fr * trf.re + fi * trf.im - (ur * tru.re + ui * tru.im);
        rr[2 * i + 1] = fr * trf.im - fi * trf.re - (ur * tru.im - ui * tru.re);
    };
    sample(0, 0, std::min<std::ptrdiff_t>(1, n - 1), 0.0f, 1.0f);
#pragma GCC ivdep
    for (std::ptrdiff_t i = 1; i < n - 1; ++i) sample(i, i - 1, i + 1, 1.0f, 1.0f);
    if (n > 1) sample(n - 1, n - 2, n - 1, 1.0f, 0.0f);
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

/// For one side p of such a pair, conjugated on request: gradient += Re(conj(p) record), out = conj(table) p or table
/// p.
void use_solution(const cf* pair, bool conjugate, const cf* record, const cf* table, View<float, 1> gradient, cf* out) {
    const float turn = conjugate ? -1.0f : 1.0f;
    const float* const z = parts(pair);
    const float* const r = parts(record);
    const float* const t = parts(table);
    float* const y = parts(out);
    for (std::ptrdiff_t i = 0; i < gradient.n[0]; ++i) {
        const float pr = z[4 * i], pi = turn * z[4 * i + 1];
        const float tr = t[2 * i], ti = turn * t[2 * i + 1];
        gradient.p[i] += pr * r[2 * i] + pi * r[2 * i + 1];
        y[2 * i] = pr * tr - pi * ti;
        y[2 * i + 1] = pr * ti + pi * tr;
    }
}

}  // namespace

int record_columns(const DepthStep& step) {
    return step.nstage > 0 ? 1 + step.nstage : step.blends ? 1 : 0;
}

int record_columns(const Parms& par, const Medium& medium) {
    if (par.ffd()) return 1 + ifd_coeffts(par.dipop).nstage;
    const auto blend = [](const MediumLevel& level) { return level.dweight.n()[0] > 0; };
    return std::any_of(medium.levels.begin(), medium.levels.end(), blend) ? 1 : 0;
}

void apply_step_recorded(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                         Side receiver, StepScratch& scratch) {
    const std::ptrdiff_t n = source.field.n[0];
    for (const Side& side : {source, receiver}) {
        shift_recorded(step, fft, side, step.blends ? side.record.slice(0).p : nullptr, scratch);
        if (step.nstage > 0) std::copy_n(side.field.p, n, side.record.slice(0).p);
    }
    for (int i = 0; i < step.nstage; ++i) {
        const DepthStep::Stage& stage = step.stage[at(i)];
        const cf* before[] = {source.record.slice(0).p, receiver.record.slice(0).p};
        if (i > 0) {
            before[0] = std::copy_n(source.field.p, n, scratch.field.view().p) - n;
            before[1] = std::copy_n(receiver.field.p, n, scratch.spectrum.view().p) - n;
        }
        apply_stage(stage, source.sign, source.field, receiver.field, scratch);
        record_stage(step, stage, {before[0], source.field.p, source.record.slice(i + 1).p},
                     {before[1], receiver.field.p, receiver.record.slice(i + 1).p});
    }
    for (const Side& side : {source, receiver}) {
        taper_column(taper, side.field.p);
        if (step.blends) taper_column(taper, side.record.slice(0).p);
    }
}

void apply_step_transposed(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                           View<const cf, 1> source_out, Side receiver, View<const cf, 1> receiver_out,
                           View<float, 1> gradient, StepScratch& scratch) {
    const std::pair<const Side&, View<const cf, 1>> sides[] = {{source, source_out}, {receiver, receiver_out}};
    for (const auto& [side, out] : sides) {
        const auto sign = static_cast<float>(side.sign);
        if (step.nstage == 0) correlate_turned(side.field.p, sign * step.dz_w, out.p, gradient);
        if (step.blends) correlate(side.field.p, side.record.slice(0).p, gradient);
        taper_column(taper, side.field.p);
    }
    for (int i = step.nstage - 1; i >= 0; --i) {
        const DepthStep::Stage& stage = step.stage[at(i)];
        cf* const pair = scratch.correction.view().p;
        put_pair(source.field, receiver.field, pair);  // conj(S)^-1 x = conj(S^-1 conj(x)); the receiver side has
        ffd_solve(stage, scratch.correction, scratch.chain);  // conj(S) for S
        cf* const w = scratch.field.view().p;
        use_solution(pair, true, source.record.slice(i + 1).p, stage.drive.p, gradient, w);
        add_second_difference(w, source.field);
        use_solution(pair + 1, false, receiver.record.slice(i + 1).p, stage.drive.p, gradient, w);
        add_second_difference(w, receiver.field);
    }
    for (const Side& side : {source, receiver}) {
        if (step.nstage > 0) {
            correlate_turned(side.field.p, static_cast<float>(side.sign) * step.dz_w, side.record.slice(0).p, gradient);
        }
        shift_transposed(step, fft, side, scratch);
    }
}

void apply_step_derivative(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                           View<const cf, 1> source_out, Side receiver, View<const cf, 1> receiver_out,
                           View<const float, 1> ds, StepScratch& scratch) {
    const std::ptrdiff_t n = source.field.n[0];
    for (const Side& side : {source, receiver}) {
        shift_recorded(step, fft, side, nullptr, scratch);
        if (step.nstage == 0) continue;
        const cf turn(0.0f, static_cast<float>(side.sign) * step.dz_w);
        for (std::ptrdiff_t i = 0; i < n; ++i) side.field(i) += turn * side.record(i, 0) * ds(i);
    }
    for (int i = 0; i < step.nstage; ++i) {
        const DepthStep::Stage& stage = step.stage[at(i)];
        apply_stage(stage, source.sign, source.field, receiver.field, scratch);
        const View<cf, 2> p = scratch.correction;  // + S^-1 (R ds)
        for (std::ptrdiff_t k = 0; k < n; ++k) {
            p(0, k) = source.record(k, i + 1) * ds(k);
            p(1, k) = std::conj(receiver.record(k, i + 1) * ds(k));
        }
        ffd_solve(stage, p, scratch.chain);
        for (std::ptrdiff_t k = 0; k < n; ++k) {
            source.field(k) += p(0, k);
            receiver.field(k) += std::conj(p(1, k));
        }
    }
    const std::pair<const Side&, View<const cf, 1>> sides[] = {{source, source_out}, {receiver, receiver_out}};
    for (const auto& [side, out] : sides) {
        taper_column(taper, side.field.p);
        const cf turn(0.0f, static_cast<float>(side.sign) * step.dz_w);
        for (std::ptrdiff_t i = 0; i < n; ++i) {
            if (step.nstage == 0) side.field(i) += turn * out(i) * ds(i);
            if (step.blends) side.field(i) += side.record(i, 0) * ds(i);
        }
    }
}
