#pragma once
/// The outputs of a program together: opened, begun, and put on the disk.
#include <string>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Opens header and data of an output.
/// Errors: "srite(): invalid output tag %s\n", and those of the opening routines.
void open_output(Layer& layer, const std::string& tag);
/// Empties what all held outputs held, and writes the lines and samples that waited.
void begin_outputs(Layer& layer);
/// Data, then header, of every output and in/out dataset are put on the disk and closed, so that no header stands on
/// the disk without its data. The tags stay known, but nothing can be written to them.
void finish_outputs(Layer& layer);

}  // namespace qas
