#pragma once
/// Reads the run parameters.
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Fill the run parameters from the command line and the headers of the inputs, check that they fit together, write the
/// output headers and print the summary on standard error. Every value is recorded in the history of "out". Throws
/// qas::Fatal with the message of the first failed check; nothing but that history has been written by then.
Parms owparam(qas::Session& session);

}  // namespace morvane
