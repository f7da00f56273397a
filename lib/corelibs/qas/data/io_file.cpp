#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {
namespace {

constexpr std::int64_t discard_block = 8192;

FileState& state_of(streaminf& stream) {
    FileState* state = stream.ioinf ? std::get_if<FileState>(&*stream.ioinf) : nullptr;
    if (!state || !state->open)
        qaserr("Invalid dataset \"%s\" for tag \"%s\"\n", stream.dataname.c_str(), stream.tagname.c_str());
    return *state;
}

int descriptor_of(const FileState& state) {
    if (state.in) return state.in->fd();
    return state.out ? ::fileno(state.out) : state.own.get();
}

/// The data of an output begin behind what stands in its stream when the header is complete.
void find_start(Layer& layer, streaminf& stream, FileState& state) {
    if (!state.out || state.started) return;
    qasstr_ready_out(layer, stream);
    state.started = true;
    if (stream.backseekable) state.start = std::max<std::int64_t>(0, ::ftello(state.out));
}

/// Opens a file of the record's own with the first of the flags that works.
Descriptor open_own(Layer& layer, streaminf& stream, std::initializer_list<int> flags, const char* format) {
    const std::string name = expand_info(layer, stream.dataname, stream);
    errno = EINVAL;
    const bool refused = !stream.fresh_data && is_special_file(name);
    for (const int flag : flags) {
        if (refused) break;
        Descriptor fd(::open(name.c_str(), flag | O_CLOEXEC, 0666));
        if (fd.get() >= 0) return fd;
    }
    const int reason = errno;
    throw Fatal(strprintf(format, name.c_str(), stream.tagname.c_str()) + "  " + header_place(stream) + ": " +
                std::strerror(reason) + "\n");
}

void file_open(Layer& layer, streaminf& stream) {
    FileState state;
    const bool with_header = stream.dataname == "follow_hdr" || stream.dataname == "stdin";
    switch (stream.entrytype) {
        case STREAMIN:
            if (with_header) {
                state.in = &stream.header_source;
                stream.isapipe = isapipe(state.in->fd());
                if (fdordinary(state.in->fd())) state.start = std::max<std::int64_t>(0, state.in->settle());
            } else if (stream.dataname != "-1") {
                state.own =
                    open_own(layer, stream, {O_RDWR, O_RDONLY}, "unable to obtain input file \"%s\" for tag \"%s\"\n");
            }
            break;
        case STREAMINOUT:
            state.own = stream.headerbuf ? open_own(layer, stream, {O_RDWR, O_RDWR | O_CREAT | O_TRUNC},
                                                    "unable to open input/output datafile %s for tag %s \n")
                                         : open_own(layer, stream, {O_RDWR | O_CREAT | O_TRUNC},
                                                    "unable to open input/output datafile %s for tag %s \n");
            break;
        case STREAMSCR:
            state.own = open_own(layer, stream, {O_RDWR | O_CREAT | O_TRUNC},
                                 "unable to open scratch datafile %s for tag %s \n");
            break;
        default:
            if (stream.dataname == "follow_hdr")
                state.out = stream.headfile;
            else if (stream.dataname == "stdout")
                state.out = layer.out;
            else
                state.own = open_own(layer, stream, {O_RDWR | O_CREAT | O_TRUNC, O_WRONLY | O_CREAT | O_TRUNC},
                                     " unable to open output datafile %s for tag %s \n");
    }
    state.open = descriptor_of(state) >= 0;
    stream.backseekable = state.open && fdordinary(descriptor_of(state));
    stream.ioinf = std::move(state);
}

void file_close(Layer&, streaminf& stream) {
    stream.ioinf.reset();
    stream.header_source.close();
}

std::int64_t file_read(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes) {
    FileState& state = state_of(stream);
    errno = EBADF;
    const std::int64_t got = state.in    ? state.in->read(buffer, nbytes)
                             : state.out ? -1
                                         : read_fully(state.own.get(), buffer, nbytes);
    if (got < 0) {
        const int reason = errno;
        layer.notes.perror("file_read()");
        qaserr("file_read() : I/O error, tag \"%s\"\n  %s: %s\n", stream.tagname.c_str(), header_place(stream).c_str(),
               std::strerror(reason));
    }
    state.position += got;
    return got;
}

std::int64_t file_write(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes) {
    FileState& state = state_of(stream);
    std::int64_t done = 0;
    bool failed = false;
    errno = EBADF;
    if (state.out) {
        find_start(layer, stream, state);
        done = static_cast<std::int64_t>(std::fwrite(buffer, 1, static_cast<std::size_t>(nbytes), state.out));
        failed = std::ferror(state.out) || std::fflush(state.out) != 0;
    } else {
        failed = state.in || write_fully(state.own.get(), buffer, nbytes, done) < 0;
    }
    state.position += done;
    if (failed) {
        const int reason = errno;
        layer.notes.perror("file_write()");
        qaserr("file_write() : I/O error, tag \"%s\"\n  %s: %s\n", stream.tagname.c_str(), header_place(stream).c_str(),
               std::strerror(reason));
    }
    if (done < nbytes) layer.notes.warn("unexpected eof for tag " + stream.tagname + "\n");
    return done;
}

/// Reads and drops bytes of a stream that cannot be repositioned.
void discard(Layer&, streaminf& stream, FileState& state, std::int64_t nbytes) {
    char block[discard_block];
    while (nbytes > 0) {
        const std::int64_t got = state.in ? state.in->read(block, std::min(nbytes, discard_block)) : -1;
        if (got < 0) qaserr("sseek(): I/O error in seek for tag \"%s\"\n", stream.tagname.c_str());
        if (got == 0) return;
        state.position += got;
        nbytes -= got;
    }
}

std::int64_t seek_stream(Layer& layer, streaminf& stream, FileState& state, std::int64_t offset, int whence) {
    switch (whence) {
        case 0:
            offset -= state.position;
            if (offset < 0) {
                layer.notes.warn("backwards absolute seek on stream device \n");
                return -1;
            }
            break;
        case 1:
            if (offset < 0) {
                layer.notes.warn("backwards relative seek on stream device \n");
                return -1;
            }
            break;
        case 2:
            layer.notes.warn("seek relative to end on stream device \n");
            return -1;
        default:
            layer.notes.warn("unknown seek type requested\n");
            return state.position;
    }
    discard(layer, stream, state, offset);
    return state.position;
}

std::int64_t file_seek(Layer& layer, streaminf& stream, std::int64_t offset, int whence) {
    FileState& state = state_of(stream);
    find_start(layer, stream, state);
    if (!stream.backseekable) return seek_stream(layer, stream, state, offset, whence);
    if (whence < 0 || whence > 2) {
        layer.notes.warn("unknown seek type requested\n");
        return state.position;
    }
    constexpr int kinds[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    std::int64_t at = whence == 0 ? offset + state.start : offset;
    if (whence == 0 && offset < 0) {  // would land inside the header
        errno = EINVAL;
        at = -1;
    } else if (state.out) {
        at = ::fseeko(state.out, at, kinds[whence]) < 0 ? -1 : ::ftello(state.out);
    } else {
        at = ::lseek(descriptor_of(state), at, kinds[whence]);
    }
    if (at < 0) {
        layer.notes.perror("file_seek");
        return -1;
    }
    state.position = at - state.start;
    return state.position;
}

std::int64_t file_size(Layer& layer, streaminf& stream) {
    FileState& state = state_of(stream);
    find_start(layer, stream, state);
    const std::int64_t size = fsize(descriptor_of(state));
    return size < 0 ? -1 : std::max<std::int64_t>(0, size - state.start);
}

}  // namespace

const IoRoutines file_io{file_open, file_close, file_read, file_write, file_seek, file_size};

void init_io(Layer&, streaminf& stream) {
    const std::string& name = stream.dataname;
    if (name == "stdin" || name == "follow_hdr" || name == "stdout")
        stream.iotype = FILE_IO;
    else
        stream.iotype = name.find(';') == std::string::npos ? FD_IO : MULTI_FD_IO;
    if ((stream.entrytype == STREAMINOUT || stream.entrytype == STREAMSCR) &&
        (name == "follow_hdr" || name == stream.headername))
        qaserr("tag \"%s\" in/out dataset cannot be a pipe or the same file as the header\n", stream.tagname.c_str());
    switch (stream.iotype) {
        case FILE_IO:
            stream.io = &file_io;
            break;
        case FD_IO:
            stream.io = &fd_io;
            break;
        case MULTI_FD_IO:
            stream.io = &multifd_io;
            break;
        default:
            qaserr("unknown IO type\n");
    }
}

}  // namespace qas
