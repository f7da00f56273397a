/// Whole runs with each way of conditioning image and gradient, on tiny surveys. Panels of all evaluations are held
/// against the step's own formula, so that what a later one does differently shows too. The described gradient mostly
/// ends in its first line search, after some twenty evaluations; runs with the exact one take two steps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>

#include "lib/class/geodip.h"
#include "src/areal/wemva/fx2d.h"
#include "tests/quiet.h"
#include "tests/tiny_survey.h"

namespace {

using files::TinySurvey;
using Arguments = std::map<std::string, std::string>;
using Panel = std::vector<float>;

constexpr int nx = 16, nz = TinySurvey::nz, first_column = 8;  // the image of the areal survey, cut from the model

/// A survey inverted for two iterations with more arguments.
struct Inverted {
    TinySurvey survey{true};
    std::string said;
    std::vector<double> fun;            ///< of each evaluation
    std::vector<std::string> accepted;  ///< log lines of accepted steps

    explicit Inverted(const Arguments& arguments, const std::function<void(TinySurvey&)>& change = {}) {
        survey.arguments["niter"] = "2";
        for (const auto& [key, value] : arguments) survey.arguments[key] = value;
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
    /// The panels of an output, one an evaluation.
    std::vector<Panel> panels(const std::string& file) const {
        const Panel all = files::read_dataset(survey.dir / file);
        const std::size_t size = all.size() / fun.size();
        std::vector<Panel> result;
        for (auto at = all.begin(); result.size() < fun.size(); at += static_cast<std::ptrdiff_t>(size))
            result.emplace_back(at, at + static_cast<std::ptrdiff_t>(size));
        return result;
    }
};

/// The first gradient of a run with other arguments that starts from a model of velocities.
Panel gradient_at(const Panel& velocity, const Arguments& arguments) {
    const Inverted plain(arguments, [&](TinySurvey& survey) {
        for (std::size_t iz = 0; iz < nz; ++iz)
            for (std::size_t ix = 0; ix < nx; ++ix)
                survey.vel.samples[iz * TinySurvey::nx + first_column + ix] = 1.0f / velocity[iz * nx + ix];
    });
    return plain.panels("grad.H").front();
}

/// Largest difference over the largest value.
double mismatch(const Panel& a, const Panel& b) {
    if (a.size() != b.size()) return INFINITY;
    double difference = 0.0, size = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference = std::max(difference, std::abs(static_cast<double>(a[i]) - b[i]));
        size = std::max(size, std::abs(static_cast<double>(a[i])));
    }
    return difference / size;
}

double sum_of_squares(const Panel& samples) {
    double sum = 0.0;
    for (const float s : samples) sum += static_cast<double>(s) * s;
    return sum;
}

/// Times |h / max h| of a symmetric second axis of n samples; midpoint fastest, depth slowest.
Panel weighted(Panel image, int n) {
    for (std::size_t i = 0; i < image.size(); ++i) {
        const auto ih = static_cast<int>(i / nx) % n;
        image[i] *= std::abs(static_cast<float>(2 * ih - (n - 1)) / static_cast<float>(n - 1));
    }
    return image;
}

}  // namespace

TEST(Conditioning, DipFilteredGradients) {
    const Arguments keys = {{"steer_lags", "4"}, {"steer_triangle", "y"}, {"steer_factor", "0.7"},
                            {"epspoly", "0.5"},  {"steerniter", "8"},     {"frame", "3"}};
    files::Dataset dips;
    dips.axis(1, nz, "10", "0");
    dips.axis(2, nx, "10", "80");
    for (int ix = 0; ix < nx; ++ix)
        for (int iz = 0; iz < nz; ++iz)
            dips.samples.push_back(6.0f * static_cast<float>(ix - 8) + static_cast<float>(iz));
    const files::TempDir dir;
    dips.write(dir / "dips.H");
    std::string horizon;  // with it, rows 1 to 5 of each padded column are held: the frame and two of the image
    for (int ix = 0; ix < nx; ++ix) horizon += "6\n";
    files::write_text(dir / "horizon", horizon);

    for (const bool masked : {false, true}) {
        SCOPED_TRACE(masked ? "masked" : "whole");
        const Arguments plain = masked ? Arguments{{"horv0", dir / "horizon"}} : Arguments{};
        Arguments filtering = plain;
        filtering.insert(keys.begin(), keys.end());
        filtering.insert({{"dipflt", "y"}, {"dipfile", dir / "dips.H"}});
        const Inverted run(filtering);
        ASSERT_GE(run.fun.size(), 2u);

        std::vector<std::string> words = {"test", "dipfile=" + (dir / "dips.H"), "datapath=" + dir.text() + "/"};
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
                ow_geodip(session, {nz, 10.0f, 0.0f, {}}, {nx, 10.0f, 80.0f, {}}, 3,
                          masked ? std::vector<float>(nx, 6.0f) : std::vector<float>(), {g.data(), {nx, nz}});
            }
            EXPECT_LT(mismatch(Panel(g.begin(), g.end()), gradient[k]), 1e-4);
            EXPECT_GT(mismatch(raw, gradient[k]), 0.1) << "the filter changes nothing";
            if (masked) {
                EXPECT_EQ(sum_of_squares(Panel(gradient[k].begin(), gradient[k].begin() + 2 * nx)), 0.0);
            }
        }
    }
}

TEST(Conditioning, ResidualsPredictedAcrossOffset) {
    const Inverted run({{"nxfilt", "5"}, {"nh", "5"}});
    ASSERT_GE(run.fun.size(), 2u);
    const std::vector<Panel> image = run.panels("bkgimg.H"), residual = run.panels("dimage.H");
    FxDesign design;  // patches of 15 by 150, more than the gathers hold
    design.k1 = 2;
    design.k2 = 0;
    for (std::size_t k = 0; k < image.size(); ++k) {
        SCOPED_TRACE(k);
        Panel once = weighted(image[k], 5), predicted(once.size());
        fx2d_lop(design, {once.data(), {nx, 5, nz}}, {predicted.data(), {nx, 5, nz}}, nullptr);
        EXPECT_LT(mismatch(weighted(predicted, 5), residual[k]), 1e-5);
        EXPECT_NEAR(run.fun[k], sum_of_squares(residual[k]), 1e-5 * run.fun[k]);
    }
    // for each evaluation and midpoint one patch of 8 depths, and five coefficients
    EXPECT_EQ(files::read_dataset(run.survey.dir / "oper-fxdecon.H").size(), run.fun.size() * nx * 8 * 5);
}

TEST(Conditioning, ResidualsReweightedByTheirEnvelope) {
    constexpr int nh = 5, windx = 3, windh = 2, windz = 4;
    for (const bool exact : {false, true}) {
        SCOPED_TRACE(exact ? "exact" : "described");
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
    const Inverted run({{"nxk", "5"}, {"oxk", "80"}, {"dxk", "40"}, {"nzk", "3"}, {"dzk", "30"}});
    ASSERT_GE(run.fun.size(), 2u);
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
        for (int knot = 0; knot < 15; ++knot) {
            const auto b = [&](std::size_t i) {
                return basis(static_cast<double>(i % nx) / 4 - knot % 5) *
                       basis(static_cast<double>(i / nx) / 3 - knot / 5);
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
        SCOPED_TRACE(exact ? "exact" : "described");
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
        SCOPED_TRACE(exact ? "exact" : "described");
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
