#include "lib/corelibs/qas/tags/extents.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/corelibs/qas/data/outputs.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/tags/all_outputs.h"

namespace qas {
namespace {

/// The descriptor of a record's data, if they are in a single file of their own; -1 otherwise.
int data_descriptor(const streaminf& stream) {
    const FdState* const state = stream.ioinf ? std::get_if<FdState>(&*stream.ioinf) : nullptr;
    return state && fdordinary(state->fd.get()) ? state->fd.get() : -1;
}

bool has_header_file(const streaminf& stream) {
    return stream.headfile && stream.close_headfile && fdordinary(::fileno(stream.headfile));
}

const OutputExtent& recorded(const std::vector<OutputExtent>& extents, const streaminf& stream) {
    const auto found = std::ranges::find(extents, stream.tagname, &OutputExtent::tag);
    if (found == extents.end()) qaserr("output %s was not among the outputs before\n", header_place(stream).c_str());
    return *found;
}

/// Refuses a file that is not the one recorded, or has lost something.
void compare(const streaminf& stream, int fd, const char* what, const std::string& name, std::int64_t bytes) {
    const std::string now = fd < 0 ? std::string() : findnm(fd);
    if (now != name)
        qaserr("output %s: its %s was in file \"%s\", now it would be in \"%s\"\n", header_place(stream).c_str(), what,
               name.c_str(), now.c_str());
    if (fd >= 0 && fsize(fd) < bytes)
        qaserr("output %s: its %s file \"%s\" holds %lld bytes, and held %lld before\n", header_place(stream).c_str(),
               what, name.c_str(), static_cast<long long>(fsize(fd)), static_cast<long long>(bytes));
}

void cut(const streaminf& stream, int fd, std::int64_t bytes) {
    if (::ftruncate(fd, bytes) < 0 || ::lseek(fd, bytes, SEEK_SET) != bytes)
        qaserr("output %s cannot be cut back: %s\n", header_place(stream).c_str(), std::strerror(errno));
}

void resume_header(streaminf& stream, const OutputExtent& extent) {
    const int fd = ::fileno(stream.headfile);
    std::fflush(stream.headfile);
    cut(stream, fd, extent.header_bytes);
    const std::int64_t begin = extent.header_bytes - std::ssize(extent.tail);
    if (::pwrite(fd, extent.tail.data(), extent.tail.size(), begin) != std::ssize(extent.tail) ||
        std::fseek(stream.headfile, extent.header_bytes, SEEK_SET) != 0)
        qaserr("output %s cannot be gone on with: %s\n", header_place(stream).c_str(), std::strerror(errno));
    stream.tail = extent.tail;
    stream.text_end = extent.header_bytes;
    stream.pending.clear();
    stream.header_title = extent.has_title;
    stream.header_outname = extent.names_data;
    stream.ready_out = extent.has_format;
    if (extent.names_data) stream.header_in = stream.dataname;
}

}  // namespace

std::vector<OutputExtent> sync_outputs(Layer& layer) {
    std::vector<OutputExtent> extents;
    for (const auto& stream : layer.streams) {
        if (stream->entrytype == STREAMIN) continue;
        OutputExtent extent;
        extent.tag = stream->tagname;
        if (stream->ioinf && std::holds_alternative<MultifdState>(*stream->ioinf))
            qaserr("output %s has data in several files, which cannot be gone on with later\n",
                   header_place(*stream).c_str());
        sync_data(*stream);
        if (const int fd = data_descriptor(*stream); fd >= 0) {
            extent.data = findnm(fd);
            extent.data_bytes = fsize(fd);
        }
        if (has_header_file(*stream)) {
            sync_header(*stream);
            extent.header = findnm(::fileno(stream->headfile));
            extent.header_bytes = fsize(::fileno(stream->headfile));
            extent.tail = stream->tail;
            extent.has_title = stream->header_title;
            extent.names_data = stream->header_outname;
            extent.has_format = stream->ready_out;
        }
        extents.push_back(extent);
    }
    return extents;
}

void resume_outputs(Layer& layer, const std::vector<OutputExtent>& extents) {
    for (const auto& stream : layer.streams) {
        if (stream->entrytype == STREAMIN) continue;
        const OutputExtent& extent = recorded(extents, *stream);
        compare(*stream, has_header_file(*stream) ? ::fileno(stream->headfile) : -1, "header", extent.header,
                extent.header_bytes);
        compare(*stream, data_descriptor(*stream), "data", extent.data, extent.data_bytes);
    }
    for (const auto& stream : layer.streams) {
        if (stream->entrytype == STREAMIN) continue;
        const OutputExtent& extent = recorded(extents, *stream);
        if (!extent.header.empty()) resume_header(*stream, extent);
        if (extent.data.empty()) continue;
        cut(*stream, data_descriptor(*stream), extent.data_bytes);
        std::get<FdState>(*stream->ioinf).position = extent.data_bytes;
        stream->held_samples.clear();
        stream->new_files.clear();
    }
    for (const auto& stream : layer.streams)
        if (stream->entrytype != STREAMIN) stream->taken_over = true;
    begin_outputs(layer);
}

}  // namespace qas
