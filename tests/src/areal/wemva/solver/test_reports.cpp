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

const std::string code = "RUNNING THE L-BFGS-B CODE\n\n";
const std::string stars = "           * * *\n\n";
const std::string precision = "Machine precision = 2.220D-16\n";
const std::string started = code + stars + precision;

const std::string summary = '\n' + stars +
                            "Tit   = total number of iterations\n"
                            "Tnf   = total number of function evaluations\n"
                            "Tnint = total number of segments explored during Cauchy searches\n"
                            "Skip  = number of BFGS updates skipped\n"
                            "Nact  = number of active bounds at final generalized Cauchy point\n"
                            "Projg = norm of the final projected gradient\n"
                            "F     = final function value\n"
                            "\n" +
                            stars + "   N   Tit  Tnf  Tnint  Skip  Nact     Projg        F\n";

const std::string gradient_converged = "\nCONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL            \n";
const std::string three_times =
    "\n Cauchy                time TTTTTTTTT seconds.\n"
    " Subspace minimization time TTTTTTTTT seconds.\n"
    " Line search           time TTTTTTTTT seconds.\n";
const std::string total_time = "\n Total User time TTTTTTTTT seconds.\n\n";

const std::string file_head = code +
                              "it    = iteration number\n"
                              "nf    = number of function evaluations\n"
                              "nint  = number of segments explored during the Cauchy search\n"
                              "nact  = number of active bounds at the generalized Cauchy point\n"
                              "sub   = manner in which the subspace minimization terminated:\n"
                              "        con = converged, bnd = a bound was reached\n"
                              "itls  = number of iterations performed in the line search\n"
                              "stepl = step length used\n"
                              "tstep = norm of the displacement (total step)\n"
                              "projg = norm of the projected gradient\n"
                              "f     = function value\n"
                              "\n" +
                              stars + precision;
const std::string column_heads = "\n   it   nf  nint  nact  sub  itls  stepl    tstep     projg        f\n";

const std::string sizes_of_two = " N =            2     M =            3\n";
const std::string before_two = started + sizes_of_two +
                               "\nAt X0         0 variables are exactly at the bounds\n"
                               "\nAt iterate    0    f=  1.60000D+01    |proj g|=  4.00000D+00\n";
const std::string last_of_two = "\nAt iterate    1    f=  2.00000D+00    |proj g|=  0.00000D+00\n";
const std::string total_of_two = summary + "    2    1    2      2     0     1   0.000D+00   2.000D+00\n";
const std::string end_of_two = "  F = 2.0000000000000000\n" + gradient_converged + three_times + total_time;

const std::string entered_cauchy = "\n---------------- CAUCHY entered-------------------\n";
const std::string left_cauchy = "\n---------------- exit CAUCHY----------------------\n\n";

/// Everything from the count of breakpoints on, at the levels that show it.
std::string first_iteration_of_two(int iprint) {
    std::string text = "\nITERATION     1\n" + entered_cauchy + " There are            2   breakpoints \n";
    if (iprint >= 100) {
        text +=
            "\nPiece      1 --f1, f2 at start point  -3.2000D+01  3.2000D+01\n"
            "Distance to the next break point =   5.0000D-01\n"
            "Distance to the stationary point =   1.0000D+00\n"
            " Variable             2   is fixed.\n"
            "\nPiece      2 --f1, f2 at start point  -8.0000D+00  1.6000D+01\n"
            "Distance to the next break point =   7.5000D-01\n"
            "Distance to the stationary point =   5.0000D-01\n";
    }
    return text +
           "\n GCP found in this segment\n"
           "Piece      2 --f1, f2 at start point  -8.0000D+00  1.6000D+01\n"
           "Distance to the stationary point =   5.0000D-01\n" +
           left_cauchy +
           "           1  variables are free at GCP            1\n"
           " LINE SEARCH           0  times; norm of step =  4.4721359549995796\n";
}

}  // namespace

TEST_F(Reports, ScreenOfARunAtEachLevel) {
    const std::string x_at_the_end = "\n X =  0.0000D+00  2.0000D+00\n";
    for (const auto& [iprint, text] :
         {std::pair{-1, std::string()},
          {0, started + sizes_of_two + total_of_two + gradient_converged + total_time},
          {1, before_two + last_of_two + total_of_two + end_of_two},
          {2, before_two + total_of_two + end_of_two},
          {99, before_two + first_iteration_of_two(99) + last_of_two + total_of_two + end_of_two},
          {100, before_two + first_iteration_of_two(100) + last_of_two + total_of_two + x_at_the_end + end_of_two}}) {
        std::filesystem::remove("iterate.dat");
        EXPECT_EQ(run(two_variables(), iprint, half_square), text) << iprint;
        EXPECT_EQ(std::filesystem::exists("iterate.dat"), iprint >= 1) << iprint;
    }
}

TEST_F(Reports, FileHasAllIterationsOfThisRunAlone) {
    for (const int iprint : {1, 2}) {
        files::write_text("iterate.dat", std::string(5000, 'x'));  // an old one
        run(two_variables(), iprint, half_square);
        EXPECT_EQ(without_times(files::read_text("iterate.dat")),
                  file_head + sizes_of_two + column_heads +
                      "    0    1     -     -   -     -     -        -     4.000D+00  1.600D+01\n"
                      "    1    2     2     1  ---    0  1.0D+00  4.5D+00  0.000D+00  2.000D+00\n" +
                      gradient_converged + total_time);
    }
}

