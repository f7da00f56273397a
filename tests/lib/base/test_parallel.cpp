#include <gtest/gtest.h>

#include <atomic>
#include <numeric>
#include <stdexcept>

#include "lib/base/parallel.h"

using namespace morvane;

TEST(Parallel, EveryPartRunsOnceAndAnExceptionReachesTheCaller) {
    std::vector<std::atomic<int>> ran(7);
    in_parallel(7, [&](int i) { ++ran[at(i)]; });
    for (const std::atomic<int>& n : ran) EXPECT_EQ(n, 1);
    std::atomic<int> finished = 0;
    EXPECT_THROW(in_parallel(4,
                             [&](int i) {
                                 if (i == 2) throw std::runtime_error("part 2");
                                 ++finished;
                             }),
                 std::runtime_error);
    EXPECT_EQ(finished, 3);
}

TEST(Turns, PlacesAreWrittenInOrderOrOneAtATime) {
    constexpr int turns = 60, places = 5;
    for (const bool in_order : {true, false}) {
        Turns line(places, in_order);
        std::vector<std::vector<int>> seen(places);
        std::atomic<int> next = 0;
        in_parallel(4, [&](int) {
            for (int turn = next++; turn < turns; turn = next++) {
                if (turn % 7 == 3) {
                    line.skip(turn);
                    continue;
                }
                for (int place = 0; place < places; ++place)
                    line.pass(place, turn, [&] { seen[at(place)].push_back(turn); });
            }
        });
        std::vector<int> expected;
        for (int turn = 0; turn < turns; ++turn)
            if (turn % 7 != 3) expected.push_back(turn);
        for (std::vector<int>& turns_at : seen) {
            if (!in_order) std::ranges::sort(turns_at);
            EXPECT_EQ(turns_at, expected);
        }
    }
}

TEST(Turns, AThreadThatFailsOnTheWayHoldsNobodyUp) {
    Turns line(4, true);
    std::atomic<int> arrived = 0;
    EXPECT_THROW(in_parallel(3,
                             [&](int turn) {
                                 try {
                                     for (int place = 0; place < 4; ++place)
                                         line.pass(place, turn, [&] {
                                             if (turn == 1 && place == 2) throw std::runtime_error("lost");
                                             ++arrived;
                                         });
                                 } catch (...) {
                                     line.skip(turn);
                                     throw;
                                 }
                             }),
                 std::runtime_error);
    EXPECT_EQ(arrived, 4 + 2 + 4);
}
