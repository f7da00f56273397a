// The exact mode: the gradient against the central difference of the reported value, the variables and their bounds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/model/lloyd_vel.h"
#include "src/areal/wemva/model/regularisation.h"
#include "src/areal/wemva/model/variables.h"
#include "src/areal/wemva/start/owparam.h"
#include "src/areal/wemva/step/ow_taper_areal.h"
#include "tests/dot_test.h"
#include "tests/quiet.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

/// An inversion of a tiny survey, evaluated wherever a test likes.
struct TinyRun {
    const Quiet quiet;
    qas::Session session;
    Parms par;
    LateralFft fft;
    TextLog listing;
    Array<float, 1> taper;
    Array<float, 2> vel0;
    Array<float, 3> vref;
    std::vector<float> pick1;
    EvaluationArrays arrays;
    std::vector<double> start;
    int titer = 0;

    explicit TinyRun(const files::TinySurvey& survey)
        : session(survey.command()),
          par(owparam(session)),
          fft(par.kxm.n, FFTW_ESTIMATE),
          listing(session, "list", survey.dir / "listagem"),
          taper({par.kxm.n}),
          vel0({par.img.xm.n, par.img.z.n}),
          arrays(par) {
        owtaper(par.tapertr, taper.flat());
        const int shift = static_cast<int>(std::lround((par.img.xm.o - par.v.xm.o) / par.v.xm.d));
        for (int iz = 0; iz < par.img.z.n; ++iz)
            for (int ix = 0; ix < par.img.xm.n; ++ix)
                vel0(ix, iz) = survey.vel.samples[static_cast<std::size_t>(iz * par.v.xm.n + ix + shift)];
        start.assign(vel0.flat().begin(), vel0.flat().end());
        if (!par.lloyd) return;
        vref = Array<float, 3>({par.nref, 2, par.img.z.n});
        lloyd_vel1(par, vel0, vref);
    }
    Inversion inversion() { return {par, session, listing, fft, taper, vel0, vref, pick1, {}}; }
    double fun(std::vector<double> x, std::vector<double>& g) {
        ++titer;
        g.resize(x.size());
        return evaluate(inversion(), arrays, x, g, 1, titer);
    }
    double fun(std::vector<double> x) { return evaluate_fun(inversion(), arrays, x); }
};

struct Case {
    const char* name;
    bool areal;
    std::map<std::string, std::string> arguments;
    bool horizon = false;
    double variation = 0.05;  // of velocity across the line
    double step = 3e-4;
    float loudness = 1.0f;  // of the data
};

void vary(files::TinySurvey& survey, double variation) {
    constexpr int nx = files::TinySurvey::nx;
    for (int i = 0; i < nx * files::TinySurvey::nz; ++i)
        survey.vel.samples[static_cast<std::size_t>(i)] =
            static_cast<float>(1.0 / ((1800.0 + 20.0 * (i / nx)) * (1.0 + variation * std::sin(0.2 * (i % nx)))));
}

std::vector<double> smooth_direction(const Parms& par, bool with_mean, unsigned seed) {
    const std::vector<double> r = random_vector<double>(16, seed);
    std::vector<double> d;
    for (int iz = 0; iz < par.img.z.n; ++iz) {
        for (int ix = 0; ix < par.img.xm.n; ++ix) {
            double sum = with_mean ? r[0] : 0.0;
            for (std::size_t k = 1; k <= 3; ++k) {
                const double phase = 2.0 * M_PI * static_cast<double>(k) * ix / par.img.xm.n;
                sum += r[3 * k] * std::sin(phase + r[3 * k + 1] * iz) + r[3 * k + 2] * std::cos(phase);
            }
            d.push_back(sum);
        }
    }
    return d;
}

}  // namespace

