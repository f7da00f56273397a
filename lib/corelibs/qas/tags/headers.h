#pragma once
/// Tags: opened by mode, and closed.
#include <string>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// How a new tag is opened; `existing` opens nothing.
enum class Mode { output = 0, input = 1, inout = 2, socket_output = 3, existing = 4, scratch = 5 };

/// The record of `tag`. A new tag is opened for the mode; with Mode::existing a new tag gives null.
streaminf* tag_info(Layer& layer, std::string_view tag, Mode mode);

/// Number and name of the data format of a record's data; set_format takes effect before the first transfer.
/// Errors: "set_format( %s , %s ): unknown format ".
std::string get_format(Layer& layer, std::string_view tag);
void set_format(Layer& layer, std::string_view tag, std::string_view name);

/// Ends an output header: closing lines if due, the data put on the disk, a newline, the header put on the disk, close.
/// A second call warns and returns.
void qasstr_hclose(Layer& layer, streaminf& stream);
/// qasstr_hclose for "out" and for every in/out dataset; for one tag.
void hclose(Layer& layer);
void auxhclose(Layer& layer, std::string_view tag);
/// Ends the header, closes the data and forgets the tag.
void auxclose(Layer& layer, std::string_view tag);

}  // namespace qas
