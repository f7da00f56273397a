#pragma once
/// The three interchangeable sets of routines that move a record's bytes without converting them.

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Picks the set for the record's data name: one stream, one descriptor, or several files (";" between names).
/// Errors: an in/out or scratch dataset whose data would follow its header.
void init_io(Layer& layer, streaminf& stream);

/// A stream shared with a header ("follow_hdr"), standard input or standard output.
extern const IoRoutines file_io;
/// One data file by descriptor.
extern const IoRoutines fd_io;
/// Data spread over several files.
extern const IoRoutines multifd_io;

/// Opens one data file by the entry type of the record: input read-only, the others created as needed.
/// Returns an empty descriptor, the resolved name in `name` and the reason in the record, if that fails. A name that
/// came out of a header must be that of a regular file. See also check_data_is_free, to be called before.
Descriptor open_data_file(Layer& layer, streaminf& stream, const std::string& given, std::string& name);

/// Opens an output data file for this program alone, unless nobody will find it; what it holds stays.
/// Errors: another program writes it.
Descriptor open_unshared(Layer& layer, const streaminf& stream, const std::string& name, int flags);

}  // namespace qas
