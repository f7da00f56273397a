/// morvane_mpi under mpirun, against morvane alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <regex>

#include "tests/tiny_survey.h"

using files::Outcome;
using files::TinySurvey;
using ::testing::HasSubstr;

namespace {

const char* const panels[] = {"velout.H", "grad.H", "bkgimg.H", "dimage.H"};

/// As root, with more ranks than cores, and without messages of memory shared between processes.
std::string mpirun(int ranks) {
    return "OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 mpirun --oversubscribe --bind-to none "
           "--mca btl_vader_single_copy_mechanism none -n " +
           std::to_string(ranks);
}

Outcome run_team(const TinySurvey& survey, int ranks) {
    std::vector<std::string> words = survey.command();
    words.erase(words.begin());
    return files::run_program("morvane_mpi", words, survey.dir.text(), mpirun(ranks));
}

/// Several shots, with a fit, of an exact run.
struct SharedSurvey : TinySurvey {
    explicit SharedSurvey(const char* gradient = "exact") : TinySurvey(false) {
        arguments["gradient"] = gradient;
        arguments["firststep"] = "0.01";
        arguments["niter"] = "2";
        arguments["accepted"] = dir / "accepted.H";
        if (arguments["gradient"] == "exact") {
            arguments["fit"] = "y";
            arguments["course"] = dir / "course.csv";
        }
    }
    /// Shots on top of each other, the last ones with other data.
    void set_shots(int count) {
        const std::vector<float> some = rec.samples;
        rec.axis(4, count, "0.0001", "100");
        rec.samples.resize(some.size() / 3 * static_cast<std::size_t>(count));
        for (std::size_t i = 0; i < rec.samples.size(); ++i)
            rec.samples[i] = some[i % some.size()] * (i % 7 == 0 ? 2.0f : 1.0f);
    }
    /// As many as several threads take at a time.
    void set_frequencies(int count) {
        for (auto* set : {&rec, &sou}) {
            const std::vector<float> some = set->samples;
            set->axis(3, count, "0.5", "8");
            set->samples.resize(some.size() / frequencies * static_cast<std::size_t>(count));
            for (std::size_t i = 0; i < set->samples.size(); ++i)
                set->samples[i] = some[i % some.size()] * (1.0f + 0.1f * static_cast<float>(i % 11));
        }
    }
    /// Everything that must be the same for any team: panels, logs, course; times aside.
    std::vector<std::string> left() const {
        std::vector<std::string> all;
        for (const char* name : panels) all.push_back(files::read_text(dir / name + "@"));
        all.push_back(files::read_text(dir / "accepted.H@"));
        all.push_back(files::read_text(dir / "log"));
        all.push_back(std::regex_replace(files::read_text(dir / "listagem"), std::regex("[-0-9.]+ min"), "min"));
        if (arguments.count("course"))
            all.push_back(
                std::regex_replace(files::read_text(dir / "course.csv"), std::regex(",[0-9.]+,[0-9.]+\n"), "\n"));
        return all;
    }
};

}  // namespace

TEST(MpiTeam, WithReproducibleAnyTeamLeavesTheSameFiles) {
    SharedSurvey survey;
    survey.set_frequencies(70);
    survey.arguments["reproducible"] = "y";
    ASSERT_EQ(survey.run().status, 0);
    const std::vector<std::string> expected = survey.left();
    EXPECT_THAT(expected[5], HasSubstr("titer=    3")) << "a run of some evaluations";
    for (const auto& [ranks, threads] : {std::pair(1, "2"), {2, "1"}, {2, "4"}, {3, "1"}, {3, "2"}, {5, "2"}}) {
        survey.arguments["node"] = threads;
        const Outcome run = run_team(survey, ranks);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(survey.left(), expected) << ranks << " ranks of " << threads << " threads";
    }
}

// More shots than groups: members sum those of a group before they hand them over.
TEST(MpiTeam, WithReproducibleGroupsOfSeveralShotsAreTheSameToo) {
    SharedSurvey survey;
    survey.set_shots(1100);
    survey.arguments["reproducible"] = "y";
    survey.arguments["niter"] = "1";
    ASSERT_EQ(survey.run().status, 0);
    const std::vector<std::string> expected = survey.left();
    const Outcome run = run_team(survey, 2);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(survey.left(), expected);
}

