#include "src/areal/wemva/step/ffd_stage.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace morvane {

namespace {

// A pivot whose square is not above the first is moved by the second, half the digits of its neighbours, which costs as
// much accuracy as the rounding of a pivot of that size.
constexpr float least_pivot = 1e-30f, instead_of_zero = 3e-4f;

// Four complex numbers side by side: both fields on the way from the left and from the right.
template <class Real>
using Quad = Vector<Real, 8>;
template <class Real>
using Half = Vector<Real, 4>;

template <class Real>
Quad<Real> join(const cf* left, const cf* right) {
    Half<float> l, r;
    std::memcpy(&l, left, sizeof l);
    std::memcpy(&r, right, sizeof r);
    const Quad<float> both = __builtin_shufflevector(l, r, 0, 1, 2, 3, 4, 5, 6, 7);
    return __builtin_convertvector(both, Quad<Real>);
}

template <class Real>
void part(Quad<Real> x, cf* left, cf* right) {
    const Quad<float> both = __builtin_convertvector(x, Quad<float>);
    const Half<float> l = __builtin_shufflevector(both, both, 0, 1, 2, 3);
    const Half<float> r = __builtin_shufflevector(both, both, 4, 5, 6, 7);
    std::memcpy(static_cast<void*>(left), &l, sizeof l);
    std::memcpy(static_cast<void*>(right), &r, sizeof r);
}

/// A complex factor for the left pair and one for the right, ready to multiply.
template <class Real>
struct Factor {
    Quad<Real> re, im;  // im with a minus sign before every other
    explicit Factor(const Real* g) {
        Half<Real> h;
        std::memcpy(&h, g, sizeof h);
        constexpr Quad<Real> sign{-1, 1, -1, 1, -1, 1, -1, 1};
        re = __builtin_shufflevector(h, h, 0, 0, 0, 0, 2, 2, 2, 2);
        im = __builtin_shufflevector(h, h, 1, 1, 1, 1, 3, 3, 3, 3) * sign;
    }
    Factor(const Factor& a, const Factor& b) : re(a.re * b.re - a.im * b.im), im(a.re * b.im + a.im * b.re) {}
    Quad<Real> operator*(Quad<Real> x) const {
        return x * re + __builtin_shufflevector(x, x, 1, 0, 3, 2, 5, 4, 7, 6) * im;
    }
};

template <class Real>
std::complex<Real> number(Quad<Real> x, int k) {
    return {x[2 * k], x[2 * k + 1]};
}

// Two-sided elimination, y_i = g_i (r_i - y_before), and back, e_i = y_i - g_i e_after: the left and the right half of
// both fields are four independent chains, one SIMD register. With an even nx the right half is one shorter; its chain
// starts with an empty step in the column beyond the line. Two steps at a time, so that only every other value waits
// for the one before: y_2 = (g_2 r_2 - g_2 g_1 r_1) + g_2 g_1 y_0.
template <class Real>
void solve(const Real* pivot, std::complex<Real> inverse_middle, View<cf, 2> rhs, std::vector<Quad<Real>>& eliminated) {
    using Times = Factor<Real>;
    const std::ptrdiff_t nx = rhs.n[1] - 1;
    const std::ptrdiff_t half = nx / 2;
    const std::ptrdiff_t last = nx % 2 ? nx - 1 : nx;  // right-hand partner of sample 0
    cf* const z = rhs.p;
    const auto load = [&](std::ptrdiff_t t) { return join<Real>(z + 2 * t, z + 2 * (last - t)); };
    const auto keep = [&](std::ptrdiff_t t, Quad<Real> y) { eliminated[static_cast<std::size_t>(t)] = y; };
    const auto kept = [&](std::ptrdiff_t t) { return eliminated[static_cast<std::size_t>(t)]; };
    Quad<Real> y{};
    std::ptrdiff_t t = 0;
    if (half % 2) {
        y = Times(pivot) * load(0);
        keep(0, y);
        t = 1;
    }
    for (; t < half; t += 2) {
        const Times g1(pivot + 4 * t), g2(pivot + 4 * (t + 1));
        const Times both(g1, g2);
        const Quad<Real> c1 = g1 * load(t);
        const Quad<Real> c2 = g2 * (load(t + 1) - c1);
        keep(t, c1 - g1 * y);
        y = c2 + both * y;
        keep(t + 1, y);
    }
    const auto middle = [&](int field) {
        const std::complex<Real> r(z[2 * half + field]);
        return cf(inverse_middle * (r - number<Real>(y, field) - number<Real>(y, field + 2)));
    };
    const cf ends[2] = {middle(0), middle(1)};
    z[2 * half] = ends[0];
    z[2 * half + 1] = ends[1];
    Quad<Real> e = join<Real>(ends, ends);
    t = half;
    for (; t >= 2; t -= 2) {
        const Times g1(pivot + 4 * (t - 1)), g2(pivot + 4 * (t - 2));
        const Times both(g1, g2);
        const Quad<Real> y1 = kept(t - 1);
        const Quad<Real> c2 = kept(t - 2) - g2 * y1;
        part<Real>(y1 - g1 * e, z + 2 * (t - 1), z + 2 * (last - t + 1));
        e = c2 + both * e;
        part<Real>(e, z + 2 * (t - 2), z + 2 * (last - t + 2));
    }
    if (t == 1) part<Real>(kept(0) - Times(pivot) * e, z, z + 2 * last);
}

// A sample of two fields side by side, each as it is or conjugated, so that a pair of opposite signs shares its
// factors.
using FieldPair = Float4;

FieldPair signs(int sign) {
    return sign > 0 ? FieldPair{1, 1, 1, -1} : FieldPair{1, -1, 1, 1};
}

FieldPair load_both(const cf* a, const cf* b) {
    double pair[2];  // a complex number moves as one element
    std::memcpy(pair, static_cast<const void*>(a), sizeof(double));
    std::memcpy(pair + 1, static_cast<const void*>(b), sizeof(double));
    FieldPair x;
    std::memcpy(&x, pair, sizeof x);
    return x;
}

/// rhs = q T f of both fields
void right_side(View<const cf, 1> q, int sign, const cf* a, const cf* b, cf* rhs) {
    const std::ptrdiff_t n = q.n[0];
    const FieldPair turn = signs(sign);
    constexpr FieldPair alternate{-1, 1, -1, 1};
    const float* const g = parts(q.p);
    FieldPair before{}, here = load_both(a, b) * turn;
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        const FieldPair behind = i + 1 < n ? load_both(a + i + 1, b + i + 1) * turn : FieldPair{};
        const FieldPair t = before - 2.0f * here + behind;
        const FieldPair r = t * g[2 * i] + __builtin_shufflevector(t, t, 1, 0, 3, 2) * (alternate * g[2 * i + 1]);
        std::memcpy(static_cast<void*>(rhs + 2 * i), &r, sizeof r);
        before = here;
        here = behind;
    }
}

