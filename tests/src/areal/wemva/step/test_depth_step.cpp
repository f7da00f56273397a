#include <gtest/gtest.h>

#include "lib/base/simd_math.h"
#include "src/areal/wemva/step/depth_step.h"
#include "src/areal/wemva/step/ffd_stage.h"
#include "src/areal/wemva/step/ow_ffd_areal.h"
#include "src/areal/wemva/step/ow_pspi_areal.h"
#include "src/areal/wemva/step/ow_taper_areal.h"
#include "src/areal/wemva/step/owvelo_areal.h"
#include "src/areal/wemva/step/pspi_level.h"
#include "tests/src/areal/wemva/step/direct_step.h"
#include "tests/src/areal/wemva/step/wave_case.h"

using namespace morvane;

namespace {

std::vector<cf> step_pspi(const Parms& par, int sign, std::span<const cf> field, std::span<const float> s,
                          View<const float, 2> table = {}) {
    const LateralFft fft(par.kxm.n, FFTW_ESTIMATE);
    Array<cf, 1> column({par.kxm.n});
    std::copy(field.begin(), field.end(), column.flat().begin());
    owpspi(par, fft, 0, sign, column, View<const float, 1>{s.data(), {par.kxm.n}}, table);
    return {column.flat().begin(), column.flat().end()};
}

std::vector<cf> step_ffd(const Parms& par, int sign, std::span<const cf> field, std::span<const float> s) {
    const LateralFft fft(par.kxm.n, FFTW_ESTIMATE);
    Array<cf, 1> column({par.kxm.n});
    std::copy(field.begin(), field.end(), column.flat().begin());
    owffd(par, fft, 0, sign, column, View<const float, 1>{s.data(), {par.kxm.n}});
    return {column.flat().begin(), column.flat().end()};
}

std::vector<cf> random_field(int n, unsigned seed = 5) {
    std::vector<cf> field(static_cast<std::size_t>(n));
    randomize(std::span<cf>(field), seed);
    return field;
}

}  // namespace

TEST(Taper, RampsFromZeroAtTheEnds) {
    std::vector<float> taper(9, 7.0f);
    owtaper(2, taper);
    EXPECT_NEAR(taper[0], 0.0f, 1e-7);
    EXPECT_NEAR(taper[1], 0.5f, 1e-6);
    EXPECT_EQ(taper[2], 1.0f);
    EXPECT_EQ(taper[6], 1.0f);
    EXPECT_EQ(taper[7], taper[1]);
    EXPECT_EQ(taper[8], taper[0]);
    owtaper(0, taper);
    EXPECT_EQ(taper, std::vector<float>(9, 1.0f));
    std::vector<float> overlap(4);
    owtaper(3, overlap);  // the third assignment of each side lands on the other's second
    EXPECT_NEAR(overlap[1], 0.75f, 1e-6);
    EXPECT_NEAR(overlap[2], 0.75f, 1e-6);
    owtaper(9, overlap);  // wider than the line: no write beyond it
}

TEST(ReferenceVelocities, DivideTheRangeAndSpareTheFastBody) {
    struct Row {
        const char* fault;
        int nref;
        float vsal;
        std::vector<float> vel, vref;
        float minv, maxv;
    };
    for (const Row& row : {
             Row{"mean", 1, 9000, {1500, 2500}, {2000}, 2000, 2000},
             Row{"even division", 3, 9000, {1500, 2500}, {1500, 2000, 2500}, 1500, 2500},
             Row{"a maximum of vsal is a fast body", 3, 2500, {1500, 1800, 2500}, {1500, 1800, 2500}, 1500, 1800},
             Row{"fast body, four references", 4, 4000, {1500, 2500, 4500}, {1500, 2000, 2500, 4500}, 1500, 2500},
             Row{"two references and a fast body: no division by zero",
                 2,
                 4000,
                 {1500, 2500, 4500},
                 {1500, 4500},
                 1500,
                 2500},
             Row{"constant", 3, 9000, {1500, 1500}, {1500, 1500, 1500}, 1500, 1500},
         }) {
        SCOPED_TRACE(row.fault);
        Parms par;
        par.nref = row.nref;
        par.vsal = row.vsal;
        par.kxm.n = static_cast<int>(row.vel.size());
        const References refs = owvref(par, row.vel);
        EXPECT_EQ(refs.vref, row.vref);
        EXPECT_EQ(refs.minv, row.minv);
        EXPECT_EQ(refs.maxv, row.maxv);
    }
    Parms par;
    par.nref = 3;
    par.vsal = 1000;
    par.kxm.n = 2;
    const std::vector<float> all_fast{1500, 2500};
    const References refs = owvref(par, all_fast);
    EXPECT_EQ(refs.vref.back(), 2500.0f);
    EXPECT_LT(refs.maxv, -3e38f);
    const std::vector<float> level{1500, 2500, 4500};
    EXPECT_EQ(owvref1(3, 4000, level).vref, (std::vector<float>{1500, 2000, 2500}));
}

