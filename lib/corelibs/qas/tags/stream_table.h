#pragma once
/// The table of datasets in use.
#include <memory>
#include <string_view>

#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {

/// The record of `tag`; null if it is not in use.
streaminf* find_tag(Layer& layer, std::string_view tag);
/// The record of `tag`, which must exist. Errors: "Unknown tag \"%s\" \n".
streaminf& known_tag(Layer& layer, std::string_view tag);

/// A record for a new tag, with the name its header has unless a history tells another.
std::unique_ptr<streaminf> new_record(Layer& layer, std::string_view tag, Entrytype type);
/// Enters a record and opens it; one that cannot be opened comes to nothing.
streaminf& add_record(Layer& layer, std::unique_ptr<streaminf> record, void (*open)(Layer&, streaminf&));

}  // namespace qas
