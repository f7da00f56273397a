/// The program as a black box: whole runs on tiny surveys.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <string_view>

#include "src/areal/wemva/model/base_spline_mod.h"
#include "tests/system/panels.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

using files::Outcome;
using files::TinySurvey;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct LogLine {
    int iter = 0, titer = 0;
    std::string task;
    double fun = 0.0;
    int least = 0, most = 0;
};

/// A pattern of the same length: # stands for a character of a number or its padding, ? for any.
bool laid_out_as(const std::string& text, const std::string& pattern) {
    return std::ranges::equal(text, pattern, [](char c, char p) {
        return p == '?' || (p == '#' ? std::string_view(" 0123456789.+-E*").find(c) != std::string_view::npos : c == p);
    });
}

std::vector<LogLine> read_log(const TinySurvey& survey) {
    std::vector<LogLine> lines;
    for (const std::string& text : files::lines_of(files::read_text(survey.dir / "log"))) {
        if (!laid_out_as(text,
                         " iter = #### titer= #### task = ????? J(x) = ############### min_x =##### max_x =#####")) {
            ADD_FAILURE() << "not laid out as a log line: " << text;
            continue;
        }
        const auto number = [&](std::size_t at, std::size_t width) {
            return std::atof(text.substr(at, width).c_str());
        };
        lines.push_back({static_cast<int>(number(8, 4)), static_cast<int>(number(20, 4)), text.substr(32, 5),
                         number(45, 15), static_cast<int>(number(68, 5)), static_cast<int>(number(81, 5))});
    }
    return lines;
}

int count_evaluations(const std::vector<LogLine>& log) {
    return static_cast<int>(std::count_if(log.begin(), log.end(), [](const LogLine& l) { return l.task[0] == 'F'; }));
}

std::vector<float> panel_of(const std::vector<float>& samples, int panels, int number) {
    const std::size_t size = samples.size() / static_cast<std::size_t>(panels);
    const auto first = samples.begin() + static_cast<std::ptrdiff_t>(size * static_cast<std::size_t>(number - 1));
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

/// Starts morvane with these words, its name in front, in this folder.
pid_t start_in_background(std::vector<std::string> words, const std::string& folder) {
    const pid_t child = fork();
    if (child != 0) return child;
    const std::string program = std::string(MORVANE_BIN_DIR) + "/morvane";
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const bool ready = chdir(folder.c_str()) == 0 && freopen("/dev/null", "r", stdin) &&
                       freopen("/dev/null", "w", stdout) && freopen("/dev/null", "w", stderr);
    if (ready) execv(program.c_str(), argv.data());
    _exit(127);
}

/// Every file of a survey's folder with its bytes, but for what the run prints.
std::map<std::string, std::string> files_of(const TinySurvey& survey) {
    std::map<std::string, std::string> all;
    for (const auto& entry : std::filesystem::directory_iterator(survey.dir.text()))
        if (!entry.path().filename().string().starts_with('.'))
            all[entry.path().filename()] = files::read_text(entry.path());
    return all;
}

struct OutputFile {
    const char *tag, *file;
};
constexpr OutputFile panels[] = {
    {"Velout", "velout.H"}, {"grad", "grad.H"}, {"bkgimg", "bkgimg.H"}, {"Dimage", "dimage.H"}};

}  // namespace

TEST(Driver, OneEvaluationLeavesItsPanelsAndLines) {
    for (const bool areal : {true, false}) {
        SCOPED_TRACE(areal ? "areal" : "per shot");
        TinySurvey survey(areal);
        survey.arguments["bounds"] = "y";
        survey.arguments["p_up"] = survey.arguments["p_lo"] = "20";
        const Outcome run = survey.run();
        ASSERT_EQ(run.status, 0) << run.err;
        const std::vector<LogLine> log = read_log(survey);
        const int evaluations = count_evaluations(log);
        ASSERT_GE(evaluations, 2) << "a start and at least one line-search trial";
        for (int i = 0; i < evaluations; ++i) EXPECT_EQ(log[static_cast<std::size_t>(i)].titer, i + 1);
        EXPECT_EQ(log[0].task, "FG_ST");
        EXPECT_EQ(log[1].task, "FG_LN");
        EXPECT_EQ(log[1].iter, 1) << "trials do not advance the iteration";

        const int nx = areal ? 16 : 24;
        const std::size_t first_column = areal ? 8 : 6;
        std::map<std::string, std::vector<float>> data;
        for (const OutputFile& output : panels) {
            const std::string header = files::read_text(survey.dir / output.file);
            EXPECT_EQ(files::header_value(header, "n4"), std::to_string(evaluations)) << output.tag;
            for (int panel = 1; panel <= evaluations; ++panel)
                EXPECT_THAT(header, HasSubstr("\t\tn4=" + std::to_string(panel) + "\n")) << "one line per panel";
            data[output.tag] = files::read_dataset(survey.dir / output.file);
        }
        const std::size_t samples = static_cast<std::size_t>(nx * TinySurvey::nz);
        EXPECT_EQ(data["Velout"].size(), samples * static_cast<std::size_t>(evaluations));
        EXPECT_EQ(data["grad"].size(), samples * static_cast<std::size_t>(evaluations));
        EXPECT_EQ(data["bkgimg"].size(), 3 * samples * static_cast<std::size_t>(evaluations));
        EXPECT_EQ(data["Dimage"].size(), 3 * samples * static_cast<std::size_t>(evaluations));

        const std::vector<float> start = panel_of(data["Velout"], evaluations, 1);
        float least = INFINITY, most = 0.0f;
        for (std::size_t iz = 0; iz < TinySurvey::nz; ++iz) {
            for (std::size_t ix = 0; ix < static_cast<std::size_t>(nx); ++ix) {
                const float velocity = start[iz * static_cast<std::size_t>(nx) + ix];
                EXPECT_FLOAT_EQ(velocity, 1.0f / survey.vel.samples[iz * TinySurvey::nx + ix + first_column]);
                least = std::min(least, velocity);
                most = std::max(most, velocity);
            }
        }
        EXPECT_EQ(log[0].least, static_cast<int>(least));
        EXPECT_EQ(log[0].most, static_cast<int>(most));
        // the residual carries the weight |h / h_max| = 1, 0, 1 twice: zero offset is gone, the rest is the image
        for (int panel = 1; panel <= evaluations; ++panel) {
            const std::vector<float> image = panel_of(data["bkgimg"], evaluations, panel);
            const std::vector<float> residual = panel_of(data["Dimage"], evaluations, panel);
            for (std::size_t i = 0; i < image.size(); ++i)
                ASSERT_EQ(residual[i], i / static_cast<std::size_t>(nx) % 3 == 1 ? 0.0f : image[i]) << i;
            const double fun = sum_of_squares(residual);
            EXPECT_NEAR(log[static_cast<std::size_t>(panel - 1)].fun, fun, 1e-6 * fun);
        }
        EXPECT_GT(sum_of_squares(panel_of(data["grad"], evaluations, 1)), 0.0);
    }
}

