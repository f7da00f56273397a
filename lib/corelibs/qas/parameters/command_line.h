#pragma once
/// The command line of a program: look-ups in it, and what nobody looks up. Errors throw Fatal.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/parameters/scanner.h"

namespace qas {

/// What is known of a command line.
struct CommandLine {
    std::vector<std::string> argv;
    const KeyTable* keys = nullptr;  ///< every name that the program looks up; null: not declared
    bool first_invoke = true;        ///< the words have not been scanned
    ParTable getch_queue;
    std::int64_t clock = 0;  ///< timestamp of the next store, over all tables of a session
    Notes notes;
};

/// The words of a command line as a program takes them: of each the first 255 characters, trailing blanks cut. A longer
/// one is warned about; one that is longer than a value can be stays whole, and is refused when it is scanned.
std::vector<std::string> finitpar(int argc, const char* const* argv, Notes& notes);
/// Keeps the argument vector, trailing blanks of each word cut. Nothing is scanned yet.
void initpar(CommandLine& line, std::vector<std::string> argv);

/// Values of the newest of `names`; the words are scanned at the first call. `type`, `most`: see getpar_decode.
Values getch(CommandLine& line, std::string_view names, std::string_view type, std::size_t most);
/// Adds one `name=value` word, as if typed last.
void getch_add_string(CommandLine& line, std::string_view word);
/// The text of a parameter, if it was given one.
std::optional<std::string> getch_text(CommandLine& line, std::string_view names);
/// The same for a name that came out of data, `$NAME/file`, and so is in no table of keys.
std::optional<std::string> getch_variable(CommandLine& line, std::string_view name);
/// The first integer of a parameter, or `otherwise`.
int getch_integer(CommandLine& line, std::string_view names, int otherwise);

/// What the user gave and nobody reads, in the order given, a message each: names that are not in `keys`, words without
/// a name. A name that another value holds as `$NAME` is read.
/// @param with_files those of `par=` files too, which may hold the settings of several programs
std::vector<std::string> unread(CommandLine& line, const KeyTable& keys, bool with_files);

}  // namespace qas
