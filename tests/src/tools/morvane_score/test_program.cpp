/// The program on datasets written by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "lib/corelibs/qas/session.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class ScoreProgram : public testing::Test {
protected:
    fs::path dir;
    void SetUp() override {
        dir = fs::temp_directory_path() / ("score." + std::to_string(::getpid()) + "." +
                                           testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    void write(const std::string& name, int n1, int n2, int n3, const std::vector<float>& values,
               const std::vector<std::pair<std::string, float>>& more = {}) {
        qas::Session session({"writer", "data=" + (dir / name).string(), "datapath=" + dir.string() + "/"});
        for (auto [key, value] : {std::pair{"n1", n1}, {"n2", n2}, {"n3", n3}}) session.to_history(key, value, "data");
        for (auto [key, value] : {std::pair{"d1", 10.0f}, {"d2", 10.0f}, {"o2", -10.0f}, {"d3", 10.0f}})
            session.to_history(key, value, "data");
        for (const auto& [key, value] : more) session.to_history(key, value, "data");
        session.srite("data", values.data(), static_cast<std::int64_t>(values.size() * sizeof(float)));
    }
    void text(const std::string& name, const std::string& what) { std::ofstream(dir / name) << what; }

    std::pair<int, std::string> run(const std::string& words) {
        const std::string command =
            "cd '" + dir.string() + "' && '" MORVANE_BIN_DIR "/morvane_score' " + words + " 2>&1 </dev/null";
        FILE* pipe = popen(command.c_str(), "r");
        std::string out;
        for (int c; (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
        const int status = pclose(pipe);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
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
    write("true", 2, 1, 1, {0.5f, 0.25f}, {{"xmin", 0.0f}, {"xmax", 0.0f}, {"zmin", 0.0f}, {"zmax", 0.0f}});
    write("vel", 2, 1, 1, {0.4f, 9.0f});
    write("Velout", 2, 1, 1, {2.5f, 7, 1, 1, 2.0f / 0.9f, 7});  // 1 / slowness
    write("bkgimg", 2, 3, 1, {1, 0, 2, 0, 1, 0, 5, 5, 0, 5, 5, 5, 1, 0, 3, 0, 0, 9});
    text("log", log_text);
    const auto [status, out] = run("csv=table.csv");
    EXPECT_EQ(status, 0) << out;
    std::ifstream csv(dir / "table.csv");
    std::stringstream rows;
    rows << csv.rdbuf();
    EXPECT_EQ(rows.str(),
              "iteration,evaluation,fun,error,share\n"
              "0,1,5.000000e-02,0.200000,0.666667\n"
              "1,3,4.000000e-02,0.100000,0.900000\n");
    EXPECT_THAT(out, HasSubstr("1 iterations in 3 evaluations"));
    const auto [wide, whole] = run("xmax=10 log=log");
    EXPECT_EQ(wide, 0);
    EXPECT_NE(whole, out);
}

TEST_F(ScoreProgram, RefusesWhatIsMissing) {
    const auto refused = [&](const std::string& words, const std::string& says) {
        const auto [status, out] = run(words);
        EXPECT_EQ(status, 23) << words;
        EXPECT_THAT(out, HasSubstr(says));
    };
    refused("", "true");
    write("true", 2, 1, 1, {0.5f, 0.25f});
    refused("", "log=log cannot be opened");
    text("log", "nothing\n");
    refused("", "holds no evaluation");
    text("log", log_text);
    write("vel", 2, 1, 1, {0.4f, 9.0f});
    write("Velout", 2, 1, 1, {2.5f, 7, 1, 1});
    write("bkgimg", 2, 3, 1, std::vector<float>(18, 1.0f));
    refused("", "Velout=Velout has no complete panel 3");
    refused("xmin=5 xmax=4", "enclose nothing");
    write("Velout", 2, 1, -1, {});
    refused("", "n3=-1");
}
