#pragma once
/// Problems with known solutions.
#include <string>
#include <vector>

#include "tests/src/areal/wemva/solver/caller.h"

struct Problem {
    std::string name;
    Vector x0, l, u;
    std::vector<int> nbd;
    Objective objective;
    Vector solution;          ///< empty: only the value is known, the solutions are many
    double value = 0;         ///< objective at the solution
    double tolerance = 5e-6;  ///< of the components of the solution

    Caller caller(int m) const { return {m, x0, l, u, nbd}; }
};

/// Largest component of x - P(x - g), P the projection on the box: zero at a solution and only there.
double kkt_residual(const Problem& problem, std::span<const double> x, std::span<const double> g);

std::vector<Problem> all_problems();
