#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/areal/wemva/team/team.h"

using namespace morvane;

TEST(ShotGroups, CoverWhatIsNotDoneAndStayWithinTheirBounds) {
    const auto text = [](int at_once, const std::vector<char>& done) {
        std::string all;
        for (const ShotGroup& group : shot_groups(at_once, done))
            all += std::to_string(group.number) + ":" + std::to_string(group.first) + "-" +
                   std::to_string(group.end - 1) + " ";
        return all;
    };
    const struct {
        int at_once;
        std::vector<char> done;
        const char* groups;
    } rows[] = {
        {1, {0, 0, 0}, "0:1-1 1:2-2 2:3-3 "},
        {1, {1, 0, 1}, "0:2-2 "},
        {3, std::vector<char>(7), "0:1-3 1:4-6 2:7-7 "},
        {3, {1, 1, 1, 0, 0, 0, 0}, "0:4-6 1:7-7 "},
        {3, {1, 0, 0, 0, 1, 0, 0}, "0:2-3 1:4-4 2:6-6 3:7-7 "},  // no group reaches beyond its bound
        {3, std::vector<char>(7, 1), ""},
    };
    for (const auto& row : rows) EXPECT_EQ(text(row.at_once, row.done), row.groups);
}