TEST(Pspi, OneReferenceEqualsTheDirectSums) {
    for (const int nx : {1, 2, 15, 24, 60}) {
        for (const int sign : {+1, -1}) {
            SCOPED_TRACE(testing::Message() << "nx " << nx << " sign " << sign);
            const Parms par = WaveCase{.nx = nx}.parms();
            const Array<float, 2> s = slowness(nx, 1, 0.2f);
            const std::vector<cf> field = random_field(nx);
            double mean = 0;
            for (const float slow : s.flat()) mean += 1.0 / slow / nx;
            const std::vector<cf> expected = narrow(
                direct_shift(par, par.rec.w.all[0], sign, widen(std::span<const cf>(field)), widen(s.flat()), mean));
            const std::vector<cf> found = step_pspi(par, sign, field, s.flat());
            EXPECT_LT(relative_difference<cf>(found, expected), 3e-6);
        }
    }
}

// One sample of each kind beside the references 1000.4, 1500.4, 2000.4; only whole parts are compared.
TEST(Pspi, BlendsTheTwoReferencesNextToTheVelocity) {
    Parms par = WaveCase{.nx = 8, .nref = 3}.parms();
    const std::vector<float> v{1000.4f, 1000.9f, 1001.5f, 1250.5f, 1500.9f, 1501.6f, 1999.5f, 2000.4f};
    std::vector<float> s;
    for (const float c : v) s.push_back(1.0f / c);
    MediumLevel level;
    pspi_level(par, s, {}, level);
    ASSERT_EQ(level.vref.size(), 3u);
    const auto share = [](double v_, double c) { return (v_ - c) / v_; };
    const double expected[8][3] = {
        {1, 0, 0},                                              // integer part not above any reference: the first field
        {1, 0, 0},                                              // same integer part as the first
        {1 - share(1001.5, 1000.4), share(1001.5, 1000.4), 0},  // relative to the local velocity
        {1 - 250.1 / 1250.5, 250.1 / 1250.5, 0},
        {1 - 500.5 / 1500.9, 500.5 / 1500.9, 0},  // the reference of the same integer part is not below
        {0, 0, 1},                                // above the last but one: the last, no blend
        {0, 0, 1},
        {0, 0, 1}};
    for (std::ptrdiff_t i = 0; i < 8; ++i) {
        for (std::ptrdiff_t k = 0; k < 3; ++k) EXPECT_NEAR(level.weight(i, k), expected[i][k], 2e-6) << i << ' ' << k;
    }
    const std::vector<cf> field = random_field(8);
    std::vector<cd> sum(8);
    for (std::size_t k = 0; k < 3; ++k) {
        const std::vector<cd> one = direct_shift(par, par.rec.w.all[0], 1, widen(std::span<const cf>(field)),
                                                 widen(std::span<const float>(s)), level.vref[k]);
        for (std::size_t i = 0; i < 8; ++i) sum[i] += expected[i][k] * one[i];
    }
    EXPECT_LT(relative_difference<cf>(step_pspi(par, +1, field, s), narrow(sum)), 5e-6);
}

// A level of fast velocities alone: all references but the first and the last are hugely negative, and the distance to
// one of them is a whole number, or infinite.
TEST(Pspi, ALevelOfAFastBodyAloneHasFiniteWeights) {
    for (const float unit : {1.0f, 1e-5f}) {
        Parms par = WaveCase{.nx = 4, .nref = 4}.parms();
        par.vsal = 0.5f * unit;
        std::vector<float> s;
        for (const float v : {15000.0f, 15000.5f, 19000.0f, 29000.0f}) s.push_back(1.0f / (v * unit));
        const float share = 4000.0f / 19000.0f, last = 14000.0f / 29000.0f;
        const float expected[4][4] = {{0, 1, 0, 0}, {0, 1, 0, 0}, {1 - share, share, 0, 0}, {1 - last, last, 0, 0}};
        MediumLevel own, given;
        pspi_level(par, s, {}, own);
        ASSERT_EQ(own.vref.size(), 4u);
        pspi_level_given(s, {}, own.vref, s, given);
        for (std::ptrdiff_t i = 0; i < 4; ++i) {
            for (std::ptrdiff_t k = 0; k < 4; ++k) {
                const std::ptrdiff_t row = unit < 1.0f ? 0 : i;  // all of one whole part
                EXPECT_NEAR(own.weight(i, k), expected[row][k], 2e-6) << unit << ' ' << i << ' ' << k;
                EXPECT_EQ(given.weight(i, k), own.weight(i, k));
            }
            EXPECT_NEAR(given.dweight(i, 1), own.weight(i, 0) > 0.0f ? -15000.0f * unit : 0.0f, 1e-3);
        }
    }
}

