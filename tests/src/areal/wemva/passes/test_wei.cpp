#include <gtest/gtest.h>

#include <algorithm>

#include "src/areal/wemva/passes/kept_fields.h"
#include "tests/dot_test.h"
#include "tests/src/areal/wemva/passes/shot.h"
#include "tests/src/areal/wemva/step/direct_step.h"

using namespace morvane;

namespace {

/// The image by direct double-precision steps, frequency after frequency on one thread.
Array<float, 3> direct_migration(const Shot& shot) {
    const Parms& par = shot.par;
    const auto nx = static_cast<std::size_t>(par.kxm.n);
    const auto margin = static_cast<std::size_t>(par.tapertr + par.padtraces);
    std::vector<double> sum(nx * static_cast<std::size_t>(par.nsecdim * par.nz));
    std::vector<cd> ws(nx), wr(nx);
    for (int iw = 0; iw < par.rec.w.n; ++iw) {
        const double w = par.rec.w.all[static_cast<std::size_t>(iw)];
        for (std::size_t i = 0; i < static_cast<std::size_t>(par.rec.h.n); ++i) {
            ws[margin + i] = shot.source(i, iw);
            wr[margin + i] = shot.recv(i, iw);
        }
        for (int iz = 1; iz < par.nz; ++iz) {
            const std::vector<double> s = widen(shot.vel.view().slice(iz - 1).flat());
            if (par.ffd() && w != 0.0) {
                ws = direct_ffd(par, w, +1, ws, s);
                wr = direct_ffd(par, w, -1, wr, s);
            } else if (par.pspi()) {
                double mean = 0;
                for (const double slow : s) mean += 1.0 / slow / static_cast<double>(nx);
                ws = direct_shift(par, w, +1, ws, s, mean);
                wr = direct_shift(par, w, -1, wr, s, mean);
            }
            for (std::size_t i = 0; i < nx; ++i) {
                ws[i] *= shot.taper[i];
                wr[i] *= shot.taper[i];
            }
            for (int ih = 0; ih < par.nsecdim; ++ih) {
                const int h = static_cast<int>(
                    std::lround((par.img.sh.o + static_cast<float>(ih) * par.img.sh.d) / par.img.xm.d));
                for (int x = std::abs(h); x < par.kxm.n - std::abs(h); ++x) {
                    sum[static_cast<std::size_t>((iz * par.nsecdim + ih) * par.kxm.n + x)] +=
                        (std::conj(ws[static_cast<std::size_t>(x - h)]) * wr[static_cast<std::size_t>(x + h)]).real();
                }
            }
        }
    }
    Array<float, 3> image({par.kxm.n, par.nsecdim, par.nz});
    std::transform(sum.begin(), sum.end(), image.flat().begin(), [](double v) { return static_cast<float>(v); });
    return image;
}

}  // namespace

// Five frequencies on one thread: the margins that the preceding frequency leaves in the columns count.
TEST(Migration, EqualsTheDirectEvaluationWithTaperPaddingAndCarriedMargins) {
    for (const char* extrap : {"pspi", "ffd", "none"}) {
        const Shot shot({.nx = 22, .nz = 11, .nw = 5, .extrap = extrap, .nh = 5, .tapertr = 3, .padtraces = 2}, 0.2f);
        EXPECT_LT(relative_difference<float>(shot.image().flat(), direct_migration(shot).flat()), 2e-5) << extrap;
    }
}

TEST(Migration, MarginsAreClearedOnRequest) {
    const Shot shot({.nx = 22, .nz = 4, .nw = 2, .padtraces = 3}, 0.1f);
    Array<float, 3> carried = shot.image(), cleared({22, 1, 4}), alone({22, 1, 4});
    Array<float, 2> illum({22, 4});
    WaveContext context = shot.context();
    context.clear_margins = true;
    owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), cleared, illum);
    for (int iw = 0; iw < 2; ++iw) {  // one frequency at a time starts from clear columns
        Shot one({.nx = 22, .nz = 4, .nw = 1, .padtraces = 3}, 0.1f);
        one.par.rec.w.all = {shot.par.rec.w.all[static_cast<std::size_t>(iw)]};
        std::ranges::copy(shot.recv.view().slice(iw).flat(), one.recv.flat().begin());
        std::ranges::copy(shot.source.view().slice(iw).flat(), one.source.flat().begin());
        owwei(one.context(), one.recv.view(), one.source.view(), one.vel.view(), alone, illum);
    }
    EXPECT_LT(relative_difference<float>(cleared.flat(), alone.flat()), 1e-6);
    EXPECT_GT(relative_difference<float>(carried.flat(), alone.flat()), 1e-3);
}

