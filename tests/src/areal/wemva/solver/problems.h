#pragma once
/// Problems with known solutions.
#include <string>
#include <vector>

#include "tests/src/areal/wemva/solver/caller.h"

namespace morvane {

struct Problem {
    std::string name;
    Vector x0, l, u;
    std::vector<int> nbd;
    Objective objective;
    Vector solution;
    double value = 0;         ///< objective at the solution
    double tolerance = 5e-6;  ///< of the components of the solution

    Caller caller(int m) const { return {m, x0, l, u, nbd}; }
};

const std::vector<Problem>& all_problems();
const Problem& named(const std::string& name);

}  // namespace morvane
