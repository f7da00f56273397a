// morvane_taylor as a black box.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tiny_survey.h"

using testing::EndsWith;
using testing::HasSubstr;

TEST(TaylorProgram, ConfirmsTheExactGradientAndLeavesTheOutputsAlone) {
    files::TinySurvey survey(false);
    survey.arguments["extrapolator"] = "pspi";
    survey.arguments["vsal"] = "9000";
    for (const auto& [key, value] : {std::pair("nxk", "3"), {"dxk", "80"}, {"oxk", "40"}, {"nzk", "3"}, {"dzk", "40"}})
        survey.arguments[key] = value;
    for (const char* name : {"velout.H", "log"}) files::write_text(survey.dir / name, "kept\n");
    std::vector<std::string> words = survey.command();
    words.erase(words.begin());
    words.push_back("ndir=2");
    words.push_back("nstep=4");
    const files::Outcome run = files::run_program("morvane_taylor", words, survey.dir.text(), "");
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_THAT(run.out, HasSubstr("gradient=classic, direction 1"));
    EXPECT_THAT(run.out, HasSubstr("gradient=exact, direction 2 of the knots, no lateral mean"));
    EXPECT_THAT(run.out, HasSubstr("verdict: the exact gradient is right"));
    words.push_back("reach=1e-9");
    const files::Outcome noise = files::run_program("morvane_taylor", words, survey.dir.text(), "");
    EXPECT_EQ(noise.status, 2) << noise.out;
    EXPECT_THAT(noise.out, HasSubstr("verdict: none, fun is too noisy or too rough"));
    EXPECT_EQ(run.out.find("nan"), std::string::npos);
    for (const char* name : {"velout.H", "log"}) EXPECT_EQ(files::read_text(survey.dir / name), "kept\n");
}

TEST(TaylorProgram, RefusesWhatItCannotTest) {
    for (const bool quiet : {true, false}) {
        files::TinySurvey survey(false);
        if (quiet) std::ranges::fill(survey.sou.samples, 0.0f);
        std::vector<std::string> words = survey.command();
        words.erase(words.begin());
        if (!quiet) words.push_back("reach=0.7");
        const files::Outcome run = files::run_program("morvane_taylor", words, survey.dir.text(), "");
        EXPECT_EQ(run.status, 23);
        EXPECT_THAT(run.err,
                    EndsWith(quiet ? "fun is 0 at the start model: there is nothing to test; check rec and sou\n"
                                   : "reach=0.7: permitted is more than 0, less than 0.5\n"));
    }
}