TEST(Migration, AddsToItsOutputsAndLeavesTheSurfaceAlone) {
    const Shot shot({.nx = 12, .nz = 3}, 0.0f);
    Array<float, 3> twice({12, 1, 3});
    Array<float, 2> illum({12, 3});
    owwei(shot.context(), shot.recv.view(), shot.source.view(), shot.vel.view(), twice, illum);
    owwei(shot.context(), shot.recv.view(), shot.source.view(), shot.vel.view(), twice, illum);
    Array<float, 3> once = shot.image();
    for (std::ptrdiff_t i = 0; i < 12; ++i) {
        EXPECT_EQ(once(i, 0, 0), 0.0f);
        EXPECT_EQ(illum(i, 0), 0.0f);
        EXPECT_GT(illum(i, 2), 0.0f);
        EXPECT_EQ(twice(i, 0, 2), 2 * once(i, 0, 2));
    }
}

TEST(Migration, ThreadsAgreeWithOneThread) {
    for (const char* extrap : {"pspi", "ffd"}) {
        const Shot shot({.nx = 20, .nz = 9, .nw = 13, .extrap = extrap, .nh = 3}, 0.2f);  // no margins to carry over
        EXPECT_LT(relative_difference<float>(shot.image(4).flat(), shot.image(1).flat()), 1e-5) << extrap;
        Array<float, 3> deltai({20, 3, 9});
        randomize(deltai.flat(), 8);
        EXPECT_LT(relative_difference<float>(shot.adjoint(deltai, 4).flat(), shot.adjoint(deltai, 1).flat()), 1e-5);
    }
}

// Blocks of frequencies are cut differently for each number of threads.
TEST(ExactPasses, AreTheSameBitsOnAnyNumberOfThreadsIfAsked) {
    struct Form {
        const char* extrap;
        int dipop, nh, nw;
    };
    for (const Form& form : {Form{"pspi", 45, 11, 37}, {"ffd", 80, 3, 21}, {"ffd", 45, 9, 5}}) {
        WaveCase wave{.nx = 26, .nz = 9, .nw = form.nw, .extrap = form.extrap, .nref = 3, .dipop = form.dipop};
        wave.nh = form.nh;
        wave.tapertr = 3;
        wave.f0 = 0.0f;
        const Shot shot(wave, 0.2f);
        Array<float, 3> deltai({26, form.nh, 9});
        randomize(deltai.flat(), 8);
        struct Result {
            Array<float, 3> image;
            Array<float, 2> illum, gradient;
        };
        const auto run = [&](int nodes, bool reproducible) {
            WaveContext context = shot.exact_context(nodes);
            context.reproducible = reproducible;
            Result r{deltai, Array<float, 2>({26, 9}), Array<float, 2>({26, 9})};
            owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), r.image, r.illum);
            owwei_gradient(context, shot.recv.view(), shot.source.view(), shot.vel.view(), r.gradient, deltai.view());
            return r;
        };
        const Result one = run(1, false);
        EXPECT_GT(norm<float>(one.gradient.flat()), 0.0);
        for (const int nodes : {1, 2, 3, 5, 40}) {
            const Result same = run(nodes, true), close = run(nodes, false);
            EXPECT_TRUE(std::ranges::equal(same.image.flat(), one.image.flat())) << form.extrap << nodes;
            EXPECT_TRUE(std::ranges::equal(same.illum.flat(), one.illum.flat())) << form.extrap << nodes;
            EXPECT_TRUE(std::ranges::equal(same.gradient.flat(), one.gradient.flat())) << form.extrap << nodes;
            EXPECT_LT(relative_difference<float>(close.image.flat(), one.image.flat()), 1e-5);
            EXPECT_LT(relative_difference<float>(close.gradient.flat(), one.gradient.flat()), 1e-5);
        }
    }
}

TEST(ExactPasses, KeptFieldsGiveTheBitsOfThoseComputedAgain) {
    for (WaveCase wave : {WaveCase{.extrap = "pspi", .nh = 11}, WaveCase{.extrap = "pspi", .nref = 3, .nh = 3},
                          WaveCase{.extrap = "ffd", .nh = 9}, WaveCase{.extrap = "ffd", .dipop = 80}}) {
        wave.nx = 26;
        wave.nz = 9;
        wave.nw = 21;
        const int nh = wave.nh;
        const Shot shot(wave, 0.2f), other(wave, 0.1f);
        Array<float, 3> deltai({26, nh, 9});
        randomize(deltai.flat(), 8);
        KeptFields kept;
        const auto run = [&](KeptFields* fields, const Array<float, 2>& imaged, const Array<float, 2>& vel) {
            WaveContext context = shot.exact_context(2);
            context.reproducible = true;
            context.kept = fields;
            Array<float, 3> image({26, nh, 9});
            Array<float, 2> gradient({26, 9});
            owwei(context, shot.recv.view(), shot.source.view(), imaged.view(), image, {});
            owwei_gradient(context, shot.recv.view(), shot.source.view(), vel.view(), gradient, deltai.view());
            return std::pair(image, gradient);
        };
        const auto again = run(nullptr, shot.vel, shot.vel);
        for (int round = 0; round < 2; ++round) {
            const auto same = run(&kept, shot.vel, shot.vel);
            EXPECT_TRUE(kept.holds(shot.par, shot.vel.view()));
            EXPECT_TRUE(std::ranges::equal(same.first.flat(), again.first.flat())) << wave.extrap << wave.nref << round;
            EXPECT_TRUE(std::ranges::equal(same.second.flat(), again.second.flat()))
                << wave.extrap << wave.nref << round;
            EXPECT_FALSE(kept.holds(shot.par, other.vel.view()));
            const auto stale = run(&kept, other.vel, shot.vel);  // fields of another model are not taken
            EXPECT_TRUE(std::ranges::equal(stale.second.flat(), again.second.flat()))
                << wave.extrap << wave.nref << round;
        }
    }
}