TEST_F(Reports, VectorsAndASubspaceStepAtOneHundredAndOne) {
    EXPECT_EQ(run(one_variable(), 101, square),
              started +
                  " N =            1     M =            2\n"
                  "\n L =  0.0000D+00\n"
                  "\nX0 =  4.0000D+00\n"
                  "\n U =  0.0000D+00\n"
                  " This problem is unconstrained.\n"
                  "\nAt X0         0 variables are exactly at the bounds\n"
                  "\nAt iterate    0    f=  1.60000D+01    |proj g|=  8.00000D+00\n"
                  "\nITERATION     1\n" +
                  entered_cauchy +
                  " There are            0   breakpoints \n"
                  "\n GCP found in this segment\n"
                  "Piece      1 --f1, f2 at start point  -6.4000D+01  6.4000D+01\n"
                  "Distance to the stationary point =   1.0000D+00\n"
                  "Cauchy X =  \n"
                  "     -4.0000D+00\n" +
                  left_cauchy +
                  "           1  variables are free at GCP            1\n"
                  " LINE SEARCH           0  times; norm of step =  1.0000000000000000\n"
                  "\nAt iterate    1    f=  9.00000D+00    |proj g|=  6.00000D+00\n"
                  "\n X =  3.0000D+00\n"
                  "\n G =  6.0000D+00\n"
                  "\nITERATION     2\n"
                  "\n----------------SUBSM entered-----------------\n"
                  "\n SM solution inside the box\n"
                  "Subspace solution X =  \n"
                  "      0.0000D+00\n"
                  "\n----------------exit SUBSM --------------------\n"
                  "\n LINE SEARCH           0  times; norm of step =  3.0000000000000000\n"
                  "\nAt iterate    2    f=  0.00000D+00    |proj g|=  0.00000D+00\n"
                  "\n X =  0.0000D+00\n"
                  "\n G =  0.0000D+00\n" +
                  summary +
                  "    1    2    3      1     0     0   0.000D+00   0.000D+00\n"
                  "\n X =  0.0000D+00\n"
                  "  F = 0.0000000000000000\n" +
                  gradient_converged + three_times + total_time);
    EXPECT_EQ(without_times(files::read_text("iterate.dat")),
              file_head + " N =            1     M =            2\n" + column_heads +
                  "    0    1     -     -   -     -     -        -     8.000D+00  1.600D+01\n"
                  "    1    2     1     0  ---    0  1.2D-01  1.0D+00  6.000D+00  9.000D+00\n"
                  "    2    3     0     0  con    0  1.0D+00  3.0D+00  0.000D+00  0.000D+00\n" +
                  gradient_converged + total_time);
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
    const auto cholesky = [](const std::string& which) { return "\n Matrix in " + which + " is not Pos. Def.\n"; };
    const auto causes = [](const std::string& second) {
        return " Possible causes: 1 error in function or gradient evaluation;\n"
               "                  2 rounding " +
               second + " dominate computation.\n";
    };
    const std::map<int, std::string> texts{
        {0, ""},
        {-1, cholesky("1st Cholesky factorization in formk")},
        {-2, cholesky("2st Cholesky factorization in formk")},
        {-3, cholesky("the Cholesky factorization in formt")},
        {-4, "\n Derivative >= 0, backtracking line search impossible.\n   Previous x, f and g restored.\n" +
                 causes("errors")},
        {-5,
         "\n Warning:  more than 10 function and gradient\n"
         "   evaluations in the last line search.  Termination\n"
         "   may possibly be caused by a bad search direction.\n"},
        {-6, "  Input nbd(           4 ) is invalid.\n"},
        {-7, "  l(           4 ) > u(           4 ).  No feasible solution.\n"},
        {-8, "\n The triangular system is singular.\n"},
        {-9,
         "\n Line search cannot locate an adequate point after 20 function\n"
         "  and gradient evaluations.  Previous x, f and g restored.\n" +
             causes("error")}};
    solver::Progress progress;
    progress.iter = 3, progress.nfgv = 24, progress.nintol = 123456, progress.nint = 7, progress.nskip = 2;
    progress.nact = 99999, progress.iword = 1, progress.sbgnrm = 1234.56;
    solver::Search search;
    search.ifun = 20, search.iback = 19, search.stp = 1.25e-7, search.xstep = 3.5e-6;
    const solver::Times times{1.5, 0.25, 12345.6, 98765.4};
    const Vector x(17, 1);
    for (const auto& [info, text] : texts) {
        SCOPED_TRACE(info);
        int itfile = solver::create_itfile();
        const std::string task = "SOME TEXT";
        const std::string ended = '\n' + task + std::string(51, ' ') + '\n';
        const std::string total = "\n Total User time 9.877E+04 seconds.\n\n";
        const std::string out = printed([&, code = info] {
            solver::prn3lb(x, -0.5, {solver::Text60(task), code, 4}, 1, itfile, progress, search, times);
        });
        EXPECT_EQ(out, summary +
                           "   17    3   24 123456     2 99999   1.235D+03  -5.000D-01\n"
                           "  F = -0.50000000000000000\n" +
                           ended + text +
                           "\n Cauchy                time 1.500E+00 seconds.\n"
                           " Subspace minimization time 2.500E-01 seconds.\n"
                           " Line search           time 1.235E+04 seconds.\n" +
                           total);
        const std::string row =
            info == -9 || info == -4 ? "    3   24     7 99999  bnd   19  1.2D-07  3.5D-06      -          -\n" : "";
        EXPECT_EQ(files::read_text("iterate.dat"), row + ended + (info == -6 || info == -7 ? "" : text) + total);
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
