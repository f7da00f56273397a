#include "lib/corelibs/qas/tags/look_ups.h"

#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/tags/header_input.h"

namespace qas {

Values auxpar(Layer& layer, std::string_view names, std::string_view type, std::size_t most, std::string_view tag) {
    return qasstrpar(layer, input_tag(layer, tag), names, type, most);
}

Values hetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    return auxpar(layer, names, type, most, "in");
}

Values fetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    Values values = getch(layer, names, type, most);
    return found(values) ? values : hetch(layer, names, type, most);
}

Values tetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    Values values = getch(layer, names, type, most);
    if (found(values)) return values;
    streaminf& stream = input_tag(layer, "in");
    if (!stream.tetch_queue) return {};
    return getpar_decode(*stream.tetch_queue, names, type, most, "second table of tag \"in\":", layer.notes);
}

}  // namespace qas
