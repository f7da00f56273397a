#include "lib/corelibs/qas/data/outputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/commands.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/replacement.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/records/header_text.h"
#include "lib/corelibs/qas/records/output_files.h"

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

}  // namespace

void release_lines(Layer& layer, streaminf& stream) {
    stream.held = false;
    if (!stream.pending.empty() && stream.headfile)
        write_header_text(layer, stream, std::exchange(stream.pending, {}), "qasstr_ready_out");
}

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

void sync_header(const streaminf& stream) {
    if (std::fflush(stream.headfile) != 0 || !sync_file(::fileno(stream.headfile))) refuse(header_place(stream));
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
    sync_header(stream);
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

}  // namespace qas