TEST(ExactEvaluation, GradientTimesDirectionIsTheCentralDifferenceOfFun) {
    std::vector<Case> cases = {
        {"areal, defaults", true, {}},
        {"per shot", false, {}},
        {"phase shift", false, {{"extrapolator", "pspi"}, {"vsal", "9000"}}},
        {"phase shift, areal, wide offsets", true, {{"extrapolator", "pspi"}, {"vsal", "9000"}, {"nh", "7"}}},
        {"dip limit 65, squared weight", false, {{"dipop", "65"}, {"expdso", "2"}}},
        {"dip limit 80", true, {{"dipop", "80"}, {"nh", "5"}}},
        {"padding", false, {{"padtraces", "3"}, {"nh", "5"}}},
        {"normalised", false, {{"normalise", "y"}}},
        {"columns that count", false, {{"fun_xmin", "120"}, {"fun_xmax", "230"}}},
        {"both", true, {{"normalise", "y"}, {"fun_xmax", "180"}}},
        {"time shifts", true, {{"timeshift", "y"}, {"nth", "5"}, {"oth", "-0.02"}, {"dth", "0.01"}}},
        {"rotated image", true, {{"migration", "y"}}},
        {"horizon", false, {}, true},
        {"no resonance beside a constant medium", true, {{"padtraces", "2"}}, false, 0.0, 1e-3},
        {"references of a fast body alone",
         false,
         {{"extrapolator", "pspi"}, {"vsal", "1000"}, {"nrefvel", "4"}, {"nh", "5"}},
         false,
         0.1},
        {"difference in depth, root of the weight", false, {{"depthdiff", "1"}, {"expdso", "0.5"}}},
        {"two differences, normalised, horizon",
         true,
         {{"depthdiff", "2"}, {"normalise", "y"}, {"expdso", "0.25"}, {"fun_xmax", "220"}},
         true},
        {"difference in depth over time shifts",
         true,
         {{"depthdiff", "1"}, {"timeshift", "y"}, {"nth", "5"}, {"oth", "-0.02"}, {"dth", "0.01"}}},
        {"regularised", true, {{"regularise", "3"}, {"reg_x", "40"}, {"reg_z", "20"}}, false, 0.05, 1e-2},
        {"regularised, normalised, horizon",
         false,
         {{"regularise", "1"}, {"reg_x", "60"}, {"normalise", "y"}},
         true,
         0.05,
         1e-2},
        {"one offset", false, {{"extrapolator", "pspi"}, {"vsal", "9000"}, {"nh", "1"}, {"expdso", "0"}}},
    };
    for (const float loudness : {0.01f, 30.0f}) {  // weak images are squared, loud ones damped by their envelope
        const std::map<std::string, std::string> l1 = {{"l1norm", "y"}, {"nh", "5"}, {"windx", "3"}, {"windz", "2"}};
        for (const auto& [name, areal, more, horizon] :
             {std::tuple<const char*, bool, std::map<std::string, std::string>, bool>{"envelope", true, {}, false},
              {"envelope, per shot, normalised", false, {{"normalise", "y"}, {"fun_xmax", "230"}}, false},
              {"envelope, horizon", true, {{"windh", "1"}}, true},
              {"envelope of the difference in depth, normalised",
               true,
               {{"depthdiff", "1"}, {"normalise", "y"}, {"expdso", "0.5"}},
               false},
              {"envelope over time shifts",
               true,
               {{"timeshift", "y"}, {"nth", "5"}, {"oth", "-0.02"}, {"dth", "0.01"}},
               false}}) {
            Case c{name, areal, l1, horizon, 0.05, 3e-4, loudness};
            c.arguments.insert(more.begin(), more.end());
            cases.push_back(c);
        }
    }
    const std::pair<const char*, std::map<std::string, std::string>> forms[] = {
        {"one reference", {{"extrapolator", "pspi"}, {"vsal", "9000"}}},
        {"three references", {{"extrapolator", "pspi"}, {"vsal", "9000"}, {"nrefvel", "3"}}},
        {"clusters", {{"extrapolator", "pspi"}, {"lloyd", "y"}, {"nrefvel", "3"}}},
        {"dip limit 45", {}},
        {"dip limit 65", {{"dipop", "65"}}},
        {"dip limit 80", {{"dipop", "80"}}}};
    for (const auto& [form, arguments] : forms) {
        for (const bool areal : {false, true}) {
            for (const double variation : {0.1, 0.3}) {
                Case c{form, areal, arguments, false, variation};
                c.arguments["padtraces"] = "2", c.arguments["nh"] = "5";
                c.arguments["expdso"] = areal == (variation == 0.1) ? "2" : "1";
                cases.push_back(c);
            }
        }
    }
    for (const Case& c : cases) {
        for (const bool with_mean : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.name << (c.areal ? ", areal, " : ", per shot, ") << 100 * c.variation
                                            << " %, data times " << c.loudness << (with_mean ? ", lateral mean" : ""));
            files::TinySurvey survey(c.areal);
            vary(survey, c.variation);
            for (float& sample : survey.rec.samples) sample *= c.loudness;
            survey.arguments["gradient"] = "exact";
            survey.arguments["stdout"] = survey.dir / "stdout";
            for (const auto& [key, value] : c.arguments) survey.arguments[key] = value;
            TinyRun run(survey);
            if (c.horizon) run.pick1.assign(static_cast<std::size_t>(run.par.img.xm.n), 25.0f);
            std::vector<double> x = run.start, g, d;
            ASSERT_GT(run.fun(x, g), 0.0);
            if (run.par.regularise > 0.0f) {  // it is flat at the start model
                for (std::size_t i = 0; i < x.size(); ++i) x[i] *= 1.0 + 0.02 * std::sin(0.9 * static_cast<double>(i));
                run.fun(x, g);
                EXPECT_GT(run.arrays.measures.regularisation, 0.02 * run.arrays.measures.data);
            }
            double slope = 0.0;  // a direction across the gradient would compare rounding errors
            for (unsigned seed = 5; d.empty() || std::abs(slope) < 0.1 * norm<double>(g) * norm<double>(d); ++seed) {
                ASSERT_LT(seed, 100u);
                d = smooth_direction(run.par, with_mean, seed);
                slope = inner<double>(g, d);
            }
            const auto central = [&](double h) {
                std::vector<double> up = x, down = x;
                for (std::size_t i = 0; i < d.size(); ++i) {
                    up[i] += h * d[i];
                    down[i] -= h * d[i];
                }
                return (run.fun(up) - run.fun(down)) / (2.0 * h);
            };
            const double h = c.step * 5e-4;
            const double difference = (4.0 * central(h) - central(2.0 * h)) / 3.0;
            EXPECT_NEAR(slope, difference, 0.01 * std::abs(difference));
            for (int ix = 0; c.horizon && ix < run.par.img.xm.n; ++ix) EXPECT_EQ(g[static_cast<std::size_t>(ix)], 0.0);
        }
    }
}

