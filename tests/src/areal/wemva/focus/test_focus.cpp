/// A few shots migrated as they are and changed: a flat reflector below a plane wave, whose image is known.
#include <gtest/gtest.h>

#include <cmath>

#include "src/areal/wemva/focus/focus.h"
#include "src/areal/wemva/focus/signs.h"
#include "tests/src/areal/wemva/step/wave_case.h"

using namespace morvane;

namespace {

constexpr float slow = 5e-4f, depth = 120.0f;

WaveCase wave() {
    WaveCase wave;
    wave.nz = 32;
    wave.nw = 24;
    wave.df = 1.5f;
    wave.nh = 3;
    return wave;
}

/// Two equal shots, 4 columns apart: plane waves down, and up from a reflector.
struct Plane {
    Parms par;
    LateralFft fft;
    std::vector<float> taper;

    explicit Plane(const Parms& parms)
        : par(parms), fft(par.kxm.n, FFTW_ESTIMATE), taper(static_cast<std::size_t>(par.kxm.n), 1.0f) {}
    ShotFields shot(int column) const {
        ShotFields fields{Array<cf, 2>({par.rec.h.n, par.rec.w.n}), Array<cf, 2>({par.rec.h.n, par.rec.w.n}),
                          Array<float, 2>({par.kxm.n, par.img.z.n}), column};
        fields.vel.fill(slow);
        fields.source.fill(1.0f);
        for (int iw = 0; iw < par.rec.w.n; ++iw)
            for (cf& u : fields.recv.view().slice(iw).flat())
                u = std::polar(1.0f, par.rec.w.all[static_cast<std::size_t>(iw)] * slow * 2.0f * depth);
        return fields;
    }
    FewShots few(int every = 1) const {
        return FewShots(par, fft, {taper.data(), {par.kxm.n}}, {}, {shot(1), shot(5)}, every);
    }
};

double peak(const Focus& focus) {
    return 8.0 * static_cast<double>(std::ranges::max_element(focus.zero) - focus.zero.begin());
}

void expect_same(const Focus& a, const Focus& b) {
    for (std::size_t i = 0; i < a.all.size(); ++i) {
        EXPECT_NEAR(a.zero[i], b.zero[i], 1e-5 * std::ranges::max(a.zero)) << i;
        EXPECT_NEAR(a.all[i], b.all[i], 1e-5 * std::ranges::max(a.all)) << i;
    }
}

}  // namespace

TEST(FewShots, ImageMovesWithTimeAndVelocity) {
    const Plane plane(wave().parms());
    FewShots few = plane.few();
    EXPECT_EQ(peak(few.focus({})), 120.0);
    EXPECT_EQ(peak(few.focus({false, false, 0.04})), 160.0);  // later: deeper by half of 0.04 s at 2000 m/s
    EXPECT_EQ(peak(few.focus({false, false, -0.04})), 80.0);
    few.scale_velocity(1.2);
    EXPECT_EQ(peak(few.focus({})), 144.0);
    few.scale_velocity(1.0);
    EXPECT_EQ(peak(few.focus({})), 120.0);
}

TEST(FewShots, OneOfTwoFrequenciesIsTheRunWithTwiceTheStep) {
    WaveCase coarse = wave();
    coarse.nw /= 2;
    coarse.df *= 2;
    const Plane fine(wave().parms()), thin(coarse.parms());
    FewShots a = fine.few(2), b = thin.few();
    expect_same(a.focus({}), b.focus({}));
    EXPECT_NEAR(a.fit({}), b.fit({}), 1e-6);
}

TEST(FewShots, ConjugatingTwiceChangesNothing) {
    const Plane plane(wave().parms());
    std::vector<ShotFields> shots{plane.shot(1)}, turned{plane.shot(1)};
    for (cf& u : turned[0].recv.flat()) u = std::conj(u);
    const View<const float, 1> taper{plane.taper.data(), {plane.par.kxm.n}};
    FewShots right(plane.par, plane.fft, taper, {}, shots, 1), wrong(plane.par, plane.fft, taper, {}, turned, 1);
    expect_same(right.focus({}), wrong.focus({true, false}));
    EXPECT_NEAR(right.fit({}), wrong.fit({true, false}), 1e-6);
    EXPECT_LT(peak(wrong.focus({})), 60.0);
}

TEST(FewShots, DataOfAReflectorFitAndNoiseDoesNot) {
    const Plane plane(wave().parms());
    EXPECT_GT(plane.few().fit({}), 0.9);
    ShotFields noise = plane.shot(1);
    randomize(noise.recv.flat(), 5);
    FewShots few(plane.par, plane.fft, {plane.taper.data(), {plane.par.kxm.n}}, {}, {noise, plane.shot(1)}, 1);
    EXPECT_LT(few.fit({}), 0.7);
}

TEST(SignPlan, ShotsLieWithinTheSurvey) {
    Parms par = wave().parms();
    par.niter = 10;
    for (const auto& [shots, apart, count, every] :
         {std::tuple{1, 10.0f, 1, 4}, {5, 10.0f, 5, 4}, {6, 500.0f, 6, 4}, {40, 60.0f, 6, 2}, {400, 5.0f, 6, 2}}) {
        SCOPED_TRACE(shots);
        par.rec.xd = {shots, apart, 0.0f, {}};
        const SignPlan plan = plan_signs(par);
        ASSERT_EQ(std::ssize(plan.shots), count);
        EXPECT_GE(plan.shots.front(), 1);
        EXPECT_LE(plan.shots.back(), shots);
        EXPECT_NEAR(plan.shots.front() - 1, shots - plan.shots.back(), 1);
        EXPECT_EQ(plan.every, every);
    }
    par.check_signs = false;
    EXPECT_TRUE(plan_signs(par).shots.empty());
    par.check_signs = true;
    par.nsecdim = 1;
    EXPECT_TRUE(plan_signs(par).shots.empty());
}
