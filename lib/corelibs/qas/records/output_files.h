#pragma once
/// Outputs must not overwrite what another dataset in use is read from or written to.
#include <string>
#include <vector>

#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// To be called when header and data of an output are named and nothing has been emptied: ends the run if one of them
/// is the header or a data file of another dataset in use, or will be that of another output. What counts is the file,
/// not how it is spelled. Streams, devices, and the data of an existing in/out dataset, which are not overwritten,
/// pass.
void check_files_are_free(Layer& layer, streaminf& stream);

/// To be called when a program opens a text file for writing, before it is emptied: ends the run if that is the file of
/// a dataset in use, a parameter file, a standard stream, or a text file taken before.
void check_plain_output(Layer& layer, const PlainFile& file);

/// A record's data files that are reached by name.
std::vector<std::string> data_files(Layer& layer, streaminf& stream);
/// Whether a record's files are written anew.
bool overwrites(const streaminf& stream);
/// An output whose header goes to a device such as /dev/null: nobody will find its data.
bool is_lost(const streaminf& stream);

/// The same for a header that is about to be opened.
void check_header_is_free(Layer& layer, const streaminf& stream);
/// The same for the data files, when they are about to be opened: inputs may have come into use since.
void check_data_is_free(Layer& layer, streaminf& stream);

}  // namespace qas
