#pragma once
/// What a run takes of a machine's memory.
#include <cstdint>
#include <string>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Bytes that `keep` permits: a number of GB (1e9 bytes), or half of the memory that programs can still get. 0: none.
/// Errors: refused if it is neither a positive number, nor `auto` or `n`.
std::int64_t keep_limit(const std::string& keep);

/// Bytes that the background fields of a shot take at most.
std::int64_t kept_bytes(const Parms& par);

/// Bytes that a process takes for its work: its images, the fields of its threads, one shot's data. An estimate: with
/// fewer frequencies than threads take at a time part of it is never touched, and the program itself comes on top, some
/// tens of MB, and what is kept with `keep`.
/// @param threads  of the process
/// @param in_team  whether the process shares the shots with others: one more image of a shot's window
/// @param leads    whether it has the solver
double memory_of_process(const Parms& par, int threads, bool in_team, bool leads);

/// "1.4 GB", "320 MB"
std::string memory_text(double bytes);

}  // namespace morvane
