/// Whole runs of two accepted steps with each way of conditioning image and gradient. Panels of all evaluations are
/// held against the step's own formula, so that what a later one does differently shows too. Where the exact gradient
/// serves, on random wavefields, on which the classic one mostly ends in its first line search; where it does not, on
/// a survey modelled by morvane_synth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>

#include "lib/class/geodip.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "tests/quiet.h"
#include "tests/system/panels.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

using files::TinySurvey;
using Arguments = std::map<std::string, std::string>;
using Panel = std::vector<float>;

constexpr int nx = 16, nz = TinySurvey::nz;  // the image of the areal survey

/// A survey of three shots over two dipping layers, modelled once: its datasets and settings, and the axes of its
/// image.
struct Modelled {
    static constexpr int nx = 50, nz = 21;
    static constexpr const char* origin = "-10";
    files::TempDir dir;
    Arguments arguments;

    static const Modelled& survey() {
        static const Modelled made;
        return made;
    }

private:
    Modelled() {
        const files::Outcome outcome =
            files::run_program("morvane_synth", {"model=layers", "zref=80,120",
                                                 "dip=10,25",    "nshot=3",
                                                 "oshot=200",    "dshot=40",
                                                 "nrec=30",      "zmax=200",
                                                 "nf=4",         "of=8",
                                                 "df=4",         "tmax=0.35",
                                                 "taper=4",      "padtraces=2",
                                                 "margin=60",    "absorb=10",
                                                 "vel=vel.H",    "rec=rec.H",
                                                 "sou=sou.H",    "true=true.H",
                                                 "dips=dips.H",  "datapath=" + dir.text() + "/"},
                               dir.text());
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        arguments = {{"vel", dir / "vel.H"},   {"rec", dir / "rec.H"}, {"sou", dir / "sou.H"}, {"areal", "n"},
                     {"traces_in_taper", "4"}, {"padtraces", "2"},     {"zmax", "200"},        {"nh", "5"},
                     {"extrapolator", "pspi"}, {"vsal", "9000"},       {"p_up", "25"},         {"p_lo", "25"},
                     {"firststep", "0.01"}};
    }
};

Arguments operator+(Arguments arguments, const Arguments& more) {
    for (const auto& [key, value] : more) arguments[key] = value;
    return arguments;
}

/// A survey inverted for two iterations with more arguments.
struct Inverted {
    TinySurvey survey{true};
    std::string said;
    std::vector<double> fun;            ///< of each evaluation
    std::vector<std::string> accepted;  ///< log lines of accepted steps

    explicit Inverted(const Arguments& arguments, const std::function<void(TinySurvey&)>& change = {}) {
        survey.arguments["niter"] = "2";
        survey.arguments = survey.arguments + arguments;
        if (change) change(survey);
        const files::Outcome outcome = survey.run();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        said = outcome.err;
        for (const std::string& line : files::lines_of(files::read_text(survey.dir / "log"))) {
            if (line.find("NEW_X") != std::string::npos) {
                accepted.push_back(line);
            } else {
                fun.push_back(std::atof(line.substr(line.find("J(x) =") + 6, 16).c_str()));
            }
        }
    }
    std::string header(const std::string& file, const std::string& key) const {
        return files::header_value(files::read_text(survey.dir / file), key);
    }
    /// The evaluations that are worth a run of their own: the first five and the last.
    std::vector<std::size_t> samples() const {
        std::vector<std::size_t> chosen;
        for (std::size_t k = 0; k < fun.size(); ++k)
            if (k < 5 || k + 1 == fun.size()) chosen.push_back(k);
        return chosen;
    }
    /// The panels of an output, one per evaluation.
    std::vector<Panel> panels(const std::string& file) const {
        const Panel all = files::read_dataset(survey.dir / file);
        const std::size_t size = all.size() / fun.size();
        std::vector<Panel> result;
        for (auto at = all.begin(); result.size() < fun.size(); at += static_cast<std::ptrdiff_t>(size))
            result.emplace_back(at, at + static_cast<std::ptrdiff_t>(size));
        return result;
    }
};