TEST(Roughness, CountsARampOfATenthPerLengthAsOne) {
    Parms par;
    par.img.xm = {5, 10.0f, 0.0f, {}};
    par.img.z = {4, 20.0f, 0.0f, {}};
    par.reg_x = 50.0f;
    par.reg_z = 40.0f;
    Array<float, 2> start({5, 4});
    std::vector<double> across, down;
    for (int i = 0; i < 20; ++i) {
        start.flat()[static_cast<std::size_t>(i)] = 1.0f + 0.25f * static_cast<float>(i % 3);
        const double s0 = 1.0 + 0.25 * (i % 3);
        across.push_back(s0 * (1.0 + 0.02 * (i % 5)));
        down.push_back(s0 * (1.0 + 0.1 * (i / 5)));
    }
    EXPECT_NEAR(roughness(par, 3.0, start, across, {}), 3.0 * 16 / 20, 1e-6);
    EXPECT_NEAR(roughness(par, 3.0, start, down, {}), 3.0 * 4 * 15 / 20, 1e-6);
}

// The reference of the finite-difference form lies below all that a trial can reach, and not far below.
TEST(ExactEvaluation, BoundsPutTheReferencesBelowEveryVelocityTheyAllow) {
    struct Row {
        const char* bounds;
        std::map<std::string, std::string> arguments;
        bool warns = false;
    };
    for (const Row& row :
         {Row{"relative", {{"p_up", "25"}, {"p_lo", "20"}}},
          Row{"constant, the start model in part outside", {{"cbounds", "y"}, {"vmin", "1750"}, {"vmax", "2500"}}},
          Row{"of knots",
              {{"p_up", "25"},
               {"p_lo", "20"},
               {"nxk", "4"},
               {"dxk", "40"},
               {"oxk", "80"},
               {"nzk", "3"},
               {"dzk", "30"}}},
          Row{"natural", {{"bounds", "n"}, {"dipop", "65"}}},
          Row{"too wide", {{"p_up", "90"}, {"p_lo", "20"}}, true}}) {
        SCOPED_TRACE(row.bounds);
        files::TinySurvey survey(false);
        survey.arguments["gradient"] = "exact";
        survey.arguments["stdout"] = survey.dir / "stdout";
        for (const auto& [key, value] : row.arguments) survey.arguments[key] = value;
        testing::internal::CaptureStderr();
        qas::Session session(survey.command());
        InversionSetup setup(session);
        const LateralFft fft(setup.par.kxm.n, FFTW_ESTIMATE);
        EvaluationArrays arrays(setup.par);
        std::vector<double> v = setup.bounds.u, x(setup.start.size());
        setup.variables.model(v, x);  // the slowest of all trials
        testing::internal::CaptureStdout();
        evaluate_fun(setup.inversion(fft), arrays, x);
        testing::internal::GetCapturedStdout();
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(said.find("the image loses accuracy") != std::string::npos, row.warns);
        const int nx = setup.par.img.xm.n;
        for (int shot = 0; shot < 3; ++shot) {
            for (int iz = 0; iz < setup.par.img.z.n; ++iz) {
                double least = INFINITY;
                for (int ix = 4 * shot; ix < 4 * shot + setup.par.kxm.n; ++ix) {
                    const auto i = static_cast<std::size_t>(iz * nx + ix);
                    least = std::min(least, 1.0 / std::max(x[i], setup.start[i]));
                }
                const float reference =
                    arrays.shots.references[static_cast<std::size_t>(shot)][static_cast<std::size_t>(iz)][0];
                EXPECT_NEAR(reference, least * (setup.par.dipop == 65 ? 0.8 : 0.95), 1e-3 * least) << shot << iz;
            }
        }
    }
}