/// out = in + correction, of both fields
void add_correction(const cf* correction, int sign, std::ptrdiff_t n, const cf* a, const cf* b, cf* a_out, cf* b_out) {
    const FieldPair turn = signs(sign);
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        FieldPair e;
        std::memcpy(&e, static_cast<const void*>(correction + 2 * i), sizeof e);
        const FieldPair sum = load_both(a + i, b + i) + e * turn;
        a_out[i] = cf(sum[0], sum[1]);
        b_out[i] = cf(sum[2], sum[3]);
    }
}

}  // namespace

FfdStages ifd_coeffts(int dipop) {
    switch (dipop) {
        case 15:
            return {{0.5f}, {0.0f}, 1};
        case 45:
            return {{0.5f}, {0.25f}, 1};
        case 65:
            return {{0.478242069f}, {0.376369536f}, 1};
        case 79:
            return {{0.457500011f}, {0.457500011f}, 1};
        case 80:
            return {{0.457289577f, 0.040315159f}, {0.222691983f, 0.873981655f}, 2};
        case 87:
            return {{0.414236605f, 0.08131288f, 0.00421042f}, {0.150843918f, 0.744418085f, 0.97292614f}, 3};
        case 89:
            return {{0.367013246f, 0.117592007f, 0.01485351f, 0.000523275f},
                    {0.105756626f, 0.614520669f, 0.91943264f, 0.994065106f},
                    4};
        case 90:
            return {{0.318013817f, 0.143798083f, 0.033860918f, 0.004172967f, 0.000153427f},
                    {0.073588215f, 0.48334077f, 0.824918568f, 0.964828014f, 0.997370243f},
                    5};
        default:
            return {};
    }
}

float ffd_reference_share(int dipop) {
    return dipop == 65 || dipop == 79 ? 0.8f : 0.95f;
}

bool ffd_needs_double(int dipop) {
    return dipop >= 80;
}

template <class Real>
void ffd_level(const Parms& par, std::span<const float> vel, const float* vref, MediumLevel& level,
               std::span<LevelLanes<Real>> alpha_term, std::span<LevelLanes<Real>> beta_term, int lane) {
    const auto nx = static_cast<std::ptrdiff_t>(vel.size());
    float c = vref ? *vref : 1.0f / vel[0];
    for (const float s : vel) {
        if (!vref) c = std::min(c, 1.0f / s);
    }
    level.vref = {c};
    level.sdiff = Array<float, 2>({nx, 1});
    level.velocity = Array<float, 1>({vref ? nx : 0});
    const Real dx2 = static_cast<Real>(par.img.xm.d) * par.img.xm.d;
    const Real half_dz = static_cast<Real>(par.img.z.d) * static_cast<Real>(0.5);
    const float sref = 1.0f / c;
    for (std::size_t i = 0; i < vel.size(); ++i) {
        const Real v = 1 / static_cast<Real>(vel[i]);
        const Real rov = c / v;
        alpha_term[i][lane] = half_dz * v / dx2 * (1 - rov);
        beta_term[i][lane] = (rov * rov + 1 + rov) * v * v / dx2;
        const auto ix = static_cast<std::ptrdiff_t>(i);
        level.sdiff(ix, 0) = vel[i] - sref;
        if (vref) level.velocity(ix) = static_cast<float>(v);
    }
}

