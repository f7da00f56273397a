#pragma once
/// Text on standard output, and vectors as text.
#include <span>
#include <string>
#include <string_view>

namespace morvane::solver {

/// Print on standard output.
void screen(std::string_view text);

/// Values, six per line, behind four blanks.
std::string six_a_line(std::span<const double> x);
/// A blank line, then the values six a line, the first line with a label in the first four columns. Exactly six values
/// are followed by an empty line.
std::string labelled_vector(std::string_view label, std::span<const double> x);

}  // namespace morvane::solver
