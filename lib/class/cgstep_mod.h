#pragma once
#include <functional>
#include <span>
#include <vector>

namespace morvane {

/// One step of an iterative solver: move the model x along the gradient g, and the residual rr along gg = F g.
/// forget true starts afresh; the step clears it. Returns 0, or 1 when there is nothing left to do.
using Stepper = std::function<int(bool& forget, std::span<float> x, std::span<const float> g, std::span<float> rr,
                                  std::span<const float> gg)>;

/// The last step, in model and residual. One per solve, empty at its start.
struct CgState {
    std::vector<float> s, ss;
};

/// Conjugate-direction step: the best combination of the gradient and the last step. Sums in double precision.
/// Ends the run with "cgstep: grad vanishes identically" when the first gradient does.
int cgstep(CgState& state, bool& forget, std::span<float> x, std::span<const float> g, std::span<float> rr,
           std::span<const float> gg);

}  // namespace morvane
