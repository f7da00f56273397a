#pragma once
/// The stages of a run: settings that change on the way.
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// A part of a run with its own settings.
struct Stage {
    Parms par;
    std::string words;  ///< its line in the file
};

/// The stages that the file of `stages` lists, one a line of key=value words; empty without that key. What a line does
/// not give is that of the run. A distance of knots alone (dxk, dzk) keeps their reach. Refuses, with file, line and
/// word, a key that no stage can have and a value that is none, and what check_stage refuses.
std::vector<Stage> read_stages(qas::Session& session, const Parms& par);

}  // namespace morvane
