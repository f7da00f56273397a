#pragma once
/// What a run takes of a machine's memory.
#include <string>

#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Bytes that a process holds at the most of its work: its images, the fields of its threads, one shot's data. An
/// estimate, within a fifth of what large runs take; the program itself comes to some 20 MB more.
/// @param threads  of the process
/// @param in_team  whether the process shares the shots with others: one more image of a shot's window
/// @param leads    whether it has the solver
double memory_of_process(const Parms& par, int threads, bool in_team, bool leads);

/// "1.4 GB", "320 MB"
std::string memory_text(double bytes);

}  // namespace morvane
