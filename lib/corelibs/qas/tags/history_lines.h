#pragma once
/// Parameter lines written to histories.
#include <string_view>

#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Appends "\t\tname=value\n" to the history of "out", of `tag` (created as an output if new), of a record, and
/// flushes. On an in/out dataset the line can be read back at once. A history whose data follow in the same stream is
/// complete once the data have begun, and so is a closed one: the line is dropped with a warning.
void putch(Layer& layer, std::string_view name, const Value& value);
void auxputch(Layer& layer, std::string_view name, const Value& value, std::string_view tag);
void qasstrput(Layer& layer, streaminf& stream, std::string_view name, const Value& value);
/// Writes the line under "putlast: name"; if the history ends with a line of that name, in its place.
void qasstrputlast(Layer& layer, streaminf& stream, std::string_view name, const Value& value);

}  // namespace qas