/// The first gradient of a run on the modelled survey that starts from a model of velocities.
Panel gradient_at(const Panel& velocity, const Arguments& more) {
    // bounds that leave no room but for rounding end the run after its first evaluation
    Arguments arguments = Modelled::survey().arguments + more + Arguments{{"p_up", "0.9999999"}, {"p_lo", "0.9999999"}};
    arguments.erase("vel");
    const Inverted plain(arguments, [&](TinySurvey& survey) {
        survey.vel = files::Dataset();
        survey.vel.axis(1, Modelled::nx, "10", Modelled::origin);
        survey.vel.axis(3, Modelled::nz, "10", "0");
        for (const float v : velocity) survey.vel.samples.push_back(1.0f / v);
    });
    EXPECT_EQ(plain.fun.size(), 1u);
    return plain.panels("grad.H").front();
}

/// Times |h / max h| of a symmetric second axis of n samples; midpoint fastest, depth slowest.
Panel weighted(Panel image, int n, int columns = nx) {
    for (std::size_t i = 0; i < image.size(); ++i) {
        const auto ih = static_cast<int>(i / static_cast<std::size_t>(columns)) % n;
        image[i] *= std::abs(static_cast<float>(2 * ih - (n - 1)) / static_cast<float>(n - 1));
    }
    return image;
}

}  // namespace

TEST(Conditioning, DipFilteredGradients) {
    constexpr int columns = Modelled::nx, rows = Modelled::nz, frame = 3;
    const Modelled& modelled = Modelled::survey();
    const std::string dips = modelled.dir / "dips.H";
    const Arguments keys = {{"steer_lags", "4"}, {"steer_triangle", "y"}, {"steer_factor", "0.7"},
                            {"epspoly", "0.5"},  {"steerniter", "8"},     {"dipfile", dips}};
    const files::TempDir dir;
    std::string horizon;  // with it, rows 1 to 5 of each padded column are held: the frame and two of the image
    for (int ix = 0; ix < columns; ++ix) horizon += "6\n";
    files::write_text(dir / "horizon", horizon);

    for (const bool masked : {false, true}) {
        SCOPED_TRACE(masked ? "masked" : "whole");
        const Arguments plain = masked ? Arguments{{"horv0", dir / "horizon"}} : Arguments{};
        const Inverted run(modelled.arguments + plain + keys +
                           Arguments{{"dipflt", "y"}, {"frame", std::to_string(frame)}, {"quiet", "y"}});
        EXPECT_EQ(run.accepted.size(), 2u) << run.said;
        for (const std::string& line : files::lines_of(run.said))
            EXPECT_TRUE(line.starts_with(MORVANE_BIN_DIR "/morvane: ")) << line;
        EXPECT_LT(run.fun.back(), run.fun.front());

        std::vector<std::string> words = {"test", "datapath=" + dir.text() + "/"};
        for (const auto& [key, value] : keys) words.push_back(key + "=" + value);
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen("/dev/null", "r"), std::fclose),
            out(std::tmpfile(), std::fclose);
        qas::Session session(words);
        session.set_streams(in.get(), out.get(), out.get());
        const std::vector<Panel> velocity = run.panels("velout.H"), gradient = run.panels("grad.H");
        for (const std::size_t k : run.samples()) {
            SCOPED_TRACE(k);
            const Panel raw = gradient_at(velocity[k], plain);
            std::vector<double> g(raw.begin(), raw.end());
            {
                const Quiet quiet;
                ow_geodip(session, {rows, 10.0f, 0.0f, {}}, {columns, 10.0f, -10.0f, {}}, frame,
                          masked ? std::vector<float>(columns, 6.0f) : std::vector<float>(),
                          {g.data(), {columns, rows}}, true);
            }
            EXPECT_LT(mismatch(Panel(g.begin(), g.end()), gradient[k]), 1e-4);
            EXPECT_GT(mismatch(raw, gradient[k]), 0.1) << "the filter changes nothing";
            if (masked) {
                EXPECT_EQ(sum_of_squares(Panel(gradient[k].begin(), gradient[k].begin() + 2 * columns)), 0.0);
            }
        }
    }
}

