#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/locks.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/output_files.h"
#include "lib/corelibs/qas/records/streaminf.h"

namespace qas {
namespace {

FdState& state_of(streaminf& stream) {
    FdState* state = stream.ioinf ? std::get_if<FdState>(&*stream.ioinf) : nullptr;
    if (!state || state->fd.get() < 0)
        qaserr("Invalid dataset \"%s\" for tag \"%s\"\n", stream.dataname.c_str(), stream.tagname.c_str());
    return *state;
}

void fd_open(Layer& layer, streaminf& stream) {
    check_data_is_free(layer, stream);
    FdState state;
    std::string name;
    if (stream.entrytype != STREAMIN || stream.dataname != "-1") {
        state.fd = open_data_file(layer, stream, stream.dataname, name);
        if (state.fd.get() < 0) {
            stream.valid = false;
            return;
        }
        stream.backseekable = fdordinary(state.fd.get());
    }
    stream.ioinf = std::move(state);
}

void fd_close(Layer&, streaminf& stream) {
    stream.ioinf.reset();
}

std::int64_t fd_read(Layer& layer, streaminf& stream, void* buffer, std::int64_t nbytes) {
    FdState& state = state_of(stream);
    const std::int64_t got = read_fully(state.fd.get(), buffer, nbytes);
    if (got < 0) {
        const int reason = errno;
        layer.notes.perror("fd_read()");
        qaserr("fd_read() : I/O error, tag \"%s\"\n  data file \"%s\": %s\n", stream.tagname.c_str(),
               stream.dataname.c_str(), std::strerror(reason));
    }
    state.position += got;
    return got;
}

std::int64_t fd_write(Layer& layer, streaminf& stream, const void* buffer, std::int64_t nbytes) {
    FdState& state = state_of(stream);
    std::int64_t done = 0;
    const std::int64_t put = write_fully(state.fd.get(), buffer, nbytes, done);
    state.position += done;
    if (put < 0) {
        const int reason = errno;
        layer.notes.perror("fd_write()");
        qaserr("info_rite() : I/O error, tag \"%s\"\n  data file \"%s\", after %lld bytes: %s\n",
               stream.tagname.c_str(), stream.dataname.c_str(), static_cast<long long>(state.position),
               std::strerror(reason));
    }
    return put;
}

std::int64_t fd_seek(Layer& layer, streaminf& stream, std::int64_t offset, int whence) {
    FdState& state = state_of(stream);
    constexpr int kinds[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    if (whence < 0 || whence > 2) {
        layer.notes.warn("unknown seek type requested\n");
        return state.position;
    }
    const off_t position = ::lseek(state.fd.get(), offset, kinds[whence]);
    if (position < 0) {
        layer.notes.perror("fd_seek");
        return -1;
    }
    state.position = position;
    return position;
}

std::int64_t fd_size(Layer&, streaminf& stream) {
    return fsize(state_of(stream).fd.get());
}

/// An output data file, empty unless outputs are held.
Descriptor create_output(Layer& layer, streaminf& stream, const std::string& name, int flags) {
    const bool made = ::faccessat(AT_FDCWD, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    Descriptor fd = open_unshared(layer, stream, name, flags);
    if (fd.get() < 0 || !overwrites(stream)) return fd;
    if (layer.replace && !is_lost(stream)) return stream.new_data.emplace_back().begin(std::move(fd), made);
    if (layer.hold && made)
        stream.new_files.push_back(name);
    else if (!layer.hold && fdordinary(fd.get()) && ::ftruncate(fd.get(), 0) < 0)
        fd.reset();
    return fd;
}

}  // namespace

const IoRoutines fd_io{fd_open, fd_close, fd_read, fd_write, fd_seek, fd_size};

Descriptor open_data_file(Layer& layer, streaminf& stream, const std::string& given, std::string& name) {
    const char* tag = stream.tagname.c_str();
    if (given == "follow_hdr" || given == (stream.entrytype == STREAMIN ? "stdin" : "stdout"))
        qaserr("%s is invalid for file descriptor I/O for tag \"%s\"\n", given.c_str(), tag);
    name = expand_info(layer, given, stream);
    int flags = O_RDONLY;  // which is 0
    std::string text;
    switch (stream.entrytype) {
        case STREAMIN:
            text = strprintf("unable to obtain input file \"%s\" for tag \"%s\"\n", name.c_str(), tag);
            break;
        case STREAMINOUT:
            text = strprintf("unable to open input/output datafile %s for tag %s \n", name.c_str(), tag);
            flags = O_RDWR | (stream.fresh_data ? O_CREAT : 0);
            break;
        case STREAMSCR:
            text = strprintf("unable to open scratch datafile %s for tag %s \n", name.c_str(), tag);
            flags = O_RDWR | O_CREAT;
            break;
        default:
            if (stream.unique_data) flags |= O_EXCL;
            text = strprintf(" unable to open output datafile %s for tag %s \n", name.c_str(), tag);
            flags |= O_WRONLY | O_CREAT;
    }
    Descriptor fd;
    std::string why;
    if (!stream.fresh_data && is_special_file(name)) {
        why = "not a regular file";
    } else {
        if (!stream.fresh_data) flags |= O_NONBLOCK;
        const auto open = [&] {
            return stream.entrytype == STREAMIN ? Descriptor(::open(name.c_str(), flags | O_CLOEXEC))
                                                : create_output(layer, stream, name, flags);
        };
        fd = open();
        if (fd.get() < 0 && errno == ENOENT && stream.in_default_path && make_default_folder(name)) fd = open();
        if (fd.get() >= 0) return fd;
        why = std::strerror(errno);
    }
    layer.notes.warn(text);
    stream.trouble = "  data file \"" + name + "\" of " + header_place(stream) + ": " + why + "\n";
    if (!stream.datapath_source.empty())
        stream.trouble += "  " + stream.datapath_source + "; datapath=DIRECTORY/ sets it\n";
    return fd;
}

Descriptor open_unshared(Layer& layer, const streaminf& stream, const std::string& name, int flags) {
    if (is_lost(stream)) return Descriptor(::open(name.c_str(), flags | O_CLOEXEC, 0666));
    std::string holder;
    Descriptor fd = open_locked(name, flags, layer.patience_ms, holder);
    if (!holder.empty())
        qaserr("output data file \"%s\" for tag \"%s\" is being written by %s: give %s=FILE or another datapath=\n",
               name.c_str(), stream.tagname.c_str(), holder.c_str(),
               stream.tagname == "out" ? "out" : (stream.tagname + ".out").c_str());
    return fd;
}

}  // namespace qas
