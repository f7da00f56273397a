#pragma once
/// What the program says to its user beside the results.
#include <initializer_list>

#include "lib/base/fixed_format.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

/// Ends the run: throws qas::Fatal with the formatted message and a newline.
[[noreturn, gnu::format(printf, 1, 2)]] void refuse(const char* format, ...);

/// The end of a run that strict=y does not let pass; the program ends with `status`.
struct StrictEnd : qas::Fatal {
    static constexpr int status = 3;
    using Fatal::Fatal;
};

/// With `strict` ends the run: throws StrictEnd with "strict=y: ", the formatted message and a newline. Else warns.
[[gnu::format(printf, 2, 3)]] void doubt(bool strict, const char* format, ...);

/// Writes one line of items to standard error, laid out by list_line.
void list_write(std::initializer_list<ListItem> items);

}  // namespace morvane
