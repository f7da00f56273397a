#include "src/areal/wemva/step_derivative.h"

#include <algorithm>

#include "src/areal/wemva/ow_ffd_areal.h"

namespace {

std::size_t at(std::ptrdiff_t i) {
    return static_cast<std::size_t>(i);
}

bool blends(const DepthStep& step) {
    return step.slope.p != nullptr;
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

/// Everything but the finite-difference stages; the blending weights' derivative goes to `slope`.
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
        multiply(spectrum, step.phase.slice(k), conjugate, work.p);
        fft.inverse.run(work);
        const auto put = k == 0 ? multiply : multiply_add;
        put(work, step.space.slice(k), conjugate, side.field.p);
        if (slope) put(work, step.slope.slice(k), conjugate, slope);
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
        multiply(side.field, step.space.slice(k), conjugate, work.p);
        fft.forward.run(work);
        (k == 0 ? multiply : multiply_add)(work, step.phase.slice(k), conjugate, spectrum.p);
    }
    fft.inverse.run(spectrum);
    std::copy_n(spectrum.p, side.field.n[0], side.field.p);
}

/// R = (conj(a') T f - a' T u) / a, of the conjugate fields for sign -1.
void record_stage(const DepthStep& step, const DepthStep::Stage& stage, float trick, float turn, const cf* before,
                  const cf* after, cf* record) {
    const View<const float, 2> fd = step.level->fd.view();
    const std::ptrdiff_t n = fd.n[0];
    const float* const f = parts(before);
    const float* const u = parts(after);
    float* const r = parts(record);
    const auto sample = [&](std::ptrdiff_t i, std::ptrdiff_t below, std::ptrdiff_t above, float wb, float wa) {
        const float aa = stage.alph_w * fd.p[i], bb = stage.beta_w2 * fd.p[n + i] + trick;
        const float da = stage.alph_w * fd.p[2 * n + i], db = stage.beta_w2 * fd.p[3 * n + i];
        const float inv = 1.0f / std::max(aa * aa + bb * bb, 1e-30f);
        const float tfr = wb * f[2 * below] - 2.0f * f[2 * i] + wa * f[2 * above];
        const float tfi = turn * (wb * f[2 * below + 1] - 2.0f * f[2 * i + 1] + wa * f[2 * above + 1]);
        const float tur = wb * u[2 * below] - 2.0f * u[2 * i] + wa * u[2 * above];
        const float tui = turn * (wb * u[2 * below + 1] - 2.0f * u[2 * i + 1] + wa * u[2 * above + 1]);
        // a = bb - i aa, a' = db - i da; times 1/a = (bb + i aa) inv
        const float er = db * tfr - da * tfi - (db * tur + da * tui);
        const float ei = db * tfi + da * tfr - (db * tui - da * tur);
        r[2 * i] = (bb * er - aa * ei) * inv;
        r[2 * i + 1] = turn * (bb * ei + aa * er) * inv;
    };
    sample(0, 0, std::min<std::ptrdiff_t>(1, n - 1), 0.0f, 1.0f);
    for (std::ptrdiff_t i = 1; i < n - 1; ++i) sample(i, i - 1, i + 1, 1.0f, 1.0f);
    if (n > 1) sample(n - 1, n - 2, n - 1, 1.0f, 0.0f);
}

/// x += T (table p), the table conjugated on request
void add_second_difference(const cf* table, bool conjugate, const cf* p, View<cf, 1> x, cf* work) {
    const std::ptrdiff_t n = x.n[0];
    multiply(View<const cf, 1>{p, {n}}, View<const cf, 1>{table, {n}}, conjugate, work);
    const float* const w = parts(work);
    float* const out = parts(x.p);
    for (std::ptrdiff_t i = 0; i < 2 * n; ++i) out[i] -= 2.0f * w[i];
    for (std::ptrdiff_t i = 2; i < 2 * n; ++i) out[i] += w[i - 2];
    for (std::ptrdiff_t i = 0; i < 2 * n - 2; ++i) out[i] += w[i + 2];
}

/// Put a field into every other complex number of `pair`, conjugated on request, and take it out again.
void put(View<const cf, 1> field, bool conjugate, cf* pair) {
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) pair[2 * i] = conjugate ? std::conj(field.p[i]) : field.p[i];
}
void take(const cf* pair, bool conjugate, View<cf, 1> field) {
    for (std::ptrdiff_t i = 0; i < field.n[0]; ++i) field.p[i] = conjugate ? std::conj(pair[2 * i]) : pair[2 * i];
}

}  // namespace

int record_columns(const DepthStep& step) {
    return step.nstage > 0 ? 1 + step.nstage : blends(step) ? 1 : 0;
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
        shift_recorded(step, fft, side, blends(step) ? side.record.slice(0).p : nullptr, scratch);
        if (step.nstage > 0) std::copy_n(side.field.p, n, side.record.slice(0).p);
    }
    for (int i = 0; i < step.nstage; ++i) {
        const DepthStep::Stage& stage = step.stage[at(i)];
        for (const Side& side : {source, receiver}) std::copy_n(side.field.p, n, side.record.slice(i + 1).p);
        apply_stage(stage, source.sign, source.field, receiver.field, scratch);
        for (const Side& side : {source, receiver}) {
            cf* const before = scratch.field.view().p;
            std::copy_n(side.record.slice(i + 1).p, n, before);
            record_stage(step, stage, step.trick, side.sign < 0 ? -1.0f : 1.0f, before, side.field.p,
                         side.record.slice(i + 1).p);
        }
    }
    for (const Side& side : {source, receiver}) {
        taper_column(taper, side.field.p);
        if (blends(step)) taper_column(taper, side.record.slice(0).p);
    }
}

void apply_step_transposed(const DepthStep& step, const LateralFft& fft, View<const float, 1> taper, Side source,
                           View<const cf, 1> source_out, Side receiver, View<const cf, 1> receiver_out,
                           View<float, 1> gradient, StepScratch& scratch) {
    const std::pair<const Side&, View<const cf, 1>> sides[] = {{source, source_out}, {receiver, receiver_out}};
    for (const auto& [side, out] : sides) {
        const auto sign = static_cast<float>(side.sign);
        if (step.nstage == 0) correlate_turned(side.field.p, sign * step.dz_w, out.p, gradient);
        if (blends(step)) correlate(side.field.p, side.record.slice(0).p, gradient);
        taper_column(taper, side.field.p);
    }
    const View<cf, 1> p = scratch.spectrum;
    for (int i = step.nstage - 1; i >= 0; --i) {
        const DepthStep::Stage& stage = step.stage[at(i)];
        cf* const pair = scratch.correction.view().p;
        put(source.field, true, pair);         // conj(S)^-1 x = conj(S^-1 conj(x));
        put(receiver.field, false, pair + 1);  // the receiver side has conj(S) for S
        ffd_solve(stage, scratch.correction, scratch.chain);
        for (const Side& side : {source, receiver}) {
            const bool conjugate = side.sign == source.sign;
            take(conjugate ? pair : pair + 1, conjugate, p);
            correlate(p.p, side.record.slice(i + 1).p, gradient);
            add_second_difference(stage.drive.p, conjugate, p.p, side.field, scratch.field.view().p);
        }
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
            if (blends(step)) side.field(i) += side.record(i, 0) * ds(i);
        }
    }
}
