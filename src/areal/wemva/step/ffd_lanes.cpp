#include "src/areal/wemva/step/ffd_lanes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "lib/base/index.h"

namespace morvane {

namespace {

constexpr float least_pivot = 1e-30f, instead_of_zero = 3e-4f;  // as in ffd_stage.cpp

template <class Real>
inline constexpr int lanes_of = sizeof(Real) == 4 ? lane_count : lane_count / 2;
template <class Real>
using Lanes = Vector<Real, lanes_of<Real>>;
using HalfLanes = Vector<float, lane_count / 2>;

template <class Real>
struct ComplexLanes {
    Lanes<Real> re{}, im{};
};
template <class Real>
ComplexLanes<Real> operator*(const ComplexLanes<Real>& a, const ComplexLanes<Real>& b) {
    return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
}
template <class Real>
ComplexLanes<Real> operator-(const ComplexLanes<Real>& a, const ComplexLanes<Real>& b) {
    return {a.re - b.re, a.im - b.im};
}
template <class Real>
ComplexLanes<Real> operator+(const ComplexLanes<Real>& a, const ComplexLanes<Real>& b) {
    return {a.re + b.re, a.im + b.im};
}

Lanes<float> load_as(const float* p, float) {
    Lanes<float> x;
    std::memcpy(&x, p, sizeof x);
    return x;
}
Lanes<double> load_as(const float* p, double) {
    HalfLanes x;
    std::memcpy(&x, p, sizeof x);
    return __builtin_convertvector(x, Lanes<double>);
}
void store_as(const Lanes<float>& x, float* p) {
    std::memcpy(p, &x, sizeof x);
}
void store_as(const Lanes<double>& x, float* p) {
    const HalfLanes single = __builtin_convertvector(x, HalfLanes);
    std::memcpy(p, &single, sizeof single);
}

/// Some lanes of a field, on the source side (turn 1) as they are, on the receiver side (turn -1) conjugated, so that
/// both sides share their factors.
template <class Real>
struct Side {
    float* p;
    std::ptrdiff_t nx;
    Real turn;
    Side(LaneField field, int first, int sign) : p(field.p + first), nx(field.n[2]), turn(static_cast<Real>(sign)) {}

    ComplexLanes<Real> operator()(std::ptrdiff_t x) const {
        const float* const z = p + 2 * lane_count * x;
        return {load_as(z, Real{}), turn * load_as(z + lane_count, Real{})};
    }
    /// The second difference, with zeros beyond the ends.
    ComplexLanes<Real> t(std::ptrdiff_t x) const {
        ComplexLanes<Real> sum = (*this)(x);
        sum = {static_cast<Real>(-2) * sum.re, static_cast<Real>(-2) * sum.im};
        if (x > 0) sum = sum + (*this)(x - 1);
        if (x + 1 < nx) sum = sum + (*this)(x + 1);
        return sum;
    }
    void put(std::ptrdiff_t x, const ComplexLanes<Real>& z) const {
        float* const out = p + 2 * lane_count * x;
        store_as(z.re, out);
        store_as(turn * z.im, out + lane_count);
    }
};

/// b and c of a = b - i c at a sample, and 1 / |a|^2.
template <class Real>
struct Terms {
    Lanes<Real> b, c, inv;
    ComplexLanes<Real> q() const { return {-2 * c * c * inv, 2 * c * b * inv}; }
    ComplexLanes<Real> inverse() const { return {b * inv, c * inv}; }
};

/// One stage at one level, for some lanes.
template <class Real>
struct Stage {
    const LevelLanes<Real>*alpha, *beta;  // (nx) of the block of levels, of which `lane` is this one
    int lane;
    std::ptrdiff_t nx;
    Lanes<Real> alph_w{}, beta_w2{};  // alph/w, beta/w^2
    Real floor, half_dz, dx2;         // where a vanishes its row is the identity: 1/a is large, not infinite
    const MediumLevel& level;
    Real* kept;  // (6 lanes, nx)
    float *weights, *contribution;
    int first;  // lane of the block

