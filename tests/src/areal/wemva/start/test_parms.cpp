#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/start/checks.h"
#include "src/areal/wemva/start/key_table.h"
#include "src/areal/wemva/start/owparam.h"
#include "src/areal/wemva/start/stages.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

using files::TinySurvey;
using testing::ElementsAre;
using testing::FloatEq;
using testing::FloatNear;
using testing::HasSubstr;
using testing::Not;
using testing::Pointwise;

struct Started {
    Parms par;
    std::string fatal, err;
};

/// owparam on a survey: the parameters or the message of its end, and what it wrote to standard error.
Started start(const TinySurvey& survey) {
    Started result;
    testing::internal::CaptureStderr();
    try {
        static const qas::KeyTable keys(run_keys());
        qas::Session session(survey.command());
        session.declare(keys);  // where assertions are on, it ends a look-up of a key that it does not list
        result.par = owparam(session);
    } catch (const qas::Fatal& error) {
        result.fatal = error.what();
    }
    result.err = testing::internal::GetCapturedStderr();
    return result;
}

}  // namespace

TEST(Owparam, PerShotAxesByHand) {
    TinySurvey survey(false);
    survey.arguments["padtraces"] = "3";  // margins of 5
    survey.arguments["nh"] = "4";
    survey.arguments["wbott"] = "25";
    const Parms par = start(survey).par;
    EXPECT_EQ(par.kxm.n, 12 + 2 * 5);
    EXPECT_EQ(par.img.xm.n, 22 + 2 * 40 / 10);
    EXPECT_EQ(par.img.xm.o, 100.0f - 20.0f - 50.0f);
    EXPECT_EQ(par.img.xm.d, 10.0f);
    EXPECT_EQ(par.isp, 3) << "the source is two traces right of the first";
    EXPECT_EQ(par.img.z.n, 8);
    EXPECT_THAT(par.img.z.all, ElementsAre(0, 10, 20, 30, 40, 50, 60, 70));
    EXPECT_EQ(par.nz, 8);
    EXPECT_EQ(par.nzmin, 1);
    EXPECT_EQ(par.nzmax, 8);
    EXPECT_EQ(par.kept.nh0, 3);
    EXPECT_EQ(par.img.sh.o, -20.0f);
    EXPECT_EQ(par.img.sh.d, 10.0f) << "the trace interval, taken before the image line was known, would be 0";
    EXPECT_EQ(par.kept.nwbott, 3);
    EXPECT_EQ(par.kept.dwbott, 10.0f);
    EXPECT_EQ(par.nsecdim, 4);
    EXPECT_EQ(par.osecdim, -20.0f);
    EXPECT_EQ(par.xv_min, 30.0f + 100.0f);
    EXPECT_EQ(par.xv_max, 30.0f + 19.0f * 10.0f);
    EXPECT_EQ(par.expdso, 1.0f);
    const float two_pi = 6.2831855f;
    EXPECT_THAT(par.rec.w.all, Pointwise(FloatNear(1e-4f), {8 * two_pi, 12 * two_pi, 16 * two_pi}));
    EXPECT_EQ(par.sou.w.o, 8.0f) << "the source keeps cycles";
    EXPECT_THAT(par.kept.ksh.all, Pointwise(FloatNear(1e-6f), {0.0f, two_pi / 40, two_pi * 2 / 40, -two_pi / 40}));
    EXPECT_FLOAT_EQ(par.kept.ksh.d, two_pi / 40);
    EXPECT_FLOAT_EQ(par.kz.all[4], two_pi * 4 / 80) << "the middle of an even axis is positive";
    EXPECT_FLOAT_EQ(par.kz.all[5], -two_pi * 3 / 80);
}

TEST(Owparam, ArealAxesByHand) {
    TinySurvey survey(true);
    survey.arguments.erase("padtraces");  // copies traces_in_taper
    const Parms par = start(survey).par;
    EXPECT_EQ(par.padtraces, 2);
    EXPECT_EQ(par.kxm.n, 20);
    EXPECT_EQ(par.img.xm.n, 20);
    EXPECT_EQ(par.img.xm.o, 60.0f);
}

TEST(Owparam, LateralWavenumbersWrapAfterTheNyquistSample) {
    TinySurvey survey(true);
    survey.rec.axis(1, 8, "1", "100");
    survey.sou.axis(1, 8, "1", "100");
    survey.vel.axis(1, 40, "1", "80");
    survey.arguments["traces_in_taper"] = "0";
    const Parms par = start(survey).par;
    const float two_pi = 6.2831855f;
    const std::vector<float> cycles = {0, 0.125f, 0.25f, 0.375f, 0.5f, -0.375f, -0.25f, -0.125f};
    ASSERT_EQ(par.kxm.all.size(), cycles.size());
    for (std::size_t i = 0; i < cycles.size(); ++i) EXPECT_FLOAT_EQ(par.kxm.all[i], cycles[i] * two_pi) << i;
    EXPECT_EQ(par.kxm.d, 0.125f) << "cycles";
    EXPECT_EQ(par.kxm.o, 0.375f);
}

TEST(Owparam, OneOffsetHasTheWavenumberZero) {
    TinySurvey survey(true);
    survey.arguments["nh"] = "1";
    survey.arguments["expdso"] = "0";
    const Parms par = start(survey).par;
    EXPECT_THAT(par.kept.ksh.all, ElementsAre(0.0f));
    EXPECT_EQ(par.kept.ksh.d, 0.1f);
    EXPECT_EQ(par.kept.nh0, 1);
}

