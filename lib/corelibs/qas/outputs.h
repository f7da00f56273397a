#pragma once
/// The end of outputs: what a program wrote reaches the disk, or the run ends with the reason.
#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// Lets go of a header and of what is at its other end.
void close_header(streaminf& stream);

/// Puts the data of an output on the disk; they stay open.
/// Errors: "... cannot be put on the disk: reason".
void sync_data(const streaminf& stream);
/// Closes the data, put on the disk before.
void finish_data(streaminf& stream);
/// Puts the header on the disk and closes it. Standard streams stay open.
/// Errors: also an output command that fails.
void finish_header(streaminf& stream);

/// Data, then header, of every output and in/out dataset are put on the disk and closed, so that no header stands on
/// the disk without its data. The tags stay known, but nothing can be written to them.
void finish_outputs(Layer& layer);

}  // namespace qas