TEST(Conditioning, ResidualsPredictedAcrossOffset) {
    constexpr int columns = Modelled::nx, rows = Modelled::nz, nh = 5;
    const Inverted run(Modelled::survey().arguments + Arguments{{"nxfilt", "5"}});
    EXPECT_EQ(run.accepted.size(), 2u) << run.said;
    EXPECT_LT(run.fun.back(), run.fun.front());
    const std::vector<Panel> image = run.panels("bkgimg.H"), residual = run.panels("dimage.H");
    FxDesign design;  // patches of 15 by 150, more than the gathers hold
    design.k1 = 5;    // 21 depths * 1.5 / 6
    design.k2 = 1;
    for (std::size_t k = 0; k < image.size(); ++k) {
        SCOPED_TRACE(k);
        Panel once = weighted(image[k], nh, columns), predicted(once.size());
        fx2d_lop(design, {once.data(), {columns, nh, rows}}, {predicted.data(), {columns, nh, rows}}, nullptr);
        EXPECT_LT(mismatch(weighted(predicted, nh, columns), residual[k]), 1e-5);
        EXPECT_NEAR(run.fun[k], sum_of_squares(residual[k]), 1e-5 * run.fun[k]);
    }
    // for each evaluation, midpoint and patch 16 frequencies, and five coefficients
    EXPECT_EQ(files::read_dataset(run.survey.dir / "oper-fxdecon.H").size(), run.fun.size() * columns * 5 * 16 * 5);
}

TEST(Conditioning, ResidualsReweightedByTheirEnvelope) {
    constexpr int nh = 5, windx = 3, windh = 2, windz = 4;
    for (const bool exact : {false, true}) {
        SCOPED_TRACE(exact ? "exact" : "classic");
        Arguments arguments = {{"l1norm", "y"}, {"nh", "5"}, {"windx", "3"}, {"windh", "2"}, {"windz", "4"}};
        if (exact) arguments.insert({{"gradient", "exact"}, {"firststep", "0.01"}});
        const Inverted run(arguments);
        ASSERT_GE(run.fun.size(), 2u);
        const std::vector<Panel> image = run.panels("bkgimg.H"), residual = run.panels("dimage.H");
        for (std::size_t k = 0; k < image.size(); ++k) {
            SCOPED_TRACE(k);
            const Panel y = weighted(image[k], nh);
            const auto at = [](int ix, int ih, int iz) { return static_cast<std::size_t>((iz * nh + ih) * nx + ix); };
            Panel expected(y.size());
            double sum = 0.0;
            for (int iz = 0; iz < nz; ++iz)
                for (int ih = 0; ih < nh; ++ih)
                    for (int ix = 0; ix < nx; ++ix) {
                        double box = 0.0;
                        int samples = 0;
                        for (int jz = std::max(iz - windz + 1, 0); jz < std::min(iz + windz, nz); ++jz)
                            for (int jh = std::max(ih - windh + 1, 0); jh < std::min(ih + windh, nh); ++jh)
                                for (int jx = std::max(ix - windx + 1, 0); jx < std::min(ix + windx, nx); ++jx) {
                                    box += std::abs(y[at(jx, jh, jz)]);
                                    ++samples;
                                }
                        const double e = box / samples, v = y[at(ix, ih, iz)];
                        expected[at(ix, ih, iz)] = static_cast<float>(v * std::abs(v) / std::pow(e, e));
                    }
            expected = weighted(expected, nh);
            for (const float r : expected) sum += std::abs(r);
            EXPECT_LT(mismatch(expected, residual[k]), 1e-4);
            EXPECT_NEAR(run.fun[k], sum, 1e-4 * sum);
        }
        if (exact) {
            EXPECT_EQ(run.accepted.size(), 2u) << run.said;
            EXPECT_LT(run.fun.back(), run.fun.front());
        }
    }
}

TEST(Conditioning, GradientsProjectedOnKnots) {
    constexpr std::size_t columns = Modelled::nx;
    constexpr int across = 13, down = 7;  // knots every 4 samples, the first at the first sample and one above it
    const Inverted run(Modelled::survey().arguments + Arguments{{"nxk", std::to_string(across)},
                                                                {"oxk", Modelled::origin},
                                                                {"dxk", "40"},
                                                                {"nzk", std::to_string(down)},
                                                                {"ozk", "-40"},
                                                                {"dzk", "40"}});
    EXPECT_EQ(run.accepted.size(), 2u) << run.said;
    EXPECT_LT(run.fun.back(), run.fun.front());
    const auto basis = [](double x) {  // cubic B-spline, in knot intervals
        x = std::abs(x);
        if (x < 1) return 2.0 / 3.0 - x * x + x * x * x / 2;
        return x < 2 ? (2 - x) * (2 - x) * (2 - x) / 6 : 0.0;
    };
    const std::vector<Panel> velocity = run.panels("velout.H"), gradient = run.panels("grad.H");
    for (const std::size_t k : run.samples()) {
        SCOPED_TRACE(k);
        const Panel raw = gradient_at(velocity[k], {});
        Panel expected(raw.size());
        for (int knot = 0; knot < across * down; ++knot) {
            const auto b = [&](std::size_t i) {
                return basis(static_cast<double>(i % columns) / 4 - knot % across) *
                       basis(static_cast<double>(i / columns) / 4 + 1 - knot / across);
            };
            double coefficient = 0.0;
            for (std::size_t i = 0; i < raw.size(); ++i) coefficient += b(i) * raw[i];
            for (std::size_t i = 0; i < raw.size(); ++i) expected[i] += static_cast<float>(b(i) * coefficient);
        }
        EXPECT_LT(mismatch(expected, gradient[k]), 1e-4);
        EXPECT_GT(mismatch(raw, gradient[k]), 0.1);
    }
}

