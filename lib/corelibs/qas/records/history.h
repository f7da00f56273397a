#pragma once
/// Values in the history of a record: looked up, and as they are written. Errors throw Fatal.
#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Values of the newest of `names` in the history of a record, then in its second table.
Values qasstrpar(Layer& layer, streaminf& stream, std::string_view names, std::string_view type, std::size_t most);
/// Lets a dataset that is read and written see a line of its own history.
void read_back(Layer& layer, streaminf& stream, std::string_view line);

using Value = std::variant<int, float, double, bool, std::string>;

/// A value as it stands behind `name=` in a history: "%d", "%g", "%.15g", yes or no, quoted text. A text that is in
/// double quotes already stands as it is.
std::string format_value(const Value& value);
/// The text in double quotes; those in it are doubled.
std::string quoted_text(std::string_view text);
/// Ends the run if a reader of the history would not find this text again: control characters, and more than the
/// scanner takes. `what` stands in front of the message.
void check_readable(const std::string& what, std::string_view text);

}  // namespace qas