TEST(ExactEvaluation, FunOfColumnsApartAddsUp) {
    const auto fun = [](const std::map<std::string, std::string>& columns) {
        files::TinySurvey survey(false);
        survey.arguments["gradient"] = "exact";
        survey.arguments["stdout"] = survey.dir / "stdout";
        for (const auto& [key, value] : columns) survey.arguments[key] = value;
        TinyRun run(survey);
        return run.fun(run.start);
    };
    const double left = fun({{"fun_xmax", "175"}}), right = fun({{"fun_xmin", "175"}}), all = fun({});
    EXPECT_GT(std::min(left, right), 0.01 * all);
    EXPECT_NEAR(left + right, all, 1e-6 * all);
}

TEST(Variables, KnotCoefficientsMoveTheModelAndCarryItsGradient) {
    const Axis x{23, 10.0f, 100.0f, {}}, z{17, 8.0f, 0.0f, {}};
    const std::vector<double> start = random_vector<double>(23 * 17, 1);
    const Variables knots(start, base_spln2d_init(x, z, {5, 60.0f, 90.0f, {}}, {4, 50.0f, -20.0f, {}}, 1));
    const Variables samples(start, std::nullopt);
    ASSERT_EQ(knots.count(), 20u);
    ASSERT_EQ(samples.count(), start.size());
    for (const Variables* variables : {&knots, &samples}) {
        std::vector<double> v = variables->first(), at_first(start.size()), moved(start.size());
        variables->model(v, at_first);
        EXPECT_EQ(at_first, start);
        const std::vector<double> d = random_vector<double>(v.size(), 2);
        std::vector<double> g = random_vector<double>(start.size(), 3), gv(v.size());
        for (std::size_t i = 0; i < v.size(); ++i) v[i] += d[i];
        variables->model(v, moved);
        variables->gradient(g, gv);
        double by_model = 0.0;  // <g, x(v + d) - x(v)> = <gv, d>: the map is linear
        for (std::size_t i = 0; i < start.size(); ++i) by_model += g[i] * (moved[i] - start[i]);
        EXPECT_NEAR(by_model, inner<double>(gv, d), 1e-9);
    }
}