TEST(Conditioning, NothingMovesAboveAHorizon) {
    for (const bool exact : {false, true}) {
        SCOPED_TRACE(exact ? "exact" : "classic");
        Arguments arguments = {{"horv0", "horizon"}};
        if (exact) arguments.insert({{"gradient", "exact"}, {"firststep", "0.01"}});
        const auto pick = [](int ix) { return ix < 8 ? 30.0 : 45.5; };
        const Inverted run(arguments, [&](TinySurvey& survey) {
            std::string text;
            for (int ix = 0; ix < nx; ++ix) text += std::to_string(pick(ix)) + "\n";
            files::write_text(survey.dir / "horizon", text);
        });
        ASSERT_GE(run.fun.size(), 2u);
        const std::vector<Panel> velocity = run.panels("velout.H"), image = run.panels("bkgimg.H"),
                                 residual = run.panels("dimage.H");
        for (std::size_t k = 0; k < velocity.size(); ++k) {
            SCOPED_TRACE(k);
            double moved = 0.0;
            Panel expected = weighted(weighted(image[k], 3), 3);
            for (int iz = 0; iz < nz; ++iz)
                for (int ix = 0; ix < nx; ++ix) {
                    const auto i = static_cast<std::size_t>(iz * nx + ix);
                    if (10.0 * iz < std::floor(pick(ix)))
                        EXPECT_EQ(velocity[k][i], velocity[0][i]) << ix << " " << iz;
                    else
                        moved = std::max(moved, std::abs(velocity[k][i] / velocity[0][i] - 1.0));
                    for (int ih = 0; ih < 3 && 10.0 * iz <= pick(ix); ++ih)
                        expected[static_cast<std::size_t>((iz * 3 + ih) * nx + ix)] = 0.0f;
                }
            if (k > 0) {
                EXPECT_GT(moved, 1e-6);
            }
            EXPECT_EQ(residual[k], expected);
            EXPECT_GT(sum_of_squares(expected), 0.0);
        }
        if (exact) {
            EXPECT_EQ(run.accepted.size(), 2u) << run.said;
            EXPECT_LT(run.fun.back(), run.fun.front());
        }
    }
}

TEST(Conditioning, TimeShifts) {
    const Arguments shifts = {{"timeshift", "y"}, {"nth", "5"}, {"oth", "-0.008"}, {"dth", "0.004"}};
    for (const bool exact : {false, true}) {
        SCOPED_TRACE(exact ? "exact" : "classic");
        Arguments arguments = shifts;
        const Arguments mode = exact ? Arguments{{"gradient", "exact"}, {"firststep", "0.01"}} : Arguments{};
        arguments.insert(mode.begin(), mode.end());
        const Inverted run(arguments);
        const Panel offsets = Inverted(mode).panels("bkgimg.H").front();
        for (const char* file : {"bkgimg.H", "dimage.H"}) {
            EXPECT_EQ(run.header(file, "n2"), "5");
            EXPECT_FLOAT_EQ(std::stof(run.header(file, "d2")), 0.004f);
            EXPECT_FLOAT_EQ(std::stof(run.header(file, "o2")), -0.008f);
            EXPECT_EQ(run.header(file, "n3"), "8");
        }
        const std::vector<Panel> image = run.panels("bkgimg.H"), residual = run.panels("dimage.H");
        for (std::size_t k = 0; k < image.size(); ++k) {
            SCOPED_TRACE(k);
            EXPECT_LT(mismatch(weighted(weighted(image[k], 5), 5), residual[k]), 1e-5);
            if (exact)
                EXPECT_NEAR(run.fun[k], sum_of_squares(residual[k]), 1e-5 * run.fun[k]);
            else
                EXPECT_EQ(run.fun[k], 0.0) << "the offset axis it is summed over is empty";
        }
        // no shift in time is no offset
        Panel centre, zero_offset;
        for (std::size_t iz = 0; iz < nz; ++iz)
            for (std::size_t ix = 0; ix < nx; ++ix) {
                centre.push_back(image[0][(iz * 5 + 2) * nx + ix]);
                zero_offset.push_back(offsets[(iz * 3 + 1) * nx + ix]);
            }
        EXPECT_LT(mismatch(zero_offset, centre), 1e-5);
        EXPECT_GT(sum_of_squares(run.panels("grad.H").front()), 0.0);
        if (!exact) continue;
        EXPECT_EQ(run.accepted.size(), 2u) << run.said;
        EXPECT_LT(run.fun.back(), run.fun.front());
    }
}

