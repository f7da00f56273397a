#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "tests/tiny_survey.h"

using files::Outcome;
using files::TinySurvey;
using ::testing::HasSubstr;

namespace {

const char* const outputs[] = {"velout.H@", "grad.H@", "bkgimg.H@", "dimage.H@", "accepted.H@", "log"};

struct Checked : TinySurvey {
    explicit Checked(const char* niter) : TinySurvey(false) {
        arguments["gradient"] = "exact";
        arguments["firststep"] = "0.01";
        arguments["niter"] = niter;
        arguments["checkpoint"] = dir / "ck";
        arguments["accepted"] = dir / "accepted.H";
    }
};

}  // namespace

// In the same folder, so that only the content of the files can differ.
TEST(Restart, MoreIterationsAreThoseOfALongerRun) {
    Checked survey("4");
    ASSERT_EQ(survey.run().status, 0);
    std::vector<std::string> expected;
    for (const char* name : outputs) expected.push_back(files::read_text(survey.dir / name));
    survey.arguments["niter"] = "2";
    ASSERT_EQ(survey.run().status, 0);
    survey.arguments["niter"] = "4";
    survey.arguments["resume"] = "y";
    const Outcome run = survey.run();
    ASSERT_EQ(run.status, 0) << run.err;
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(files::read_text(survey.dir / outputs[i]), expected[i]) << outputs[i];
    EXPECT_THAT(files::read_text(survey.dir / "history"), HasSubstr("resumed="));
    const std::string header = files::read_text(survey.dir / "accepted.H");
    EXPECT_EQ(files::header_value(header, "n4"), "4");
    EXPECT_EQ(files::read_dataset(survey.dir / "accepted.H").size(), expected[4].size() / sizeof(float));
}

TEST(Restart, OnlyTheSameRunGoesOn) {
    Checked survey("2");
    const auto refused = [&](const std::map<std::string, std::string>& change) {
        TinySurvey& other = survey;
        const auto before = other.arguments;
        for (const auto& [key, value] : change) other.arguments[key] = value;
        const Outcome run = other.run();
        other.arguments = before;
        return run.status == 23 ? run.err.substr(run.err.rfind("morvane: ", run.err.size() - 2)) : run.err;
    };
    const std::string ck = survey.dir / "ck";
    EXPECT_THAT(refused({{"resume", "y"}}), HasSubstr("resume=y: checkpoint=" + ck + " is not there; resume=auto"));
    survey.arguments["resume"] = "auto";
    ASSERT_EQ(survey.run().status, 0);
    const std::string result = files::read_text(survey.dir / "velout.H@");
    const struct {
        std::map<std::string, std::string> change;
        const char* message;
    } rows[] = {
        {{{"firststep", "0.02"}}, "firststep was \"0.01\" when the checkpoint was written, and is \"0.02\" now"},
        {{{"normalise", "y"}}, "normalise was not given when the checkpoint was written, and is \"y\" now"},
        {{{"niter", "1"}}, "niter=1, and the run has done 2 iterations"},
        {{{"Velout", survey.dir / "other.H"}}, "Velout was"},
        {{{"grad", "|cat >/dev/null"}, {"resume", "n"}}, "the data of output grad are not in an ordinary file"},
        {{{"resume", "maybe"}}, "resume=maybe: n, y or auto is needed"},
        {{{"checkpoint_minutes", "-1"}}, "checkpoint_minutes=-1: 0 (before each shot) or more is needed"},
        {{{"checkpoint", survey.dir / "rec.H"}}, "this is header"},
        {{{"checkpoint", survey.dir / "log"}}, "log"},
        {{{"checkpoint", survey.dir / "vel.H"}, {"resume", "y"}}, "this is header"},
    };
    for (const auto& row : rows) EXPECT_THAT(refused(row.change), HasSubstr(row.message));
    const float sample = std::exchange(survey.rec.samples[5], 9.0f);
    EXPECT_THAT(refused({}), HasSubstr("data of rec was"));
    survey.rec.samples[5] = sample;
    std::filesystem::resize_file(survey.dir / "bkgimg.H@", 100);
    EXPECT_THAT(refused({}), HasSubstr("holds 100 bytes, and held"));
    std::filesystem::resize_file(ck, 100);
    std::filesystem::remove(ck + ".1");
    EXPECT_THAT(refused({}), HasSubstr("ck is incomplete or damaged; "));
    EXPECT_EQ(files::read_text(survey.dir / "velout.H@"), result) << "a refused run touches nothing";
}

