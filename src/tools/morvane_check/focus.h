#pragma once
/// How well the data focus as they are, with another sign, and with another time zero.
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "src/areal/wemva/inversion/inversion.h"
#include "src/areal/wemva/inversion/shots.h"

namespace morvane {

/// What is done to the wavefields before they are migrated.
struct Variant {
    bool conjugate_rec = false, conjugate_sou = false;
    double shift = 0.0;  ///< the records begin so much later
};

/// Energy of an image by depth: at zero offset, and at all offsets.
struct Focus {
    std::vector<double> zero, all;
    /// The share at zero offset over depths first to end - 1.
    double share(std::size_t first, std::size_t end) const;
    double share() const { return share(0, all.size()); }
};

/// Migrates the shots `used` (numbers from 1, rising) with the start model.
Focus focus_of(const Inversion& run, Shots& shots, View<const float, 2> model, const std::vector<int>& used,
               const Variant& variant);

}  // namespace morvane
