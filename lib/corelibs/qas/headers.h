#pragma once
/// The table of datasets in use: opening headers, reading them, and their lines outside the parameters.
#include <cstdio>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// How a new tag is opened; `existing` opens nothing.
enum class Mode { output = 0, input = 1, inout = 2, socket_output = 3, existing = 4, scratch = 5 };

/// The record of `tag`. A new tag is opened for the mode; with Mode::existing a new tag gives null.
streaminf* tag_info(Layer& layer, std::string_view tag, Mode mode);

/// The record of `tag`, which must exist. Errors: "Unknown tag \"%s\" \n".
streaminf& known_tag(Layer& layer, std::string_view tag);

/// True if parameter "noheader" begins with y.
bool noheader(Layer& layer);

/// Number and name of the data format of a record's data; set_format takes effect before the first transfer.
/// Errors: "set_format( %s , %s ): unknown format ".
std::string get_format(Layer& layer, std::string_view tag);
void set_format(Layer& layer, std::string_view tag, std::string_view name);

/// Writes text to a record's open history behind its title, and flushes. False, with a warning, when the history is
/// complete because its data have begun in the same stream or because it was closed.
/// Errors: "I/O error writing output history\n"; a record that is no output.
bool append_history(Layer& layer, streaminf& stream, std::string_view text);

/// Once a record: two newlines, program, user, host, time. Waived by the parameter `<tag>.write_title`.
void write_title(Layer& layer, streaminf& stream);
/// Once a record: the line that names the data.
void write_outname(Layer& layer, streaminf& stream);
/// Once a record, at the first write or at the close: title, data name, "data_format", end mark if the data follow.
void qasstr_ready_out(Layer& layer, streaminf& stream);
/// Copies the text of an input history to an output that is still unused, and names its data.
void qasstr_copyh(Layer& layer, const streaminf& from, streaminf& to);

/// Ends an output header: closing lines if due, a newline, close. A second call warns and returns.
void qasstr_hclose(Layer& layer, streaminf& stream);
/// qasstr_hclose for "out" and for every in/out dataset; for one tag.
void hclose(Layer& layer);
void auxhclose(Layer& layer, std::string_view tag);
/// Ends the header, closes the data and forgets the tag.
void auxclose(Layer& layer, std::string_view tag);

/// The header and its parameter for messages: `header "name" (parameter tag)`.
std::string header_place(const streaminf& stream);

}  // namespace qas