    Terms<Real> terms(std::ptrdiff_t x) const {
        const Lanes<Real> c = alph_w * alpha[x][lane];
        const Lanes<Real> b = beta_w2 * beta[x][lane] + floor;
        return {b, c, 1 / (c * c + b * b)};
    }

    /// out(x, S^-1 right) from the last sample to the first, for `n` fields at once.
    /// @param right right(x, terms) gives the right sides at a sample, from the first to the last
    template <std::size_t n, class Right, class Out>
    void solve(Right right, Out out) const {
        ComplexLanes<Real> g, y[n];
        for (std::ptrdiff_t x = 0; x < nx; ++x) {
            const Terms<Real> here = terms(x);
            Lanes<Real> re = here.b * here.inv - 2 - g.re;
            const Lanes<Real> im = here.c * here.inv - g.im;
            const Real least = static_cast<Real>(least_pivot), instead = static_cast<Real>(instead_of_zero);
            re = re * re + im * im > least ? re : re + instead;
            const Lanes<Real> inv = 1 / (re * re + im * im);
            g = {re * inv, -im * inv};
            const auto r = right(x, here);
            Lanes<Real>* const keep = reinterpret_cast<Lanes<Real>*>(kept) + 6 * x;
            keep[0] = g.re;
            keep[1] = g.im;
            for (std::size_t k = 0; k < n; ++k) {
                y[k] = g * (r[k] - y[k]);
                keep[2 + 2 * k] = y[k].re;
                keep[3 + 2 * k] = y[k].im;
            }
        }
        std::array<ComplexLanes<Real>, n> e{};
        for (std::ptrdiff_t x = nx - 1; x >= 0; --x) {
            const Lanes<Real>* const keep = reinterpret_cast<const Lanes<Real>*>(kept) + 6 * x;
            const ComplexLanes<Real> factor{keep[0], keep[1]};
            for (std::size_t k = 0; k < n; ++k)
                e[k] = ComplexLanes<Real>{keep[2 + 2 * k], keep[3 + 2 * k]} - factor * e[k];
            out(x, e);
        }
    }

    /// The derivative of a with respect to slowness, db - i dc.
    struct Slopes {
        Lanes<Real> db, dc;
    };
    Slopes slopes(std::ptrdiff_t x) const {
        const Real v = level.velocity(x), v2 = v * v;
        return {-beta_w2 * ((2 * v + static_cast<Real>(level.vref[0])) * v2 / dx2), -alph_w * (half_dz / dx2 * v2)};
    }

    /// R = (db T(f - u) + i dc T(f + u)) / a of one side, whose conjugates are those of the other.
    static ComplexLanes<Real> response(const Slopes& slope, const ComplexLanes<Real>& inverse, const Side<Real>& before,
                                       const Side<Real>& after, std::ptrdiff_t x) {
        const ComplexLanes<Real> tf = before.t(x), tu = after.t(x), less = tf - tu, sum = tf + tu;
        return inverse *
               ComplexLanes<Real>{slope.db * less.re - slope.dc * sum.im, slope.db * less.im + slope.dc * sum.re};
    }

    /// x += T w, the weights w of a side kept from sample to sample.
    void add_second_difference(int side, const Side<Real>& field) const {
        const float* const w = weights + side * lane_count + first;
        for (std::ptrdiff_t x = 0; x < nx; ++x) {
            ComplexLanes<Real> sum = field(x);
            const auto add = [&](std::ptrdiff_t at_x, Real factor) {
                if (at_x < 0 || at_x >= nx) return;
                const float* const z = w + 4 * lane_count * at_x;
                sum =
                    sum + ComplexLanes<Real>{factor * load_as(z, Real{}), factor * load_as(z + 2 * lane_count, Real{})};
            };
            add(x - 1, 1);
            add(x, -2);
            add(x + 1, 1);
            field.put(x, sum);
        }
    }
    void keep_weight(int side, std::ptrdiff_t x, const ComplexLanes<Real>& w) const {
        float* const z = weights + side * lane_count + first + 4 * lane_count * x;
        store_as(w.re, z);
        store_as(w.im, z + 2 * lane_count);
    }

