#pragma once
#include "lib/corelibs/qas/session.h"

namespace morvane::prepare {

/// The whole of morvane_prepare: read the parameters and headers, choose, write datasets, parameter file and report.
/// Errors: qas::Fatal; what was written by then is removed.
void prepare_survey(qas::Session& session);

}  // namespace morvane::prepare