// The second round finds what the passes of the first, of other shapes too, left in the arrays.
TEST(Passes, KeptMemoryChangesNothing) {
    for (const char* extrap : {"pspi", "ffd"}) {
        std::vector<Arena> memory;
        for (int round = 0; round < 3; ++round) {
            for (const int nx : {17, 24}) {
                const Shot shot({.nx = nx, .nz = 6, .nw = 4, .extrap = extrap, .nref = 2, .nh = 3, .padtraces = 2},
                                0.2f);
                Array<float, 3> deltai({nx, 3, 6}), image({nx, 3, 6});
                Array<float, 2> illum({nx, 6}), exact({nx, 6}), classic({nx, 6});
                randomize(deltai.flat(), 8);
                for (WaveContext context : {shot.context(), shot.exact_context()}) {
                    context.memory = &memory;
                    const bool frozen = context.frozen.references != nullptr;
                    if (frozen)
                        owwei_gradient(context, shot.recv.view(), shot.source.view(), shot.vel.view(), exact,
                                       deltai.view());
                    else
                        owwemva(context, true, shot.recv.view(), shot.source.view(), shot.vel.view(), classic, deltai,
                                nullptr);
                    image.fill(0.0f);
                    owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), image, illum);
                    const Array<float, 3> alone =
                        shot.image_with(frozen ? shot.exact_context() : shot.context(), shot.vel);
                    EXPECT_TRUE(std::ranges::equal(image.flat(), alone.flat())) << extrap << nx << round << frozen;
                }
                EXPECT_TRUE(std::ranges::equal(exact.flat(), shot.gradient(deltai).flat())) << extrap << nx << round;
                EXPECT_TRUE(std::ranges::equal(classic.flat(), shot.adjoint(deltai).flat())) << extrap << nx << round;
            }
        }
    }
}

// A source and its response from a point, made by a direct sum of the far-field Green's function, image at the point
// with the right slowness; with a wrong one the point moves and its gather spreads from zero offset.
TEST(Migration, APointScattererFocusesAtItsPlaceWithTheTrueSlowness) {
    const int nx = 101, nz = 60, nw = 24, zs = 35, xs = 52;
    const WaveCase wave{
        .nx = nx, .nz = nz, .nw = nw, .dx = 10.0f, .dz = 10.0f, .f0 = 8.0f, .df = 1.0f, .nh = 9, .tapertr = 8};
    const auto image_with = [&](float model) {
        Shot shot(wave, 0.0f, 0.0f);
        shot.vel.fill(model / 2000.0f);
        const int margin = shot.par.tapertr + shot.par.padtraces, shot_at = nx / 2;
        shot.recv.fill({});
        shot.source.fill({});
        for (int iw = 0; iw < nw; ++iw) {
            const double k = shot.par.rec.w.all[static_cast<std::size_t>(iw)] / 2000.0;
            shot.source(shot_at - margin, iw) = 1.0f;
            const double down = std::hypot(10.0 * (xs - shot_at), 10.0 * zs);
            for (int i = 0; i < shot.par.rec.h.n; ++i) {
                const double up = std::hypot(10.0 * (i + margin - xs), 10.0 * zs);
                shot.recv(i, iw) = cf(std::polar(1.0 / std::sqrt(up), k * (down + up)));
            }
        }
        return shot.image();
    };
    const auto peak = [&](const Array<float, 3>& image) {
        int bx = 0, bz = 0;
        for (int iz = 5; iz < nz; ++iz) {
            for (int ix = 0; ix < nx; ++ix) {
                if (image(ix, 4, iz) > image(bx, 4, bz)) bx = ix, bz = iz;
            }
        }
        return std::pair(bx, bz);
    };
    const auto focus = [&](const Array<float, 3>& image, int iz) {  // share of the gather's energy at zero offset
        double zero = 0, all = 0;
        for (int z = iz - 4; z <= iz + 4; ++z) {
            for (int ih = 0; ih < 9; ++ih) {
                const double e = std::pow(image(xs, ih, z), 2);
                all += e;
                if (ih == 4) zero += e;
            }
        }
        return zero / all;
    };
    const Array<float, 3> right = image_with(1.0f), slow = image_with(1.25f);
    const auto [bx, bz] = peak(right);
    EXPECT_NEAR(bx, xs, 1);
    EXPECT_NEAR(bz, zs, 1);
    const auto [wx, wz] = peak(slow);
    EXPECT_LT(wz, zs - 4);  // slower: shallower
    EXPECT_LT(focus(slow, wz), 0.9 * focus(right, bz));
    static_cast<void>(wx);
}

