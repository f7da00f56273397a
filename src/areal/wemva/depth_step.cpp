#include "src/areal/wemva/depth_step.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "src/areal/wemva/ow_ffd_areal.h"
#include "src/areal/wemva/ow_pspi_areal.h"
#include "src/areal/wemva/simd_math.h"

namespace {

std::size_t at(std::ptrdiff_t i) {
    return static_cast<std::size_t>(i);
}

/// Lane k of row i goes to lane i of row k.
void transpose(Lanes (&row)[lane_count]) {
    static_assert(lane_count == 8);
    Lanes a[8], b[8];
    for (int i = 0; i < 8; i += 2) {
        a[i] = __builtin_shufflevector(row[i], row[i + 1], 0, 8, 1, 9, 4, 12, 5, 13);
        a[i + 1] = __builtin_shufflevector(row[i], row[i + 1], 2, 10, 3, 11, 6, 14, 7, 15);
    }
    for (int i = 0; i < 8; i += 4) {
        for (int j = 0; j < 2; ++j) {
            b[i + 2 * j] = __builtin_shufflevector(a[i + j], a[i + j + 2], 0, 1, 8, 9, 4, 5, 12, 13);
            b[i + 2 * j + 1] = __builtin_shufflevector(a[i + j], a[i + j + 2], 2, 3, 10, 11, 6, 7, 14, 15);
        }
    }
    for (int i = 0; i < 4; ++i) {
        row[i] = __builtin_shufflevector(b[i], b[i + 4], 0, 1, 2, 3, 8, 9, 10, 11);
        row[i + 4] = __builtin_shufflevector(b[i], b[i + 4], 4, 5, 6, 7, 12, 13, 14, 15);
    }
}

// A sample of two fields side by side, each as it is or conjugated, so that a pair of opposite signs shares its
// factors.
typedef float Both __attribute__((vector_size(16)));

Both signs(int sign) {
    return sign > 0 ? Both{1, 1, 1, -1} : Both{1, -1, 1, 1};
}

Both load_both(const cf* a, const cf* b) {
    double pair[2];  // a complex number moves as one element
    std::memcpy(pair, static_cast<const void*>(a), sizeof(double));
    std::memcpy(pair + 1, static_cast<const void*>(b), sizeof(double));
    Both x;
    std::memcpy(&x, pair, sizeof x);
    return x;
}

/// rhs = q T f of both fields
void drive(View<const cf, 1> q, int sign, const cf* a, const cf* b, cf* rhs) {
    const std::ptrdiff_t n = q.n[0];
    const Both turn = signs(sign);
    constexpr Both alternate{-1, 1, -1, 1};
    const float* const g = parts(q.p);
    Both before{}, here = load_both(a, b) * turn;
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const Both behind = i + 1 < n ? load_both(a + i + 1, b + i + 1) * turn : Both{};
        const Both t = before - 2.0f * here + behind;
        const Both r = t * g[2 * i] + __builtin_shufflevector(t, t, 1, 0, 3, 2) * (alternate * g[2 * i + 1]);
        std::memcpy(static_cast<void*>(rhs + 2 * i), &r, sizeof r);
        before = here;
        here = behind;
    }
}

