/// Runs every input that was ever worth keeping through its target: the seeds and what fuzzing found.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzz/targets.h"

class Replay : public ::testing::TestWithParam<fuzz::Target> {};

TEST_P(Replay, CorpusAndFindings) {
    int inputs = 0;
    for (const char* kind : {"corpus", "findings"}) {
        const std::filesystem::path folder =
            std::filesystem::path(MORVANE_SOURCE_DIR) / "fuzz" / kind / GetParam().name;
        if (!std::filesystem::exists(folder)) continue;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            SCOPED_TRACE(entry.path());
            std::ifstream stream(entry.path(), std::ios::binary);
            const std::string input(std::istreambuf_iterator<char>(stream), {});
            GetParam().run(input);
            ++inputs;
        }
    }
    EXPECT_GT(inputs, 2) << "the seeds are missing";
}

INSTANTIATE_TEST_SUITE_P(Fuzz, Replay, ::testing::ValuesIn(fuzz::targets),
                         [](const auto& info) { return std::string(info.param.name); });