TEST(Pspi, GivenReferencesStayWithTheSamplesThatChoseThem) {
    const std::vector<float> references{1000.4f, 1500.4f, 2000.4f};
    std::vector<float> start, s;
    for (const float c : {1000.5f, 1250.0f, 1600.0f, 1001.5f}) start.push_back(1.0f / c);
    for (const float c : {1250.0f, 1600.0f, 1250.0f, 999.0f}) s.push_back(1.0f / c);
    MediumLevel level;
    pspi_level_given(s, {}, references, start, level);
    const float share = (1600.0f - 1000.4f) / 1600.0f;
    const float expected[4][3] = {{1, 0, 0}, {1 - share, share, 0}, {0, 0, 1}, {1, 0, 0}};
    for (std::ptrdiff_t i = 0; i < 4; ++i) {
        for (std::ptrdiff_t k = 0; k < 3; ++k) EXPECT_NEAR(level.weight(i, k), expected[i][k], 2e-6) << i << ' ' << k;
        EXPECT_EQ(level.dweight(i, 1), i == 1 ? -1000.4f : 0.0f) << i;
    }
    Array<float, 2> table({3, 2});  // slowness of the centres, and bounds of 1250 and 1667
    const float rows[3][2] = {{5e-4f, 6e-4f}, {7e-4f, 8e-4f}, {1e-3f, 1e6f}};
    for (std::ptrdiff_t k = 0; k < 3; ++k) table(k, 0) = rows[k][0], table(k, 1) = rows[k][1];
    const int region[4] = {2, 2, 1, 2};
    start[1] = 1.0f / 1249.0f;
    pspi_level_given(s, table, references, start, level);
    for (std::ptrdiff_t i = 0; i < 4; ++i)
        for (std::ptrdiff_t k = 0; k < 3; ++k) EXPECT_EQ(level.weight(i, k), k == region[i]) << i << ' ' << k;
}

TEST(Pspi, ANarrowLevelTakesItsMaximumAsTheOnlyReference) {
    Parms par = WaveCase{.nx = 4, .nref = 3}.parms();
    std::vector<float> s;
    for (const float c : {2000.125f, 2000.25f, 2000.5f, 2000.75f}) s.push_back(1.0f / c);
    MediumLevel level;
    pspi_level(par, s, {}, level);
    ASSERT_EQ(level.vref.size(), 1u);
    EXPECT_EQ(level.vref[0], 1.0f / s[3]);
}

TEST(Pspi, RegionsPickOneFieldEachAndATieKeepsTheSpectrum) {
    Parms par = WaveCase{.nx = 6, .nref = 3}.parms();
    Array<float, 2> table({3, 2});  // centres 4e-4, 6e-4; bounds 5e-4, 1e6; one empty row
    table(0, 0) = 4e-4f;
    table(1, 0) = 6e-4f;
    table(0, 1) = 1.0f / 2000.0f;
    table(1, 1) = 1e6f;
    table(2, 0) = table(2, 1) = -1.0f;
    const std::vector<float> s{3e-4f, 4.9e-4f, 1.0f / 2000.0f, 5.1e-4f, 7e-4f, 9e-4f};
    MediumLevel level;
    pspi_level(par, s, table.view(), level);
    ASSERT_EQ(level.vref.size(), 2u);
    EXPECT_EQ(level.untouched, std::vector<int>{2});
    const std::vector<cf> field = random_field(6);
    const std::vector<cd> in = widen(std::span<const cf>(field));
    const std::vector<double> slow = widen(std::span<const float>(s));
    std::vector<cd> expected(6);
    for (std::size_t i = 0; i < 6; ++i) {
        expected[i] = direct_shift(par, par.rec.w.all[0], 1, in, slow, 1.0 / table(i < 3 ? 0 : 1, 0))[i];
    }
    expected[2] = 0;
    for (std::size_t x = 0; x < 6; ++x) {
        expected[2] +=
            in[x] * std::polar(1.0 / std::sqrt(6.0), -2.0 * std::numbers::pi * 2.0 * static_cast<double>(x) / 6.0);
    }
    EXPECT_LT(relative_difference<cf>(step_pspi(par, +1, field, s, table.view()), narrow(expected)), 5e-6);
}