/// out = in + correction, of both fields
void add_correction(const cf* correction, int sign, std::ptrdiff_t n, const cf* a, const cf* b, cf* a_out, cf* b_out) {
    const Both turn = signs(sign);
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        Both e;
        std::memcpy(&e, static_cast<const void*>(correction + 2 * i), sizeof e);
        const Both sum = load_both(a + i, b + i) + e * turn;
        a_out[i] = cf(sum[0], sum[1]);
        b_out[i] = cf(sum[2], sum[3]);
    }
}

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
    const float* const x = parts(in.p);
    float* const y = parts(out);
    for (std::ptrdiff_t i = 0; i < in.n[0]; ++i) {
        y[2 * i] = (add ? y[2 * i] : 0.0f) + weight.p[i] * x[2 * i];
        y[2 * i + 1] = (add ? y[2 * i + 1] : 0.0f) + weight.p[i] * x[2 * i + 1];
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

/// The levels of the finite-difference form.
template <class Real>
void prepare_levels(const Parms& par, View<const float, 2> vel, const ReferenceTable* given,
                    std::vector<MediumLevel>& levels, StageMedium<Real>& medium) {
    const std::ptrdiff_t nx = vel.n[0], nz = vel.n[1], blocks = (nz + lane_count - 1) / lane_count;
    medium.drift = Array<LanesOf<Real>, 2>({nx, blocks});
    medium.curve = Array<LanesOf<Real>, 2>({nx, blocks});
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
        const float* const vref = given ? &(*given)[at(iz)][0] : nullptr;
        ffd_level<Real>(par, vel.slice(iz).flat(), vref, levels[at(iz)],
                        medium.drift.view().slice(iz / lane_count).flat(),
                        medium.curve.view().slice(iz / lane_count).flat(), static_cast<int>(iz % lane_count));
    }
}

/// Eight numbers of a lane at a time from `row` to the columns of `count` lanes from `lane` on.
void store_rows(Lanes (&row)[lane_count], int lane, int count, std::ptrdiff_t numbers, float* column,
                std::ptrdiff_t stride) {
    transpose(row);
    for (int j = 0; j < count; ++j, column += stride) {
        if (numbers == lane_count)
            std::memcpy(column, &row[lane + j], sizeof(Lanes));
        else
            std::memcpy(column, &row[lane + j], at(numbers) * sizeof(float));
    }
}

/// @param drive (nx of the first stage stored, lanes) columns of the right side's factors
void store_drive(View<const Lanes, 2> gain, int lane, View<cf, 2> drive) {
    const std::ptrdiff_t nx = gain.n[0];
    Lanes row[lane_count];
    for (std::ptrdiff_t i = 0; i < nx; i += 4) {
        const std::ptrdiff_t samples = std::min<std::ptrdiff_t>(4, nx - i);
        for (std::ptrdiff_t k = 0; k < samples; ++k) {
            row[2 * k] = gain(i + k, 0);
            row[2 * k + 1] = gain(i + k, 1);
        }
        store_rows(row, lane, static_cast<int>(drive.n[1]), 2 * samples, parts(drive.p + i), 2 * drive.n[0]);
    }
}

/// The pivots of sample t from the left and of its partner from the right, t below nx/2.
template <class L>
struct PivotPair {
    L left_re, left_im, right_re, right_im;
    PivotPair(View<const L, 2> pivot, std::ptrdiff_t t)
        : left_re(pivot(t, 0)), left_im(pivot(t, 1)), right_re{}, right_im{} {
        const std::ptrdiff_t nx = pivot.n[0], partner = (nx % 2 ? nx - 1 : nx) - t;
        if (partner >= nx) return;
        right_re = pivot(partner, 0);
        right_im = pivot(partner, 1);
    }
};