TEST(Owparam, DsoGatesItsExponentAndLloydConvertsItsValues) {
    TinySurvey survey(true);
    survey.arguments["dso"] = "n";
    survey.arguments["resmig"] = "y";
    survey.arguments["expdso"] = "2";
    survey.arguments["extrapolator"] = "pspi";
    survey.arguments["nrefvel"] = "3";
    survey.arguments["lloyd"] = "y";
    survey.arguments["vel_own"] = "2000";
    const Started run = start(survey);
    EXPECT_EQ(run.fatal, "");
    EXPECT_EQ(run.par.expdso, 0.0f) << "not read without dso";
    EXPECT_FLOAT_EQ(run.par.min_r_pct, 0.01f);
    EXPECT_FLOAT_EQ(run.par.min_s_pct, 0.09f);
    EXPECT_FLOAT_EQ(run.par.slow_own, 0.0005f);
    EXPECT_EQ(run.par.niter_over, -1);
}

TEST(Owparam, TimeShiftsReplaceTheOffsets) {
    TinySurvey survey(true);
    survey.arguments["timeshift"] = "y";
    const Started run = start(survey);
    EXPECT_EQ(run.fatal, "");
    EXPECT_EQ(run.par.nsecdim, 121);
    EXPECT_EQ(run.par.osecdim, -0.24f);
    EXPECT_EQ(run.par.dsecdim, 0.004f);
    EXPECT_EQ(run.par.img.sh.n, 0);
    const std::string header = files::read_text(survey.dir / "bkgimg.H");
    EXPECT_EQ(files::header_value(header, "n2"), "121");
    EXPECT_THAT(run.err, HasSubstr("no.timeshifts   = 121"));
}

TEST(Owparam, OneKnotAxisIsEnoughForTheSpline) {
    TinySurvey survey(true);
    EXPECT_FALSE(start(survey).par.spline_grad());
    EXPECT_FALSE(Parms().spline_grad());
    survey.arguments["nxk"] = "5";
    survey.arguments["dxk"] = "50";
    survey.arguments["dzk"] = "20";
    const Started run = start(survey);
    EXPECT_TRUE(run.par.spline_grad());
    EXPECT_EQ(run.par.axk.n, 5);
    EXPECT_EQ(run.par.axk.d, 50.0f);
    EXPECT_EQ(run.par.azk.n, 99999);
    EXPECT_EQ(run.par.azk.d, 20.0f);
    EXPECT_THAT(run.err, HasSubstr("warning: nzk was not given: 99999 knots from ozk=0 every dzk=20 are taken\n"));
}

TEST(Owparam, TheSplineOnlyPathReadsTheModelAndTheKnots) {
    TinySurvey survey(true);
    survey.arguments["vspl"] = "1";
    survey.arguments["nxk"] = "5";
    survey.arguments.erase("rec");
    const Parms par = start(survey).par;
    EXPECT_TRUE(par.vspl);
    EXPECT_EQ(par.v.xm.n, 40);
    EXPECT_EQ(par.axk.n, 5);
    EXPECT_EQ(par.xv_max, 390.0f);
    EXPECT_EQ(par.rec.h.n, 0);
}

TEST(Owparam, EveryValueIsRecordedInTheOrderOfReading) {
    TinySurvey survey(true);
    survey.arguments["padtraces"] = "0";
    start(survey);
    std::vector<std::string> keys;
    const std::string label = "From par: ";
    for (const std::string& line : files::lines_of(files::read_text(survey.dir / "history")))
        if (const auto at = line.find(label); at != std::string::npos)
            keys.push_back(line.substr(at + label.size(), line.find('=') - at - label.size()));
    EXPECT_THAT(
        keys, ElementsAre("dipflt", "epscg", "cgsolv", "oxk", "dxk", "nxk", "oyk", "dyk", "nyk", "ozk", "dzk", "nzk",
                          "smooth", "serg_na", "serg_epsh", "serg_niter", "serg_eps1", "serg_eps2", "dip_niter",
                          "dip_eps", "sufx", "dot", "adj", "inversion", "dso", "l1norm", "windx", "windh", "windz",
                          "extrapolator", "zwgt", "dipop", "trick", "maxvchg", "moddso", "expdso", "envelope", "born2",
                          "migration", "areal", "timeshift", "imgcon", "impulse", "ymin", "ymax", "zmin", "zmax",
                          "node", "niter", "nxfilt", "wbott", "traces_in_taper", "padtraces", "maxang", "damp",
                          "zweight", "fftplan", "icwind", "xv_min", "xv_max", "wbott", "nh", "jh", "dh", "oh"));
}

TEST(Owparam, OutputHeadersHaveTheirShapes) {
    TinySurvey survey(false);
    survey.arguments["ddws"] = survey.dir / "ddws.H";
    ASSERT_EQ(start(survey).fatal, "");
    struct Case {
        const char* file;
        std::vector<const char*> values;  // n1 d1 o1 n2 d2 o2 n3 d3 o3 n4 d4 o4 n5 d5 o5 esize
    };
    const char* names[] = {"n1", "d1", "o1", "n2", "d2", "o2", "n3", "d3",
                           "o3", "n4", "d4", "o4", "n5", "d5", "o5", "esize"};
    for (const Case& c :
         {Case{"velout.H", {"24", "10", "60", "1", "1", "0", "8", "10", "0", "1", "1", "0", "1", "1", "0", "4"}},
          Case{"grad.H", {"24", "10", "60", "1", "1", "0", "8", "10", "0", "1", "1", "0", "1", "1", "0", "4"}},
          Case{"history", {"24", "10", "60", "1", "1", "0", "8", "10", "0", "1", "1", "0", "1", "1", "0", "4"}},
          Case{"bkgimg.H", {"24", "10", "60", "3", "10", "-10", "8", "10", "0", "1", "1", "0", "1", "1", "0", "4"}},
          Case{"dimage.H", {"24", "10", "60", "3", "10", "-10", "8", "10", "0", "1", "1", "0", "1", "1", "0", "4"}},
          // frequencies in cycles
          Case{"ddws.H", {"16", "10", "60", "8", "10", "0", "1", "1", "0", "1", "1", "0", "3", "4", "8", "8"}}}) {
        const std::string header = files::read_text(survey.dir / c.file);
        for (std::size_t i = 0; i < std::size(names); ++i)
            EXPECT_EQ(files::header_value(header, names[i]), c.values[i]) << c.file << " " << names[i];
    }
}

