#include "lib/corelibs/qas/tags/headers.h"

#include <memory>
#include <string>

#include "lib/corelibs/qas/data/outputs.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/records/header_text.h"
#include "lib/corelibs/qas/tags/header_input.h"
#include "lib/corelibs/qas/tags/header_output.h"
#include "lib/corelibs/qas/tags/look_ups.h"
#include "lib/corelibs/qas/tags/stream_table.h"

namespace qas {
namespace {

/// A new record for the mode; the history of "in" may name the header of an output.
std::unique_ptr<streaminf> record_for(Layer& layer, std::string_view tag, Mode mode) {
    constexpr Entrytype types[] = {STREAMOUT, STREAMIN, STREAMINOUT, STREAMSOCKOUT, STREAMOUT, STREAMSCR};
    auto record = new_record(layer, tag, types[static_cast<int>(mode)]);
    if ((mode == Mode::output && tag != "out") || mode == Mode::inout) {
        const Values inherited = getch_text(layer, tag) ? Values() : hetch(layer, tag, "s", 1);
        if (found(inherited)) {
            record->headername = std::get<std::string>(inherited);
            record->from_history = true;
        }
    }
    return record;
}

}  // namespace

streaminf* tag_info(Layer& layer, std::string_view tag, Mode mode) {
    streaminf* const known = find_tag(layer, tag);
    if (known || mode == Mode::existing) return known;
    constexpr void (*openers[])(Layer&, streaminf&) = {qasstr_out_head,    qasstr_in_head, qasstr_inout_head,
                                                       qasstr_socket_head, nullptr,        qasstr_scr_head};
    return &add_record(layer, record_for(layer, tag, mode), openers[static_cast<int>(mode)]);
}

std::string get_format(Layer& layer, std::string_view tag) {
    return get_format_name(tag_info(layer, tag, Mode::input)->format_num);
}

void set_format(Layer& layer, std::string_view tag, std::string_view name) {
    const int number = get_format_num(name);
    if (number < 0)
        qaserr("set_format( %s , %s ): unknown format ", std::string(tag).c_str(), std::string(name).c_str());
    tag_info(layer, tag, Mode::output)->format_num = number;
}

void qasstr_hclose(Layer& layer, streaminf& stream) {
    if (!header_open(stream)) {
        layer.notes.warn("WARNING: Multiple closes of output header with tag \"" + stream.tagname +
                         "\"\n or close called after first write\n");
        return;
    }
    await_reader(layer, stream);
    qasstr_ready_out(layer, stream);
    if (stream.dataname == "follow_hdr") return;
    sync_data(stream);
    write_header_text(layer, stream, "\n", "qasstr_ready_out");
    finish_header(layer, stream);
}

void hclose(Layer& layer) {
    for (const auto& stream : layer.streams)
        if (stream->tagname == "out" || stream->entrytype == STREAMINOUT) qasstr_hclose(layer, *stream);
}

void auxhclose(Layer& layer, std::string_view tag) {
    qasstr_hclose(layer, *tag_info(layer, tag, Mode::output));
}

void auxclose(Layer& layer, std::string_view tag) {
    streaminf& stream = known_tag(layer, tag);
    if (stream.entrytype != STREAMIN && header_open(stream)) qasstr_hclose(layer, stream);
    if (stream.entrytype == STREAMIN) {
        if (stream.ioinf) stream.io->close(layer, stream);
        close_header(stream);
    } else {
        finish(layer, stream);
    }
    layer.streams.remove_if([&](const auto& other) { return other.get() == &stream; });
}

}  // namespace qas
