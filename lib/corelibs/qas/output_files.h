#pragma once
/// Outputs must not overwrite what another dataset in use is read from or written to.
#include <string>

#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// To be called when header and data of an output are named and nothing has been emptied: ends the run if one of them
/// is the header or a data file of another dataset in use, or will be that of another output. What counts is the file,
/// not how it is spelled. Streams, devices, and the data of an existing in/out dataset, which are not overwritten,
/// pass.
void check_files_are_free(Layer& layer, streaminf& stream);

/// The same for one data file, when it is about to be opened: inputs may have come into use since.
void check_data_is_free(Layer& layer, streaminf& stream, const std::string& name);

}  // namespace qas