    void apply(const LanePair& before, const LanePair& after) const {
        const Side<Real> source(before.source, first, +1), receiver(before.receiver, first, -1);
        const Side<Real> to_source(after.source, first, +1), to_receiver(after.receiver, first, -1);
        solve<2>(
            [&](std::ptrdiff_t x, const Terms<Real>& here) {
                const ComplexLanes<Real> q = here.q();
                return std::array{q * source.t(x), q * receiver.t(x)};
            },
            [&](std::ptrdiff_t x, const auto& e) {
                to_source.put(x, source(x) + e[0]);
                to_receiver.put(x, receiver(x) + e[1]);
            });
    }

    void derivative(const LanePair& before, const LanePair& after, View<const float, 1> ds,
                    const LanePair& carried) const {
        const Side<Real> fs(before.source, first, +1), fr(before.receiver, first, -1);
        const Side<Real> us(after.source, first, +1), ur(after.receiver, first, -1);
        const Side<Real> source(carried.source, first, +1), receiver(carried.receiver, first, -1);
        solve<2>(
            [&](std::ptrdiff_t x, const Terms<Real>& here) {
                const ComplexLanes<Real> q = here.q(), inverse = here.inverse();
                const Slopes slope = slopes(x);
                const Real change = ds(x);
                const auto right = [&](const Side<Real>& field, const Side<Real>& f, const Side<Real>& u) {
                    const ComplexLanes<Real> r = response(slope, inverse, f, u, x), d = q * field.t(x);
                    return ComplexLanes<Real>{d.re + change * r.re, d.im + change * r.im};
                };
                return std::array{right(source, fs, us), right(receiver, fr, ur)};
            },
            [&](std::ptrdiff_t x, const auto& e) {
                source.put(x, source(x) + e[0]);
                receiver.put(x, receiver(x) + e[1]);
            });
    }

    /// The source side's adjoint field is conjugated, not the receiver side's.
    void transposed(const LanePair& before, const LanePair& after, const LanePair& carried, bool add) const {
        const Side<Real> fs(before.source, first, +1), fr(before.receiver, first, -1);
        const Side<Real> us(after.source, first, +1), ur(after.receiver, first, -1);
        const Side<Real> source(carried.source, first, -1), receiver(carried.receiver, first, +1);
        solve<2>(
            [&](std::ptrdiff_t x, const Terms<Real>&) {
                return std::array{source(x), receiver(x)};
            },
            [&](std::ptrdiff_t x, const auto& z) {
                const Terms<Real> here = terms(x);
                const Slopes slope = slopes(x);
                const ComplexLanes<Real> inverse = here.inverse();
                const ComplexLanes<Real> r =
                    response(slope, inverse, fs, us, x) * z[0] + response(slope, inverse, fr, ur, x) * z[1];
                float* const sum = contribution + first + lane_count * x;
                store_as(add ? load_as(sum, Real{}) + r.re : r.re, sum);
                for (int side = 0; side < 2; ++side) keep_weight(side, x, here.q() * z[at(side)]);
            });
        add_second_difference(0, source);
        add_second_difference(1, receiver);
    }