TEST(Owparam, OutsideInversionTheFirstWavefieldHeaderComesBeforeTheWindowIsKnown) {
    TinySurvey survey(true);
    survey.arguments["inversion"] = "n";
    survey.arguments["migration"] = "y";
    survey.arguments["ddws"] = survey.dir / "ddws.H";
    const Started run = start(survey);
    EXPECT_EQ(run.fatal, "");
    const std::string ddws = files::read_text(survey.dir / "ddws.H");
    EXPECT_LT(ddws.find("n1=0\n"), ddws.find("n1=16\n"));
    EXPECT_EQ(files::header_value(ddws, "n1"), "16");
    EXPECT_EQ(files::header_value(files::read_text(survey.dir / "bkgimg.H"), "n2"), "3");
    const std::string history = files::read_text(survey.dir / "history");
    EXPECT_EQ(files::header_value(history, "n2"), "3") << "migration sets the image shape last";
    EXPECT_FALSE(std::filesystem::exists(survey.dir / "velout.H"));
    EXPECT_THAT(run.err, HasSubstr("warning: inversion is not given as yes"));
}

TEST(Owparam, AnImageGridFromADataset) {
    TinySurvey survey(true);
    survey.arguments["inversion"] = "n";
    survey.arguments["deltaI"] = survey.dir / "deltaI.H";
    files::Dataset grid;
    grid.axis(1, 99, "77", "1");
    grid.axis(2, 5, "20", "-40");
    grid.axis(3, 8, "10", "500");
    grid.write(survey.dir / "deltaI.H");
    const Started run = start(survey);
    EXPECT_EQ(run.fatal, "");
    EXPECT_EQ(run.par.nsecdim, 5);
    EXPECT_EQ(run.par.osecdim, -40.0f);
    EXPECT_EQ(run.par.img.xm.n, 16) << "the line of the data counts";
    EXPECT_EQ(run.par.img.z.o, 0.0f) << "zmin, not the dataset's origin";
    EXPECT_EQ(run.par.img.z.d, 10.0f);
    grid.axis(3, 9, "10", "500");
    grid.write(survey.dir / "deltaI.H");
    EXPECT_EQ(start(survey).fatal,
              "n3=9 d3=10 in the header of deltaI: the image has 8 levels (zmin=0, zmax=70) of d3=10\n");
}

TEST(Owparam, TheSummaryHasItsLabelsInOrder) {
    TinySurvey survey(false);
    const std::string err = start(survey).err;
    std::size_t at = 0;
    for (const char* label : {" imgprim\n",
                              "****** NITER  = ",
                              "*************************\n",
                              "* ",
                              "   PARM   \n",
                              "==========\n",
                              "PARAMETERS\n",
                              "==========\n",
                              "no.ref.velocities   = 1\n",
                              "min.x-coord         = 60\n",
                              "max.x-coord         = 290\n",
                              "min.y-coord         = 0\n",
                              "max.y-coord         = 0\n",
                              "min.depth           = 0\n",
                              "max.depth           = 70\n",
                              "traces in taper     = 2\n",
                              "padded traces       = 0\n\n",
                              "============\n",
                              "HEADER WORDS\n",
                              "============\n",
                              "SHOTS\n",
                              "=====\n",
                              "number of recv  = 12\n",
                              "recv spacing    = 10\n",
                              "min.recv offset = -20\n",
                              "number of freq  = 3\n",
                              "freq spacing    = 4\n",
                              "minimum freq    = 8\n",
                              "number of shots = 3\n",
                              "shot spacing    = 40\n",
                              "min.shot-x      = 100\n\n",
                              "SOURCE FUNCTION\n",
                              "===============\n",
                              "no.of traces    = 1\n",
                              "trace spacing   = 10\n",
                              "min.trace-x     = 0\n",
                              "number of freq  = 3\n",
                              "freq spacing    = 4\n",
                              "minimum freq    = 8\n",
                              "no.of s.fnct    = 1\n",
                              "s.fnct spacing  = 1\n",
                              "min.s.fnct-x    = 0\n\n",
                              "VELOCITY MODEL\n",
                              "==============\n",
                              "no.of traces    = 40\n",
                              "trace spacing   = 10\n",
                              "min.trace-x     = 0\n",
                              "no.depth samples= 8\n",
                              "depth interval  = 10\n",
                              "minimum depth   = 0\n\n",
                              "IMAGE SPACE\n",
                              "===========\n",
                              "no.of traces    = 24\n",
                              "trace spacing   = 10\n",
                              "min.trace-x     = 60\n",
                              "no.of offsets    = 3\n",
                              "offset spacing   = 10\n",
                              "offset origin     = -10\n",
                              "no.depth samples= 8\n",
                              "depth interval  = 10\n",
                              "minimum depth   = 0\n\n",
                              "WAVENUMBER\n",
                              "==========\n",
                              "no.wavenumbers  = 16\n",
                              "waveno.spacing  = 0.00625\n",
                              "waveno.origin   = 0.04375\n",
                              "*****************************************************\n"}) {
        const std::size_t found = err.find(label, at);
        ASSERT_NE(found, std::string::npos) << label << " after\n" << err.substr(0, at);
        at = found + std::string(label).size();
    }
    EXPECT_EQ(at, err.size());
    EXPECT_THAT(err, HasSubstr("****** NITER  =            1\n"));
    EXPECT_THAT(err, Not(HasSubstr("warning")));
}