TEST(Driver, InputsFromPipesAreReadForEachEvaluation) {
    TinySurvey survey(true);
    ASSERT_EQ(survey.run().status, 0);
    const std::vector<float> expected = files::read_dataset(survey.dir / "velout.H");
    for (const std::string tag : {"vel", "rec", "sou"}) {
        const std::string header = survey.arguments[tag];
        survey.arguments[tag] = "\"cat " + header + "; printf 'in=stdin\\n\\014\\014\\004'; cat " + header + "@ |\"";
    }
    ASSERT_EQ(survey.run().status, 0);
    EXPECT_GE(count_evaluations(read_log(survey)), 2);
    EXPECT_EQ(files::read_dataset(survey.dir / "velout.H"), expected);
}

TEST(Driver, TheListingTellsTheOrderOfEvents) {
    TinySurvey survey(false);
    ASSERT_EQ(survey.run().status, 0);
    const std::vector<std::string> lines = files::lines_of(files::read_text(survey.dir / "listagem"));
    const std::vector<std::string> one = {
        "EXTRAPOLATED WAVEFIELDS =    1 OUT OF    3 IN ###### min",
        "EXTRAPOLATED WAVEFIELDS =    2 OUT OF    3 IN ###### min",
        "EXTRAPOLATED WAVEFIELDS =    3 OUT OF    3 IN ###### min",
        "COMPUTED BACKGROUND IMAGE IN ########## min OF ITERATION ?    1",
        "EXTRAPOLATED WAVEFIELDS =    1 OUT OF    3 IN ###### min",
        "EXTRAPOLATED WAVEFIELDS =    2 OUT OF    3 IN ###### min",
        "EXTRAPOLATED WAVEFIELDS =    3 OUT OF    3 IN ###### min",
        "        SMOOTHED GRADIENT IN       0.00",
        "    COMPUTED THE GRADIENT IN ########## min OF ITERATION ?    1",
    };
    ASSERT_EQ(lines.size() % one.size(), 0u);
    ASSERT_GE(lines.size(), one.size());
    for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_TRUE(laid_out_as(lines[i], one[i % one.size()])) << lines[i];
}

// Shots imaged one by one, each on a line of its own, add up to the image of the whole line.
TEST(Driver, ShotsLandInTheirColumns) {
    TinySurvey whole(false);
    whole.arguments["niter"] = "1";
    ASSERT_EQ(whole.run().status, 0);
    const int evaluations = count_evaluations(read_log(whole));
    const std::vector<float> line = panel_of(files::read_dataset(whole.dir / "bkgimg.H"), evaluations, 1);
    constexpr std::size_t nx = 24, width = 16, gathers = 3 * TinySurvey::nz, shot_size = 2 * 12 * 3;
    std::vector<float> sum(line.size());
    for (std::size_t shot = 0; shot < 3; ++shot) {
        TinySurvey single(false);
        single.rec.axis(4, 1, "40", std::to_string(100 + 40 * shot));
        const auto first = whole.rec.samples.begin() + static_cast<std::ptrdiff_t>(shot * shot_size);
        single.rec.samples.assign(first, first + static_cast<std::ptrdiff_t>(shot_size));
        ASSERT_EQ(single.run().status, 0);
        const std::vector<float> image =
            panel_of(files::read_dataset(single.dir / "bkgimg.H"), count_evaluations(read_log(single)), 1);
        ASSERT_EQ(image.size(), width * gathers);
        for (std::size_t k = 0; k < gathers; ++k)
            for (std::size_t i = 0; i < width; ++i) sum[k * nx + 4 * shot + i] += image[k * width + i];
    }
    EXPECT_LT(mismatch(line, sum), 1e-6);
}

// Where windows do not overlap, the gradient of the whole line is that of each shot alone, in the columns of its
// window.
TEST(Driver, GradientsLandInTheirColumns) {
    constexpr std::size_t nx = 32, width = 16, shot_size = 2 * 12 * 3;
    TinySurvey whole(false);
    whole.rec.axis(4, 2, "160", "40");
    ASSERT_EQ(whole.run().status, 0);
    const std::vector<float> line =
        panel_of(files::read_dataset(whole.dir / "grad.H"), count_evaluations(read_log(whole)), 1);
    ASSERT_EQ(line.size(), nx * TinySurvey::nz);
    for (std::size_t shot = 0; shot < 2; ++shot) {
        TinySurvey single(false);
        single.rec.axis(4, 1, "160", std::to_string(40 + 160 * shot));
        const auto first = whole.rec.samples.begin() + static_cast<std::ptrdiff_t>(shot * shot_size);
        single.rec.samples.assign(first, first + static_cast<std::ptrdiff_t>(shot_size));
        ASSERT_EQ(single.run().status, 0);
        std::vector<float> window;
        for (std::size_t iz = 0; iz < TinySurvey::nz; ++iz)
            for (std::size_t i = 0; i < width; ++i) window.push_back(line[iz * nx + width * shot + i]);
        EXPECT_LT(mismatch(window, panel_of(files::read_dataset(single.dir / "grad.H"),
                                            count_evaluations(read_log(single)), 1)),
                  1e-6);
    }
}

TEST(Driver, NiterZeroStartsUpAndWritesNothing) {
    TinySurvey survey(true);
    survey.arguments["niter"] = "0";
    survey.arguments["horv0"] = survey.dir / "horizon";
    survey.arguments["nxk"] = "4";
    survey.arguments["dxk"] = "100";
    std::string horizon;
    for (int i = 0; i < 16; ++i) horizon += "20\n";
    files::write_text(survey.dir / "horizon", horizon);
    const Outcome run = survey.run();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(files::read_text(survey.dir / "log"), "");
    EXPECT_EQ(files::read_text(survey.dir / "listagem"), "");
    for (const OutputFile& output : panels) {
        EXPECT_EQ(files::header_value(files::read_text(survey.dir / output.file), "n1"), "16");
        EXPECT_THAT(files::read_dataset(survey.dir / output.file), testing::IsEmpty());
    }
    EXPECT_FALSE(std::filesystem::exists(survey.dir / "iterate.dat")) << "the solver was not called";
    EXPECT_THAT(run.err, EndsWith("morvane: niter=0 asks for no iteration; 0 evaluations, no result\n"));
    EXPECT_THAT(files::read_text(survey.dir / "history"),
                AllOf(HasSubstr("From par: mmax="), HasSubstr("From par: horv0=")));
}

