#pragma once
/// What a member of a team does from its start to its end.
#include <string>
#include <vector>

#include "src/areal/wemva/team/team.h"

namespace morvane {

/// Reads the parameters when the leader has found them good, then computes shots until the run ends. Writes no output
/// and says nothing; the leader is told of a failure.
/// @param words the command line
void serve(const std::vector<std::string>& words, Team& team);

}  // namespace morvane
