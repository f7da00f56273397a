#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "tests/src/areal/wemva/solver/problems.h"

namespace {

const std::vector<Problem>& problems() {
    static const std::vector<Problem> list = all_problems();
    return list;
}

/// The objective, with a check that no bound is passed, not even by the last bit.
Objective watched(const Problem& problem, int& outside) {
    return [&](std::span<const double> x, std::span<double> g) {
        for (std::size_t i = 0; i < x.size(); ++i) {
            const int nbd = problem.nbd[i];
            if ((nbd == 1 || nbd == 2) && x[i] < problem.l[i]) ++outside;
            if ((nbd == 2 || nbd == 3) && x[i] > problem.u[i]) ++outside;
        }
        return problem.objective(x, g);
    };
}

class Solves : public testing::TestWithParam<std::size_t> {};

}  // namespace

TEST_P(Solves, WithAnyNumberOfPairs) {
    const Problem& problem = problems()[GetParam()];
    for (const int m : {1, 3, 5, 17}) {
        SCOPED_TRACE(problem.name + ", m = " + std::to_string(m));
        int outside = 0;
        int iterations = 0;
        const Objective objective = watched(problem, outside);
        Caller caller = problem.caller(m);
        caller.factr = 10;
        caller.pgtol = 1e-9;
        double last = std::numeric_limits<double>::infinity();
        do {
            caller.advance(objective);
            if (!caller.task.starts_with("NEW_X")) break;
            ++iterations;
            EXPECT_LE(caller.f, last);
            last = caller.f;
        } while (caller.evaluations < 2000);

        EXPECT_TRUE(caller.task.starts_with("CONVERGENCE")) << caller.text();
        EXPECT_EQ(outside, 0);
        EXPECT_LT(kkt_residual(problem, caller.x, caller.g), 2e-5);
        EXPECT_NEAR(caller.f, problem.value, 1e-8 * std::max(1.0, std::abs(problem.value)));
        for (std::size_t i = 0; i < problem.solution.size(); ++i) {
            ASSERT_NEAR(caller.x[i], problem.solution[i], problem.tolerance) << i;
        }
        EXPECT_EQ(caller.saved_int(34), caller.evaluations);
        EXPECT_EQ(caller.saved_int(30), iterations);
    }
}

INSTANTIATE_TEST_SUITE_P(Problem, Solves, testing::Range<std::size_t>(0, all_problems().size()), [](const auto& info) {
    std::string name = problems()[info.param].name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return std::isalnum(c) == 0; }, '_');
    return name;
});

TEST(Problems, ThereAreManyOfThemAndTheirGradientsAreRight) {
    EXPECT_GE(problems().size(), 30u);
    for (const Problem& problem : problems()) {
        SCOPED_TRACE(problem.name);
        Vector x = problem.x0;
        for (double& value : x) value -= 0.013;  // off the kinks and symmetries of the start points
        Vector g(x.size()), scratch(x.size());
        problem.objective(x, g);
        for (std::size_t i = 0; i < std::min<std::size_t>(x.size(), 5); ++i) {
            const double h = 1e-6 * std::max(1.0, std::abs(x[i]));
            const double at = x[i];
            x[i] = at + h;
            const double above = problem.objective(x, scratch);
            x[i] = at - h;
            const double below = problem.objective(x, scratch);
            x[i] = at;
            EXPECT_NEAR((above - below) / (2 * h), g[i], 1e-4 * std::max(1.0, std::abs(g[i]))) << i;
        }
    }
}

// What the memory is worth: a wrong entry of the subspace matrix still converges, by one reset after the other.
TEST(Problems, FewEvaluationsWithFivePairs) {
    const std::map<std::string, int> at_most{{"Rosenbrock", 55},
                                             {"Rosenbrock, 100 variables", 55},
                                             {"Beale", 18},
                                             {"Powell singular", 48},
                                             {"Wood", 130},
                                             {"helical valley", 35},
                                             {"Freudenstein and Roth", 24},
                                             {"Himmelblau", 14},
                                             {"variably dimensioned", 23},
                                             {"chain of 25", 30},
                                             {"every kind of bound", 20},
                                             {"Rosenbrock, upper bound on the first", 32},
                                             {"Rosenbrock, lower bound on the second", 24},
                                             {"Wood in a box", 30},
                                             {"string over an obstacle", 28},
                                             {"membrane between plates", 46},
                                             {"dense, 30 variables", 13},
                                             {"dense, one-sided", 24}};
    std::size_t met = 0;
    for (const Problem& problem : problems()) {
        const auto limit = at_most.find(problem.name);
        if (limit == at_most.end()) continue;
        ++met;
        Caller caller = problem.caller(5);
        caller.factr = 1e7;
        caller.pgtol = 1e-5;
        caller.run(problem.objective);
        EXPECT_LE(caller.evaluations, limit->second) << problem.name;
        EXPECT_TRUE(caller.task.starts_with("CONVERGENCE")) << problem.name;
    }
    EXPECT_EQ(met, at_most.size());
}