/// @param columns (4 nx/2 of the first stage stored, lanes)
void store_pivots(View<const Lanes, 2> pivot, int lane, View<float, 2> columns) {
    const std::ptrdiff_t half = pivot.n[0] / 2;
    Lanes row[lane_count];
    for (std::ptrdiff_t t = 0; t < half; t += 2) {
        const std::ptrdiff_t pairs = std::min<std::ptrdiff_t>(2, half - t);
        for (std::ptrdiff_t k = 0; k < pairs; ++k) {
            const PivotPair<Lanes> pair(pivot, t + k);
            row[4 * k] = pair.left_re;
            row[4 * k + 1] = pair.left_im;
            row[4 * k + 2] = pair.right_re;
            row[4 * k + 3] = pair.right_im;
        }
        store_rows(row, lane, static_cast<int>(columns.n[1]), 4 * pairs, columns.p + 4 * t, columns.n[0]);
    }
}
void store_pivots(View<const LanesOf<double>, 2> pivot, int lane, View<double, 2> columns) {
    for (std::ptrdiff_t t = 0; t < pivot.n[0] / 2; ++t) {
        const PivotPair<LanesOf<double>> pair(pivot, t);
        for (int j = 0; j < columns.n[1]; ++j) {
            double* const out = columns.slice(j).p + 4 * t;
            out[0] = pair.left_re[lane + j];
            out[1] = pair.left_im[lane + j];
            out[2] = pair.right_re[lane + j];
            out[3] = pair.right_im[lane + j];
        }
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

Medium prepare_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref, const Frozen& frozen) {
    const ReferenceTable* const given = frozen.references;
    Medium medium;
    const std::ptrdiff_t nz = vel.n[1];
    medium.levels.resize(at(nz));
    if (par.ffd()) {
        if (given && ffd_needs_double(par.dipop))
            prepare_levels(par, vel, given, medium.levels, medium.fine);
        else
            prepare_levels(par, vel, given, medium.levels, medium.stages);
    } else if (par.pspi()) {
        for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
            const View<const float, 2> table = sref.p ? sref.slice(iz) : View<const float, 2>{};
            if (given) {
                pspi_level_given(vel.slice(iz).flat(), table, (*given)[at(iz)], frozen.start.slice(iz).flat(),
                                 medium.levels[at(iz)]);
            } else {
                pspi_level(par, vel.slice(iz).flat(), table, medium.levels[at(iz)]);
            }
        }
    }
    return medium;
}

ReferenceTable references_of(const Medium& medium) {
    ReferenceTable table;
    for (const MediumLevel& level : medium.levels) table.push_back(level.vref);
    return table;
}

StepTables::StepTables(const Parms& par, const Medium& medium, int most_levels, Arena& arena)
    : par_(par), medium_(medium), nrefs_(1), steps_(at(most_levels)) {
    const std::ptrdiff_t nx = par.kxm.n;
    for (const MediumLevel& level : medium.levels) nrefs_ = std::max(nrefs_, static_cast<int>(level.vref.size()));
    phase_ = arena.take<cf>(nx, nrefs_, most_levels);
    space_ = arena.take<cf>(nx, nrefs_, most_levels);
    work_ = arena.take<float>(nx, 2);
    const bool fine = medium.fine.drift.n()[1] > 0;
    if ((fine || medium.stages.drift.n()[1] > 0) && nx > 1) {
        const FfdStages stages = ifd_coeffts(par.dipop);
        nstage_ = stages.nstage;
        alph_ = stages.alph;
        beta_ = stages.beta;
        drive_ = arena.take<cf>(nx, nstage_, most_levels);
        gain_work_ = arena.take<Lanes>(nx, 2);
        if (fine)
            fine_.take(arena, nx, nstage_, most_levels);
        else
            pivots_.take(arena, nx, nstage_, most_levels);
    }
}

void StepTables::prepare(int iw, int first, int count) {
    const float w = par_.rec.w.all[at(iw)];
    first_ = first;
    for (int j = 0; j < count; ++j) {
        DepthStep& step = steps_[at(j)];
        step.level = &medium_.levels[at(first + j)];
        const auto nref = static_cast<std::ptrdiff_t>(step.level->vref.size());
        View<cf, 2> phase = phase_.slice(j), space = space_.slice(j);
        step.blends = step.level->dweight.n()[0] > 0;
        phase.n[1] = nref;
        space.n[1] = step.blends ? 1 : nref;
        prepare_phases(w, step, phase, space);
    }
    if (nstage_ == 0) return;
    for (int level = first; level < first + count;) {
        const int block = level / lane_count;
        const int end = std::min((block + 1) * lane_count, first + count);
        if (fine_.all.p)
            prepare_stages(medium_.fine, fine_, w, block, level, end - level);
        else
            prepare_stages(medium_.stages, pivots_, w, block, level, end - level);
        level = end;
    }
}

