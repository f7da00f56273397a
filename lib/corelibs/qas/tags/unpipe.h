#pragma once
/// Data that come through a pipe, kept so that they can be read in any order.
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// Puts the data of an input tag that is a pipe or socket into a scratch file without a name, so that they can be read
/// in any order; a file stays as it is. Returns 0.
/// Errors: five texts that begin "make_unpipe", "make unpipe" or "Unable to create scratch file".
int make_unpipe(Layer& layer, std::string_view tag);

}  // namespace qas
