#pragma once
/// How a program that reads run parameters ends.
#include <functional>

#include "lib/corelibs/qas/session.h"

namespace morvane {

/// Does the work of a program and returns its exit status: what `work` returns; 23 with a message for what cannot be
/// continued from, a lack of memory among it; StrictEnd::status for the end of a run that strict=y does not let pass.
int end_of(qas::Session& session, const std::function<int()>& work);

}  // namespace morvane
