#pragma once
/// Numbers in columns of fixed width, as the logs and reports lay them out.
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>

namespace morvane {

/// Integer right-aligned in `width` columns; asterisks when it does not fit.
std::string column_int(long long value, int width);

/// Scientific form in `width` columns: one digit before the point, `digits` after it, exponent letter and two digits
/// (three digits drop the letter). Asterisks when it does not fit, or for a value that is not finite.
std::string column_exp(double value, int width, int digits, char letter = 'E');

/// Plain fixed form in `width` columns with `digits` decimals; asterisks when it does not fit or is not finite.
std::string column_fixed(double value, int width, int digits);

/// One item of a list-written line: text as it is, integers and reals in default width.
using ListItem = std::variant<std::string_view, long long, double>;

/// A line in default formatting, without its newline: it starts with a blank; texts as they are; integers in 11 columns
/// and reals with 17 digits, each after a blank; a blank parts a number from a text that follows it.
std::string list_line(std::initializer_list<ListItem> items);

}  // namespace morvane
