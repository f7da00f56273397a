#include "lib/corelibs/qas/tags/all_outputs.h"

#include <utility>

#include "lib/corelibs/qas/data/outputs.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/output_files.h"
#include "lib/corelibs/qas/tags/headers.h"
#include "lib/corelibs/qas/tags/transfer.h"

namespace qas {

void open_output(Layer& layer, const std::string& tag) {
    streaminf& stream = *tag_info(layer, tag, Mode::output);
    if (stream.valid && !stream.ioinf) stream.io->open(layer, stream);
    if (!stream.valid) qaserr("srite(): invalid output tag %s\n%s", tag.c_str(), stream.trouble.c_str());
}

void begin_outputs(Layer& layer) {
    const auto held = [](const auto& stream) { return stream->entrytype != STREAMIN && !stream->taken_over; };
    for (const auto& stream : layer.streams)  // inputs may have come into use since
        if (held(stream)) check_files_are_free(layer, *stream);
    layer.hold = false;
    for (const auto& stream : layer.streams)
        if (held(stream)) take_over(layer, *stream);
    for (const auto& stream : layer.streams) {
        stream->new_files.clear();
        release_lines(layer, *stream);
        for (const auto& [format, bytes] : std::exchange(stream->held_samples, {}))
            srite2(layer, stream->tagname, bytes.data(), std::ssize(bytes), get_format_name(format));
    }
}

void finish_outputs(Layer& layer) {
    if (layer.hold) begin_outputs(layer);
    for (const auto& stream : layer.streams) {
        if (stream->entrytype == STREAMIN) continue;
        finish(layer, *stream);
        stream->valid = false;
        stream->trouble = "  " + header_place(*stream) + " is finished\n";
    }
}

}  // namespace qas
