#pragma once
/// Looking a name up in a table and turning its text into values.
#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/parameters/scanner.h"

namespace qas {

/// Decoded values: nothing (the name is absent), integers or logicals, reals, double reals, or a text.
using Values = std::variant<std::monostate, std::vector<int>, std::vector<float>, std::vector<double>, std::string>;

/// Whether anything was found.
inline bool found(const Values& values) {
    return !std::holds_alternative<std::monostate>(values);
}

/// The newest entry among the blank-parted synonyms `names`, or null.
const Entry* getpar_find(const ParTable& table, std::string_view names);

/// Values of the newest of `names`. `type` starts with a letter: "1", "l" logical; "d", "i" integer; "m" low half of a
/// long integer; "f", "r" real; "g" double real; "s" text, copied whole. Numbers and logicals are lists: commas part
/// the elements, `3*v` or `3xv` repeats v. A count of 0 or less stores nothing; a comma at the end adds nothing.
/// Nothing stored is as good as absent. An integer beyond 32 bits becomes the nearest one. That, and text that is no
/// number or no yes or no, is warned about once with the key and the text.
/// @param most   room of the caller; a longer list is an error that names the key
/// @param where  what the key belongs to, for messages: "parameter", or a header
/// Errors: "getpar() unknown conversion type %c\n"; a list longer than `most`.
Values getpar_decode(const ParTable& table, std::string_view names, std::string_view type, std::size_t most,
                     const std::string& where, Notes& notes);

}  // namespace qas
