#pragma once
#include "lib/corelibs/qas/session.h"

namespace morvane {

/// The whole of morvane_synth: read the parameters, make the model, check the grid, model the survey, write the
/// datasets and the parameter file; progress goes to standard error. Errors: qas::Fatal.
void synthesise(qas::Session& session);

}  // namespace morvane
