#pragma once
/// Opening output, in/out, scratch and socket headers, and naming their data.

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// A header made anew: a file, a command, a socket or the standard output. That of "out" starts with a copy of the
/// history of "in".
void qasstr_out_head(Layer& layer, streaminf& stream);
/// A file that is read, if it exists, and then written on.
void qasstr_inout_head(Layer& layer, streaminf& stream);
/// A file made anew that is written and read.
void qasstr_scr_head(Layer& layer, streaminf& stream);
/// A socket that listens on a free port; its address becomes the header's name. Header lines are kept until a reader
/// connects.
void qasstr_socket_head(Layer& layer, streaminf& stream);

/// Accepts the reader of a socket header, within the parameter "timeout" in seconds (default 30), and sends it the
/// lines so far. Errors: "open_outsok(): open socket \"%s\" failed for tag \"%s\"\n".
void await_reader(Layer& layer, streaminf& stream);

}  // namespace qas
