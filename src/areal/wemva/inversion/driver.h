#pragma once
/// The inversion: start-up, the loop around the solver, the closing line.
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// Runs one inversion from its parameters to its last panel. Throws qas::Fatal for everything it cannot continue from,
/// and StrictEnd (messages.h) where strict=y does not let the outcome pass.
void invert(qas::Session& session);

}  // namespace morvane
