#pragma once
/// Text files with a row of numbers per line.

#include <functional>
#include <sstream>
#include <string>

namespace morvane::prepare {

/// Calls `row` for each line but blank ones and those whose first word begins with #, with the line's number (from 1),
/// the line, and its words from the first on. Returns whether the file can be read.
bool for_each_row(const std::string& path,
                  const std::function<void(int number, const std::string& line, std::istringstream& words)>& row);

}  // namespace morvane::prepare
