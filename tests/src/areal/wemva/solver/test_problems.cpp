#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "tests/src/areal/wemva/solver/problems.h"

using namespace morvane;

namespace {

class Solves : public testing::TestWithParam<std::size_t> {};

/// x within its bounds: variable i of the problem moved there, by the definition.
double into_the_box(const Problem& problem, std::size_t i, double x) {
    const int nbd = problem.nbd[i];
    if (nbd == 1 || nbd == 2) x = std::max(x, problem.l[i]);
    if (nbd == 2 || nbd == 3) x = std::min(x, problem.u[i]);
    return x;
}

}  // namespace

TEST_P(Solves, WithAnyNumberOfPairs) {
    const Problem& problem = all_problems()[GetParam()];
    for (const int m : {1, 3, 5, 17}) {
        SCOPED_TRACE(problem.name + ", m = " + std::to_string(m));
        int outside = 0;  // no bound is passed, not even by the last bit
        const Objective objective = [&](std::span<const double> x, std::span<double> g) {
            for (std::size_t i = 0; i < x.size(); ++i) outside += x[i] != into_the_box(problem, i, x[i]);
            return problem.objective(x, g);
        };
        Caller caller = problem.caller(m);
        caller.factr = 10;
        caller.pgtol = 1e-9;
        int iterations = 0;
        double last = std::numeric_limits<double>::infinity();
        for (caller.advance(objective); caller.task.starts_with("NEW_X") && caller.evaluations < 2000;
             caller.advance(objective)) {
            ++iterations;
            EXPECT_LE(caller.f, last);
            last = caller.f;
        }
        EXPECT_TRUE(caller.task.starts_with("CONVERGENCE")) << caller.text();
        EXPECT_EQ(outside, 0);
        EXPECT_NEAR(caller.f, problem.value, 1e-8 * std::max(1.0, std::abs(problem.value)));
        for (std::size_t i = 0; i < caller.x.size(); ++i) {
            // x = P(x - g) at a solution and only there, P the projection on the box.
            EXPECT_NEAR(into_the_box(problem, i, caller.x[i] - caller.g[i]), caller.x[i], 2e-5) << i;
            ASSERT_NEAR(caller.x[i], problem.solution[i], problem.tolerance) << i;
        }
        EXPECT_EQ(caller.saved_int(34), caller.evaluations);
        EXPECT_EQ(caller.saved_int(30), iterations);
    }
}

INSTANTIATE_TEST_SUITE_P(Problem, Solves, testing::Range<std::size_t>(0, all_problems().size()), [](const auto& info) {
    std::string name = all_problems()[info.param].name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
    return name;
});

// What the memory is worth: a wrong entry of the subspace matrix still converges, by one reset after the other.
TEST(Problems, FewEvaluationsWithFivePairs) {
    const std::map<std::string, int> at_most{{"Rosenbrock", 55},
                                             {"Rosenbrock, 100 variables", 55},
                                             {"Beale", 18},
                                             {"Wood", 130},
                                             {"Himmelblau", 14},
                                             {"chain of 25", 30},
                                             {"every kind of bound", 20},
                                             {"Rosenbrock, upper bound on the first", 32},
                                             {"Rosenbrock, lower bound on the second", 24},
                                             {"Wood in a box", 30},
                                             {"string over an obstacle", 28},
                                             {"membrane between plates", 46},
                                             {"dense, 30 variables", 13},
                                             {"dense, one-sided", 24}};
    for (const auto& [name, limit] : at_most) {
        const Problem& problem = named(name);
        Caller caller = problem.caller(5);
        caller.factr = 1e7;
        caller.pgtol = 1e-5;
        caller.run(problem.objective);
        EXPECT_LE(caller.evaluations, limit) << name;
        EXPECT_TRUE(caller.task.starts_with("CONVERGENCE")) << name;
    }
}