namespace {

/// One areal shot over 93 columns, 20 levels and 155 half-offsets, with every step of image and gradient switched on.
struct AllSteps {
    static constexpr int columns = 93, rows = 20, nh = 155, traces = columns - 4, frame = 4;
    /// Horizon depths: above them stand 4 or 5 levels, of which the mask of the dip filter holds 2 or 4.
    static float pick(int ix) { return ix < 50 ? 7.5f : 9.0f; }

    static Arguments arguments() {
        return {{"nh", "155"},          {"dh", "1"},
                {"zmax", "38"},         {"firststep", "0.03"},
                {"niter", "1"},         {"nxfilt", "5"},
                {"l1norm", "y"},        {"windx", "4"},
                {"windz", "3"},         {"windh", "2"},
                {"nxk", "25"},          {"dxk", "8"},
                {"oxk", "-4"},          {"nzk", "7"},
                {"dzk", "8"},           {"ozk", "-4"},
                {"dipflt", "y"},        {"frame", "4"},
                {"steer_lags", "4"},    {"epspoly", "0.5"},
                {"steerniter", "6"},    {"steer_triangle", "y"},
                {"steer_factor", "0.7"}};
    }
    static void prepare(TinySurvey& survey) {
        files::Dataset dips;
        survey.vel = dips;
        survey.vel.axis(1, columns, "2", "0");
        survey.vel.axis(3, rows, "2", "0");
        dips.axis(1, rows, "2", "0");
        dips.axis(2, columns, "2", "0");
        for (int i = 0; i < rows * columns; ++i) {
            const auto ix = static_cast<float>(i % columns), iz = static_cast<float>(i / columns);
            survey.vel.samples.push_back(1.0f / (360.0f + 4.0f * iz + 20.0f * std::sin(0.1f * ix)));
            dips.samples.push_back(40.0f * std::sin(0.02f * static_cast<float>(i)));
        }
        dips.write(survey.dir / "dips.H");
        const auto fill = [](files::Dataset& set, unsigned seed, float size) {
            set.axis(1, traces, "2", "4");
            set.axis(3, 2, "8", "8");
            set.axis(4, 1, "1", "0");
            std::mt19937 random(seed);
            std::normal_distribution<float> noise;
            set.samples.resize(2 * 2 * traces);
            for (float& sample : set.samples) sample = size * noise(random);
        };
        fill(survey.rec, 13, 20.0f);
        fill(survey.sou, 15, 1.0f);
        std::string horizon;
        for (int ix = 0; ix < columns; ++ix) horizon += std::to_string(pick(ix)) + "\n";
        files::write_text(survey.dir / "horizon", horizon);
        survey.arguments = survey.arguments + arguments() +
                           Arguments{{"horv0", survey.dir / "horizon"}, {"dipfile", survey.dir / "dips.H"}};
    }
};

/// The steps of an evaluation of the same survey, called one after the other.
class StepByStep {
    using S = AllSteps;
    TinySurvey survey_{true};
    qas::Session session_;
    InversionSetup setup_;
    LateralFft fft_;
    Inversion inversion_;
    EvaluationArrays arrays_;

    static TinySurvey& prepared(TinySurvey& survey) {
        S::prepare(survey);
        return survey;
    }

public:
    StepByStep()
        : session_(prepared(survey_).command()),
          setup_(session_),
          fft_(S::columns, FFTW_ESTIMATE),
          inversion_(setup_.inversion(fft_)),
          arrays_(setup_.par) {}

