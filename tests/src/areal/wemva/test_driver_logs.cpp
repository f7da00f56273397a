#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "lib/corelibs/qas/qaserr.h"
#include "src/areal/wemva/horizon_file.h"
#include "src/areal/wemva/text_log.h"
#include "src/areal/wemva/truncate.h"
#include "tests/dataset_files.h"

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

TEST(TextLog, LinesReachTheFileAtOnce) {
    const files::TempDir dir;
    TextLog log("log", dir / "log");
    EXPECT_EQ(files::read_text(dir / "log"), "");
    log.line("one");
    log.line("two");
    EXPECT_EQ(files::read_text(dir / "log"), "one\ntwo\n");
}

TEST(TextLog, AFileThatCannotBeMadeOrWrittenEndsTheRun) {
    const files::TempDir dir;
    try {
        TextLog("list", dir / "missing/listagem");
        FAIL();
    } catch (const qas::Fatal& error) {
        EXPECT_EQ(error.what(),
                  "list=" + dir / "missing/listagem" + ": cannot create this file: No such file or directory\n");
    }
    TextLog full("log", "/dev/full");
    EXPECT_THROW(full.line("text"), qas::Fatal);
}

namespace {

std::string horizon_failure(const std::string& name, int n) {
    try {
        read_horizon(name, n);
    } catch (const qas::Fatal& error) {
        return error.what();
    }
    return "";
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
    EXPECT_EQ(
        horizon_failure(name, 3),
        "horv0=" + name + ": 2 values in its 3 lines, one a line for each of the 3 columns of the image are needed\n");
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
