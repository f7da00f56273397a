#include "lib/corelibs/qas/headers.h"

#include <csignal>
#include <utility>

#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/header_input.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/header_output.h"
#include "lib/corelibs/qas/io.h"
#include "lib/corelibs/qas/outputs.h"
#include "lib/corelibs/qas/parameters.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

void name_header(Layer& layer, streaminf& stream, Mode mode) {
    stream.headername = stream.tagname;
    if (stream.tagname == "in" || stream.tagname == "out") {
        const std::string standard = stream.tagname == "in" ? "stdin" : "stdout";
        stream.headername = getch_text(layer, standard).value_or(standard);
        return;
    }
    if (const auto given = getch_text(layer, stream.tagname)) {
        stream.headername = *given;
    } else if (mode == Mode::output || mode == Mode::inout) {
        const Values inherited = hetch(layer, stream.tagname, "s", 1);
        if (found(inherited)) {
            stream.headername = std::get<std::string>(inherited);
            stream.from_history = true;
        }
    }
}

}  // namespace

streaminf* tag_info(Layer& layer, std::string_view tag, Mode mode) {
    for (const auto& stream : layer.streams)
        if (stream->tagname == tag) return stream.get();
    if (mode == Mode::existing) return nullptr;
    auto fresh = std::make_unique<streaminf>();
    streaminf& stream = *fresh;
    stream.tagname = tag;
    switch (mode) {
        case Mode::input:
            stream.entrytype = STREAMIN;
            break;
        case Mode::inout:
            stream.entrytype = STREAMINOUT;
            break;
        case Mode::socket_output:
            stream.entrytype = STREAMSOCKOUT;
            break;
        case Mode::scratch:
            stream.entrytype = STREAMSCR;
            break;
        default:
            stream.entrytype = STREAMOUT;
    }
    if (mode != Mode::socket_output) name_header(layer, stream, mode);
    const auto at = layer.streams.insert(layer.streams.end(), std::move(fresh));
    try {
        switch (mode) {
            case Mode::input:
                qasstr_in_head(layer, stream);
                break;
            case Mode::inout:
                qasstr_inout_head(layer, stream);
                break;
            case Mode::socket_output:
                qasstr_socket_head(layer, stream);
                break;
            case Mode::scratch:
                qasstr_scr_head(layer, stream);
                break;
            default:
                qasstr_out_head(layer, stream);
        }
    } catch (...) {
        discard(stream);
        layer.streams.erase(at);
        throw;
    }
    return &stream;
}

streaminf& known_tag(Layer& layer, std::string_view tag) {
    streaminf* stream = tag_info(layer, tag, Mode::existing);
    if (!stream) qaserr("Unknown tag \"%s\" \n", std::string(tag).c_str());
    return *stream;
}

bool noheader(Layer& layer) {
    return getch_text(layer, "noheader").value_or("").starts_with('y');
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
    write_header_text(layer, stream, "\n");
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

Layer::~Layer() {
    for (const auto& stream : streams) {
        stream->ioinf.reset();
        stream->held ? discard(*stream) : close_header(*stream);
    }
    if (broken_pipe_action) std::signal(SIGPIPE, *broken_pipe_action);
}

}  // namespace qas