void StepTables::prepare_phases(float w, DepthStep& step, View<cf, 2> phase, View<cf, 2> space) {
    const MediumLevel& level = *step.level;
    const std::ptrdiff_t nx = par_.kxm.n;
    const float dz = par_.v.z.d;
    const float dz_w = dz * w;
    const float unscale = 1.0f / static_cast<float>(nx);  // both transforms
    float* const angle = work_.slice(0).p;
    float* const scale = work_.slice(1).p;
    const float* const kx = par_.kxm.all.data();
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
    step.trick = par_.trick;
    step.half_dz = par_.img.z.d * 0.5f;
    step.dx2 = par_.img.xm.d * par_.img.xm.d;
}

template <class Real>
void StepTables::Pivots<Real>::take(Arena& arena, std::ptrdiff_t nx, int nstage, int levels) {
    all = arena.take<Real>(4, nx / 2, nstage, levels);
    work = arena.take<LanesOf<Real>>(nx, 2);
}

template <class Real>
void StepTables::prepare_stages(const StageMedium<Real>& medium, const Pivots<Real>& pivots, float w, int block,
                                int first, int count) {
    const std::ptrdiff_t nx = par_.kxm.n, half = nx / 2;
    const int lane = first % lane_count;
    for (int istage = 0; istage < nstage_; ++istage) {
        ffd_factors<Real>(w, alph_[at(istage)], beta_[at(istage)], par_.trick, medium.drift.view().slice(block).flat(),
                          medium.curve.view().slice(block).flat(), gain_work_, pivots.work);
        store_drive(gain_work_, lane, {drive_.slice(first - first_).slice(istage).p, {nx * nstage_, count}});
        store_pivots(pivots.work, lane,
                     {pivots.all.slice(first - first_).slice(istage).p, {4 * half * nstage_, count}});
        for (int j = 0; j < count; ++j) {
            DepthStep& step = steps_[at(first + j - first_)];
            step.nstage = nstage_;
            DepthStep::Stage& stage = step.stage[at(istage)];
            stage.drive = drive_.slice(first + j - first_).slice(istage);
            const View<const Real, 2> own = pivots.all.slice(first + j - first_).slice(istage);
            if constexpr (std::is_same_v<Real, float>)
                stage.pivot = own;
            else
                stage.fine = own;
            stage.middle = {pivots.work(half, 0)[lane + j], pivots.work(half, 1)[lane + j]};
            stage.alph_w = alph_[at(istage)] / w;
            stage.beta_w2 = beta_[at(istage)] / w / w;
        }
    }
}

StepScratch::StepScratch(int nx)
    : spectrum({nx}),
      shifted({nx}),
      field({nx}),
      correction({2, nx + 1}),
      differences({2 * nx, 4}),
      chain(at(nx / 2 + 1)),
      fine_chain(at(nx / 2 + 1)) {}

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
    for (int i = 0; i < step.nstage; ++i) apply_stage(step.stage[at(i)], sign, field, nothing, field, nothing, scratch);
}

void apply_stage(const DepthStep::Stage& stage, int sign, View<const cf, 1> field, View<const cf, 1> other,
                 View<cf, 1> out, View<cf, 1> other_out, StepScratch& scratch) {
    cf* const rhs = scratch.correction.view().p;
    drive(stage.drive, sign, field.p, other.p, rhs);
    ffd_solve(stage, scratch);
    add_correction(rhs, sign, field.n[0], field.p, other.p, out.p, other_out.p);
}

void apply_step_pair(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, View<cf, 1> other,
                     StepScratch& scratch) {
    shift(step, fft, sign, field, field, nullptr, scratch);
    shift(step, fft, -sign, other, other, nullptr, scratch);
    for (int i = 0; i < step.nstage; ++i) apply_stage(step.stage[at(i)], sign, field, other, field, other, scratch);
}