namespace {

struct Refusal {
    const char* text;
    std::function<void(TinySurvey&)> change;
    bool areal = true;
};

void set(TinySurvey& survey, const char* key, const char* value) {
    survey.arguments[key] = value;
}

/// The dip filter of the areal survey, with one dip everywhere.
void filter_dips(TinySurvey& survey, float dip) {
    files::Dataset dips;
    dips.axis(1, 8, "10", "0");
    dips.axis(2, 16, "10", "80");
    dips.samples.assign(8 * 16, dip);
    dips.write(survey.dir / "dips.H");
    survey.arguments.insert({{"dipflt", "y"}, {"dipfile", survey.dir / "dips.H"}, {"steer_lags", "3"}, {"frame", "4"}});
}

}  // namespace

TEST(Owparam, ImpossibleInputIsRefusedWithItsText) {
    const std::vector<Refusal> table = {
        // the classic checks, in their order
        {"How to compute the perturbed image?", [](TinySurvey& s) { set(s, "dso", "n"); }},
        {"# source freq. .ne. # receiver freq.", [](TinySurvey& s) { s.sou.header["n3"] = "2"; }},
        {"# source planes. .ne. # receiver planes", [](TinySurvey& s) { s.sou.header["n4"] = "5"; }},
        {"# source traces. .ne. # receiver traces", [](TinySurvey& s) { s.sou.header["n1"] = "11"; }},
        {"source trace interval .ne. areal shot trace interval",
         [](TinySurvey& s) { s.sou.header["d1"] = "10.00001"; }},
        {"source freq.interval .ne. receiver freq.interval", [](TinySurvey& s) { s.sou.header["d3"] = "4.000001"; }},
        {"source freq.origin .ne. receiver freq.origin", [](TinySurvey& s) { s.sou.header["o3"] = "8.00001"; }},
        {"Min.x-image space < Min.x-velocity", [](TinySurvey& s) { s.vel.header["o1"] = "80.0001"; }},
        {"Max.x-image space > Max.x-velocity", [](TinySurvey& s) { s.vel.header["n1"] = "23"; }},
        {"Min.z-image < Min.z-velocity", [](TinySurvey& s) { set(s, "zmin", "-0.001"); }},
        {"Max.z-image > Max.z-velocity", [](TinySurvey& s) { set(s, "zmax", "70.0001"); }},
        {"missing parameter value: vsal\n", [](TinySurvey& s) { set(s, "extrapolator", "pspi"); }},
        // axes
        {"n1=0 in the header of rec: the number of samples must be 1 or more\n",
         [](TinySurvey& s) { s.rec.header["n1"] = "0"; }},
        {"n3=-3 in the header of vel: the number of samples must be 1 or more\n",
         [](TinySurvey& s) { s.vel.header["n3"] = "-3"; }},
        {"n4=0 in the header of rec: the number of samples must be 1 or more\n",
         [](TinySurvey& s) { s.rec.header["n4"] = "0"; }},
        {"n4=2147483647 in the header of rec: at most 16777216 samples are permitted\n",
         [](TinySurvey& s) { s.rec.header["n4"] = "2147483647"; }},
        {"esize=4 in the header of rec: its samples must be complex, esize=8\n",
         [](TinySurvey& s) { s.rec.header["esize"] = "4"; }},
        {"esize=4 in the header of sou: its samples must be complex, esize=8\n",
         [](TinySurvey& s) { s.sou.header["esize"] = "4"; }},
        {"esize=8 in the header of vel: its samples must be real, esize=4\n",
         [](TinySurvey& s) { s.vel.header["esize"] = "8"; }},
        {"d1=0 in the header of rec: the interval must be positive\n", [](TinySurvey& s) { s.rec.header["d1"] = "0"; }},
        {"d3=-10 in the header of vel: the interval must be positive\n",
         [](TinySurvey& s) { s.vel.header["d3"] = "-10"; }},
        {"d3=4 o3=inf in the header of sou: both must be finite numbers\n",
         [](TinySurvey& s) { s.sou.header["o3"] = "inf"; }},
        {"o3=-1 d3=4 n3=3 in the header of rec: frequencies must not be negative\n",
         [](TinySurvey& s) { s.rec.header["o3"] = "-1"; }},
        {"traces_in_taper=-1: 0 or more are permitted\n", [](TinySurvey& s) { set(s, "traces_in_taper", "-1"); }},
        {"padtraces=-2: 0 or more are permitted\n", [](TinySurvey& s) { set(s, "padtraces", "-2"); }},
        {"traces_in_taper=2 padtraces=2000000000: a line of 4000000016 columns, at most 16777216 are permitted\n",
         [](TinySurvey& s) { set(s, "padtraces", "2000000000"); }},
        // depths
        {"zmin=0 zmax=-1: the image needs zmax at or below zmin\n", [](TinySurvey& s) { set(s, "zmax", "-1"); }},
        {"zmin=10: the image must begin less than a depth step d3=10 below the top of the model, o3=0\n",
         [](TinySurvey& s) { set(s, "zmin", "10"); }},
        {"zmin=5 zmax=70: 7 levels from zmin and 8 from the top of the model, o3=0: zmin must be the top\n",
         [](TinySurvey& s) { set(s, "zmin", "5"); }},
        // geometry
        {"the image takes columns 5 to 20 of vel, which has n1=19: its trace interval d1=20 must be that of rec, "
         "d1=10\n",
         [](TinySurvey& s) { s.vel.axis(1, 19, "20", "0"); }},
        {"shot 2 of 2: its window is columns 4 to 19 of an image of 18 columns; d4=25 o4=100 in the header of rec must "
         "be "
         "such that the shots move up the line by whole traces of d1=10\n",
         [](TinySurvey& s) { s.rec.axis(4, 2, "25", "100"); }, false},
        {"shot 1 of 2: its window is columns 1 to 16 of an image of 12 columns; d4=-40 o4=100 in the header of rec "
         "must "
         "be such that the shots move up the line by whole traces of d1=10\n",
         [](TinySurvey& s) { s.rec.axis(4, 2, "-40", "100"); }, false},
        {"o1=-120 d1=10 in the header of rec put the source at trace 13 of 12: it must lie within the traces of the "
         "shot\n",
         [](TinySurvey& s) { s.rec.axis(1, 12, "10", "-120"), s.rec.axis(4, 2, "40", "200"); }, false},
        {"n1=1 in the header of sou: areal=yes needs the 12 traces of rec (areal=no takes one source function)\n",
         [](TinySurvey& s) { set(s, "areal", "y"), s.vel.header["o1"] = "-100"; }, false},
        // image gathers and weights
        {"nh=0: the number of samples must be 1 or more\n", [](TinySurvey& s) { set(s, "nh", "0"); }},
        {"nh=-3: the number of samples must be 1 or more\n",
         [](TinySurvey& s) { set(s, "nh", "-3"), set(s, "nxfilt", "5"); }},
        {"nh=20000000: image gathers of 16 x 20000000 x 8 samples are too large; at most 16777215 are permitted for "
         "this "
         "image\n",
         [](TinySurvey& s) { set(s, "nh", "20000000"); }},
        {"nh=1 dh=10 oh=0: the largest value of the axis is 0, and expdso=1 divides by it: more samples are needed, or "
         "expdso=0\n",
         [](TinySurvey& s) { set(s, "nh", "1"); }},
        {"expdso=-1: a negative exponent gives the sample at zero an infinite weight (nh=3 dh=10 oh=-10)\n",
         [](TinySurvey& s) { set(s, "expdso", "-1"); }},
        {"windh=0: 1 or more is permitted\n", [](TinySurvey& s) { set(s, "l1norm", "y"), set(s, "windh", "0"); }},
        // extrapolation
        {"dipop=60: permitted are 15, 45, 65, 79, 80, 87, 89 and 90\n", [](TinySurvey& s) { set(s, "dipop", "60"); }},
        {"nrefvel=0: permitted are 1 to 1000 reference slownesses\n",
         [](TinySurvey& s) { set(s, "extrapolator", "pspi"), set(s, "vsal", "5000"), set(s, "nrefvel", "0"); }},
        {"min_region_pct=101: permitted are 0 to 100 percent\n",
         [](TinySurvey& s) { set(s, "extrapolator", "pspi"), set(s, "lloyd", "y"), set(s, "min_region_pct", "101"); }},
        {"vel_own=0: a velocity other than 0 is needed; -1 means none\n",
         [](TinySurvey& s) { set(s, "extrapolator", "pspi"), set(s, "lloyd", "y"), set(s, "vel_own", "0"); }},
        {"node=0: permitted are 1 to 1024 threads (and 9999: as many as the runtime gives)\n",
         [](TinySurvey& s) { set(s, "node", "0"); }},
        {"fftplan=quick: permitted are auto, patient and estimate\n",
         [](TinySurvey& s) { set(s, "fftplan", "quick"); }},
        {"dt=0: the time step must be positive\n", [](TinySurvey& s) { set(s, "icwind", "y"), set(s, "dt", "0"); }},
        {"zmin=nan: a finite number is needed\n", [](TinySurvey& s) { set(s, "zmin", "nan"); }},
        // spline
        {"nxk=-1: the number of knots must be 1 or more\n", [](TinySurvey& s) { set(s, "nxk", "-1"); }},
        {"dzk=0: the distance of the knots must be positive\n",
         [](TinySurvey& s) { set(s, "nxk", "4"), set(s, "dzk", "0"); }},
        {"nxk=20000 nzk=20000: 4e+08 spline coefficients, at most 1e8 are permitted\n",
         [](TinySurvey& s) { set(s, "nxk", "20000"), set(s, "nzk", "20000"); }},
        // conditioning and the exact gradient
        {"frame=-1: permitted are 0 to 1048576 rows\n",
         [](TinySurvey& s) { set(s, "dipflt", "y"), set(s, "frame", "-1"); }},
        {"angle must be less than 90\n", [](TinySurvey& s) { filter_dips(s, 95); }},
        {"gradient=right: permitted are classic and exact\n", [](TinySurvey& s) { set(s, "gradient", "right"); }},
        {"firststep=1: permitted is a fraction of slowness, more than 0 and less than 1\n",
         [](TinySurvey& s) { set(s, "firststep", "1"); }},
        {"normalise: takes effect with gradient=exact only\n", [](TinySurvey& s) { set(s, "normalise", "y"); }},
        {"nxfilt=3: not with gradient=exact, since the prediction filters depend on the image\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "nxfilt", "3"); }},
        {"fun_xmin=201 fun_xmax=209: no image column lies between them; the columns stand every 10 from 80 to 230\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "fun_xmin", "201"), set(s, "fun_xmax", "209"); }},
        {"imgcon=imgmult: gradient=exact has the derivative of imgprim only\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "imgcon", "imgmult"); }},
        {"depthdiff: takes effect with gradient=exact only\n", [](TinySurvey& s) { set(s, "depthdiff", "1"); }},
        {"depthdiff=3: permitted are 0 to 2 differences\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "depthdiff", "3"); }},
        {"depthdiff=2: the image has 3 levels, at least 4 are needed\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "depthdiff", "2"), set(s, "zmax", "20"); }},
        {"regularise=-1: permitted is a weight of 0 or more\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "regularise", "-1"); }},
        {"regularise=1: without knots the lengths reg_x and reg_z are needed, one of them greater than 0\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "regularise", "1"); }},
        {"reg_z=-5: permitted is a length of 0 or more\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "reg_z", "-5"); }},
        {"reproducible=yes: not with gradient=classic, in which a thread carries the margins of its columns from "
         "frequency to frequency, so that the image depends on which thread takes which; gradient=exact clears them\n",
         [](TinySurvey& s) { set(s, "reproducible", "y"); }},
        {"fftplan=patient: not with reproducible=yes, since plans that are measured differ in their last bits\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "reproducible", "y"), set(s, "fftplan", "patient"); }},
        {"keep: takes effect with gradient=exact only\n", [](TinySurvey& s) { set(s, "keep", "1"); }},
        {"keep=-1: n, auto or a number of GB above 0 is needed\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "keep", "-1"); }},
        {"keep=2GB: n, auto or a number of GB above 0 is needed\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "keep", "2GB"); }},
        {"best: takes effect with gradient=exact only\n", [](TinySurvey& s) { set(s, "best", "b.H"); }},
        {"stop=fun: permitted is fit\n", [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "stop", "fun"); }},
        {"fit=no: stop=fit needs the fit\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "stop", "fit"), set(s, "fit", "n"); }},
        {"stop_rise=-1: permitted is a rise of fit of 0 or more, and less than 1\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "stop", "fit"), set(s, "stop_rise", "-1"); }},
        {"stop_patience=0: permitted are 1 or more accepted models\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "stop", "fit"), set(s, "stop_patience", "0"); }},
        {"fit=yes: the image has no sample at 0, from which to predict data (3 samples, 10 apart, from 5)\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "fit", "y"), set(s, "oh", "5"); }},
        {"fit=yes: not with migration=yes, whose image has another phase than the data\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "fit", "y"), set(s, "migration", "y"); }},
        {"light=yes: not with gradient=exact, which has no derivative of the illumination\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "light", "y"); }},
        {"dipflt=yes: not with gradient=exact, whose gradient would no longer be the derivative of fun\n",
         [](TinySurvey& s) { set(s, "gradient", "exact"), set(s, "dipflt", "y"); }},
    };
    for (const Refusal& row : table) {
        SCOPED_TRACE(row.text);
        TinySurvey survey(row.areal);
        row.change(survey);
        EXPECT_EQ(start(survey).fatal, row.text);
        EXPECT_FALSE(std::filesystem::exists(survey.dir / "velout.H"))
            << "an earlier result would have been overwritten";
    }
}

TEST(ReadStages, OverridesOfEachLineAndWhatIsWrongWithIt) {
    const files::TempDir dir;
    const std::string name = dir / "stages";
    Parms run;
    run.nz = 8;
    run.img.xm = {24, 10.0f, 80.0f, {}};
    run.img.z = {8, 10.0f, 0.0f, {}};
    run.img.sh = {3, 10.0f, -10.0f, {}};
    run.axk = {5, 80.0f, 0.0f, {}};
    run.azk = {4, 40.0f, -20.0f, {}};
    run.rec.w = {5, 2.0f * pi_f, 10.0f * pi_f, {}};  // 5 to 9 Hz
    const auto read = [&](const std::string& text) {
        files::write_text(name, text);
        qas::Session session(std::vector<std::string>{"morvane", "stages=" + name});
        return read_stages(session, run);
    };
    const std::vector<Stage> stages = read("# two\nniter=3\n expdso=0.25 dxk=30 dzk=20 nzk=9\r\n");
    ASSERT_EQ(stages.size(), 2u);
    EXPECT_EQ(stages[0].par.niter, 3);
    EXPECT_EQ(stages[1].par.niter, run.niter);
    EXPECT_EQ(stages[1].par.expdso, 0.25f);
    EXPECT_EQ(stages[1].par.axk.n, 12) << "as far as those of the run, 4 times 80";
    EXPECT_EQ(stages[1].par.azk.n, 9);
    EXPECT_EQ(stages[1].par.end_frequency(), 5);
    const Parms narrow = read("fmin=6 fmax=8.5 nh=1 p_up=5 p_lo=10 bounds_of=stage").front().par;
    EXPECT_EQ(narrow.first_frequency(), 1);
    EXPECT_EQ(narrow.end_frequency(), 4);
    EXPECT_EQ(narrow.nsecdim, 1);
    EXPECT_EQ(narrow.osecdim, 0.0f);
    EXPECT_EQ(narrow.limits.panel_offsets, 3);
    EXPECT_TRUE(narrow.limits.bounds_of_stage);
    for (const auto& [text, message] : std::map<std::string, std::string>{
             {"", "no stage in its 0 lines, one a line is needed"},
             {"niter=2\nzmax=5\n",
              "line 2 has \"zmax=5\"; a stage takes bounds_of, depthdiff, dxk, dzk, expdso, firststep, fmax, fmin, nh"},
             {"niter", "line 1 has \"niter\"; a stage takes"},
             {"niter=2.5", "line 1 has \"niter=2.5\"; a finite number is needed (a whole one for a count;"},
             {"expdso=nan", "line 1 has \"expdso=nan\"; a finite number"},
             {"niter=0", "line 1: niter=0: a stage needs 1 or more iterations"},
             {"depthdiff=3", "line 1: depthdiff=3: permitted are 0 to 2 differences"},
             {"fmin=4", "line 1: fmin=4: the frequencies of rec are 5 to 9"},
             {"fmax=9.5", "line 1: fmax=9.5: the frequencies of rec are 5 to 9"},
             {"fmin=6.2 fmax=6.8",
              "line 1: fmin=6.2 fmax=6.8: no frequency of rec lies between them; they are 1 apart"},
             {"fmin=7 fmax=6", "line 1: fmin=7 fmax=6: no frequency of rec lies between them"},
             {"nh=5", "line 1: nh=5: permitted are odd numbers up to the 3 of the run"},
             {"nh=2", "line 1: nh=2: permitted are odd numbers"},
             {"nh=0", "line 1: nh=0: permitted are odd numbers"},
             {"bounds_of=model", "line 1 has \"bounds_of=model\"; a finite number is needed"},
             {"bounds_of=stage", "line 1: p_up=0 p_lo=0: bounds of a stage need both, each more than 0"},
             {"p_up=10", "line 1: p_up=10 p_lo=0: bounds of a stage need both"},
             {"p_up=10 p_lo=100", "line 1: p_lo=100: a lower bound of slowness that is positive is needed"},
             {"p_up=0.9 p_lo=0.5", "line 1: p_up=0.9: a factor of 1 or more, or a percentage, is needed"},
             {"dxk=-1", "line 1: dxk=-1: the distance of the knots must be positive"}}) {
        try {
            read(text);
            ADD_FAILURE() << text;
        } catch (const qas::Fatal& error) {
            EXPECT_THAT(error.what(), HasSubstr("stages=" + name + ": " + message));
        }
    }
}

TEST(Owparam, AHorizonThatMasksTheWholeGradientIsRefused) {
    TinySurvey survey(true);
    filter_dips(survey, 10);
    survey.arguments["horv0"] = survey.dir / "horizon";
    std::string picks;
    for (int ix = 0; ix < 15; ++ix) picks += "13\n";
    for (const auto& [last, refused] : {std::pair("12.9", false), {"13", true}}) {
        files::write_text(survey.dir / "horizon", picks + last);
        const std::string fatal = start(survey).fatal;
        EXPECT_EQ(fatal.find("all of them lie below the last row of the image, 12 (frame=4)") != std::string::npos,
                  refused)
            << last << ": " << fatal;
    }
}

TEST(Owparam, AHeaderThatPromisesFarMoreThanItsDataHoldIsRefused) {
    for (const char* tag : {"rec", "sou", "vel"}) {
        TinySurvey survey(true);
        (tag[0] == 'r' ? survey.rec : tag[0] == 's' ? survey.sou : survey.vel).header["n1"] = "16000000";
        const std::string fatal = start(survey).fatal;
        EXPECT_THAT(fatal, HasSubstr(tag));
        EXPECT_THAT(fatal, HasSubstr("n1*n3 asks for "));
    }
}

TEST(Owparam, AMismatchTellsItsNumbers) {
    TinySurvey survey(true);
    survey.sou.header["n3"] = "2";
    EXPECT_THAT(start(survey).err, HasSubstr("the values are: n3=2 in sou, n3=3 in rec\n"));
}

TEST(Owparam, TheSourceAxesAreComparedOnlyWithMoreThanOnePlane) {
    TinySurvey survey(true);
    survey.sou.axis(1, 14, "11", "100");
    survey.sou.header["n4"] = "1";
    const Started run = start(survey);
    EXPECT_EQ(run.fatal, "");
    EXPECT_THAT(run.err,
                HasSubstr("warning: n4=1 in the header of sou, n4=2 in that of rec: the shots after number 1 have "
                          "no source wavefield\n"));
}

TEST(Owparam, DoubtfulInputIsWarnedAbout) {
    const std::vector<Refusal> table = {
        {"zmin=0.5 is not the top of the model, o3=0: depth rows are taken one to one, so that the image is labelled "
         "0.5 "
         "too deep",
         [](TinySurvey& s) { set(s, "zmin", "0.5"), set(s, "zmax", "69"); }},
        {"zmin=0 zmax=0: one depth level only, so nothing is imaged; give zmax",
         [](TinySurvey& s) { s.arguments.erase("zmax"); }},
        {"nh=4 dh=10 oh=-20: the axis is not symmetric and its weights are relative to its largest value "
         "10, "
         "so that they reach 2; an odd nh makes it symmetric",
         [](TinySurvey& s) { set(s, "nh", "4"); }},
        {"extrapolator=split is not known (ffd and pspi are): the wavefields stay as they are at the surface",
         [](TinySurvey& s) { set(s, "extrapolator", "split"); }},
        {"imgcon=imgdec is not known (imgprim and imgmult are): the image stays zero",
         [](TinySurvey& s) { set(s, "imgcon", "imgdec"); }},
        {"parameter imgcon has 10 characters, of which 7 count: imgcon=imgprim",
         [](TinySurvey& s) { set(s, "imgcon", "imgprimary"); }},
        {"imgcon=imgmult has no adjoint: the gradient is zero, and the run ends after its first evaluation",
         [](TinySurvey& s) { set(s, "imgcon", "imgmult"); }},
        {"timeshift=yes: fun is summed over the offset axis, which is not set with time shifts, so that it is 0",
         [](TinySurvey& s) { set(s, "timeshift", "y"); }},
        {"padtraces=0 makes the transforms 34 samples long, a multiple of the prime 17, which is slow; padtraces=1 is "
         "the "
         "nearest good value",
         [](TinySurvey& s) { set(s, "traces_in_taper", "11"), s.vel.header["o1"] = "-20"; }},
        {"d1=10.01 in the header of vel is not the trace interval of rec, d1=10: columns are taken one to one, without "
         "interpolation",
         [](TinySurvey& s) { s.vel.axis(1, 40, "10.01", "80"); }},
        {"the image starts 0.5 columns into vel (o1=80 of the image, o1=75 of vel): column 1 is taken, and the model "
         "moves "
         "by the rest",
         [](TinySurvey& s) { s.vel.axis(1, 40, "10", "75"); }},
        {"o1=-25 in the header of rec is no multiple of d1=10: the source is put at trace 4",
         [](TinySurvey& s) { s.rec.header["o1"] = "-25", s.vel.header["o1"] = "-5"; }, false},
        {"o1=20 in the header of rec is positive, so the source lies before the first trace; it is put at trace 3",
         [](TinySurvey& s) { s.rec.header["o1"] = "20"; }, false},
        {"nxk=2 dxk=20 oxk=80: the knots reach from 40 to 140, the image from 80 to 230; the gradient is zero where no "
         "knot reaches",
         [](TinySurvey& s) { set(s, "nxk", "2"), set(s, "dxk", "20"), set(s, "oxk", "80"); }},
    };
    for (const Refusal& row : table) {
        SCOPED_TRACE(row.text);
        TinySurvey survey(row.areal);
        row.change(survey);
        const Started run = start(survey);
        EXPECT_EQ(run.fatal, "");
        EXPECT_THAT(run.err, HasSubstr(": warning: " + std::string(row.text) + "\n"));
    }
}

TEST(Owparam, TimeShiftsCountInFunWithTheExactGradient) {
    TinySurvey survey(true);
    set(survey, "timeshift", "y");
    set(survey, "gradient", "exact");
    EXPECT_THAT(start(survey).err, Not(HasSubstr("timeshift=yes: fun")));
}

TEST(Owparam, AZmaxThatRoundingCutsShortIsNamedWithTheValueThatKeepsTheLevel) {
    // In single precision 0.9 / 0.3 is 2.9999998, and truncation leaves 3 levels of 4.
    TinySurvey survey(true);
    survey.vel.axis(3, 8, "0.3", "0");
    survey.arguments["zmax"] = "0.9";
    const Started cut = start(survey);
    ASSERT_EQ(cut.par.nz, 3);
    const std::string label = "zmax=0.899999976 is 2.99999976 steps below zmin, of which rounding leaves 2: zmax=";
    const std::size_t at = cut.err.find(label);
    ASSERT_NE(at, std::string::npos) << cut.err;
    std::string better = cut.err.substr(at + label.size());
    better = better.substr(0, better.find(' '));
    survey.arguments["zmax"] = better;
    const Started kept = start(survey);
    EXPECT_EQ(kept.par.nz, 4);
    EXPECT_THAT(kept.err, Not(HasSubstr("zmax=")));
}

TEST(CheckModel, OnlyPositiveFiniteSlownessPasses) {
    Parms par;
    par.v.z.d = 10.0f;
    par.sou.w = {1, 0.0f, 20.0f, {}};
    Array<float, 2> model({3, 2});
    for (const float bad : {0.0f, -1e-4f, INFINITY, NAN}) {
        model.fill(5e-4f);
        check_model(par, model);
        model(1, 1) = bad;
        try {
            check_model(par, model);
            ADD_FAILURE() << bad << " passed";
        } catch (const qas::Fatal& error) {
            EXPECT_THAT(
                error.what(),
                HasSubstr("vel: 1 of 6 samples within the image are not positive and finite, the first in column "
                          "2, level 2 ("));
        }
    }
}

TEST(CheckModel, WarnsOfVelocitiesAndOfAFastBodyWithTwoReferences) {
    Parms par;
    par.v.z.d = 10.0f;
    par.sou.w = {1, 0.0f, 20.0f, {}};
    par.extrap = "pspi";
    par.nref = 2;
    par.vsal = 3000.0f;
    Array<float, 2> model({2, 2});
    const auto warnings = [&] {
        testing::internal::CaptureStderr();
        check_model(par, model);
        return testing::internal::GetCapturedStderr();
    };
    model.fill(1.0f / 2000.0f);
    EXPECT_EQ(warnings(), "");
    model(1, 1) = 1.0f / 4000.0f;
    EXPECT_THAT(warnings(), HasSubstr("nrefvel=2: 1 samples lie at or above vsal=3000"));
    model(0, 1) = 1.0f / 4000.0f;
    EXPECT_THAT(warnings(), HasSubstr("vsal=3000: at 1 of 2 levels no velocity lies below it"));
    par.gradient = "exact";
    EXPECT_THAT(warnings(), HasSubstr("nrefvel=2: 2 of 2 levels of the start model hold one velocity"));
    par.extrap = "ffd";
    EXPECT_EQ(warnings(), "");
    model.fill(2000.0f);
    EXPECT_THAT(warnings(),
                HasSubstr("vel holds values of 2000 to 2000: as slowness they make 4e+05 cycles per depth step"));
}

TEST(LargestPrimeFactor, Table) {
    for (const auto& [n, factor] :
         {std::pair(1, 1), {2, 2}, {64, 2}, {97, 97}, {2 * 97, 97}, {49, 7}, {600, 5}, {26, 13}})
        EXPECT_EQ(largest_prime_factor(n), factor) << n;
}