TEST(Driver, TheClosingLineTellsWhyAndWhere) {
    TinySurvey survey(true);
    for (float& sample : survey.rec.samples) sample *= 2.0f;  // single precision changes the last digit of this fun
    survey.arguments["bounds"] = "y";
    survey.arguments["p_up"] = survey.arguments["p_lo"] = "20";
    survey.arguments["quiet"] = "y";
    const Outcome run = survey.run();
    for (const std::string& line : files::lines_of(run.err))
        EXPECT_THAT(line, StartsWith(MORVANE_BIN_DIR "/morvane: ")) << "neither a warning nor the closing line";
    const std::vector<LogLine> log = read_log(survey);
    const int evaluations = count_evaluations(log);
    const std::string closing = files::lines_of(run.err).back();
    const std::vector<std::string> lines = files::lines_of(files::read_text(survey.dir / "log"));
    const std::string last = lines[lines.size() - (log.back().task == "NEW_X" ? 2 : 1)];
    EXPECT_THAT(closing, AllOf(HasSubstr("morvane: "),
                               HasSubstr("; " + std::to_string(evaluations) + " evaluations, fun first " +
                                         lines[0].substr(48, 12) + ", last " + last.substr(48, 12) + ";"),
                               HasSubstr("; result: panel " + std::to_string(evaluations) + " of Velout (" +
                                         survey.dir / "velout.H" + ")")));
    if (log.back().task == "NEW_X")
        EXPECT_THAT(closing, HasSubstr("niter=1 iterations done"));
    else
        EXPECT_THAT(closing, AllOf(HasSubstr("ABNORMAL_TERMINATION_IN_LNSRCH"), HasSubstr("no step was accepted")));

    // held by its bounds from the start, it has nothing to gain from other settings of the first step
    survey.arguments["cbounds"] = "y";
    survey.arguments["vmin"] = survey.arguments["vmax"] = "1800";
    const Outcome held = survey.run();
    EXPECT_THAT(held.err, AllOf(HasSubstr("CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL; 1 evaluations, "),
                                EndsWith("the start model, which already meets the solver's test\n"),
                                Not(HasSubstr("firststep"))));
}

TEST(Driver, TheSolversErrorEndsTheLoopWithoutAnEvaluation) {
    TinySurvey survey(true);
    survey.arguments["bounds"] = "y";
    survey.arguments["p_up"] = "0.2";  // a factor, not 20 percent
    survey.arguments["p_lo"] = "20";
    const Outcome run = survey.run();
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.err, HasSubstr("morvane: warning: p_up=0.2 is below 1 and so a factor, not a percentage"));
    EXPECT_THAT(run.err, HasSubstr("morvane: ERROR: NO FEASIBLE SOLUTION; 0 evaluations, no result\n"));
    EXPECT_EQ(files::read_text(survey.dir / "log"), "");
}

TEST(Driver, AStrictRunThatGetsNowhereEndsWithStatus3) {
    struct Case {
        const char* key;
        const char* value;
        const char* text;
        int status = 3;
    };
    for (const Case& c :
         {Case{"p_up", "0.2", "strict=y: no step was accepted (ERROR: NO FEASIBLE SOLUTION)\n"},
          Case{"extrapolator", "split", "strict=y: extrapolator=split is not known"},
          Case{"imgcon", "none", "strict=y: imgcon=none is not known"},
          Case{"timeshift", "y", "strict=y: timeshift=yes: fun is summed"},
          Case{"nitter", "3", "strict=y: nitter=3 is not read, there is no such key; did you mean niter?", 23},
          Case{"niter", "0", "niter=0 asks for no iteration", 0}}) {
        for (const bool strict : {true, false}) {
            SCOPED_TRACE(c.text);
            TinySurvey survey(true);
            survey.arguments[c.key] = c.value;
            if (strict) survey.arguments["strict"] = "y";
            const Outcome run = survey.run();
            EXPECT_EQ(run.status, strict ? c.status : 0) << run.err;
            EXPECT_EQ(run.err.find(c.text) != std::string::npos, strict || c.status == 0) << run.err;
            EXPECT_EQ(run.out.find(c.text) != std::string::npos, strict && c.status != 0) << run.out;
        }
    }
}

TEST(Driver, BoundsHoldInEveryTrial) {
    struct Case {
        std::map<std::string, std::string> arguments;
        double least, most;  // slowness over start slowness, or velocity with cbounds
    };
    for (const Case& c : {Case{{{"p_up", "1"}, {"p_lo", "1"}}, 0.99, 1.01},  // percentages, not factors
                          Case{{{"p_up", "30"}, {"p_lo", "0.9"}}, 0.9, 1.3},
                          Case{{{"cbounds", "y"}, {"vmin", "1600"}, {"vmax", "2100"}}, 1600, 2100},
                          Case{{{"cbounds", "y"}, {"vmin", "1800"}, {"vmax", "2100"}}, 1800, 2100}}) {
        TinySurvey survey(true);
        survey.arguments["bounds"] = "y";
        for (const auto& [key, value] : c.arguments) survey.arguments[key] = value;
        const bool constant = c.arguments.contains("cbounds");
        const Outcome run = survey.run();
        ASSERT_EQ(run.status, 0);
        EXPECT_EQ(run.err.find("of the start model lie outside") != std::string::npos, c.least == 1800);
        const std::vector<LogLine> log = read_log(survey);
        const int evaluations = count_evaluations(log);
        const std::vector<float> velocity = files::read_dataset(survey.dir / "velout.H");
        double least = INFINITY, most = 0.0;
        for (int panel = 1; panel <= evaluations; ++panel) {
            for (std::size_t i = 0; i < 16 * TinySurvey::nz; ++i) {
                const double v = panel_of(velocity, evaluations, panel)[i];
                const double value = constant ? v : velocity[i] / v;
                least = std::min(least, value);
                most = std::max(most, value);
            }
        }
        // loud data drive the first step to the bounds, on both sides
        EXPECT_NEAR(least, c.least, 2e-6 * c.least);
        EXPECT_NEAR(most, c.most, 2e-6 * c.most);
    }
}

TEST(Driver, AHorizonKeepsTheModelAboveAndMutesTheImage) {
    TinySurvey survey(true);
    survey.arguments["bounds"] = "y";
    survey.arguments["p_up"] = survey.arguments["p_lo"] = "10";
    survey.arguments["horv0"] = survey.dir / "horizon";
    std::string horizon;
    for (int i = 0; i < 16; ++i) horizon += i < 8 ? "30\n" : "45.5 picked\n\n";
    files::write_text(survey.dir / "horizon", horizon);
    ASSERT_EQ(survey.run().status, 0);
    const int evaluations = count_evaluations(read_log(survey));
    ASSERT_GE(evaluations, 2);
    const std::vector<float> velocity = files::read_dataset(survey.dir / "velout.H");
    const std::vector<float> start = panel_of(velocity, evaluations, 1), trial = panel_of(velocity, evaluations, 2);
    const std::vector<float> residual = panel_of(files::read_dataset(survey.dir / "dimage.H"), evaluations, 1);
    double below = 0.0;
    for (std::size_t iz = 0; iz < TinySurvey::nz; ++iz) {
        for (std::size_t ix = 0; ix < 16; ++ix) {
            const double z = 10.0 * static_cast<double>(iz);
            const double pick = ix < 8 ? 30.0 : 45.5;
            if (z < std::floor(pick)) {
                EXPECT_EQ(trial[iz * 16 + ix], start[iz * 16 + ix]) << ix << " " << iz;
            } else {
                below += std::abs(trial[iz * 16 + ix] - start[iz * 16 + ix]);
            }
            for (std::size_t ih = 0; z <= pick && ih < 3; ++ih)
                EXPECT_EQ(residual[(iz * 3 + ih) * 16 + ix], 0.0f) << "at and above the pick";
        }
    }
    EXPECT_GT(below, 0.0);
    EXPECT_GT(sum_of_squares(residual), 0.0);
}

