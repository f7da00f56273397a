#pragma once
/// The lines of output headers.
#include <string>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Writes text to a record's open history behind its title, and flushes. False, with a warning, when the history is
/// complete because its data have begun in the same stream or because it was closed.
/// Errors: "I/O error writing output history\n"; a record that is no output.
bool append_history(Layer& layer, streaminf& stream, std::string_view text);

/// A parameter line at the end of the history that replaces a line of the same name if that is the last one.
void append_last(Layer& layer, streaminf& stream, std::string_view name, std::string_view line);

/// Once per record: two newlines, program, user, host, time. Waived by the parameter `<tag>.write_title`.
void write_title(Layer& layer, streaminf& stream);
/// Once per record: the line that names the data.
void write_outname(Layer& layer, streaminf& stream);
/// Makes the data name the files of `names` alone, in the header too.
void update_out(Layer& layer, streaminf& stream, const std::string& names);
/// Once per record, at the first write or at the close: title, data name, "data_format", end mark if the data follow.
void qasstr_ready_out(Layer& layer, streaminf& stream);
/// Copies the text of an input history to an output that is still unused, and names its data.
void qasstr_copyh(Layer& layer, const streaminf& from, streaminf& to);

}  // namespace qas
