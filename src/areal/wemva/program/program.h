#pragma once
/// What the programs of the inversion share.
#include "src/areal/wemva/team/team.h"

namespace morvane {

/// Before everything else in main: how numbers and failing writes are treated.
void prepare_process();

/// The program, whatever the team: answers about itself, or an inversion; members of the team serve their leader.
/// @param name the program's
/// Returns the exit status.
int run_program(int argc, const char* const* argv, const char* name, Team& team);

}  // namespace morvane