    void transposed(LaneField field) const {
        const Side<Real> receiver(field, first, +1);
        solve<1>([&](std::ptrdiff_t x, const Terms<Real>&) { return std::array{receiver(x)}; },
                 [&](std::ptrdiff_t x, const auto& z) { keep_weight(0, x, terms(x).q() * z[0]); });
        add_second_difference(0, receiver);
    }
};

template <class Real>
const StageMedium<Real>& stages_of(const Medium& medium) {
    if constexpr (sizeof(Real) == 4)
        return medium.stages;
    else
        return medium.fine;
}

}  // namespace

int LaneStages::count(const Parms& par, const Medium& medium) {
    if (par.kxm.n == 1 || (medium.stages.empty() && medium.fine.empty())) return 0;
    return ifd_coeffts(par.dipop).nstage;
}

LaneStages::LaneStages(const Parms& par, const Medium& medium, Arena& arena)
    : medium_(medium),
      fine_(!medium.fine.empty()),
      trick_(par.trick),
      half_dz_(static_cast<double>(par.img.z.d) * 0.5),
      dx2_(static_cast<double>(par.img.xm.d) * par.img.xm.d) {
    count_ = count(par, medium);
    if (count_ == 0) return;
    const std::ptrdiff_t nx = par.kxm.n;
    const FfdStages stages = ifd_coeffts(par.dipop);
    alph_ = stages.alph;
    beta_ = stages.beta;
    scratch_ = arena.take<float>(6 * lane_count * nx);
    weights_ = arena.take<float>(2 * lane_count, 2, nx);
    contribution_ = arena.take<float>(lane_count, nx);
}

void LaneStages::set_frequencies(std::span<const float> w) {
    nfreq_ = static_cast<int>(w.size());
    w_.fill(std::numeric_limits<float>::infinity());
    for (std::size_t i = 0; i < w.size(); ++i)
        if (w[i] != 0.0f) w_[i] = w[i];
}

template <class Real, class Work>
void LaneStages::in_lanes(int stage, Work work) {
    const StageMedium<Real>& medium = stages_of<Real>(medium_);
    for (int first = 0; first < nfreq_; first += lanes_of<Real>) {
        const std::ptrdiff_t block = level_ / levels_at_a_time;
        Stage<Real> here{medium.alpha_term.view().slice(block).p,
                         medium.beta_term.view().slice(block).p,
                         level_ % levels_at_a_time,
                         contribution_.n[1],
                         {},
                         {},
                         trick_ + static_cast<Real>(1e-15f),
                         static_cast<Real>(half_dz_),
                         static_cast<Real>(dx2_),
                         medium_.levels[at(level_)],
                         reinterpret_cast<Real*>(scratch_.p),
                         weights_.p,
                         contribution_.p,
                         first};
        for (int k = 0; k < lanes_of<Real>; ++k) {
            const Real w = w_[at(first + k)];
            here.alph_w[k] = static_cast<Real>(alph_[at(stage)]) / w;
            here.beta_w2[k] = static_cast<Real>(beta_[at(stage)]) / w / w;
        }
        work(here);
    }
}

template <class Work>
void LaneStages::in_precision(int stage, Work work) {
    if (fine_)
        in_lanes<double>(stage, work);
    else
        in_lanes<float>(stage, work);
}

void LaneStages::apply(int stage, const LanePair& before, const LanePair& after) {
    in_precision(stage, [&](const auto& here) { here.apply(before, after); });
}

void LaneStages::derivative(int stage, const LanePair& before, const LanePair& after, View<const float, 1> ds,
                            const LanePair& carried) {
    in_precision(stage, [&](const auto& here) { here.derivative(before, after, ds, carried); });
}

void LaneStages::transposed(int stage, const LanePair& before, const LanePair& after, const LanePair& carried) {
    const bool add = stage + 1 < count_;
    in_precision(stage, [&](const auto& here) { here.transposed(before, after, carried, add); });
}

void LaneStages::add_thin_lens(float dz, const LanePair& before, const LanePair& adjoint) {
    Lanes<float> factor{};
    for (int k = 0; k < nfreq_; ++k)
        if (std::isfinite(w_[at(k)])) factor[k] = dz * w_[at(k)];
    const auto part = [](ConstLaneField field, std::ptrdiff_t x) {
        return reinterpret_cast<const Lanes<float>*>(field.p) + 2 * x;
    };
    for (std::ptrdiff_t x = 0; x < contribution_.n[1]; ++x) {
        const auto *const f = part(before.source, x), *const a = part(adjoint.source, x);
        const auto *const g = part(before.receiver, x), *const b = part(adjoint.receiver, x);
        float* const sum = contribution_.p + lane_count * x;
        const Lanes<float> change = (a[1] * f[0] - a[0] * f[1]) - (b[1] * g[0] - b[0] * g[1]);
        store_as(load_as(sum, 0.0f) + factor * change, sum);
    }
}

void LaneStages::transposed(int stage, LaneField receiver) {
    in_precision(stage, [&](const auto& here) { here.transposed(receiver); });
}

}  // namespace morvane
