#pragma once
/// Warnings to the user.

namespace morvane {

/// Writes "PROGRAM: warning: ", the formatted message and a newline to standard error only: standard output may carry a
/// history, which keeps whatever is written to it. PROGRAM is the word that the program was started with, as in errors.
[[gnu::format(printf, 1, 2)]] void warn(const char* format, ...);

}  // namespace morvane