TEST(Ffd, EveryDipLimitEqualsTheDirectEvaluation) {
    for (const int dipop : {15, 45, 65, 79, 80, 87, 89, 90}) {
        for (const int nx : {1, 2, 3, 4, 23, 40}) {
            for (const int sign : {+1, -1}) {
                SCOPED_TRACE(testing::Message() << "dipop " << dipop << " nx " << nx << " sign " << sign);
                const Parms par = WaveCase{.nx = nx, .extrap = "ffd", .dipop = dipop}.parms();
                const Array<float, 2> s = slowness(nx, 1, 0.3f);
                const std::vector<cf> field = random_field(nx);
                std::vector<cd> expected =
                    nx > 1 ? direct_ffd(par, par.rec.w.all[0], sign, widen(std::span<const cf>(field)), widen(s.flat()))
                           : direct_shift(par, par.rec.w.all[0], sign, widen(std::span<const cf>(field)),
                                          widen(s.flat()), 1.0 / s(0, 0));
                EXPECT_LT(relative_difference<cf>(step_ffd(par, sign, field, s.flat()), narrow(expected)), 1e-5);
            }
        }
    }
    EXPECT_EQ(ifd_coeffts(46).nstage, 0);
}

TEST(Ffd, EqualsThePhaseShiftInAConstantMedium) {
    WaveCase wave{.extrap = "ffd", .dipop = 90};
    WaveCase zero_pivot{.nx = 360, .extrap = "ffd", .dipop = 80};  // in the 61st column, by chance
    zero_pivot.f0 = 17.2f;
    for (const auto& [w, velocity] : {std::pair(wave, 2000.0f), std::pair(zero_pivot, 1875.0f)}) {
        const Parms par = w.parms();
        const std::vector<float> s(static_cast<std::size_t>(par.kxm.n), 1.0f / velocity);
        const std::vector<cf> field = random_field(par.kxm.n);
        EXPECT_LT(relative_difference<cf>(step_ffd(par, +1, field, s), step_pspi(par, +1, field, s)), 1e-6);
    }
}

TEST(Ffd, NothingToDivideByIsNoCrash) {
    Parms par = WaveCase{.extrap = "ffd", .dipop = 15}.parms();  // no beta, no trick: a vanishes at the reference
    par.trick = 0.0f;
    const Array<float, 2> s = slowness(par.kxm.n, 1, 0.3f);
    for (const cf& z : step_ffd(par, +1, random_field(par.kxm.n), s.flat())) EXPECT_TRUE(std::isfinite(std::abs(z)));
    par.rec.w.all[0] = 0.0f;  // the step is left out
    const std::vector<cf> field = random_field(par.kxm.n);
    EXPECT_EQ(step_ffd(par, +1, field, s.flat()), field);
}

TEST(StepTables, LevelsPreparedTogetherEqualLevelsPreparedAlone) {
    for (const char* extrap : {"ffd", "pspi"}) {
        const Parms par = WaveCase{.nx = 21, .nz = 19, .extrap = extrap, .nref = 3, .dipop = 80}.parms();
        const Array<float, 2> s = slowness(21, 19, 0.25f);
        const Medium medium = prepare_medium(par, s, {}, {});
        const LateralFft fft(21, FFTW_ESTIMATE);
        Arena arena;
        StepTables tables(par, medium, 19, arena);
        StepScratch scratch(21);
        tables.prepare(1, 0, 19);
        for (int level = 0; level < 19; ++level) {
            StepTables alone(par, medium, 1, arena);
            alone.prepare(1, level, 1);
            Array<cf, 1> a({21}), b({21}), c({21}), d({21});
            randomize(a.flat(), 3);
            randomize(b.flat(), 4);
            std::ranges::copy(a.flat(), c.flat().begin());
            std::ranges::copy(b.flat(), d.flat().begin());
            apply_step_pair(tables.step(level), fft, -1, a, b, scratch);
            apply_step(alone.step(level), fft, -1, c, scratch);
            apply_step(alone.step(level), fft, +1, d, scratch);
            EXPECT_LT(relative_difference<cf>(a.flat(), c.flat()), 1e-7) << extrap << level;
            EXPECT_LT(relative_difference<cf>(b.flat(), d.flat()), 1e-7) << extrap << level;
        }
    }
}

TEST(CisTable, FollowsCosineAndSineOverEveryQuadrantAndFarOut) {
    for (const float reach : {7.0f, 100.0f, 5990.0f, 3.0e5f}) {
        std::vector<float> phase, scale;
        for (int i = -5000; i <= 5000; ++i) {
            phase.push_back(reach * static_cast<float>(i) / 5000.0f);
            scale.push_back(i % 3 ? 1.0f : 0.25f);
        }
        for (int k = -40; k <= 40; ++k) {  // about the quadrant borders
            phase.push_back(static_cast<float>(k * std::numbers::pi / 4));
            scale.push_back(1.0f);
        }
        std::vector<cf> table(phase.size());
        cis_table(phase.data(), scale.data(), table.data(), static_cast<std::ptrdiff_t>(phase.size()));
        for (std::size_t i = 0; i < phase.size(); ++i) {
            const cd expected = std::polar<double>(scale[i], phase[i]);
            ASSERT_LT(std::abs(cd(table[i]) - expected), 1.7e-7 * scale[i]) << phase[i];
        }
    }
}
