#include "lib/corelibs/qas/tags/header_input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/files/byte_source.h"
#include "lib/corelibs/qas/files/commands.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/header_address.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/sync.h"
#include "lib/corelibs/qas/tags/stream_table.h"

namespace qas {
namespace {

constexpr std::size_t max_header = std::size_t{16} << 20;

void fixed_header(streaminf& stream, const char* text) {
    stream.headerbuf = text;
    stream.hdrlen = std::strlen(text) - 1;
}

void open_instream(Layer& layer, streaminf& stream) {
    std::optional<std::string> name;
    if (stream.tagname == "in") name = getch_text(layer, "in");
    if (!name) {
        const Values in = qasstrpar(layer, stream, "in", "s", 1);
        if (found(in)) name = std::get<std::string>(in);
        stream.fresh_data = false;
    }
    if (!name) {
        stream.valid = false;
        stream.trouble = "  " + header_place(stream) + " has no data: it holds no in=\n";
        return;
    }
    stream.dataname = *name == "stdin" && stream.tagname != "in" ? "follow_hdr" : *name;
    init_io(layer, stream);
    choose_input_format(layer, stream);
}

void open_inpipe(Layer& layer, streaminf& stream) {
    const std::string& name = stream.headername;
    if (!name.ends_with('|'))
        qaserr("input pipe command '%s' doesn't end with '|' for tag %s \n", name.c_str(), stream.tagname.c_str());
    const std::string command = name.substr(0, name.size() - 1);
    Descriptor fd;
    stream.command = start_command(command, true, fd);
    if (!stream.command) {
        layer.notes.perror("qasstrhead:openpipe() ");
        qaserr("error in opening input pipe \"%s\" for tag \"%s\" \n", command.c_str(), stream.tagname.c_str());
    }
    stream.header_source = ByteSource::own(fd.release());
}

void open_insok(Layer& layer, streaminf& stream) {
    Descriptor fd = open_socket(layer, stream.headername);
    if (fd.get() < 0) {
        layer.notes.perror("qasstrhead:open_insok() ");
        qaserr("open_insok(): connect to socket \"%s\" failed for tag \"%s\"\n", stream.headername.c_str(),
               stream.tagname.c_str());
    }
    stream.header_source = ByteSource::own(fd.release());
}

/// Opens an input header that is a file; a missing one is no error yet.
void open_infile(Layer& layer, streaminf& stream) {
    struct stat status;
    const char* name = stream.headername.c_str();
    const auto no_header = [&] {
        stream.valid = false;
        stream.trouble = "  " + header_place(stream) + ": " + std::strerror(errno) + "\n";
    };
    if (::stat(name, &status) < 0) {
        if (errno == ENOENT) return no_header();
        qaserr("Bad header name '%s' for tag %s \n  %s\n", name, stream.tagname.c_str(), std::strerror(errno));
    }
    const int fd = ::open(name, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        no_header();
        layer.notes.perror("qasstrhead, openfile()");
        return;
    }
    stream.header_source = ByteSource::own(fd);
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        no_header();
    }
}

/// True if parameter "noheader" begins with y.
bool noheader(Layer& layer) {
    return getch_text(layer, "noheader").value_or("").starts_with('y');
}

}  // namespace

streaminf& input_tag(Layer& layer, std::string_view tag) {
    if (streaminf* known = find_tag(layer, tag)) return *known;
    return add_record(layer, new_record(layer, tag, STREAMIN), qasstr_in_head);
}

void readhdr(Layer& layer, streaminf& stream) {
    if (stream.tagname == "in" && noheader(layer)) return fixed_header(stream, "No input header \n");
    if (::isatty(stream.header_source.fd())) return fixed_header(stream, "Input from a tty\n");
    const auto waiting = [&] {
        layer.notes.warn(
            layer.notes.program + ": waiting for the header of tag \"" + stream.tagname + "\" on " + stream.headername +
            (stream.tagname == "in" ? " (its history goes to \"out\"); < /dev/null gives an empty one\n" : "\n"));
    };
    std::string text;
    bool too_long = false;
    const bool marked = stream.header_source.read_header(text, max_header, too_long, waiting, layer.hint_after_ms);
    if (too_long)
        qaserr("%s is longer than %zu MiB without an end-of-header mark: not a header\n", header_place(stream).c_str(),
               max_header >> 20);
    if (!marked && errno != 0) qaserr("%s cannot be read: %s\n", header_place(stream).c_str(), std::strerror(errno));
    stream.hdrlen = text.size();
    stream.headerbuf = std::move(text);
    if (marked && stream.hdrlen > 0) syncin(layer, stream);
}

void choose_input_format(Layer& layer, streaminf& stream) {
    stream.format_num = 0;
    const Values name = qasstrpar(layer, stream, "data_format", "s", 1);
    if (!found(name)) return;
    const std::string& format = std::get<std::string>(name);
    stream.format_num = get_format_num(format);
    if (stream.format_num < 0)
        qaserr("unknown data format: %s \n %s \n  data_format of %s\n", format.c_str(), format_list().c_str(),
               header_place(stream).c_str());
}

void qasstr_in_head(Layer& layer, streaminf& stream) {
    if (stream.headername == "stdin" || (stream.tagname == "in" && noheader(layer))) {
        stream.header_source = ByteSource::borrow(::fileno(layer.in));
    } else if (is_command(stream.headername)) {
        open_inpipe(layer, stream);
    } else if (is_socket(stream.headername)) {
        open_insok(layer, stream);
    } else {
        open_infile(layer, stream);
    }
    if (!stream.valid) return;
    readhdr(layer, stream);
    open_instream(layer, stream);
    if (fdordinary(stream.header_source.fd()) && stream.dataname != "follow_hdr" && stream.dataname != "stdin")
        stream.header_source.close();
}

}  // namespace qas