TEST(Variables, BoundsOfTheCoefficientsKeepEverySampleWithinItsOwn) {
    const Axis x{30, 10.0f, 0.0f, {}}, z{20, 10.0f, 0.0f, {}};
    const std::vector<double> start(600, 1.0);
    const Variables knots(start, base_spln2d_init(x, z, {7, 50.0f, 0.0f, {}}, {6, 40.0f, -500.0f, {}}, 1));
    VariableBounds samples(600);
    for (std::size_t i = 0; i < 600; ++i) {
        samples.l[i] = 0.7 + 0.01 * static_cast<double>(i % 13);
        samples.u[i] = 1.1 + 0.02 * static_cast<double>(i % 7);
        samples.nbd[i] = 2;
    }
    const VariableBounds bounds = knots.bounds(samples);
    ASSERT_EQ(bounds.nbd, std::vector<int>(42, 2));
    EXPECT_EQ(bounds.l[0], 0.0) << "the first rows of knots lie above the model and reach no sample";
    EXPECT_EQ(bounds.u[0], 0.0);
    const Variables inside(start, base_spln2d_init(x, z, {7, 50.0f, 0.0f, {}}, {6, 40.0f, 0.0f, {}}, 1));
    const VariableBounds room = inside.bounds(samples);
    for (const auto& corner : {room.l, room.u}) {
        std::vector<double> v = corner, model(600);
        inside.model(v, model);
        double moved = 0.0;
        for (std::size_t i = 0; i < 600; ++i) {
            EXPECT_GE(model[i], samples.l[i] - 1e-7);
            EXPECT_LE(model[i], samples.u[i] + 1e-7);
            moved = std::max(moved, std::abs(model[i] - 1.0));
        }
        EXPECT_GT(moved, 0.05);
    }
    samples.l[300] = 1.05, samples.u[301] = 0.95;
    testing::internal::CaptureStderr();
    inside.bounds(samples);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(": warning: bounds: "));
}

TEST(Variables, LargestChangeBoundsTheFirstTrial) {
    const Axis x{30, 10.0f, 0.0f, {}}, z{20, 10.0f, 0.0f, {}};
    const std::vector<double> start(600, 2.0);
    const Variables knots(start, base_spln2d_init(x, z, {7, 50.0f, 0.0f, {}}, {6, 40.0f, 0.0f, {}}, 1));
    const std::vector<double> gv = random_vector<double>(42, 8);
    const double most = knots.largest_change(gv, start);
    std::vector<double> v = gv, model(600);
    knots.model(v, model);
    double change = 0.0;
    for (const double s : model) change = std::max(change, std::abs(s - 2.0) / 2.0);
    EXPECT_LE(change, most);
    EXPECT_GT(change, 0.2 * most);
    EXPECT_EQ(Variables(start, std::nullopt).largest_change(std::vector<double>(600, -3.0), start), 1.5);
}