TEST(Driver, KnotsProjectTheGradient) {
    TinySurvey plain(true), knots(true);
    knots.arguments["nxk"] = "5";
    knots.arguments["oxk"] = "80";
    knots.arguments["dxk"] = "40";
    knots.arguments["nzk"] = "3";
    knots.arguments["dzk"] = "30";
    ASSERT_EQ(plain.run().status, 0);
    ASSERT_EQ(knots.run().status, 0);
    const auto gradient = [](const TinySurvey& survey) {
        return panel_of(files::read_dataset(survey.dir / "grad.H"), count_evaluations(read_log(survey)), 1);
    };
    const std::vector<float> raw = gradient(plain);
    std::vector<double> g(raw.begin(), raw.end()), coefficients(15);
    const base_spln2d spline =
        base_spln2d_init({16, 10.0f, 80.0f, {}}, {8, 10.0f, 0.0f, {}}, {5, 40.0f, 80.0f, {}}, {3, 30.0f, 0.0f, {}}, 1);
    base_spln2d_oper(spline, true, false, coefficients, g);
    base_spln2d_oper(spline, false, false, coefficients, g);
    EXPECT_LT(mismatch(std::vector<float>(g.begin(), g.end()), gradient(knots)), 1e-6);
    EXPECT_GT(mismatch(raw, gradient(knots)), 0.1);
}

TEST(Driver, WithTheExactGradientKnotsAreTheVariablesAndTheFirstStepIsTheOneAskedFor) {
    TinySurvey survey(true);
    for (const char* key : {"bounds", "p_up", "p_lo"}) survey.arguments.erase(key);  // natural ones then
    const std::map<std::string, std::string> more = {{"gradient", "exact"}, {"firststep", "0.02"}, {"niter", "2"},
                                                     {"nxk", "2"},          {"oxk", "80"},         {"dxk", "30"},
                                                     {"nzk", "3"},          {"dzk", "30"}};
    for (const auto& [key, value] : more) survey.arguments[key] = value;
    const Outcome run = survey.run();
    const std::vector<LogLine> log = read_log(survey);
    const int evaluations = count_evaluations(log);
    EXPECT_THAT(run.err, HasSubstr("niter=2 iterations done"));
    EXPECT_LT(log.back().fun, log.front().fun);
    const std::vector<float> velocity = files::read_dataset(survey.dir / "velout.H"),
                             residual = files::read_dataset(survey.dir / "dimage.H");
    const double fun = sum_of_squares(panel_of(residual, evaluations, 1));
    EXPECT_NEAR(log.front().fun, fun, 2e-6 * fun) << "the log shows fun as it is, not scaled";
    const std::vector<float> start = panel_of(velocity, evaluations, 1), first = panel_of(velocity, evaluations, 2);
    double moved = 0.0;
    for (std::size_t i = 0; i < start.size(); ++i) {
        moved = std::max(moved, std::abs(static_cast<double>(start[i]) / first[i] - 1.0));
        if (i % 16 > 8) {
            EXPECT_EQ(first[i], start[i]) << "column " << i % 16 << " lies beyond the knots";
        }
    }
    EXPECT_LE(moved, 0.02 * (1.0 + 1e-5));
    EXPECT_GT(moved, 0.005);
}

TEST(Driver, AFirstStepOutOfProportionIsWarnedAboutWithTheKeyThatScalesIt) {
    struct Case {
        const char* warning;
        std::map<std::string, std::string> arguments;
        std::vector<const char*> without;
        int status;
    };
    for (const Case& c : {
             Case{"warning: the first trial will put 112 of 112 variables on a bound; firststep=0.03", {}, {}, 0},
             Case{"warning: the first trial will change slowness by up to ", {}, {"bounds"}, 0},
             Case{"p_lo=-5: gradient=exact needs",
                  {{"gradient", "exact"}, {"p_lo", "-5"}, {"firststep", "0.1"}},
                  {},
                  23},
             Case{"warning: the first trial will change slowness by up to ",
                  {{"gradient", "exact"},
                   {"nxk", "2"},
                   {"dxk", "40"},
                   {"oxk", "80"},
                   {"nzk", "2"},
                   {"dzk", "40"},
                   {"extrapolator", "pspi"},
                   {"vsal", "9000"}},
                  {"bounds"},
                  0},
             Case{"", {{"gradient", "exact"}, {"firststep", "0.03"}}, {"bounds"}, 0},
         }) {
        SCOPED_TRACE(c.warning);
        TinySurvey survey(true);
        for (const auto& [key, value] : c.arguments) survey.arguments[key] = value;
        for (const char* key : c.without) survey.arguments.erase(key);
        const Outcome run = survey.run();
        EXPECT_EQ(run.status, c.status);
        EXPECT_THAT(run.err, HasSubstr(c.warning));
        EXPECT_EQ(run.err.find("the first trial") == std::string::npos, c.arguments.contains("firststep"));
        const std::size_t said = run.err.find(" of 128 samples of the trial model are not positive (least ");
        EXPECT_EQ(said != std::string::npos, c.arguments.empty() && !c.without.empty()) << "the run goes on";
        EXPECT_EQ(run.err.find("samples of the trial model", said + 20), std::string::npos) << "said once";
    }
}

TEST(Driver, ObjectiveVariants) {
    TinySurvey l1(true), shifts(true);
    l1.arguments["l1norm"] = "y";
    ASSERT_EQ(l1.run().status, 0);
    double sum = 0.0;
    for (const float r : panel_of(files::read_dataset(l1.dir / "dimage.H"), count_evaluations(read_log(l1)), 1))
        sum += std::abs(r);
    EXPECT_NEAR(read_log(l1)[0].fun, sum, 1e-6 * sum);

    shifts.arguments["timeshift"] = "y";
    shifts.arguments["nth"] = "5";
    shifts.arguments["oth"] = "-0.008";
    ASSERT_EQ(shifts.run().status, 0);
    EXPECT_EQ(read_log(shifts)[0].fun, 0.0) << "the offset axis it is summed over is empty";
    EXPECT_GT(sum_of_squares(files::read_dataset(shifts.dir / "bkgimg.H")), 0.0);
}

TEST(Driver, ShotsOfZerosGiveEmptyPanels) {
    TinySurvey survey(false);
    std::ranges::fill(survey.rec.samples, 0.0f);
    survey.arguments["niter"] = "3";
    const Outcome run = survey.run();
    ASSERT_EQ(run.status, 0) << run.err;
    const std::vector<LogLine> log = read_log(survey);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].fun, 0.0);
    EXPECT_THAT(run.err, HasSubstr("warning: evaluation 1: fun is 0, and no model lowers it: check rec and sou"));
    EXPECT_THAT(run.err, HasSubstr("CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL; 1 evaluations"));
    EXPECT_THAT(run.err, EndsWith("the start model, which already meets the solver's test\n"));
    EXPECT_EQ(sum_of_squares(files::read_dataset(survey.dir / "bkgimg.H")), 0.0);
    survey.arguments["strict"] = "y";
    const Outcome strict = survey.run();
    EXPECT_EQ(strict.status, 3);
    EXPECT_THAT(strict.err, HasSubstr("morvane: strict=y: evaluation 1: fun is 0, and no model lowers it"));
}

