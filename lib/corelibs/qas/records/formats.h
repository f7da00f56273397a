#pragma once
/// Names and numbers of the data formats, and the byte order of the XDR ones.
#include <cstddef>
#include <string>
#include <string_view>

namespace qas {

/// Number of a format name; -1 for an unknown one. Numbers below 3 are converted, the others move as they are.
int get_format_num(std::string_view name);
/// Name of a format number; empty for an unknown one.
std::string get_format_name(int number);
/// All names, blank-parted, for messages.
std::string format_list();

/// Copies `count` 4-byte words from `source` to `target`, reversing the bytes of each. The two may be equal but not
/// overlap otherwise; any alignment.
void swap_words(const void* source, void* target, std::size_t count);

}  // namespace qas