    Panel image(const Panel& velocity) {
        std::ranges::transform(velocity, arrays_.model.flat().begin(), [](float v) { return 1.0f / v; });
        arrays_.position = {};
        form_image(inversion_, arrays_, 1);
        const auto samples = arrays_.b_image.flat();
        return {samples.begin(), samples.end()};
    }
    /// Weight, prediction, reweighting, weight.
    Panel residual(Panel image) const {
        const Extents<3> size{S::columns, S::nh, S::rows};
        Panel work(image.size());
        const View<float, 3> b{image.data(), size}, r{work.data(), size};
        owdso(setup_.par, false, b, setup_.pick1);
        FxDesign design;
        design.k1 = 5;  // 20 levels * 1.5 / 6
        design.k2 = 3;  // 93 columns * 1.5 / 46
        fx2d_lop(design, b, r, nullptr);
        std::ranges::copy(work, image.begin());
        owsmooth(setup_.par, b, r);
        for (std::size_t i = 0; i < image.size(); ++i)
            image[i] = image[i] * std::abs(image[i]) / std::pow(work[i], work[i]);
        owdso(setup_.par, true, b, setup_.pick1);
        return image;
    }
    /// Minus the adjoint of the residual, in the model that image() was called with.
    std::vector<double> plain_gradient(const Panel& residual) {
        std::ranges::copy(residual, arrays_.b_image.flat().begin());
        back_project(inversion_, arrays_);
        std::vector<double> g;
        for (const float s : arrays_.scats.flat()) g.push_back(-static_cast<double>(s));
        return g;
    }
    /// On the knots and back, then along the dips.
    Panel conditioned(std::vector<double> g) {
        std::vector<double> knots(25 * 7);
        base_spln2d_oper(*setup_.spline, true, false, knots, g);
        base_spln2d_oper(*setup_.spline, false, false, knots, g);
        ow_geodip(session_, setup_.par.img.z, setup_.par.img.xm, S::frame, setup_.pick1,
                  {g.data(), {S::columns, S::rows}}, true);
        return {g.begin(), g.end()};
    }
};

/// The extremes of the gradient that a run prints before and after its conditioning, two pairs per evaluation.
std::vector<std::pair<double, double>> printed_extremes(const std::string& said) {
    std::vector<std::pair<double, double>> pairs;
    for (const std::string& line : files::lines_of(said))
        if (double most, least; std::sscanf(line.c_str(), " main => %lf %lf", &most, &least) == 2)
            pairs.emplace_back(most, least);
    return pairs;
}

}  // namespace

// Steps that change places, or a count of patches taken from another axis, change the panels by more than their
// arithmetic does.
TEST(Conditioning, StepsComeInTheirOrder) {
    constexpr int columns = AllSteps::columns, rows = AllSteps::rows;
    const Inverted run({}, AllSteps::prepare);
    ASSERT_GE(run.fun.size(), 2u) << run.said;
    const Quiet quiet;
    StepByStep model;
    const std::vector<Panel> velocity = run.panels("velout.H"), image = run.panels("bkgimg.H"),
                             residual = run.panels("dimage.H"), gradient = run.panels("grad.H");
    const auto printed = printed_extremes(run.said);
    ASSERT_EQ(printed.size(), 2 * run.fun.size());
    for (std::size_t k = 0; k < 2; ++k) {
        SCOPED_TRACE(k);
        EXPECT_LT(mismatch(model.image(velocity[k]), image[k]), 1e-4);
        EXPECT_LT(mismatch(model.residual(image[k]), residual[k]), 1e-4);
        double sum = 0.0;
        for (const float r : residual[k]) sum += std::abs(r);
        EXPECT_NEAR(run.fun[k], sum, 1e-5 * sum);
        const std::vector<double> plain = model.plain_gradient(residual[k]);
        const auto [least, most] = std::ranges::minmax(plain);
        EXPECT_NEAR(printed[2 * k].first, most, 1e-4 * std::abs(most)) << "before the conditioning";
        EXPECT_NEAR(printed[2 * k].second, least, 1e-4 * std::abs(least)) << "before the conditioning";
        EXPECT_LT(mismatch(model.conditioned(plain), gradient[k]), 1e-3);
        for (int iz = 0; iz < rows; ++iz)
            for (int ix = 0; ix < columns; ++ix) {
                const auto i = static_cast<std::size_t>(iz * columns + ix);
                if (2 * iz >= std::floor(AllSteps::pick(ix))) continue;
                EXPECT_EQ(velocity[k][i], velocity[0][i]) << "the edit comes before the panel " << ix << " " << iz;
                if (iz > 3) {
                    EXPECT_NE(gradient[k][i], 0.0f) << "no step would be edited here";
                }
            }
    }
    EXPECT_NE(velocity[0], velocity[1]);
}