template <class Real>
void ffd_factors(float w, float alph, float beta, float trick, std::span<const LevelLanes<Real>> alpha_term,
                 std::span<const LevelLanes<Real>> beta_term, View<Float8, 2> q, View<LevelLanes<Real>, 2> pivot) {
    using L = LevelLanes<Real>;
    const auto nx = static_cast<std::ptrdiff_t>(alpha_term.size());
    const std::ptrdiff_t middle = nx / 2;
    const Real alph_w = static_cast<Real>(alph) / w;
    const Real beta_w2 = static_cast<Real>(beta) / w / w;
    const Real floor = trick + static_cast<Real>(1e-15f);  // where a vanishes its row is the identity: 1/a is large,
                                                           // not infinite
    struct Diagonal {
        L re, im;  // 1/a - 2
    };
    const auto diagonal = [&](std::ptrdiff_t i) {
        const L aa = alph_w * alpha_term[static_cast<std::size_t>(i)];
        const L bb = beta_w2 * beta_term[static_cast<std::size_t>(i)] + floor;
        const L inv = 1 / (aa * aa + bb * bb);
        q(i, 0) = __builtin_convertvector(-2 * aa * aa * inv, Float8);
        q(i, 1) = __builtin_convertvector(2 * aa * bb * inv, Float8);
        return Diagonal{bb * inv - 2, aa * inv};
    };
    const auto eliminate = [&](auto guarded) {
        const auto invert = [](const Diagonal& d, L& er, L& ei) {  // e = 1 / (1/a - 2 - e)
            L re = d.re - er;
            const L im = d.im - ei;
            if constexpr (decltype(guarded)::value)
                re = re * re + im * im > static_cast<Real>(least_pivot) ? re : re + static_cast<Real>(instead_of_zero);
            const L inv = 1 / (re * re + im * im);
            er = re * inv;
            ei = -im * inv;
        };
        // the last pivots from the left and from the right: two recursions that do not wait for each other
        L lr{}, li{}, rr{}, ri{};
        for (std::ptrdiff_t l = 0, r = nx - 1; l < middle; ++l, --r) {
            invert(diagonal(l), lr, li);
            pivot(l, 0) = lr;
            pivot(l, 1) = li;
            if (r > middle) {
                invert(diagonal(r), rr, ri);
                pivot(r, 0) = rr;
                pivot(r, 1) = ri;
            }
        }
        lr += rr;
        li += ri;
        invert(diagonal(middle), lr, li);
        pivot(middle, 0) = lr;
        pivot(middle, 1) = li;
    };
    eliminate(std::false_type());
    // A pivot of exactly zero, which comes by chance where a is real, leaves no number behind it.
    for (int lane = 0; lane < levels_at_a_time; ++lane)
        if (!std::isfinite(pivot(middle, 0)[lane]) || !std::isfinite(pivot(middle, 1)[lane]))
            return eliminate(std::true_type());
}

template void ffd_level<float>(const Parms&, std::span<const float>, const float*, MediumLevel&, std::span<Float8>,
                               std::span<Float8>, int);
template void ffd_level<double>(const Parms&, std::span<const float>, const float*, MediumLevel&,
                                std::span<LevelLanes<double>>, std::span<LevelLanes<double>>, int);
template void ffd_factors<float>(float, float, float, float, std::span<const Float8>, std::span<const Float8>,
                                 View<Float8, 2>, View<Float8, 2>);
template void ffd_factors<double>(float, float, float, float, std::span<const LevelLanes<double>>,
                                  std::span<const LevelLanes<double>>, View<Float8, 2>, View<LevelLanes<double>, 2>);

void ffd_solve(const FfdStage& stage, StageScratch& scratch) {
    if (stage.fine.p)
        solve<double>(stage.fine.p, stage.middle, scratch.correction, scratch.eliminated_fine);
    else
        solve<float>(stage.pivot.p, std::complex<float>(stage.middle), scratch.correction, scratch.eliminated);
}

StageScratch::StageScratch(int nx)
    : correction({2, nx + 1}),
      differences({2 * nx, 4}),
      solution({nx, 2}),
      eliminated(static_cast<std::size_t>(nx / 2 + 1)),
      eliminated_fine(static_cast<std::size_t>(nx / 2 + 1)) {}

void apply_stage(const FfdStage& stage, int sign, View<const cf, 1> field, View<const cf, 1> other, View<cf, 1> out,
                 View<cf, 1> other_out, StageScratch& scratch) {
    cf* const rhs = scratch.correction.view().p;
    right_side(stage.q, sign, field.p, other.p, rhs);
    ffd_solve(stage, scratch);
    add_correction(rhs, sign, field.n[0], field.p, other.p, out.p, other_out.p);
}

}  // namespace morvane
