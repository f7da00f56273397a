#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/run/truncate.h"
#include "src/areal/wemva/start/horizon_file.h"
#include "tests/dataset_files.h"
#include "tests/refusal.h"

using namespace morvane;

TEST(IterationLine, ColumnsByHand) {
    EXPECT_EQ(iteration_line(1, 12, "FG_LNSRCH   ", 1234.5678, std::vector<double>{1.0 / 1999.99, 1.0 / 4500.5}),
              " iter =    1 titer=   12 task = FG_LN J(x) =    1.234568E+03 min_x = 1999 max_x = 4500");
    EXPECT_EQ(iteration_line(12345, 7, "NEW_X", 0.0, std::vector<double>{-0.5, 1.0 / 123456.0}),
              " iter = **** titer=    7 task = NEW_X J(x) =    0.000000E+00 min_x =   -2 max_x =*****");
}

TEST(IterationLine, WhatIsNoNumberShowsAsAsterisks) {
    EXPECT_EQ(iteration_line(1, 1, "FG_START", std::nan(""), std::vector<double>{0.0, 1e-3}),
              " iter =    1 titer=    1 task = FG_ST J(x) = *************** min_x = 1000 max_x =*****");
    EXPECT_EQ(iteration_line(1, 1, "FG_START", 1e300, std::vector<double>{1e-3}),
              " iter =    1 titer=    1 task = FG_ST J(x) = *************** min_x = 1000 max_x = 1000")
        << "fun is rounded to single precision, where this one is infinite";
}

namespace {

/// The message with which a run ends that writes a line to a log of this name.
std::string log_failure(qas::Session& session, const std::string& name) {
    return refusal([&] { TextLog(session, "list", name).line("text"); });
}

}  // namespace

TEST(TextLog, LinesReachTheFileAtOnce) {
    const files::TempDir dir;
    qas::Session session(std::vector<std::string>{"prog"});
    files::write_text(dir / "log", "an earlier run's");
    TextLog log(session, "log", dir / "log");
    EXPECT_EQ(files::read_text(dir / "log"), "an earlier run's");
    log.begin();
    EXPECT_EQ(files::read_text(dir / "log"), "");
    log.line("one");
    log.line("two");
    EXPECT_EQ(files::read_text(dir / "log"), "one\ntwo\n");
}

TEST(TextLog, AFileThatCannotBeMadeOrWrittenEndsTheRun) {
    const files::TempDir dir;
    qas::Session session(std::vector<std::string>{"prog"});
    EXPECT_EQ(log_failure(session, dir / "missing/listagem"),
              "list=" + dir / "missing/listagem" + ": cannot create this file: No such file or directory\n");
    EXPECT_EQ(log_failure(session, "/dev/full"),
              "list=/dev/full: cannot write to this file: No space left on device\n");
}

TEST(TextLog, NeverTakesAFileOfTheRun) {
    const files::TempDir dir;
    const std::string d = dir.text() + "/";
    files::write_text(d + "vel.H", "n1=1 in=" + d + "v@\n");
    files::write_text(d + "run.par", "vel=" + d + "vel.H\n");
    for (const char* name : {"v@", "horizon", "other"}) files::write_text(d + name, name);
    std::filesystem::create_directory(d + "sub");
    std::filesystem::create_hard_link(d + "v@", d + "hard");
    std::filesystem::create_symlink("run.par", d + "soft");
    qas::Session session(std::vector<std::string>{"prog", "par=" + d + "run.par", "g=" + d + "g.H", "datapath=" + d});
    session.from_aux<int>("vel", "n1");
    session.hold_outputs();
    session.to_history("n1", 1, "g");
    session.claim_input({d + "horizon", "horv0=" + d + "horizon"});
    const TextLog log(session, "log", d + "run.log");
    const std::string g = "header \"" + d + "g.H\" of tag \"g\" (parameter g)";
    const std::string vel = "the data file of header \"" + d + "vel.H\" of tag \"vel\" (parameter vel)";
    for (const auto& [name, owner] :
         std::vector<std::pair<std::string, std::string>>{{"sub/../g.H", g},
                                                          {"sub/../g.H@", "the data file of " + g},  // to be made
                                                          {"hard", vel},
                                                          {"soft", "a parameter file"},
                                                          {"horizon", "horv0=" + d + "horizon"},
                                                          {"sub/../run.log", "log=" + d + "run.log"}})
        EXPECT_EQ(log_failure(session, d + name),
                  "list=" + d + name + ": this is " + owner + ": give it another name\n");
    EXPECT_EQ(files::read_text(d + "v@") + files::read_text(d + "run.par"), "v@vel=" + d + "vel.H\n");
    EXPECT_FALSE(std::filesystem::exists(d + "g.H@"));
    for (const char* name : {"run.log", "run.par", "horizon"}) {  // nor does a dataset take one of the program's
        session.getch_add_string("h=" + d + name);
        EXPECT_THROW(session.to_history("n1", 1, "h"), qas::Fatal) << name;
        session.getch_add_string("h=" + d + "h.H");
        session.getch_add_string("h.out=" + d + name);
        EXPECT_THROW(session.to_history("n1", 1, "h"), qas::Fatal) << name;
        session.getch_add_string("h.out=");
    }
}

namespace {

std::string horizon_failure(const std::string& name, int n) {
    return refusal([&] { read_horizon(name, n); });
}

}  // namespace

TEST(ReadHorizon, OneValueALineTheRestIgnored) {
    const files::TempDir dir;
    files::write_text(dir / "h", "12.5 99 98\n\n   \n-3\r\n1d2\tdeep\n4.25e1,7\n+8 # x\nnot read\n");
    EXPECT_EQ(read_horizon(dir / "h", 5), (std::vector<float>{12.5f, -3.0f, 100.0f, 42.5f, 8.0f}));
    files::write_text(dir / "h", "5");
    EXPECT_EQ(read_horizon(dir / "h", 1), std::vector<float>{5.0f}) << "no newline at the end";
}

TEST(ReadHorizon, FailuresNameFileLineAndCounts) {
    const files::TempDir dir;
    const std::string name = dir / "h";
    EXPECT_EQ(horizon_failure(name, 2),
              "horv0=" + name + ": cannot read this horizon file: No such file or directory\n");
    EXPECT_EQ(horizon_failure(dir.text(), 2),
              "horv0=" + dir.text() + ": cannot read this horizon file: Is a directory\n");
    files::write_text(name, "1\n\n2\n");
    EXPECT_EQ(horizon_failure(name, 3),
              "horv0=" + name +
                  ": 2 values in its 3 lines, one per line for each of the 3 columns of the image are needed\n");
    for (const char* word : {"depth", "nan", "1e99", "12m", "\"5\""}) {
        files::write_text(name, "1\n\n" + std::string(word) + " 7\n");
        EXPECT_EQ(horizon_failure(name, 3), "horv0=" + name + ": line 3 begins with \"" + word +
                                                "\", a finite number is needed (value 2 of 3)\n");
    }
}

TEST(Truncate, TowardZeroAndWithinTheIntegers) {
    const float infinity = std::numeric_limits<float>::infinity();
    for (const auto& [value, whole] : {std::pair(1.9f, 1),
                                       {-1.9f, -1},
                                       {-0.5f, 0},
                                       {3.0f, 3},
                                       {std::nanf(""), 0},
                                       {infinity, 1 << 30},
                                       {-infinity, -(1 << 30)},
                                       {3e9f, 1 << 30}})
        EXPECT_EQ(truncate(value), whole) << value;
}
