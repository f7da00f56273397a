#include "lib/corelibs/qas/outputs.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "lib/corelibs/qas/commands.h"
#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/qaserr.h"

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

}  // namespace

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

void finish_data(streaminf& stream) {
    sync_data(stream);
    for_each_data_file(stream, [&](Descriptor& fd, const std::string& name) {
        if (!fd.close()) refuse(data_place(stream, name));
    });
    stream.ioinf.reset();
}

void finish_header(streaminf& stream) {
    std::FILE* const file = stream.headfile;
    if (!file) return close_header(stream);
    if (std::fflush(file) != 0 || !sync_file(::fileno(file))) refuse(header_place(stream));
    stream.headfile = nullptr;
    if (stream.close_headfile && std::fclose(file) != 0) refuse(header_place(stream));
    const pid_t command = std::exchange(stream.command, 0);
    if (command && !finish_command(command, false))
        qaserr("%s: the command failed, and what it was given may be lost\n", header_place(stream).c_str());
    close_header(stream);
}

void finish_outputs(Layer& layer) {
    for (const auto& stream : layer.streams) {
        if (stream->entrytype == STREAMIN) continue;
        finish_data(*stream);
        finish_header(*stream);
        stream->valid = false;
        stream->trouble = "  " + header_place(*stream) + " is finished\n";
    }
}

}  // namespace qas
