#pragma once
/// How far the outputs of a program have come, and going on from there in another program.
#include <vector>

#include "lib/corelibs/qas/files/output_extent.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Puts every output on the disk; it stays open.
/// Errors: those of finish_outputs; a dataset whose data are in several files.
std::vector<OutputExtent> sync_outputs(Layer& layer);

/// In place of begin_outputs: header and data of each output, opened and held, are cut back to what is recorded, and
/// written on from there. Lines and samples that waited are in them already, and are dropped; those of outputs without
/// a file of their own are written.
/// Errors: an output that is not among the recorded, stands in another file, or is shorter; nothing has been changed
/// then.
void resume_outputs(Layer& layer, const std::vector<OutputExtent>& extents);

}  // namespace qas
