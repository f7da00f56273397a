#pragma once
/// Do the records have the sign of time that the program takes them to have? What a run asks before it begins.
#include <array>
#include <functional>
#include <string>
#include <vector>

#include "src/areal/wemva/focus/focus.h"

namespace morvane {

/// Shares at zero offset, over the depths of the first third of the energy, in the order of sign_variants.
using SignShares = std::array<double, 4>;

SignShares shares_of(const std::array<Focus, 4>& images);
/// The variant other than the data as they are that focuses best: 1 to 3.
std::size_t best_other(const SignShares& shares);
/// What to do about variant 1 to 3: "take the complex conjugates of ...".
const char* cure_of_sign(std::size_t variant);

/// Which shots and frequencies a run looks at.
struct SignPlan {
    std::vector<int> shots;  ///< numbers from 1, around the middle of the survey
    int every = 1;           ///< one of so many frequencies
};

/// Six shots, a 24th of the spread or more apart, and a quarter of the frequencies, or half of them where that is no
/// more than a hundredth of what the run migrates. Empty where nothing can be told: without subsurface offsets, with
/// check_signs=n.
SignPlan plan_signs(const Parms& par);

/// Migrates the shots of the plan with each variant. Returns the warning if another one focuses, and better by a tenth;
/// empty otherwise, and where the run is about to be interrupted.
std::string doubt_of_signs(FewShots& few);

}  // namespace morvane