TEST(Driver, PspiAndClusteringRun) {
    for (const auto& arguments : {std::map<std::string, std::string>{{"vsal", "5000"}, {"nrefvel", "2"}},
                                  std::map<std::string, std::string>{{"lloyd", "y"}, {"nrefvel", "3"}}}) {
        TinySurvey survey(false);
        survey.arguments["extrapolator"] = "pspi";
        for (const auto& [key, value] : arguments) survey.arguments[key] = value;
        const Outcome run = survey.run();
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_GT(read_log(survey).at(0).fun, 0.0);
    }
}

// A row for each evaluation tells what was accepted; best holds the accepted model of the greatest fit.
TEST(Driver, CourseAndBestFollowTheRunUntilFitNoLongerRises) {
    for (const auto& [rise, patience, stops] : {std::tuple("0", "9", false), {"0.9", "1", true}}) {
        TinySurvey survey(false);
        for (const auto& [key, value] : std::map<std::string, std::string>{{"gradient", "exact"},
                                                                           {"firststep", "0.02"},
                                                                           {"niter", "5"},
                                                                           {"regularise", "0.1"},
                                                                           {"reg_x", "30"},
                                                                           {"stop", "fit"},
                                                                           {"stop_rise", rise},
                                                                           {"stop_patience", patience},
                                                                           {"course", survey.dir / "course.csv"},
                                                                           {"best", survey.dir / "best.H"}})
            survey.arguments[key] = value;
        const Outcome run = survey.run();
        ASSERT_EQ(run.status, 0) << run.err;
        std::vector<std::string> log_of_evaluations, accepted = {"1"};
        for (const std::string& line : files::lines_of(files::read_text(survey.dir / "log"))) {
            if (line.find("NEW_X") == std::string::npos)
                log_of_evaluations.push_back(line);
            else
                accepted.push_back(std::to_string(std::stoi(line.substr(20, 4)) - 1));
        }
        const std::vector<std::string> rows = files::lines_of(files::read_text(survey.dir / "course.csv"));
        ASSERT_EQ(rows.size(), log_of_evaluations.size() + 1);
        EXPECT_EQ(rows[0],
                  "evaluation,iteration,stage,accepted,fun,data,regularisation,gradient,step,share,fit,"
                  "seconds,processor_seconds");
        std::vector<std::string> marked;
        std::string best;
        double greatest = -2.0;
        for (std::size_t i = 1; i < rows.size(); ++i) {
            std::vector<double> cells;
            std::stringstream stream(rows[i]);
            for (std::string cell; std::getline(stream, cell, ',');) cells.push_back(std::stod(cell));
            ASSERT_EQ(cells.size(), 13u) << rows[i];
            EXPECT_GT(cells[11], 0.0);
            EXPECT_GT(cells[12], 0.0);
            EXPECT_LT(cells[12], 2.0 * cells[11] + 0.1) << "one thread";
            EXPECT_EQ(cells[0], static_cast<double>(i));
            EXPECT_NEAR(cells[4], cells[5] + cells[6], 1e-7 * cells[4]);
            EXPECT_NEAR(cells[4], std::stod(log_of_evaluations[i - 1].substr(45, 15)), 1e-6 * cells[4]);
            EXPECT_EQ(cells[8] > 0.0, i > 1) << "the largest step from the model accepted before";
            EXPECT_LE(std::abs(cells[10]), 1.0);
            if (cells[3] != 1.0) continue;
            marked.push_back(std::to_string(i));
            if (cells[10] > greatest) {
                greatest = cells[10];
                best = marked.back();
            }
        }
        EXPECT_EQ(marked, accepted);
        EXPECT_THAT(run.err, HasSubstr(", greatest " + std::to_string(greatest).substr(0, 6)));
        EXPECT_THAT(run.err, HasSubstr(" at panel " + best + " (best=" + survey.dir / "best.H" + "); result: panel "));
        EXPECT_EQ(run.err.find("morvane: stop=fit: fit rose by ") != std::string::npos, stops) << run.err;
        EXPECT_EQ(accepted.size() == 2, stops);
        const std::vector<float> model = files::read_dataset(survey.dir / "best.H");
        const std::vector<float> velocity =
            panel_of(files::read_dataset(survey.dir / "velout.H"), static_cast<int>(rows.size()) - 1, std::stoi(best));
        ASSERT_EQ(model.size(), velocity.size());
        for (std::size_t i = 0; i < model.size(); ++i) ASSERT_NEAR(model[i] * velocity[i], 1.0f, 1e-6f);
    }
}

// A stage goes on from the model that the one before accepted last, with knots and a count of its own.
TEST(Driver, StagesContinueEachOther) {
    TinySurvey survey(false);
    files::write_text(survey.dir / "stages", "niter=2   # coarse\n\nniter=1 dxk=40 dzk=20 expdso=0.5 firststep=0.01\n");
    for (const auto& [key, value] : std::map<std::string, std::string>{{"gradient", "exact"},
                                                                       {"firststep", "0.02"},
                                                                       {"nxk", "5"},
                                                                       {"dxk", "80"},
                                                                       {"oxk", "0"},
                                                                       {"nzk", "4"},
                                                                       {"dzk", "40"},
                                                                       {"ozk", "-20"},
                                                                       {"course", survey.dir / "course.csv"},
                                                                       {"stages", survey.dir / "stages"}})
        survey.arguments[key] = value;
    const Outcome run = survey.run();
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string log = files::read_text(survey.dir / "log");
    EXPECT_THAT(log, StartsWith(" stage = 1 of 2: niter=2"));
    EXPECT_THAT(log, HasSubstr("\n stage = 2 of 2: niter=1 dxk=40 dzk=20 expdso=0.5 firststep=0.01\n"));
    const std::vector<std::string> rows = files::lines_of(files::read_text(survey.dir / "course.csv"));
    const int evaluations = static_cast<int>(rows.size()) - 1;
    int first = 0, before = 0;  // of the second stage; accepted last in the first
    for (int i = 1; i <= evaluations; ++i) {
        const std::string& row = rows[static_cast<std::size_t>(i)];
        int evaluation = 0, iteration = 0, stage = 0, accepted = 0;
        ASSERT_EQ(std::sscanf(row.c_str(), "%d,%d,%d,%d,", &evaluation, &iteration, &stage, &accepted), 4);
        EXPECT_EQ(evaluation, i);
        EXPECT_EQ(iteration >= 3, stage == 2);
        if (stage == 2 && first == 0) first = i;
        if (stage == 1 && accepted == 1) before = i;
    }
    ASSERT_GT(before, 1);
    ASSERT_GT(evaluations, first);
    ASSERT_EQ(files::header_value(files::read_text(survey.dir / "velout.H"), "n4"), std::to_string(evaluations));
    const std::vector<float> models = files::read_dataset(survey.dir / "velout.H");
    EXPECT_EQ(panel_of(models, evaluations, first), panel_of(models, evaluations, before));
    EXPECT_LT(mismatch(panel_of(models, evaluations, evaluations), panel_of(models, evaluations, first)), 0.011);
    EXPECT_NE(panel_of(models, evaluations, evaluations), panel_of(models, evaluations, first));
}

