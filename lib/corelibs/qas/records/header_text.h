#pragma once
/// Text that goes to the open header of an output, whole or not at all.
#include <cstddef>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Bytes at a header's end among which a repeated last line is found.
constexpr std::size_t header_look_back = 256;

/// Whether lines can be written: the header is open, or kept for a reader to come.
bool header_open(const streaminf& stream);

/// Writes text to a record's open header as it is, and flushes; while the output is held, the text waits. What came
/// into an ordinary file of a text that cannot be written whole is taken back.
/// @param label  what stands before the system's reason on the standard error
/// Errors: "I/O error writing output history\n".
void write_header_text(Layer& layer, streaminf& stream, std::string_view text, const char* label);

/// Writes `line` in the place of the last line of the header, if that begins with `start` and nobody has written since.
/// False if it does not.
bool replace_last_line(Layer& layer, streaminf& stream, std::string_view start, std::string_view line);

}  // namespace qas
