#pragma once
#include <cstdint>
#include <vector>

namespace qas {

/// A window of a regular grid, all axes fastest first: `grid` samples per axis, of which `n` are taken from `first` on,
/// `step` apart. `esize` is the size of a sample in bytes.
struct Window {
    std::vector<std::int64_t> grid, n, first, step;
    std::int64_t esize = 4;
};

}  // namespace qas
