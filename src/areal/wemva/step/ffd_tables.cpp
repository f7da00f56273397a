#include "src/areal/wemva/step/ffd_tables.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "lib/base/index.h"
#include "lib/base/lanes.h"
#include "src/areal/wemva/step/ffd_stage.h"

namespace morvane {

namespace {

/// Eight numbers of a lane at a time from `row` to the columns of `count` lanes from `lane` on.
void store_rows(Float8 (&row)[levels_at_a_time], int lane, int count, std::ptrdiff_t numbers, float* column,
                std::ptrdiff_t stride) {
    transpose(row);
    for (int j = 0; j < count; ++j, column += stride) {
        if (numbers == levels_at_a_time)
            std::memcpy(column, &row[lane + j], sizeof(Float8));
        else
            std::memcpy(column, &row[lane + j], at(numbers) * sizeof(float));
    }
}

/// @param q (nx of the first stage stored, lanes) columns of the right side's factors
void store_q(View<const Float8, 2> lanes, int lane, View<cf, 2> q) {
    const std::ptrdiff_t nx = lanes.n[0];
    Float8 row[levels_at_a_time];
    for (std::ptrdiff_t i = 0; i < nx; i += 4) {
        const std::ptrdiff_t samples = std::min<std::ptrdiff_t>(4, nx - i);
        for (std::ptrdiff_t k = 0; k < samples; ++k) {
            row[2 * k] = lanes(i + k, 0);
            row[2 * k + 1] = lanes(i + k, 1);
        }
        store_rows(row, lane, static_cast<int>(q.n[1]), 2 * samples, parts(q.p + i), 2 * q.n[0]);
    }
}

/// The pivots of sample t from the left and of its partner from the right, t below nx/2.
template <class Lanes>
struct PivotPair {
    Lanes left_re, left_im, right_re, right_im;
    PivotPair(View<const Lanes, 2> pivot, std::ptrdiff_t t)
        : left_re(pivot(t, 0)), left_im(pivot(t, 1)), right_re{}, right_im{} {
        const std::ptrdiff_t nx = pivot.n[0], partner = (nx % 2 ? nx - 1 : nx) - t;
        if (partner >= nx) return;
        right_re = pivot(partner, 0);
        right_im = pivot(partner, 1);
    }
};

/// @param columns (4 nx/2 of the first stage stored, lanes)
void store_pivots(View<const Float8, 2> pivot, int lane, View<float, 2> columns) {
    const std::ptrdiff_t half = pivot.n[0] / 2;
    Float8 row[levels_at_a_time];
    for (std::ptrdiff_t t = 0; t < half; t += 2) {
        const std::ptrdiff_t pairs = std::min<std::ptrdiff_t>(2, half - t);
        for (std::ptrdiff_t k = 0; k < pairs; ++k) {
            const PivotPair<Float8> pair(pivot, t + k);
            row[4 * k] = pair.left_re;
            row[4 * k + 1] = pair.left_im;
            row[4 * k + 2] = pair.right_re;
            row[4 * k + 3] = pair.right_im;
        }
        store_rows(row, lane, static_cast<int>(columns.n[1]), 4 * pairs, columns.p + 4 * t, columns.n[0]);
    }
}
void store_pivots(View<const LevelLanes<double>, 2> pivot, int lane, View<double, 2> columns) {
    for (std::ptrdiff_t t = 0; t < pivot.n[0] / 2; ++t) {
        const PivotPair<LevelLanes<double>> pair(pivot, t);
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

template <class Real>
FfdTables<Real>::FfdTables(const Parms& par, const StageMedium<Real>& medium, int most_levels, Arena& arena)
    : medium_(medium), trick_(par.trick), half_dz_(par.img.z.d * 0.5f), dx2_(par.img.xm.d * par.img.xm.d) {
    const std::ptrdiff_t nx = par.kxm.n;
    if (medium.empty() || nx == 1) return;
    const FfdStages stages = ifd_coeffts(par.dipop);
    nstage_ = stages.nstage;
    alph_ = stages.alph;
    beta_ = stages.beta;
    q_ = arena.take<cf>(nx, nstage_, most_levels);
    q_lanes_ = arena.take<Float8>(nx, 2);
    pivots_ = arena.take<Real>(4, nx / 2, nstage_, most_levels);
    pivot_lanes_ = arena.take<LevelLanes<Real>>(nx, 2);
    stages_.resize(at(most_levels));
}

template <class Real>
void FfdTables<Real>::prepare(float w, int first, int count) {
    if (empty()) return;
    first_ = first;
    for (int level = first; level < first + count;) {
        const int block = level / levels_at_a_time;
        const int end = std::min((block + 1) * levels_at_a_time, first + count);
        prepare_block(w, block, level, end - level);
        level = end;
    }
}

template <class Real>
void FfdTables<Real>::prepare_block(float w, int block, int first, int count) {
    const std::ptrdiff_t nx = q_.n[0], half = nx / 2;
    const int lane = first % levels_at_a_time;
    const std::ptrdiff_t row = first - first_;
    for (int istage = 0; istage < nstage_; ++istage) {
        const float alph = alph_[at(istage)], beta = beta_[at(istage)];
        ffd_factors<Real>(w, alph, beta, trick_, medium_.alpha_term.view().slice(block).flat(),
                          medium_.beta_term.view().slice(block).flat(), q_lanes_, pivot_lanes_);
        store_q(q_lanes_, lane, {q_.slice(row).slice(istage).p, {nx * nstage_, count}});
        store_pivots(pivot_lanes_, lane, {pivots_.slice(row).slice(istage).p, {4 * half * nstage_, count}});
        for (int j = 0; j < count; ++j) {
            FfdStage& stage = stages_[at(row + j)][at(istage)];
            stage.q = q_.slice(row + j).slice(istage);
            const View<const Real, 2> pivot = pivots_.slice(row + j).slice(istage);
            if constexpr (std::is_same_v<Real, float>)
                stage.pivot = pivot;
            else
                stage.fine = pivot;
            stage.middle = {pivot_lanes_(half, 0)[lane + j], pivot_lanes_(half, 1)[lane + j]};
            stage.alpha_share = alph / w * half_dz_ / dx2_;
            stage.beta_share = beta / w / w / dx2_;
            stage.trick = trick_;
        }
    }
}

template class FfdTables<float>;
template class FfdTables<double>;

}  // namespace morvane
