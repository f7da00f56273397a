#pragma once
/// Look-ups in the command line and in histories, by tag. Errors throw Fatal. `type`, `most`: see getpar_decode.
#include <cstddef>
#include <string_view>

#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// The history of `tag`, which becomes an input if it is new.
Values auxpar(Layer& layer, std::string_view names, std::string_view type, std::size_t most, std::string_view tag);
/// The history of tag "in".
Values hetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// The command line, then the history of tag "in".
Values fetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);
/// The command line, then the second table of tag "in", if it has one.
Values tetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most);

}  // namespace qas