// What a stage leaves out counts as if it were not there: frequencies as zeros in the data, offsets as a run of fewer.
TEST(Driver, AStageTakesAPartOfFrequenciesAndOffsets) {
    const auto set_up = [](TinySurvey& survey, const std::string& nh, const std::string& stage) {
        files::write_text(survey.dir / "stages", stage);
        for (const auto& [key, value] : std::map<std::string, std::string>{
                 {"gradient", "exact"}, {"firststep", "0.02"}, {"nh", nh}, {"stages", survey.dir / "stages"}})
            survey.arguments[key] = value;
    };
    for (const bool areal : {false, true}) {
        TinySurvey whole(areal), part(areal);
        set_up(whole, "3", "niter=1");
        set_up(part, "5", "niter=1 fmin=12 fmax=14 nh=3");
        const std::size_t plane = 2 * TinySurvey::traces;
        for (std::size_t i = 0; i < whole.rec.samples.size(); ++i)
            if (i / plane % TinySurvey::frequencies != 1) whole.rec.samples[i] = 0.0f;
        for (const TinySurvey* survey : {&whole, &part}) {
            const Outcome run = survey->run();
            ASSERT_EQ(run.status, 0) << run.err;
        }
        EXPECT_EQ(files::read_dataset(part.dir / "velout.H"), files::read_dataset(whole.dir / "velout.H"));
        EXPECT_EQ(files::read_text(part.dir / "grad.H@"), files::read_text(whole.dir / "grad.H@"));
        const std::vector<float> wide = files::read_dataset(part.dir / "bkgimg.H"),
                                 narrow = files::read_dataset(whole.dir / "bkgimg.H");
        ASSERT_EQ(3 * wide.size(), 5 * narrow.size());
        const std::size_t nx = narrow.size() / 3 / TinySurvey::nz /
                               std::stoul(files::header_value(files::read_text(whole.dir / "bkgimg.H"), "n4"));
        for (std::size_t i = 0; i < wide.size(); ++i) {
            const std::size_t offset = i / nx % 5, rest = i / nx / 5;
            const float expected = offset == 0 || offset == 4 ? 0.0f : narrow[(rest * 3 + offset - 1) * nx + i % nx];
            ASSERT_EQ(wide[i], expected) << i;
        }
    }
}

// Bounds of a stage count from the start model of the run or of the stage.
TEST(Driver, KeptFieldsLeaveTheSameFiles) {
    std::vector<std::string> expected;
    for (const char* keep : {"n", "auto", "1e-6", "1e-4"}) {  // all shots, none, some of three
        TinySurvey survey(false);
        for (const auto& [key, value] : std::map<std::string, std::string>{{"gradient", "exact"},
                                                                           {"firststep", "0.02"},
                                                                           {"niter", "3"},
                                                                           {"fit", "y"},
                                                                           {"node", "2"},
                                                                           {"reproducible", "y"},
                                                                           {"keep", keep}})
            survey.arguments[key] = value;
        const Outcome run = survey.run();
        ASSERT_EQ(run.status, 0) << run.err;
        std::vector<std::string> left;
        for (const char* name : {"velout.H@", "grad.H@", "bkgimg.H@"})
            left.push_back(files::read_text(survey.dir / name));
        if (expected.empty()) expected = left;
        EXPECT_EQ(left, expected) << keep;
    }
}

TEST(Driver, BoundsOfAStage) {
    for (const auto& [words, most] :
         {std::pair("p_up=1 p_lo=1 bounds_of=run", 0.0101), std::pair("p_up=1 p_lo=1 bounds_of=stage", 0.0202)}) {
        TinySurvey survey(false);
        files::write_text(survey.dir / "stages", "niter=1 p_up=1 p_lo=1\nniter=2 firststep=0.1 " + std::string(words));
        survey.arguments["gradient"] = "exact";
        survey.arguments["firststep"] = "0.1";
        survey.arguments["stages"] = survey.dir / "stages";
        const Outcome run = survey.run();
        ASSERT_EQ(run.status, 0) << run.err;
        const std::vector<float> models = files::read_dataset(survey.dir / "velout.H");
        const int panels = std::stoi(files::header_value(files::read_text(survey.dir / "velout.H"), "n4"));
        double largest = 0.0;
        for (int panel = 2; panel <= panels; ++panel) {
            const std::vector<float> model = panel_of(models, panels, panel), start = panel_of(models, panels, 1);
            for (std::size_t i = 0; i < model.size(); ++i)
                largest = std::max(largest, std::abs(static_cast<double>(start[i]) / model[i] - 1.0));
        }
        EXPECT_LT(largest, most) << words;
        EXPECT_GT(largest, 0.9 * most) << words;
    }
}

TEST(Driver, ASingleThreadedRunRepeatsItselfBitByBit) {
    TinySurvey a(false), b(false);
    for (TinySurvey* survey : {&a, &b}) {
        survey->arguments.erase("fftplan");
        survey->arguments["niter"] = "2";
        survey->arguments["bounds"] = "y";
        survey->arguments["p_up"] = survey->arguments["p_lo"] = "5";
        ASSERT_EQ(survey->run().status, 0);
    }
    for (const OutputFile& output : panels)
        EXPECT_EQ(files::read_text(a.dir / output.file + "@"), files::read_text(b.dir / output.file + "@"));
    EXPECT_EQ(files::read_text(a.dir / "log"), files::read_text(b.dir / "log"));
}

TEST(Driver, AFatalErrorGoesToBothStreamsWithStatus23) {
    struct Case {
        const char* text;
        std::function<void(TinySurvey&)> change;
    };
    for (const Case& c : {
             Case{"# source freq. .ne. # receiver freq.", [](TinySurvey& s) { s.sou.header["n3"] = "2"; }},
             Case{"dipop=44: permitted are 15, 45, 65, 79, 80, 87, 89 and 90\n",
                  [](TinySurvey& s) { s.arguments["dipop"] = "44"; }},
             Case{"missing parameter value: vmax\n",
                  [](TinySurvey& s) {
                      s.arguments["bounds"] = s.arguments["cbounds"] = "y", s.arguments["vmin"] = "1000";
                  }},
             Case{"vmin=0: a velocity greater than 0 is needed\n",
                  [](TinySurvey& s) {
                      s.arguments["bounds"] = s.arguments["cbounds"] = "y";
                      s.arguments["vmin"] = "0", s.arguments["vmax"] = "5000";
                  }},
             Case{"missing parameter value: p_lo\n", [](TinySurvey& s) { s.arguments.erase("p_lo"); }},
             Case{"mmax=100000000: 1e+08 correction pairs of 128 variables are more than the solver can number; fewer "
                  "are "
                  "needed\n",
                  [](TinySurvey& s) { s.arguments["mmax"] = "100000000"; }},
             Case{"mmax=20: 20 correction pairs of 1e+08 variables are more than the solver can number; fewer are "
                  "needed\n",
                  [](TinySurvey& s) {
                      s.arguments["gradient"] = "exact", s.arguments["mmax"] = "20";
                      s.arguments["nxk"] = s.arguments["nzk"] = "10000";
                  }},
             Case{"horv0=absent: cannot read this horizon file: No such file or directory\n",
                  [](TinySurvey& s) { s.arguments["horv0"] = "absent"; }},
             Case{
                 "vspl: the spline-only path reads the axes of vel and the knots, and then there is nothing to invert; "
                 "leave vspl out\n",
                 [](TinySurvey& s) { s.arguments["vspl"] = "y"; }},
             Case{"vel: 1 of 128 samples within the image are not positive and finite, the first in column 1, level 1 "
                  "(0): "
                  "the dataset must hold slowness, greater than 0\n",
                  [](TinySurvey& s) { s.vel.samples[8] = 0.0f; }},
             Case{"rec: shot 2 holds 1 of 72 numbers that are not finite\n",
                  [](TinySurvey& s) { s.rec.samples[100] = NAN; }},
             Case{"evaluation 1: normalise=yes divides by the energy of the image, which is 0 where it counts in fun: "
                  "check rec, sou, fun_xmin and fun_xmax\n",
                  [](TinySurvey& s) {
                      s.arguments["gradient"] = "exact", s.arguments["normalise"] = "y";
                      std::ranges::fill(s.sou.samples, 0.0f);
                  }},
             Case{"evaluation 1: fun is not finite (inf): squares of the image residual leave the range of single "
                  "precision; scale rec and sou down, or check the units\n",
                  [](TinySurvey& s) {
                      s.arguments["imgcon"] = "imgmult";  // whose gradient is zero
                      for (float& sample : s.rec.samples) sample *= 1e12f;
                  }},
         }) {
        SCOPED_TRACE(c.text);
        TinySurvey survey(true);
        c.change(survey);
        const Outcome run = survey.run();
        EXPECT_EQ(run.status, 23);
        EXPECT_THAT(run.err, EndsWith("morvane: " + std::string(c.text)));
        EXPECT_THAT(run.out, EndsWith("morvane: " + std::string(c.text)));
    }
}

