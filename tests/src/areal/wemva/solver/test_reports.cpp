#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "src/areal/wemva/solver/cauchy.h"
#include "src/areal/wemva/solver/console.h"
#include "src/areal/wemva/solver/reports.h"
#include "tests/src/areal/wemva/solver/caller.h"
#include "tests/src/areal/wemva/solver/output.h"

using namespace morvane;

namespace {

class Reports : public TemporaryFolder {};

/// The times differ from run to run; their fields are a blank and nine columns.
std::string without_times(std::string text) {
    for (std::size_t at = text.find(" seconds."); at != std::string::npos; at = text.find(" seconds.", at + 1)) {
        if (text.substr(at - 4, 2) == "E+" || text.substr(at - 4, 2) == "E-") text.replace(at - 9, 9, "TTTTTTTTT");
    }
    return text;
}

/// (x1^2 + x2^2) / 2 from (4, 4) with -1 <= x1 and 2 <= x2: the Cauchy search passes the breakpoint of x2 at t = 1/2,
/// where slope and curvature change from -32, 32 to -8, 16, and ends at (0, 2), the solution.
Caller two_variables() {
    Caller caller(3, {4, 4}, {-1, 2}, {8, 8}, {2, 2});
    caller.pgtol = 1e-9;
    return caller;
}
double half_square(std::span<const double> x, std::span<double> g) {
    std::copy(x.begin(), x.end(), g.begin());
    double f = 0;
    for (const double xi : x) f += 0.5 * xi * xi;
    return f;
}

/// x^2 from 4: a first step of length 1 to 3, then the pair s = -1, y = -2 gives the solution.
Caller one_variable() {
    Caller caller(2, {4});
    caller.pgtol = 1e-9;
    return caller;
}
double square(std::span<const double> x, std::span<double> g) {
    g[0] = 2 * x[0];
    return x[0] * x[0];
}

std::string run(Caller caller, int iprint, const Objective& objective) {
    caller.iprint = iprint;
    return without_times(printed([&] { caller.run(objective); }));
}

/// The texts of reports.txt beside this file, by the names in the lines "== NAME" above them.
std::map<std::string, std::string> expected_texts() {
    std::map<std::string, std::string> texts;
    std::string name;
    for (const std::string& line :
         files::lines_of(files::read_text(MORVANE_SOURCE_DIR "/tests/src/areal/wemva/solver/reports.txt")))
        line.starts_with("== ") ? texts[name = line.substr(3)] : texts[name] += line + '\n';
    return texts;
}
const std::map<std::string, std::string> texts = expected_texts();

const std::string three_times =
    "\n Cauchy                time TTTTTTTTT seconds.\n"
    " Subspace minimization time TTTTTTTTT seconds.\n"
    " Line search           time TTTTTTTTT seconds.\n";
const std::string total_time = "\n Total User time TTTTTTTTT seconds.\n\n";
const std::string column_heads = "\n   it   nf  nint  nact  sub  itls  stepl    tstep     projg        f\n";

}  // namespace

TEST_F(Reports, ScreenAndFileOfRunsAtEachLevel) {
    for (const int iprint : {-1, 0, 1, 2, 99, 100}) {
        std::filesystem::remove("iterate.dat");
        EXPECT_EQ(run(two_variables(), iprint, half_square),
                  iprint < 0 ? "" : texts.at("two variables at " + std::to_string(iprint)));
        EXPECT_EQ(std::filesystem::exists("iterate.dat"), iprint >= 1) << iprint;
    }
    EXPECT_EQ(run(one_variable(), 101, square), texts.at("one variable at 101"));
    EXPECT_EQ(without_times(files::read_text("iterate.dat")), texts.at("file of one variable"));
    for (const int iprint : {1, 2}) {
        files::write_text("iterate.dat", std::string(5000, 'x'));  // an old one
        run(two_variables(), iprint, half_square);
        EXPECT_EQ(without_times(files::read_text("iterate.dat")), texts.at("file of two variables"));
    }
}

TEST_F(Reports, AnErrorWritesNoTable) {
    Caller caller(2, {1});
    caller.factr = -1;
    caller.iprint = 1;
    const std::string error = "\nERROR: FACTR .LT. 0" + std::string(41, ' ') + '\n';
    const std::string out = printed([&] { caller.call(); });
    EXPECT_EQ(without_times(out), error + three_times + total_time);
    EXPECT_EQ(without_times(files::read_text("iterate.dat")), error + total_time);
}

TEST_F(Reports, FileIsCompleteAfterEachCall) {
    Caller caller = one_variable();
    caller.iprint = 1;
    printed([&] {
        caller.call();
        EXPECT_TRUE(files::read_text("iterate.dat").ends_with(column_heads));
        EXPECT_EQ(caller.saved_int(24), 8);
        caller.f = square(caller.x, caller.g);
        caller.call();
        EXPECT_TRUE(files::read_text("iterate.dat").ends_with("  8.000D+00  1.600D+01\n"));
        caller.f = square(caller.x, caller.g);
        caller.call();
        EXPECT_TRUE(files::read_text("iterate.dat").ends_with("  6.000D+00  9.000D+00\n"));
    });
}

TEST_F(Reports, AFileThatCannotBeWrittenIsGivenUpWithAWarning) {
    for (const bool from_the_start : {true, false}) {
        std::filesystem::remove("iterate.dat");
        Caller caller = one_variable();
        caller.iprint = 1;
        testing::internal::CaptureStderr();
        printed([&] {
            if (!from_the_start) {
                caller.call();
                std::filesystem::remove("iterate.dat");
            }
            std::filesystem::create_directory("iterate.dat");
            caller.run(square);
        });
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::EndsWith(": warning: iterate.dat: Is a directory; the run goes on without this report\n"));
        EXPECT_EQ(caller.saved_int(24), 0);
        EXPECT_TRUE(caller.task.starts_with("CONVERGENCE"));
    }
}

