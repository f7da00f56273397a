#pragma once
/// Look-ups in the command line and in histories, and lines written to histories. Errors throw Fatal.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "lib/corelibs/qas/decode.h"
#include "lib/corelibs/qas/streaminf.h"

namespace qas {

/// The words of a command line as a program takes them: of each the first 255 characters, trailing blanks cut. A longer
/// one is warned about; one that is longer than a value can be stays whole, and is refused when it is scanned.
std::vector<std::string> finitpar(int argc, const char* const* argv, Notes& notes);
/// Keeps the argument vector, trailing blanks of each word cut. Nothing is scanned yet.
void initpar(Layer& layer, std::vector<std::string> argv);

/// The command line; it is scanned at the first call. `type`, `most`: see getpar_decode.
Values getch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// Adds one `name=value` word, as if typed last.
void getch_add_string(Layer& layer, std::string_view word);
/// The history of tag "in".
Values hetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// The command line, then the history of tag "in".
Values fetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// The command line, then the second table of tag "in", if it has one.
Values tetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// The history of `tag`, which becomes an input if it is new.
Values auxpar(Layer& layer, std::string_view names, std::string_view type, std::size_t most, std::string_view tag);
/// The history of a record, then its second table.
Values qasstrpar(Layer& layer, streaminf& stream, std::string_view names, std::string_view type, std::size_t most);

/// The text of a parameter, if it was given one.
std::optional<std::string> getch_text(Layer& layer, std::string_view names);
/// The same for a name that came out of data, `$NAME/file`, and so is in no table of keys.
std::optional<std::string> getch_variable(Layer& layer, std::string_view name);
/// The first integer of a parameter, or `otherwise`.
int getch_integer(Layer& layer, std::string_view names, int otherwise);

/// What the user gave and nobody reads, in the order given, a message each: names that are not in `keys`, words without
/// a name. A name that another value holds as `$NAME` is read.
/// @param with_files those of `par=` files too, which may hold the settings of several programs
std::vector<std::string> unread(Layer& layer, const KeyTable& keys, bool with_files);

using Value = std::variant<int, float, double, bool, std::string>;

/// A value as it stands behind `name=` in a history: "%d", "%g", "%.15g", yes or no, quoted text. A text that is in
/// double quotes already stands as it is.
std::string format_value(const Value& value);
/// The text in double quotes; those in it are doubled.
std::string quoted_text(std::string_view text);
/// Ends the run if a reader of the history would not find this text again: control characters, and more than the
/// scanner takes. `what` stands in front of the message.
void check_readable(const std::string& what, std::string_view text);

/// Appends "\t\tname=value\n" to the history of "out", of `tag` (created as an output if new), of a record, and
/// flushes. On an in/out dataset the line can be read back at once. A history whose data follow in the same stream is
/// complete once the data have begun, and so is a closed one: the line is dropped with a warning.
void putch(Layer& layer, std::string_view name, const Value& value);
void auxputch(Layer& layer, std::string_view name, const Value& value, std::string_view tag);
void qasstrput(Layer& layer, streaminf& stream, std::string_view name, const Value& value);
/// Writes the line under "putlast: name"; if the history ends with a line of that name, in its place.
void qasstrputlast(Layer& layer, streaminf& stream, std::string_view name, const Value& value);

}  // namespace qas