#ifdef MORVANE_FAULT_SHIM
// A kill, or a full disk and then a kill, at each write, sync, link, rename and removal of checkpoints.
TEST(Restart, WhateverHappensToACheckpointTheRunGoesOn) {
    Checked survey("1");
    survey.arguments["checkpoint_minutes"] = "0";
    const std::string ck = survey.arguments["checkpoint"];
    const auto environment = [&](const char* fault, int at) {
        return std::string("LD_PRELOAD='") + MORVANE_FAULT_SHIM + "' FAULT=" + fault + " FAULT_FILE='" + ck +
               "' FAULT_AT=" + std::to_string(at) + " FAULT_COUNT='" + survey.dir.text() + "/count'";
    };
    ASSERT_EQ(survey.run(environment("kill", 0)).status, 0);
    const int calls = std::stoi(files::read_text(survey.dir / "count"));
    ASSERT_GT(calls, 50) << "writes, syncs and renames of more than ten checkpoints";
    std::vector<std::string> expected;
    for (const char* name : outputs) expected.push_back(files::read_text(survey.dir / name));
    int killed = 0, full = 0;
    for (int at = 1; at <= calls; ++at) {
        for (const char* fault : {"kill", "full"}) {
            for (const char* name : {"ck", "ck.1", "ck.new"}) std::filesystem::remove(survey.dir / name);
            survey.arguments["resume"] = "n";
            const Outcome broken = survey.run(environment(fault, at));
            ASSERT_TRUE(broken.status == 0 || broken.status == -1 || broken.status == 128 + SIGKILL) << broken.err;
            killed += broken.status != 0;
            if (std::string_view(fault) == "full" &&
                broken.err.find("cannot be written: No space left") != broken.err.npos)
                ++full;
            survey.arguments["resume"] = "auto";
            const Outcome run = survey.run();
            ASSERT_EQ(run.status, 0) << fault << " at call " << at << ": " << run.err;
            for (std::size_t i = 0; i < expected.size(); ++i)
                EXPECT_EQ(files::read_text(survey.dir / outputs[i]), expected[i])
                    << fault << " at call " << at << ": " << outputs[i];
        }
    }
    EXPECT_GT(killed, calls);
    EXPECT_GT(full, calls / 2);
}
#endif

// Without a checkpoint the shell sees the signal, and the user what there is.
TEST(Restart, ASignalEndsARunWithItsClosingLine) {
    TinySurvey survey(false);
    survey.arguments["gradient"] = "exact";
    survey.arguments["firststep"] = "1e-6";
    survey.arguments["niter"] = "1000000";
    std::string command = "cd '" + survey.dir.text() + "' && exec '" + MORVANE_BIN_DIR + "/morvane'";
    std::vector<std::string> words = survey.command();
    for (std::size_t i = 1; i < words.size(); ++i) command += " '" + words[i] + "'";
    command += " >/dev/null 2>errors";
    const pid_t child = ::fork();
    if (child == 0) {
        ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        ::_exit(127);
    }
    const std::string log = survey.dir / "log";
    for (int i = 0; i < 20000 && (!std::filesystem::exists(log) || std::filesystem::file_size(log) < 500); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ::kill(child, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_THAT(files::read_text(survey.dir / "errors"), HasSubstr("morvane: ended by signal 15; "));
}
