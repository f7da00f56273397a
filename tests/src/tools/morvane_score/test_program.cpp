/// The program on datasets written by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/dataset_files.h"

namespace {

using testing::HasSubstr;

class ScoreProgram : public testing::Test {
protected:
    const files::TempDir dir;

    void write(const std::string& name, int n1, int n2, int n3, const std::vector<float>& values,
               const std::map<std::string, std::string>& more = {}) const {
        files::Dataset set{more, values};
        set.axis(1, n1, "10", "0"), set.axis(2, n2, "10", "-10"), set.axis(3, n3, "10", "0");
        set.write(dir / name);
    }
    files::Outcome run(const std::vector<std::string>& words) const {
        return files::run_program("morvane_score", words, dir.text());
    }
};

const std::string log_text =
    " iter =    1 titer=    1 task = FG_ST J(x) =    5.000000E-02 min_x = 1799 max_x = 2500\n"
    " iter =    1 titer=    2 task = FG_LN J(x) =    9.000000E-02 min_x = 1799 max_x = 2500\n"
    " iter =    1 titer=    3 task = FG_LN J(x) =    4.000000E-02 min_x = 1787 max_x = 2499\n"
    " iter =    1 titer=    4 task = NEW_X J(x) =    4.000000E-02 min_x = 1787 max_x = 2499\n";

}  // namespace

// Three panels of which the second is a rejected trial; a column outside xmin..xmax that the header of the true model
// gives.
TEST_F(ScoreProgram, TakesThePanelsOfTheAcceptedModels) {
    write("true", 2, 1, 1, {0.5f, 0.25f}, {{"xmin", "0"}, {"xmax", "0"}, {"zmin", "0"}, {"zmax", "0"}});
    write("vel", 2, 1, 1, {0.4f, 9.0f});
    write("Velout", 2, 1, 1, {2.5f, 7, 1, 1, 2.0f / 0.9f, 7});  // 1 / slowness
    write("bkgimg", 2, 3, 1, {1, 0, 2, 0, 1, 0, 5, 5, 0, 5, 5, 5, 1, 0, 3, 0, 0, 9});
    files::write_text(dir / "log", log_text);
    const files::Outcome scored = run({"csv=table.csv"}), wide = run({"xmax=10", "log=log"});
    EXPECT_EQ(scored.status, 0) << scored.err;
    EXPECT_EQ(files::read_text(dir / "table.csv"),
              "iteration,evaluation,fun,error,share\n"
              "0,1,5.000000e-02,0.200000,0.666667\n"
              "1,3,4.000000e-02,0.100000,0.900000\n");
    EXPECT_THAT(scored.out, HasSubstr("1 iterations in 3 evaluations"));
    EXPECT_EQ(wide.status, 0);
    EXPECT_NE(wide.out, scored.out);
    files::write_text(dir / "course.csv", "evaluation,accepted,fit\n1,1,0.5\n2,0,0.9\n3,1,0.75\n4,1\n");
    EXPECT_THAT(run({"csv=table.csv", "course=course.csv"}).out,
                HasSubstr("greatest fit 0.75000 at iteration 1, where the model error is 10.000 %"));
    EXPECT_THAT(files::read_text(dir / "table.csv"), HasSubstr("0.900000,0.750000\n"));
}

TEST_F(ScoreProgram, RefusesWhatIsMissing) {
    const auto refused = [&](const std::vector<std::string>& words, const std::string& says) {
        const files::Outcome scored = run(words);
        EXPECT_EQ(scored.status, 23) << says;
        EXPECT_THAT(scored.err, HasSubstr(says));
    };
    refused({}, "true");
    write("true", 2, 1, 1, {0.5f, 0.25f});
    refused({}, "log=log cannot be opened");
    files::write_text(dir / "log", "nothing\n");
    refused({}, "holds no evaluation");
    files::write_text(dir / "log", log_text);
    files::write_text(dir / "course.csv", "evaluation,fit\n1,\n");
    refused({"course=course.csv"}, "course=course.csv holds no fit: run morvane with fit=y");
    write("vel", 2, 1, 1, {0.4f, 9.0f});
    write("Velout", 2, 1, 1, {2.5f, 7, 1, 1});
    write("bkgimg", 2, 3, 1, std::vector<float>(18, 1.0f));
    refused({}, "Velout=Velout has no complete panel 3");
    refused({"xmin=5", "xmax=4"}, "enclose nothing");
    write("Velout", 2, 1, -1, {});
    refused({}, "n3=-1");
}