TEST_F(Reports, EndTextsOfAllCodes) {
    solver::Progress progress;
    progress.iter = 3, progress.nfgv = 24, progress.nintol = 123456, progress.nint = 7, progress.nskip = 2;
    progress.nact = 99999, progress.iword = 1, progress.sbgnrm = 1234.56;
    solver::Search search;
    search.ifun = 20, search.iback = 19, search.stp = 1.25e-7, search.xstep = 3.5e-6;
    const solver::Times times{1.5, 0.25, 12345.6, 98765.4};
    const Vector x(17, 1);
    const std::string task = "SOME TEXT" + std::string(51, ' ') + '\n';
    const auto with = [&](std::string all, const std::string& text) {
        return all.insert(all.find(task) + task.size(), text);
    };
    for (int info = 0; info >= -9; --info) {
        int itfile = solver::create_itfile();
        const std::string out = printed([&] {
            solver::prn3lb(x, -0.5, {solver::Text60("SOME TEXT"), info, 4}, 1, itfile, progress, search, times);
        });
        const std::string text = info == 0 ? "" : texts.at("code " + std::to_string(info));
        EXPECT_EQ(out, with(texts.at("screen at the end"), text));
        const std::string row =
            info == -9 || info == -4 ? "    3   24     7 99999  bnd   19  1.2D-07  3.5D-06      -          -\n" : "";
        EXPECT_EQ(files::read_text("iterate.dat"),
                  row + with(texts.at("file at the end"), info == -6 || info == -7 ? "" : text));
    }
}

TEST_F(Reports, WordsOfTheSubspaceStep) {
    for (const auto& [iword, word] : {std::pair{0, "con"}, {1, "bnd"}, {5, "TNT"}, {-1, "---"}, {7, "---"}}) {
        int itfile = solver::create_itfile();
        solver::Progress progress;
        progress.iter = 1, progress.iword = iword;
        printed([&] { solver::prn2lb(Vector{1}, 2, Vector{3}, 5, itfile, progress, {}); });
        EXPECT_EQ(files::read_text("iterate.dat"),
                  std::string("    1    0     0     0  ") + word + "    0  0.0D+00  0.0D+00  0.000D+00  2.000D+00\n");
    }
}

TEST_F(Reports, SearchThatPassesAllBreakpointsEndsWhereNothingMoves) {
    // The free variable has no slope: nothing is left to search once the other one is held.
    Caller caller(2, {0, 4}, {0, 1}, {0, 9}, {0, 1});
    caller.iprint = 99;
    const std::string out = printed([&] {
        caller.call();
        caller.f = 1;
        caller.g = {0, 8};
        caller.call();
    });
    EXPECT_NE(out.find(" GCP found in this segment\n"
                       "Piece      2 --f1, f2 at start point   0.0000D+00  0.0000D+00\n"
                       "Distance to the stationary point =   0.0000D+00\n"),
              std::string::npos)
        << out;
}

TEST_F(Reports, VariablesThatEnterAndLeave) {
    std::vector<int> index{1, 2, 4, 3}, indx2(4);
    const std::vector<int> iwhere{1, 0, 0, 2};
    const std::string changes =
        " Variable            1  leaves the set of free variables\n"
        " Variable            4  leaves the set of free variables\n"
        " Variable            3  enters the set of free variables\n";
    const std::string counts =
        "           2  variables leave;            1  variables enter\n"
        "           2  variables are free at GCP            6\n";
    for (const auto& [iprint, text] : {std::pair{98, std::string()}, {99, counts}, {100, changes + counts}}) {
        index = {1, 2, 4, 3};
        solver::FreeSet set{index, indx2, 3};
        EXPECT_EQ(printed([&, level = iprint] { solver::freev(set, iwhere, false, true, level, 5); }), text);
    }
}

TEST(ReportVectors, SixALine) {
    const std::string seven =
        "\nX0 =  1.0000D+00 -2.0000D+00  3.0000D+00  4.0000D+00  5.0000D+00  6.0000D+00\n"
        "      7.0000-100\n";
    const Vector x{1, -2, 3, 4, 5, 6, 7e-100};
    EXPECT_EQ(solver::labelled_vector("X0 =", x), seven);
    EXPECT_EQ(solver::six_a_line(x),
              "      1.0000D+00 -2.0000D+00  3.0000D+00  4.0000D+00  5.0000D+00  6.0000D+00\n"
              "      7.0000-100\n");
    const Vector five(x.begin(), x.begin() + 5), six(x.begin(), x.begin() + 6), twelve(12, 1);
    const std::string line = "\n U =  1.0000D+00 -2.0000D+00  3.0000D+00  4.0000D+00  5.0000D+00";
    EXPECT_EQ(solver::labelled_vector("U =", five), line + "\n");
    EXPECT_EQ(solver::labelled_vector("U =", six), line + "  6.0000D+00\n\n");  // the line end after six values is met
    EXPECT_EQ(solver::six_a_line(six).find("\n\n"), std::string::npos);
    const std::string ones = "  1.0000D+00  1.0000D+00  1.0000D+00  1.0000D+00  1.0000D+00  1.0000D+00\n";
    EXPECT_EQ(solver::labelled_vector("G =", twelve), "\n G =" + ones + "    " + ones);
}
