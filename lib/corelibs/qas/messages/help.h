#pragma once
/// What every program answers about itself.
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qas {

/// Version of all programs, as `--version` prints it.
std::string_view version();

/// If one of the words is `--help`, `-h` or `--version`, prints the help, or the program's name and version, on the
/// standard output. Returns the exit status then, 23 if that output cannot be written; empty if none was asked for.
std::optional<int> answer(int argc, const char* const* argv, std::string_view program,
                          const std::function<std::string()>& help);

}  // namespace qas
