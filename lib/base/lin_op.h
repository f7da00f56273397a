#pragma once
/// Linear operators as the iterative solver takes them.
#include <functional>
#include <span>

namespace morvane {

/// int op(adj, add, x, y): adj false, y += F x; adj true, x += F' y; add false clears the output first. Returns 0.
/// State is captured, not kept in a module.
using LinOp = std::function<int(bool adj, bool add, std::span<float> x, std::span<float> y)>;

/// Clears the output of an operator (x if adj, else y) unless add is set.
void adjnull(bool adj, bool add, std::span<float> x, std::span<float> y);

/// The identity: m and d of one size.
int i_op(bool adj, bool add, std::span<float> m, std::span<float> d);

}  // namespace morvane
