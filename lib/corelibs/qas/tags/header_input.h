#pragma once
/// Opening and reading input headers.
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// The record of `tag`; a new one is opened as an input.
streaminf& input_tag(Layer& layer, std::string_view tag);

/// Opens the header of an input record, reads it and finds its data. A missing file leaves the record not valid; a
/// header without data too, but with its text.
void qasstr_in_head(Layer& layer, streaminf& stream);

/// Reads the text of the header open in header_source, up to the byte 4 or the end of the stream, at most 16 MiB, and
/// answers the mark at its end.
void readhdr(Layer& layer, streaminf& stream);

/// Takes the data format from the header, "xdr_float" without one.
/// Errors: "unknown data format: %s \n %s \n".
void choose_input_format(Layer& layer, streaminf& stream);

}  // namespace qas
