#pragma once
/// The life of an output behind its opening: its files are emptied, written, and put on the disk.

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// To be called when an output's files are known to be nobody else's: empties the header and whatever data files are
/// there; while outputs are held, leaves that to begin_outputs; and where they are replaced, goes on beside them.
/// Errors: a data file that another program writes.
void take_over(Layer& layer, streaminf& stream);

/// Writes the lines that waited.
void release_lines(Layer& layer, streaminf& stream);

/// Lets go of a header and of what is at its other end.
void close_header(streaminf& stream);
/// The same for an output that comes to nothing: files that were made for it go.
void discard(streaminf& stream);

/// Puts the data of an output on the disk; they stay open.
/// Errors: "... cannot be put on the disk: reason".
void sync_data(const streaminf& stream);
/// The same for the header.
void sync_header(const streaminf& stream);
/// Puts the header on the disk and closes it. Standard streams stay open. Where outputs are replaced, the data, put on
/// the disk before, then the header get into place: nothing but that can fail any more.
/// Errors: also an output command that fails.
void finish_header(Layer& layer, streaminf& stream);

/// Data, then header, of an output are put on the disk and closed.
void finish(Layer& layer, streaminf& stream);

}  // namespace qas
