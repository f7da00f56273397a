#pragma once
/// The scanner that finds `name=value` pairs in command lines, parameter files and histories, and the tables it fills.
///
/// In a text a name stands at the start of a line or straight after a blank or tab (a `#` between does not count), is a
/// letter followed by letters, digits, `-` or `_`, and ends at `=`. The value is quoted ("..." or '...', a doubled
/// quote stands for one, a newline closes it too) or bare (up to the next blank, tab or newline). A line that starts
/// with `#` is a comment. Everything else is skipped. `par=file` is read in its place.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qas {

/// What is known of a name. No value: the name was given bare (`name=` as a word of the command line), which hides
/// earlier values. `timestamp` orders stores across all tables of a session.
struct Entry {
    std::optional<std::string> value;
    std::int64_t timestamp = 0;
};

struct ParTable : std::map<std::string, Entry, std::less<>> {
    std::vector<std::string> files;  ///< parameter files that were read
};

/// Bytes of the longest name or value, its quotes included, that the scanner takes.
constexpr std::size_t max_token = 8191;

/// Who wrote a text. What stands in a history may have come from anywhere: a `par=` there reads regular files only.
enum class Origin { user, history };

/// Stores one pair; a later store of the same name replaces the value. `clock` grows by one.
void getpar_hash_store(ParTable& table, std::int64_t& clock, std::string_view name, std::optional<std::string> value);

/// Scans `text` and stores its pairs, `par=` files included in place.
/// Errors: a token over 8191 characters; a parameter file that cannot be read, includes itself, or brings the text
/// included by this scan over 16 MiB.
void getpar_scan(ParTable& table, std::int64_t& clock, std::string_view text, Origin origin);

/// Stores one word of the command line. A word with a quote in it is scanned like a text; in any other, everything
/// after the first `=` is the value. Words without a name are passed over.
/// Errors: those of getpar_scan; a value over 8191 bytes.
void getpar_string_store(ParTable& table, std::int64_t& clock, std::string_view word);

}  // namespace qas
