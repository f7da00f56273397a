#include "lib/corelibs/qas/outputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "lib/corelibs/qas/commands.h"
#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/io.h"
#include "lib/corelibs/qas/output_files.h"
#include "lib/corelibs/qas/qaserr.h"
#include "lib/corelibs/qas/transfer.h"

namespace qas {
namespace {

[[noreturn]] void refuse(const std::string& what) {
    const int reason = errno;
    qaserr("%s cannot be put on the disk: %s\n", what.c_str(), std::strerror(reason));
}

std::string data_place(const streaminf& stream, const std::string& name) {
    return "data file \"" + name + "\" of " + header_place(stream);
}

/// Calls use(descriptor, name) for the data files that a record has open.
template <class Stream, class Use>
void for_each_data_file(Stream& stream, Use use) {
    if (!stream.ioinf) return;
    if (auto* file = std::get_if<FileState>(&*stream.ioinf)) use(file->own, stream.dataname);
    if (auto* fd = std::get_if<FdState>(&*stream.ioinf)) use(fd->fd, stream.dataname);
    if (auto* several = std::get_if<MultifdState>(&*stream.ioinf))
        for (auto& part : several->parts) use(part.fd, part.name);
}

void empty(int fd, const std::string& place) {
    if (fdordinary(fd) && ::ftruncate(fd, 0) < 0)
        qaserr("cannot create output %s: %s\n", place.c_str(), std::strerror(errno));
}

/// The data files an earlier program left, where they can be written; files that are not there yet, and streams, are no
/// matter.
std::vector<Descriptor> earlier_data(Layer& layer, streaminf& stream) {
    std::vector<Descriptor> files;
    if (is_lost(stream) || stream.unique_data) return files;
    for (const std::string& name : data_files(layer, stream))
        if (!file_identity(name).empty()) files.push_back(open_unshared(layer, stream, name, O_WRONLY));
    return files;
}

/// The header goes on in a file beside the one it will replace; that one stays locked.
void write_beside(streaminf& stream) {
    Descriptor locked(::fcntl(::fileno(stream.headfile), F_DUPFD_CLOEXEC, 0));
    Descriptor fd = stream.new_header.begin(std::move(locked), stream.new_headfile);
    std::FILE* const file = fd.get() < 0 ? nullptr : ::fdopen(fd.get(), "w");
    if (!file) qaserr("cannot create output %s: %s\n", header_place(stream).c_str(), std::strerror(errno));
    fd.release();
    std::fclose(std::exchange(stream.headfile, file));
}

/// The lines that waited.
void release_lines(Layer& layer, streaminf& stream) {
    stream.held = false;
    if (!stream.pending.empty() && stream.headfile) write_header_text(layer, stream, std::exchange(stream.pending, {}));
}

}  // namespace

void take_over(Layer& layer, streaminf& stream) {
    const bool by_name = stream.close_headfile && fdordinary(::fileno(stream.headfile));
    if (layer.replace && overwrites(stream)) {
        if (by_name)
            write_beside(stream);
        else
            stream.held = stream.dataname != "follow_hdr";  // the line that names the data waits for them
        return;
    }
    stream.held = layer.hold && by_name;
    stream.taken_over = !layer.hold || !overwrites(stream);
    if (layer.hold || !overwrites(stream)) return;
    const std::vector<Descriptor> data = stream.ioinf ? std::vector<Descriptor>() : earlier_data(layer, stream);
    if (by_name) empty(::fileno(stream.headfile), header_place(stream));
    for (const Descriptor& fd : data) empty(fd.get(), "data of " + header_place(stream));
    for_each_data_file(
        stream, [&](const Descriptor& fd, const std::string& name) { empty(fd.get(), data_place(stream, name)); });
}

void open_output(Layer& layer, const std::string& tag) {
    streaminf& stream = *tag_info(layer, tag, Mode::output);
    if (stream.valid && !stream.ioinf) stream.io->open(layer, stream);
    if (!stream.valid) qaserr("srite(): invalid output tag %s\n%s", tag.c_str(), stream.trouble.c_str());
}

void begin_outputs(Layer& layer) {
    layer.hold = false;
    for (const auto& stream : layer.streams)
        if (stream->entrytype != STREAMIN && !stream->taken_over) take_over(layer, *stream);
    for (const auto& stream : layer.streams) {
        stream->new_files.clear();
        release_lines(layer, *stream);
        for (const auto& [format, bytes] : std::exchange(stream->held_samples, {}))
            srite2(layer, stream->tagname, bytes.data(), std::ssize(bytes), get_format_name(format));
    }
}

void discard(streaminf& stream) {
    if (stream.new_headfile && stream.new_header.target() < 0 && stream.headfile &&
        file_identity(stream.headername) == file_identity(::fileno(stream.headfile)))
        ::unlink(stream.headername.c_str());
    for (const std::string& name : stream.new_files) ::unlink(name.c_str());
    close_header(stream);
}

void close_header(streaminf& stream) {
    if (stream.headfile && stream.close_headfile) std::fclose(stream.headfile);
    stream.headfile = nullptr;
    stream.listener.reset();
    if (stream.entrytype == STREAMIN) stream.header_source.close();
    if (stream.command) finish_command(stream.command, stream.entrytype == STREAMIN);
    stream.command = 0;
}

void sync_data(const streaminf& stream) {
    for_each_data_file(stream, [&](const Descriptor& fd, const std::string& name) {
        if (!sync_file(fd.get())) refuse(data_place(stream, name));
    });
    if (const FileState* file = stream.ioinf ? std::get_if<FileState>(&*stream.ioinf) : nullptr)
        if (file->out && (std::fflush(file->out) != 0 || !sync_file(::fileno(file->out))))
            refuse(data_place(stream, stream.dataname));
}

void close_data(streaminf& stream) {
    for_each_data_file(stream, [&](Descriptor& fd, const std::string& name) {
        if (!fd.close()) refuse(data_place(stream, name));
    });
    stream.ioinf.reset();
    for (Replacement& data : stream.new_data)
        if (!data.commit()) refuse(data_place(stream, stream.dataname));
    stream.new_data.clear();
}

void finish_header(Layer& layer, streaminf& stream) {
    if (layer.replace) release_lines(layer, stream);
    std::FILE* const file = stream.headfile;
    if (!file) return close_header(stream);
    if (std::fflush(file) != 0 || !sync_file(::fileno(file))) refuse(header_place(stream));
    if (layer.replace) close_data(stream);
    stream.headfile = nullptr;
    if (stream.close_headfile && std::fclose(file) != 0) refuse(header_place(stream));
    if (!stream.new_header.commit()) refuse(header_place(stream));
    const pid_t command = std::exchange(stream.command, 0);
    if (command && !finish_command(command, false))
        qaserr("%s: the command failed, and what it was given may be lost\n", header_place(stream).c_str());
    close_header(stream);
}

void finish(Layer& layer, streaminf& stream) {
    sync_data(stream);
    finish_header(layer, stream);
    close_data(stream);
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