TEST(Driver, NothingOfAnEarlierRunIsTouchedBeforeEveryCheckHasPassed) {
    TinySurvey survey(true);
    survey.arguments["niter"] = "1";
    ASSERT_EQ(survey.run().status, 0);
    const std::string d = survey.dir.text() + "/";
    std::filesystem::create_hard_link(d + "rec.H@", d + "hard");
    std::string horizon;
    for (int column = 0; column < 16; ++column) horizon += "0\n";
    files::write_text(d + "horizon", horizon);
    const std::map<std::string, std::string> before = files_of(survey);
    ASSERT_THAT(before.at("velout.H"), HasSubstr("in="));
    using Arguments = std::map<std::string, std::string>;
    const struct {
        Arguments arguments;
        int status;
        std::string message;
    } rows[] = {
        {{{"horv0", "absent"}}, 23, "horv0=absent: cannot read"},
        {{{"log", "/nowhere/l"}}, 23, "log=/nowhere/l: cannot create this file"},
        {{{"Dimage", "/nowhere/d.H"}}, 23, "cannot create output header \"/nowhere/d.H\""},
        {{{"grad.out", "/nowhere/d"}}, 23, "srite(): invalid output tag grad\n"},
        {{{"nxfilt", "1"}, {"oper-fxdecon.H", "/nowhere/o"}}, 23, "cannot create output header \"/nowhere/o\""},
        {{{"mmax", "0"}}, 0, "ERROR: M .LE. 0; 0 evaluations, no result"},
        {{{"p_up", "-5"}}, 0, "ERROR: NO FEASIBLE SOLUTION; 0 evaluations, no result"},
        {{{"list", d + "./velout.H"}}, 23, ": this is header \"" + d + "velout.H\" of tag \"Velout\""},
        {{{"log", d + "hard"}}, 23, ": this is the data file of header \"" + d + "rec.H\" of tag \"rec\""},
        {{{"log", d + "iterate.dat"}}, 23, "iterate.dat: this is log="},
        {{{"grad", d + "./vel.H"}}, 23, "(parameter grad) is the file of header \"" + d + "vel.H\" of tag \"vel\""},
        {{{"nxfilt", "1"}, {"oper-fxdecon.H", d + "rec.H"}}, 23, "(parameter oper-fxdecon.H) is the file of header"},
        {{{"head", d + "log"}}, 23, "log=" + d + "log: this is header"},
        {{{"head", d + "vel.H"}}, 23, "is the file of header \"" + d + "vel.H\" of tag \"vel\""},
        {{{"out", d + "hard"}}, 23, "for tag \"out\" is the data file of header \"" + d + "rec.H\" of tag \"rec\""},
        {{{"horv0", "horizon"}, {"log", d + "horizon"}}, 23, "log=" + d + "horizon: this is horv0=horizon"},
        {{{"horv0", "horizon"}, {"grad", d + "horizon"}}, 23, "(parameter grad) is horv0=horizon"},
        {{{"gradient", "exact"}, {"course", d + "rec.H@"}}, 23, ": this is the data file of header \"" + d + "rec.H\""},
        {{{"gradient", "exact"}, {"best", d + "vel.H"}}, 23, "(parameter best) is the file of header"},
        {{{"gradient", "exact"}, {"stages", d + "absent"}}, 23, "absent: cannot read this file: No such file"},
        {{{"gradient", "exact"}, {"stages", d + "horizon"}}, 23, "horizon: line 1 has "},
    };
    const Arguments first = survey.arguments;
    for (const auto& row : rows) {
        survey.arguments = row.arguments;
        survey.arguments.insert(first.begin(), first.end());
        const Outcome run = survey.run();
        EXPECT_EQ(run.status, row.status) << row.message;
        EXPECT_THAT(run.err, HasSubstr(row.message));
        EXPECT_TRUE(files_of(survey) == before) << row.message;
    }
}

TEST(Driver, ASecondRunOnTheSameOutputsIsRefusedWithTheFirstOnesProcess) {
    TinySurvey survey(true);
    survey.arguments["list"] = survey.dir / "progress";
    ASSERT_EQ(mkfifo((survey.dir / "progress").c_str(), 0600), 0);
    const std::vector<std::string> words_of_first = survey.command();
    const std::string d = survey.dir.text() + "/";
    std::filesystem::create_directory(d + "sub");
    const pid_t first = start_in_background(words_of_first, d);
    {
        std::ifstream progress(d + "progress");
        std::string line;
        ASSERT_TRUE(std::getline(progress, line));  // its first evaluation is under way
        kill(first, SIGSTOP);
        char host[256] = "";
        gethostname(host, sizeof host);
        const std::string holder = "is being written by process " + std::to_string(first) + " on " + host + ": ";
        const std::map<std::string, std::string> other{
            {"Velout", "sub/v.H"}, {"grad", "sub/g.H"}, {"bkgimg", "sub/b.H"}, {"Dimage", "sub/d.H"},
            {"log", "l"},          {"list", "p"},       {"head", "h"}};
        for (const auto& [key, value] : std::map<std::string, std::string>{
                 {"Velout", d + "velout.H"}, {"grad.out", d + "grad.H@"}, {"log", d + "log"}, {"iterate.dat", ""}}) {
            std::vector<std::string> words(words_of_first.begin() + 1, words_of_first.end());
            for (const auto& [name, file] : other) words.push_back(name + "=" + d + file);
            words.push_back(key + "=" + value);
            const Outcome second = files::run_program("morvane", words, survey.dir.text());
            EXPECT_EQ(second.status, 23) << key;
            EXPECT_THAT(second.err, HasSubstr(holder)) << key;
            EXPECT_TRUE(std::filesystem::is_empty(d + "sub")) << key;
        }
        kill(first, SIGKILL);
        waitpid(first, nullptr, 0);
    }
    survey.arguments["list"] = d + "listagem";
    EXPECT_EQ(survey.run().status, 0) << "the lock of a dead run does not hold";
}

