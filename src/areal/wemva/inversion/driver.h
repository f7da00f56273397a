#pragma once
/// The inversion: start-up, the loop around the solver, the closing line.
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/team/team.h"

namespace morvane {

/// Status of a run that a signal ended and that resume=y goes on with.
inline constexpr int exit_to_be_resumed = 75;

/// What the leader asks of the members of its team beside the passes over the shots (join_pass): to read and check the
/// parameters as it has done, and meet; to enter the stage of this number, whose start model it shares.
inline constexpr int task_set_up = 101, task_enter_stage = 102;

/// Runs one inversion from its parameters to its last panel; the team's leader calls it. Throws qas::Fatal for
/// everything it cannot continue from, and StrictEnd (messages.h) where strict=y does not let the outcome pass. A
/// signal ends it with qas::Exit(exit_to_be_resumed) if there is a checkpoint, else as the signal does.
void invert(qas::Session& session, Team& team);

}  // namespace morvane
