#pragma once
/// Memory that a run may use.
#include <cstdint>
#include <string>

namespace morvane {

/// Bytes that `keep` permits: a number of GB (1e9 bytes), or half of the memory that programs can still get. 0: none.
/// Errors: refused if it is neither a positive number, nor `auto` or `n`.
std::int64_t keep_limit(const std::string& keep);

}  // namespace morvane