TEST(Driver, MissingInputFilesAreNamed) {
    for (const char* tag : {"vel", "rec", "sou"}) {
        TinySurvey survey(true);
        survey.arguments[tag] = "absent.H";
        const Outcome header = survey.run();
        EXPECT_EQ(header.status, 23);
        EXPECT_THAT(header.err, HasSubstr("morvane: Attempt to get parameter n1 from tag " + std::string(tag) +
                                          " which is not a valid description file"));
        EXPECT_THAT(header.err, HasSubstr("absent.H"));

        TinySurvey no_data(true);
        std::vector<std::string> words = no_data.command();
        words.erase(words.begin());
        std::filesystem::remove(no_data.dir / (std::string(tag) + ".H@"));
        const Outcome data = files::run_program("morvane", words, no_data.dir.text());
        EXPECT_EQ(data.status, 23);
        EXPECT_THAT(data.err, HasSubstr("morvane: sreed(): invalid input tag " + std::string(tag) + "\n"));
        EXPECT_FALSE(std::filesystem::exists(no_data.dir / "velout.H")) << "an earlier result would have been lost";
    }
}

TEST(Driver, LoudDataEndTheRunAfterThePanelThatShowsIt) {
    TinySurvey survey(true);
    for (float& sample : survey.rec.samples) sample *= 1e30f;
    for (float& sample : survey.sou.samples) sample *= 1e30f;
    const Outcome run = survey.run();
    EXPECT_EQ(run.status, 23);
    EXPECT_THAT(run.err, HasSubstr("samples of the stacked image are not finite; likely cause: numbers too large for "
                                   "single precision: scale rec and sou down, or check the units\n"));
    EXPECT_EQ(files::read_dataset(survey.dir / "bkgimg.H").size(), 16u * 3 * 8);
    EXPECT_EQ(files::header_value(files::read_text(survey.dir / "bkgimg.H"), "n4"), "1");
}

TEST(Driver, AFileSizeLimitIsAFailedWriteThatKeepsThePanelsBefore) {
    TinySurvey survey(true);
    constexpr std::size_t nh = 501, limit = 1 << 20;  // the thread sanitizer needs half of that for a file of its own
    survey.arguments["nh"] = std::to_string(nh);
    const Outcome run = survey.run("prlimit --fsize=" + std::to_string(limit));
    EXPECT_EQ(run.status, 23);
    EXPECT_THAT(run.err, HasSubstr("bkgimg"));
    EXPECT_EQ(files::read_text(survey.dir / "bkgimg.H@").size(), limit);
    EXPECT_EQ(files::read_dataset(survey.dir / "velout.H").size() / (16 * 8), 1 + limit / (4 * 16 * nh * 8));
}

TEST(Driver, AKilledRunLeavesReadableOutputs) {
    TinySurvey survey(true);
    std::vector<std::string> words = survey.command();
    const std::string pipe_name = survey.dir / "progress";
    ASSERT_EQ(mkfifo(pipe_name.c_str(), 0600), 0);
    words.push_back("list=" + pipe_name);
    const pid_t child = start_in_background(words, survey.dir.text());
    {
        std::ifstream progress(pipe_name);
        int evaluations = 0;
        for (std::string line; evaluations < 3 && std::getline(progress, line);)
            if (line.find("COMPUTED THE GRADIENT") != std::string::npos) ++evaluations;
        kill(child, SIGKILL);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        ASSERT_EQ(evaluations, 3) << "the run ended by itself";
    }
    EXPECT_GE(read_log(survey).size(), 2u) << "lines reach the log at once";
    for (const OutputFile& output : panels) {
        const std::string header = files::read_text(survey.dir / output.file);
        const int n4 = std::atoi(files::header_value(header, "n4").c_str());
        EXPECT_GE(n4, 3 - (std::string(output.tag) == "grad")) << output.tag;
        const std::size_t panel = (output.tag[0] == 'V' || output.tag[0] == 'g' ? 1u : 3u) * 16u * 8u;
        const std::vector<float> samples = files::read_dataset(survey.dir / output.file);
        EXPECT_GE(samples.size(), panel * static_cast<std::size_t>(n4 - 1)) << "earlier panels were not in the file";
        EXPECT_EQ(files::header_value(header, "data_format"), "xdr_float");
    }
}

TEST(Driver, DebugAndWavefieldOutputs) {
    TinySurvey survey(false);
    for (const char* tag : {"xxx", "zzz", "ddws"}) survey.arguments[tag] = survey.dir / (std::string(tag) + ".H");
    const Outcome run = survey.run();
    ASSERT_EQ(run.status, 0) << run.err;
    const std::size_t evaluations = static_cast<std::size_t>(count_evaluations(read_log(survey)));
    EXPECT_EQ(files::read_dataset(survey.dir / "xxx.H").size(), 24u * 8);
    EXPECT_EQ(files::read_dataset(survey.dir / "zzz.H").size(), evaluations * 2 * 3 * 16 * 8)
        << "two passes, three shots";
    EXPECT_EQ(files::read_dataset(survey.dir / "ddws.H").size(), evaluations * 3 * 2 * 16 * 8 * 3);
}

TEST(Driver, HelpNamesTheRequiredKeysAndTheManual) {
    for (const char* word : {"--help", "-h"}) {
        const files::TempDir dir;
        const Outcome run = files::run_program("morvane", {word}, dir.text());
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.err, "");
        for (const char* part : {"vel=", "rec=", "sou=", "inversion=y", "zmax=", "Velout=", "docs/parameters.md",
                                 "\nDip filter, with dipflt=y\n", "\n  steer_lags=0 samples ", "\n  timeout=5 s "})
            EXPECT_THAT(run.out, HasSubstr(part));
    }
    for (const std::string program :
         {"morvane", "morvane_synth", "morvane_score", "morvane_taylor", "morvane_prepare", "qas"}) {
        if (!std::filesystem::exists(MORVANE_BIN_DIR "/" + program)) continue;  // without libsegyio
        const files::TempDir dir;
        const Outcome run = files::run_program(program, {"--version"}, dir.text());
        EXPECT_THAT(run.out, testing::MatchesRegex(program + "( [(]morvane[)])? [0-9.]+( [(]commit [0-9a-f]+[)])?\n"));
        EXPECT_NE(
            files::run_program("/bin/sh", {"-c", MORVANE_BIN_DIR "/" + program + " --help >/dev/full"}, dir.text())
                .status,
            0);
        const Outcome mistaken = files::run_program(program, {program == "qas" ? "widnow" : "datapaht=x"}, dir.text());
        EXPECT_EQ(mistaken.status, 23);
        EXPECT_THAT(mistaken.err, HasSubstr("did you mean " + std::string(program == "qas" ? "window?" : "datapath?")));
    }
}
