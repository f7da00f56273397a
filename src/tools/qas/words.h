#pragma once
/// The words behind `qas SUBCOMMAND`: plain files, name=value parameters, flags.
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/corelibs/qas/session.h"

namespace qastool {

struct Words {
    std::string program;  ///< "qas-SUBCOMMAND": the title in histories
    std::vector<std::string> files;
    std::vector<std::pair<std::string, std::string>> parameters;
    std::vector<std::string> flags;

    bool has_flag(std::string_view flag) const;
};

/// Sorts the words. A word is a parameter if a name (letter; letters, digits, `_`, `-`, `.`) stands before its first
/// `=`, a flag if it begins with `-`, else a file; "-" is the file "stdin".
/// Errors: a file name with `|`, `:` or a newline in it: names come from shell patterns too, and must start nothing.
Words sort_words(std::string program, const std::vector<std::string>& words);

/// Refuses parameters and flags that the subcommand does not know. A `#` at the end of a known key stands for an axis
/// number, 1 to 9. `par` is known everywhere; those of the dataset layer for an output only if `writes_dataset`.
void check_words(const Words& words, std::initializer_list<std::string_view> keys,
                 std::initializer_list<std::string_view> flags, bool writes_dataset);

/// Refuses a number of files outside least..most, and standard input named twice. With none, and `least` 0, standard
/// input is the file, unless it is a terminal.
void check_files(Words& words, std::size_t least, std::size_t most);

/// Refuses a file that cannot be read, or is a folder.
void check_readable(const std::string& file);

/// The words of a session: the parameters of the command line, then `tag="file"` for every pair.
std::vector<std::string> session_words(const Words& words,
                                       const std::vector<std::pair<std::string, std::string>>& tags);

/// The text as an integer (blanks around it allowed); empty if it is none, or beyond 64 bits.
std::optional<std::int64_t> whole_number(std::string_view text);
/// The text as a finite real number; empty if it is none.
std::optional<double> real_number(const std::string& text);

/// Parameter `key` as an integer of at least `least`, as a real number of at least 0, as yes or no. Empty if it is
/// absent. Errors: any other value.
std::optional<std::int64_t> integer_parameter(qas::Session& session, const std::string& key, std::int64_t least);
std::optional<double> tolerance_parameter(qas::Session& session, const std::string& key);
std::optional<bool> logical_parameter(qas::Session& session, const std::string& key);

/// The text with control characters shown as `?`: what stands in a header must not steer a terminal.
std::string printable(std::string_view text);

}  // namespace qastool
