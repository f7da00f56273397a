#include "lib/corelibs/qas/tags/stream_table.h"

#include <csignal>
#include <string>
#include <utility>

#include "lib/corelibs/qas/data/outputs.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"

namespace qas {

streaminf* find_tag(Layer& layer, std::string_view tag) {
    for (const auto& stream : layer.streams)
        if (stream->tagname == tag) return stream.get();
    return nullptr;
}

streaminf& known_tag(Layer& layer, std::string_view tag) {
    streaminf* stream = find_tag(layer, tag);
    if (!stream) qaserr("Unknown tag \"%s\" \n", std::string(tag).c_str());
    return *stream;
}

std::unique_ptr<streaminf> new_record(Layer& layer, std::string_view tag, Entrytype type) {
    auto record = std::make_unique<streaminf>();
    record->tagname = tag;
    record->entrytype = type;
    std::string name(tag);
    if (tag == "in" || tag == "out") name = tag == "in" ? "stdin" : "stdout";
    if (type != STREAMSOCKOUT) record->headername = getch_text(layer, name).value_or(name);
    return record;
}

streaminf& add_record(Layer& layer, std::unique_ptr<streaminf> record, void (*open)(Layer&, streaminf&)) {
    streaminf& stream = *record;
    const auto at = layer.streams.insert(layer.streams.end(), std::move(record));
    try {
        open(layer, stream);
    } catch (...) {
        discard(stream);
        layer.streams.erase(at);
        throw;
    }
    return stream;
}

Layer::~Layer() {
    for (const auto& stream : streams) {
        stream->ioinf.reset();
        stream->held ? discard(*stream) : close_header(*stream);
    }
    if (broken_pipe_action) std::signal(SIGPIPE, *broken_pipe_action);
}

}  // namespace qas
