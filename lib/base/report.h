#pragma once
#include <cstdio>
#include <initializer_list>

#include "lib/base/fixed_format.h"

namespace morvane {

/// One line of items in default formatting on standard error; standard output may carry a history.
inline void report(std::initializer_list<ListItem> items) {
    std::fprintf(stderr, "%s\n", list_line(items).c_str());
}

}  // namespace morvane
