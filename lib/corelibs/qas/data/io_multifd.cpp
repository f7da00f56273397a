#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/records/output_files.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {
namespace {

constexpr std::size_t max_files = 1000;
constexpr std::int64_t megabyte = 1 << 20;
constexpr int default_filesize = 999999;

MultifdState& state_of(streaminf& stream) {
    MultifdState* state = stream.ioinf ? std::get_if<MultifdState>(&*stream.ioinf) : nullptr;
    if (!state || state->parts.empty())
        qaserr("Invalid dataset \"%s\" for tag \"%s\"\n", stream.dataname.c_str(), stream.tagname.c_str());
    return *state;
}

/// How many bytes of the data a file takes: all it has, if it cannot or need not grow, else its maximum.
std::int64_t limit_of(const streaminf& stream, const MultifdState& state, std::size_t i) {
    const MultifdState::Part& part = state.parts[i];
    if (stream.entrytype == STREAMIN || part.full) return std::max<std::int64_t>(0, fsize(part.fd.get()));
    return part.maximum;
}

/// The position from the start of the data.
std::int64_t position_of(const streaminf& stream, const MultifdState& state) {
    std::int64_t position = state.parts[state.current].position;
    for (std::size_t i = 0; i < state.current; ++i) position += limit_of(stream, state, i);
    return position;
}

bool move_to(MultifdState& state, std::size_t file, std::int64_t position) {
    state.current = file;
    state.parts[file].position = position;
    return ::lseek(state.parts[file].fd.get(), position, SEEK_SET) >= 0;
}

/// Names in the header exactly the files that hold data, the one about to be written included.
void name_written_files(Layer& layer, streaminf& stream, const MultifdState& state) {
    std::string names;
    for (const MultifdState::Part& part : state.parts)
        if (part.written) names += (names.empty() ? "" : ";") + part.name;
    update_out(layer, stream, names);
}

/// A seek may have passed over files that are not filled: holes make them as long as positions count them.
void fill_files_before(const streaminf& stream, MultifdState& state) {
    for (std::size_t i = 0; i < state.current; ++i) {
        MultifdState::Part& part = state.parts[i];
        if (part.full || fsize(part.fd.get()) >= part.maximum) continue;
        if (::ftruncate(part.fd.get(), part.maximum) < 0)
            qaserr("multifd_write() : I/O error, tag \"%s\" file number %d\n  \"%s\": %s\n", stream.tagname.c_str(),
                   static_cast<int>(i), part.name.c_str(), std::strerror(errno));
        part.written = true;
    }
}

void multifd_open(Layer& layer, streaminf& stream) {
    if (stream.entrytype == STREAMSOCKOUT) {
        layer.notes.warn("Stream socket can not be broken into multiple files \n");
        qaserr("STREAMSOCKOUT can not be of multi-file type \n");
    }
    const Values given = getch(layer, "filesize", "i", max_files);
    const std::vector<int> sizes =
        found(given) ? std::get<std::vector<int>>(given) : std::vector<int>{default_filesize};
    check_data_is_free(layer, stream);
    MultifdState state;
    for (std::size_t at = 0; at <= stream.dataname.size();) {
        const std::size_t end = std::min(stream.dataname.find(';', at), stream.dataname.size());
        if (end > at) {
            if (state.parts.size() == max_files)
                qaserr("nfiles to large, max %zu \n  %s names more data files\n", max_files,
                       header_place(stream).c_str());
            MultifdState::Part part;
            part.name = stream.dataname.substr(at, end - at);
            std::string resolved;
            part.fd = open_data_file(layer, stream, part.name, resolved);
            if (part.fd.get() < 0) {
                stream.valid = false;
                return;
            }
            part.maximum = sizes[std::min(state.parts.size(), sizes.size() - 1)] * megabyte;
            part.written = stream.entrytype != STREAMIN && !overwrites(stream) && fsize(part.fd.get()) > 0;
            state.parts.push_back(std::move(part));
        }
        at = end + 1;
    }
    bool later_written = false;  // then a file has its final size
    for (std::size_t i = overwrites(stream) ? 0 : state.parts.size(); i-- > 0;) {
        state.parts[i].full = later_written || fsize(state.parts[i].fd.get()) >= state.parts[i].maximum;
        later_written = later_written || state.parts[i].written;
    }
    stream.backseekable = true;
    stream.ioinf = std::move(state);
}

void multifd_close(Layer&, streaminf& stream) {
    stream.ioinf.reset();
}

std::int64_t multifd_read(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes) {
    MultifdState& state = state_of(stream);
    const char* tag = stream.tagname.c_str();
    char* to = static_cast<char*>(buffer);
    std::int64_t total = 0;
    for (;;) {
        MultifdState::Part& part = state.parts[state.current];
        const std::int64_t room = std::max<std::int64_t>(0, limit_of(stream, state, state.current) - part.position);
        const std::int64_t wanted = std::min(nbytes - total, room);
        const std::int64_t got = read_fully(part.fd.get(), to + total, wanted);
        if (got < 0) {
            const int reason = errno;
            layer.notes.perror("multifd_read()");
            qaserr("multifd_read() : I/O error, tag \"%s\" file number %d\n  \"%s\": %s\n", tag,
                   static_cast<int>(state.current), part.name.c_str(), std::strerror(reason));
        }
        part.position += got;
        total += got;
        if (total == nbytes || state.current + 1 == state.parts.size()) return total;
        if (!move_to(state, state.current + 1, 0))
            qaserr("multifd_read() unable to seek to file start for tag \"%s\", file %d \n", tag,
                   static_cast<int>(state.current));
    }
}

std::int64_t multifd_write(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes) {
    MultifdState& state = state_of(stream);
    const char* tag = stream.tagname.c_str();
    const char* from = static_cast<const char*>(buffer);
    std::int64_t total = 0;
    while (total < nbytes) {
        MultifdState::Part& part = state.parts[state.current];
        const std::int64_t room = limit_of(stream, state, state.current) - part.position;
        bool full = room <= 0;
        if (!full) {
            if (!part.written) fill_files_before(stream, state);
            part.written = true;
            name_written_files(layer, stream, state);
            std::int64_t done = 0;
            const std::int64_t put = write_fully(part.fd.get(), from + total, std::min(nbytes - total, room), done);
            part.position += done;
            total += done;
            if (put < 0) {
                const int reason = errno;
                if (reason != EDQUOT && reason != ENOSPC) {
                    layer.notes.perror("multifd_write()");
                    qaserr("multifd_write() : I/O error, tag \"%s\" file number %d\n  \"%s\": %s\n", tag,
                           static_cast<int>(state.current), part.name.c_str(), std::strerror(reason));
                }
                full = true;
                layer.notes.warning(strprintf("tag \"%s\": %s: %s\n", tag, part.name.c_str(), std::strerror(reason)));
                if (::ftruncate(part.fd.get(), part.position) < 0) layer.notes.perror("multifd_write()");
                part.full = true;
                part.written = part.position > 0;
            }
        }
        if (full) {
            if (state.current + 1 == state.parts.size()) break;
            if (!move_to(state, state.current + 1, 0))
                qaserr("multifd_write() unable to seek to file start for tag \"%s\", file %d \n", tag,
                       static_cast<int>(state.current));
        }
    }
    name_written_files(layer, stream, state);
    return total;
}

std::int64_t multifd_size(Layer&, streaminf& stream) {
    std::int64_t total = 0;
    for (const MultifdState::Part& part : state_of(stream).parts)
        total += std::max<std::int64_t>(0, fsize(part.fd.get()));
    return total;
}

std::int64_t multifd_seek(Layer& layer, streaminf& stream, std::int64_t offset, int whence) {
    MultifdState& state = state_of(stream);
    switch (whence) {
        case 0:
            break;
        case 1:
            offset += position_of(stream, state);
            break;
        case 2:
            if (stream.entrytype == STREAMOUT) {
                layer.notes.warn("multifd_seek(): no seek relative to the end of an output dataset\n");
                return -1;
            }
            offset += multifd_size(layer, stream);
            break;
        default:
            layer.notes.warn("unknown seek type requested\n");
            return position_of(stream, state);
    }
    if (offset < 0)
        qaserr("multifd_seek(): seeking past start of all available files for tag \"%s\" \n", stream.tagname.c_str());
    std::size_t file = 0;
    for (; file + 1 < state.parts.size(); ++file) {
        const std::int64_t limit = limit_of(stream, state, file);
        if (offset < limit) break;
        offset -= limit;
    }
    if (!move_to(state, file, offset)) {
        layer.notes.perror("multifd_seek");
        return -1;
    }
    return position_of(stream, state);
}

}  // namespace

const IoRoutines multifd_io{multifd_open, multifd_close, multifd_read, multifd_write, multifd_seek, multifd_size};

}  // namespace qas