TEST(LinearisedOperator, DirectionsAreTransposesInALaterallyConstantMedium) {
    struct Row {
        const char* extrap;
        int nref, dipop;
        double limit;
        int nx = 25;
    };
    for (const Row& row :
         {Row{"pspi", 1, 45, 1e-6}, Row{"pspi", 3, 45, 1e-6, 24}, Row{"ffd", 1, 45, 1e-5}, Row{"ffd", 1, 80, 1e-5, 24},
          Row{"ffd", 1, 65, 1e-5}, Row{"none", 1, 45, 1e-6}, Row{"pspi", 1, 45, 1e-6, 1}, Row{"ffd", 1, 45, 1e-5, 1}}) {
        const bool margins = row.nx > 1;
        const Shot shot({.nx = row.nx,
                         .nz = 10,
                         .nw = 4,
                         .extrap = row.extrap,
                         .nref = row.nref,
                         .dipop = row.dipop,
                         .nh = 5,
                         .tapertr = margins ? 3 : 0,
                         .padtraces = margins ? 2 : 0},
                        0.0f);
        Array<float, 2> deltas({row.nx, 10});
        Array<float, 3> deltai({row.nx, 5, 10});
        randomize(deltas.flat(), 41);
        randomize(deltai.flat(), 42);
        const Array<float, 3> forward = shot.linearised(deltas);
        const Array<float, 2> back = shot.adjoint(deltai);
        EXPECT_LT(mismatch<float>(deltas.flat(), forward.flat(), deltai.flat(), back.flat()), row.limit)
            << row.extrap << ' ' << row.nx;
    }
}

// One perturbed sample in a two-level model: scatter, step, taper, image against the background of the same level.
TEST(LinearisedOperator, ForwardFollowsTheRecursionOfOneLevel) {
    const Shot shot({.nx = 14, .nz = 2, .nw = 1, .nh = 3}, 0.15f);
    Array<float, 2> deltas({14, 2});
    deltas(6, 1) = 1e-5f;
    const Array<float, 3> image = shot.linearised(deltas);
    const Parms& par = shot.par;
    const double w = par.rec.w.all[0];
    const auto mean = [&](const std::vector<double>& s) {
        double sum = 0;
        for (const double slow : s) sum += 1.0 / slow / 14;
        return sum;
    };
    const std::vector<double> s0 = widen(shot.vel.view().slice(0).flat()), s1 = widen(shot.vel.view().slice(1).flat());
    const auto ws = direct_shift(par, w, +1, widen(shot.source.view().slice(0).flat()), s0, mean(s0));
    const auto wr = direct_shift(par, w, -1, widen(shot.recv.view().slice(0).flat()), s0, mean(s0));
    std::vector<cd> ds(14), dr(14);
    ds[6] = ws[6] * cd(0, w * par.img.z.d * 1e-5);
    dr[6] = wr[6] * cd(0, -w * par.img.z.d * 1e-5);
    ds = direct_shift(par, w, +1, ds, s1, mean(s1));
    dr = direct_shift(par, w, -1, dr, s1, mean(s1));
    Array<float, 3> expected({14, 3, 2});
    for (int ih = 0; ih < 3; ++ih) {
        const int h = ih - 1;
        for (int x = 1; x < 13; ++x) {
            const auto s = static_cast<std::size_t>(x - h), r = static_cast<std::size_t>(x + h);
            expected(x, ih, 1) = static_cast<float>((std::conj(ds[s]) * wr[r] + std::conj(ws[s]) * dr[r]).real());
        }
        if (h == 0) {
            for (const int x : {0, 13}) {
                const auto i = static_cast<std::size_t>(x);
                expected(x, ih, 1) = static_cast<float>((std::conj(ds[i]) * wr[i] + std::conj(ws[i]) * dr[i]).real());
            }
        }
    }
    EXPECT_LT(relative_difference<float>(image.flat(), expected.flat()), 1e-5);
}