TEST(MpiTeam, WithoutItPanelsAgreeToRounding) {
    const struct {
        const char* gradient;
        std::vector<std::pair<const char*, const char*>> keys;
    } rows[] = {
        {"exact", {}},
        {"classic", {{"bounds", "n"}}},
        {"classic", {{"light", "y"}}},
        {"exact", {{"timeshift", "y"}, {"nth", "3"}, {"oth", "-0.01"}, {"dth", "0.01"}}},
    };
    for (const auto& row : rows) {
        SharedSurvey survey(row.gradient);
        for (const auto& [key, value] : row.keys) survey.arguments[key] = value;
        survey.arguments["niter"] = "1";
        survey.arguments["illum"] = survey.dir / "illum.H";
        ASSERT_EQ(survey.run().status, 0);
        std::vector<std::vector<float>> expected;
        for (const char* name : panels) expected.push_back(files::read_dataset(survey.dir / name));
        // classic: which margins a frequency finds depends on the thread that had the one before
        if (std::string(row.gradient) == "exact") survey.arguments["node"] = "2";
        const Outcome run = run_team(survey, 3);
        ASSERT_EQ(run.status, 0) << run.err;
        for (std::size_t k = 0; k < expected.size(); ++k) {
            const std::vector<float> found = files::read_dataset(survey.dir / panels[k]);
            ASSERT_EQ(found.size(), expected[k].size()) << panels[k];
            float most = 0.0f, difference = 0.0f;
            for (std::size_t i = 0; i < found.size(); ++i) {
                most = std::max(most, std::abs(expected[k][i]));
                difference = std::max(difference, std::abs(found[i] - expected[k][i]));
            }
            EXPECT_LE(difference, 1e-5f * most) << row.gradient << " " << panels[k];
            EXPECT_GT(most, 0.0f);
        }
    }
}

TEST(MpiTeam, StagesReachEveryRank) {
    SharedSurvey survey;
    survey.arguments["reproducible"] = "y";
    for (const auto& [key, value] :
         {std::pair("nxk", "5"), {"dxk", "40"}, {"oxk", "70"}, {"nzk", "4"}, {"dzk", "30"}, {"ozk", "-10"}})
        survey.arguments[key] = value;
    survey.arguments["nh"] = "5";
    survey.arguments["stages"] = survey.dir / "stages";
    files::write_text(survey.dir / "stages", "niter=1 expdso=2 fmax=12 nh=3\nniter=1 dxk=20 depthdiff=1\n");
    ASSERT_EQ(survey.run().status, 0);
    const std::vector<std::string> expected = survey.left();
    EXPECT_THAT(expected[5], HasSubstr("stage = 2 of 2"));
    const Outcome run = run_team(survey, 3);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(survey.left(), expected);
}

// Whichever rank meets the bad shot. The line with the message stands once on each stream.
TEST(MpiTeam, AFailureOnAnyRankEndsAllWithOneMessageAndKeepsTheCheckpoint) {
    SharedSurvey survey;
    survey.arguments["reproducible"] = "y";
    survey.arguments["checkpoint"] = survey.dir / "ck";
    survey.arguments["niter"] = "1";
    ASSERT_EQ(run_team(survey, 2).status, 0);
    const std::string checkpoint = files::read_text(survey.dir / "ck");
    const std::size_t shot = survey.rec.samples.size() / 3;
    survey.arguments["resume"] = "auto";
    for (const std::size_t bad : {0, 1, 2}) {
        SharedSurvey broken;
        broken.rec.samples[bad * shot + 5] = std::numeric_limits<float>::quiet_NaN();
        const Outcome run = run_team(broken, 3);
        EXPECT_EQ(run.status, 23) << run.err;
        const std::regex message("morvane_mpi: rank [012] of 3 on [^,\n]+, shot " + std::to_string(bad + 1) +
                                 ": rec: shot " + std::to_string(bad + 1) + " holds 1 of ");
        const std::sregex_iterator first(run.err.begin(), run.err.end(), message), none;
        EXPECT_EQ(std::distance(first, none), 1) << run.err;
    }
    EXPECT_EQ(files::read_text(survey.dir / "ck"), checkpoint);
}

TEST(MpiTeam, WhatOneRankAloneCouldDoIsRefused) {
    SharedSurvey survey;
    const auto refused = [&](const char* key, const std::string& value) {
        const auto before = survey.arguments[key];
        survey.arguments[key] = value;
        const Outcome run = run_team(survey, 2);
        survey.arguments[key] = before;
        EXPECT_EQ(run.status, 23);
        return run.err;
    };
    EXPECT_THAT(refused("zzz", survey.dir / "zzz.H"), HasSubstr("zzz: is written by a run of one rank only"));
    EXPECT_THAT(refused("rec", "cat " + survey.dir.text() + "/rec.H |"), HasSubstr("rec: its header or data are"));
    EXPECT_THAT(refused("dipop", "44"), HasSubstr("dipop=44: permitted are"));
}
