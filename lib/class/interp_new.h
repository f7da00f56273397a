#pragma once
#include <span>

namespace morvane {

/// Lagrange interpolation weights of order size(w) - 1 at position x, the nodes at 1, 2, ... size(w):
/// w(i) = product over j /= i of (x - j) / (i - j).
void lg_int(float x, std::span<float> w);

}  // namespace morvane
