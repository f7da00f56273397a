#pragma once
/// What the program says to its user beside the results.
#include <initializer_list>

#include "lib/base/fixed_format.h"

/// Ends the run: throws qas::Fatal with the formatted message and a newline.
[[noreturn, gnu::format(printf, 1, 2)]] void refuse(const char* format, ...);

/// Writes one line of items to standard error, laid out by list_line.
void list_write(std::initializer_list<ListItem> items);
