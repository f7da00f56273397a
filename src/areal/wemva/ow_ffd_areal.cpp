#include "src/areal/wemva/ow_ffd_areal.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

namespace {

// A pivot whose square is not above the first is moved by the second, half the digits of its neighbours, which costs as
// much accuracy as the rounding of a pivot of that size.
constexpr float least_pivot = 1e-30f, instead_of_zero = 3e-4f;

// Four complex numbers side by side: both fields on the way from the left and from the right.
using Quad = Lanes;
typedef float Half __attribute__((vector_size(16)));

Quad join(const cf* left, const cf* right) {
    Half l, r;
    std::memcpy(&l, left, sizeof l);
    std::memcpy(&r, right, sizeof r);
    return __builtin_shufflevector(l, r, 0, 1, 2, 3, 4, 5, 6, 7);
}

void part(Quad x, cf* left, cf* right) {
    const Half l = __builtin_shufflevector(x, x, 0, 1, 2, 3), r = __builtin_shufflevector(x, x, 4, 5, 6, 7);
    std::memcpy(static_cast<void*>(left), &l, sizeof l);
    std::memcpy(static_cast<void*>(right), &r, sizeof r);
}

/// A complex factor for the left pair and one for the right, ready to multiply.
struct Factor {
    Quad re, im;  // im with a minus sign before every other
    explicit Factor(const float* g) {
        Half h;
        std::memcpy(&h, g, sizeof h);
        constexpr Quad sign{-1, 1, -1, 1, -1, 1, -1, 1};
        re = __builtin_shufflevector(h, h, 0, 0, 0, 0, 2, 2, 2, 2);
        im = __builtin_shufflevector(h, h, 1, 1, 1, 1, 3, 3, 3, 3) * sign;
    }
    Factor(const Factor& a, const Factor& b) : re(a.re * b.re - a.im * b.im), im(a.re * b.im + a.im * b.re) {}
};

Quad times(Quad x, const Factor& f) {
    return x * f.re + __builtin_shufflevector(x, x, 1, 0, 3, 2, 5, 4, 7, 6) * f.im;
}

cf number(Quad x, int k) {
    return {x[2 * k], x[2 * k + 1]};
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

void ffd_level(const Parms& par, std::span<const float> vel, const float* vref, MediumLevel& level,
               std::span<Lanes> drift, std::span<Lanes> curve, int lane) {
    const auto nx = static_cast<std::ptrdiff_t>(vel.size());
    float c = vref ? *vref : 1.0f / vel[0];
    for (const float s : vel) {
        if (!vref) c = std::min(c, 1.0f / s);
    }
    level.vref = {c};
    level.sdiff = Array<float, 2>({nx, 1});
    level.velocity = Array<float, 1>({vref ? nx : 0});
    const float dx2 = par.img.xm.d * par.img.xm.d;
    const float half_dz = par.img.z.d * 0.5f;
    const float sref = 1.0f / c;
    for (std::size_t i = 0; i < vel.size(); ++i) {
        const float v = 1.0f / vel[i];
        const float rov = c / v;
        drift[i][lane] = half_dz * v / dx2 * (1.0f - rov);
        curve[i][lane] = (rov * rov + 1.0f + rov) * v * v / dx2;
        const auto ix = static_cast<std::ptrdiff_t>(i);
        level.sdiff(ix, 0) = vel[i] - sref;
        if (vref) level.velocity(ix) = v;
    }
}

void ffd_factors(float w, float alph, float beta, float trick, std::span<const Lanes> drift,
                 std::span<const Lanes> curve, View<Lanes, 2> gain, View<Lanes, 2> pivot) {
    const auto nx = static_cast<std::ptrdiff_t>(drift.size());
    const std::ptrdiff_t middle = nx / 2;
    const float alph_w = alph / w;
    const float beta_w2 = beta / w / w;
    const float floor = trick + 1e-15f;  // where a vanishes its row is the identity: 1/a is large, not infinite
    struct Diagonal {
        Lanes re, im;  // 1/a - 2
    };
    const auto diagonal = [&](std::ptrdiff_t i) {
        const Lanes aa = alph_w * drift[static_cast<std::size_t>(i)];
        const Lanes bb = beta_w2 * curve[static_cast<std::size_t>(i)] + floor;
        const Lanes inv = 1.0f / (aa * aa + bb * bb);
        gain(i, 0) = -2.0f * aa * aa * inv;
        gain(i, 1) = 2.0f * aa * bb * inv;
        return Diagonal{bb * inv - 2.0f, aa * inv};
    };
    const auto eliminate = [&](auto guarded) {
        const auto invert = [](const Diagonal& d, Lanes& er, Lanes& ei) {  // e = 1 / (1/a - 2 - e)
            Lanes re = d.re - er;
            const Lanes im = d.im - ei;
            if constexpr (decltype(guarded)::value) re = re * re + im * im > least_pivot ? re : re + instead_of_zero;
            const Lanes inv = 1.0f / (re * re + im * im);
            er = re * inv;
            ei = -im * inv;
        };
        // the last pivots from the left and from the right: two recursions that do not wait for each other
        Lanes lr{}, li{}, rr{}, ri{};
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
    for (int lane = 0; lane < lane_count; ++lane)
        if (!std::isfinite(pivot(middle, 0)[lane]) || !std::isfinite(pivot(middle, 1)[lane]))
            return eliminate(std::true_type());
}

// Two-sided elimination, y_i = g_i (r_i - y_before), and back, e_i = y_i - g_i e_after: the left and the right half of
// both fields are four independent chains, one SIMD register. With an even nx the right half is one shorter; its chain
// starts with an empty step in the column beyond the line. Two steps at a time, so that only every other value waits
// for the one before: y_2 = (g_2 r_2 - g_2 g_1 r_1) + g_2 g_1 y_0.
void ffd_solve(const DepthStep::Stage& stage, View<cf, 2> rhs, std::vector<Lanes>& chain) {
    const std::ptrdiff_t nx = rhs.n[1] - 1;
    const std::ptrdiff_t half = nx / 2;
    const std::ptrdiff_t last = nx % 2 ? nx - 1 : nx;  // right-hand partner of sample 0
    cf* const z = rhs.p;
    const float* const pivot = stage.pivot.p;
    const auto load = [&](std::ptrdiff_t t) { return join(z + 2 * t, z + 2 * (last - t)); };
    const auto keep = [&](std::ptrdiff_t t, Quad y) { chain[static_cast<std::size_t>(t)] = y; };
    const auto kept = [&](std::ptrdiff_t t) { return chain[static_cast<std::size_t>(t)]; };
    Quad y{};
    std::ptrdiff_t t = 0;
    if (half % 2) {
        y = times(load(0), Factor(pivot));
        keep(0, y);
        t = 1;
    }
    for (; t < half; t += 2) {
        const Factor g1(pivot + 4 * t), g2(pivot + 4 * (t + 1));
        const Factor both(g1, g2);
        const Quad c1 = times(load(t), g1);
        const Quad c2 = times(load(t + 1) - c1, g2);
        keep(t, c1 - times(y, g1));
        y = c2 + times(y, both);
        keep(t + 1, y);
    }
    const cf ea = stage.middle * (z[2 * half] - number(y, 0) - number(y, 2));
    const cf eb = stage.middle * (z[2 * half + 1] - number(y, 1) - number(y, 3));
    z[2 * half] = ea;
    z[2 * half + 1] = eb;
    const cf middle[2] = {ea, eb};
    Quad e = join(middle, middle);
    t = half;
    for (; t >= 2; t -= 2) {
        const Factor g1(pivot + 4 * (t - 1)), g2(pivot + 4 * (t - 2));
        const Factor both(g1, g2);
        const Quad y1 = kept(t - 1);
        const Quad c2 = kept(t - 2) - times(y1, g2);
        part(y1 - times(e, g1), z + 2 * (t - 1), z + 2 * (last - t + 1));
        e = c2 + times(e, both);
        part(e, z + 2 * (t - 2), z + 2 * (last - t + 2));
    }
    if (t == 1) part(kept(0) - times(e, Factor(pivot)), z, z + 2 * last);
}

void owffd(const Parms& par, const LateralFft& fft, int iw, int sign, View<cf, 1> ws, View<const float, 1> vel) {
    if (par.rec.w.all[static_cast<std::size_t>(iw)] == 0.0f) return;
    View<const float, 2> level{vel.p, {vel.n[0], 1}};
    Parms form = par;  // whatever extrapolator the run names
    form.extrap = "ffd";
    const Medium medium = prepare_medium(form, level, {}, {});
    Arena arena;
    StepTables tables(par, medium, 1, arena);
    tables.prepare(iw, 0, 1);
    StepScratch scratch(par.kxm.n);
    apply_step(tables.step(0), fft, sign, ws, scratch);
}
