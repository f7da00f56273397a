#pragma once
/// The inversion: start-up, the loop around the solver, the closing line.
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// Status of a run that a signal ended and that resume=y goes on with.
inline constexpr int exit_to_be_resumed = 75;

/// Runs one inversion from its parameters to its last panel. Throws qas::Fatal for everything it cannot continue from,
/// and StrictEnd (messages.h) where strict=y does not let the outcome pass. A signal ends it with
/// qas::Exit(exit_to_be_resumed) if there is a checkpoint, else as the signal does.
void invert(qas::Session& session);

}  // namespace morvane
