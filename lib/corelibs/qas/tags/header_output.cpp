#include "lib/corelibs/qas/tags/header_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "lib/corelibs/qas/data/io.h"
#include "lib/corelibs/qas/data/outputs.h"
#include "lib/corelibs/qas/files/byte_source.h"
#include "lib/corelibs/qas/files/commands.h"
#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/files/locks.h"
#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/files/sockets.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/parameters/decode.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/header_address.h"
#include "lib/corelibs/qas/records/header_lines.h"
#include "lib/corelibs/qas/records/header_text.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/output_files.h"
#include "lib/corelibs/qas/tags/header_input.h"
#include "lib/corelibs/qas/tags/look_ups.h"

namespace qas {
namespace {

/// A history may name the outputs that the program declared, but not have anything overwritten that is no header.
void check_named_by_history(Layer& layer, const streaminf& stream) {
    if (!stream.from_history) return;
    const char *tag = stream.tagname.c_str(), *name = stream.headername.c_str();
    const std::string history = "the history of " + header_place(input_tag(layer, "in"));
    if (!layer.inheriting.contains(stream.tagname))
        qaserr("tag \"%s\": only %s names a header for it, \"%s\": name one on the command line with %s=\n", tag,
               history.c_str(), name, tag);
    layer.notes.warning(
        strprintf("tag \"%s\": its header \"%s\" is named by %s; %s= on the command line names another\n", tag, name,
                  history.c_str(), tag));
    if (!is_special_file(stream.headername)) {
        std::ifstream file(stream.headername, std::ios::binary);
        if (!file || file.peek() == std::ifstream::traits_type::eof()) return;
        std::string text(std::size_t{1} << 20, '\0');
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(file.gcount()));
        if (text.starts_with("in=")) return;
        for (const char* line : {" in=", "\tin=", "\nin="})
            if (text.find(line) != std::string::npos) return;
    }
    qaserr(
        "tag \"%s\": %s names \"%s\" as its header, which is a file and no header: name one on the command line with %s=\n",
        tag, history.c_str(), name, tag);
}

/// Opens a header file by its name, for this program alone, and leaves alone what it holds: that is emptied once the
/// dataset's files are known to be nobody else's.
std::FILE* open_header_file(Layer& layer, streaminf& stream, bool readable) {
    const std::string& name = stream.headername;
    stream.new_headfile = ::faccessat(AT_FDCWD, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
    stream.close_headfile = true;
    check_header_is_free(layer, stream);
    std::string holder;
    Descriptor fd = open_locked(name, (readable ? O_RDWR : O_WRONLY) | O_CREAT, layer.patience_ms, holder);
    if (!holder.empty())
        qaserr("output %s is being written by %s: wait for its end, or give it another name\n",
               header_place(stream).c_str(), holder.c_str());
    std::FILE* file = fd.get() < 0 ? nullptr : ::fdopen(fd.get(), readable ? "r+" : "w");
    if (file) fd.release();
    return file;
}

/// Where the name of an output header came from, for messages.
std::string name_source(Layer& layer, const streaminf& stream) {
    if (stream.from_history) return "named by the history of \"in\"";
    if (stream.tagname == "out")
        return stream.headername == getch_text(layer, "head") ? "parameter head" : "parameter stdout";
    if (getch_text(layer, stream.tagname)) return "parameter " + stream.tagname;
    return "the tag's own name; " + stream.tagname + "=FILE gives another";
}

void open_outfile(Layer& layer, streaminf& stream) {
    check_named_by_history(layer, stream);
    const char* name = stream.headername.c_str();
    stream.headfile = open_header_file(layer, stream, false);
    if (stream.headfile) return;
    const int reason = errno;
    layer.notes.perror("qasstrhead, openfile()");
    qaserr("cannot create output header \"%s\" for tag \"%s\" (%s): %s\n", name, stream.tagname.c_str(),
           name_source(layer, stream).c_str(), std::strerror(reason));
}

void open_outpipe(Layer& layer, streaminf& stream) {
    const std::string& name = stream.headername;
    if (!name.starts_with('|'))
        qaserr("output pipe command '%s' doesn't start with | for tag %s\n", name.c_str(), stream.tagname.c_str());
    const std::string command = name.substr(1);
    Descriptor fd;
    stream.command = start_command(command, false, fd);
    if (stream.command) stream.headfile = ::fdopen(fd.release(), "w");
    if (!stream.headfile) {
        layer.notes.perror("qasstrhead:openpipe() ");
        qaserr("error in opening output pipe %s for tag %s \n", command.c_str(), stream.tagname.c_str());
    }
    stream.close_headfile = true;
    survive_broken_pipes(layer);
}

void open_outsok(Layer& layer, streaminf& stream) {
    const char* name = stream.headername.c_str();
    Descriptor fd = open_socket(layer, stream.headername);
    if (fd.get() < 0) {
        layer.notes.perror("qasstrhead:open_outsok() ");
        qaserr("open_outsok(): open socket \"%s\" failed for tag \"%s\"\n", name, stream.tagname.c_str());
    }
    stream.headfile = ::fdopen(fd.release(), "w");
    if (!stream.headfile)
        qaserr("error in opening output socket \"%s\" for tag \"%s\" \n", name, stream.tagname.c_str());
    stream.close_headfile = true;
    survive_broken_pipes(layer);
}

void name_data_by_path(Layer& layer, streaminf& stream, const std::string& name, bool unique) {
    if (name.find(';') != std::string::npos)
        qaserr("output %s: a \";\" in its name would part the names of data files: give it another name\n",
               header_place(stream).c_str());
    const DataPath path = datapath(layer);
    stream.datapath_source = "data path \"" + path.prefix + "\" is from " + path.source;
    stream.in_default_path = path.by_default;
    stream.dataname = makenames(layer, path.prefix, name, unique);
}

void outname(Layer& layer, streaminf& stream) {
    if (const auto given = getch_text(layer, stream.tagname + ".out")) {
        stream.dataname = *given;
    } else if (stream.isapipe) {
        stream.dataname = "follow_hdr";
    } else {
        name_data_by_path(layer, stream, qas_tail(stream.headername), false);
    }
}

/// The names of new data files must be found again in the header.
void check_data_name(const streaminf& stream) {
    const auto files = std::count(stream.dataname.begin(), stream.dataname.end(), ';') + 1;
    std::string what = "name of the data file";
    if (files > 1) what = strprintf("names of the %td data files (nfiles, datapath)", files);
    check_readable("the " + what + " of " + header_place(stream), quoted_text(stream.dataname));
    if (const std::string variable = envhead(stream.dataname); !variable.empty())
        if (const char* value = std::getenv(variable.c_str()))
            check_readable("environment variable " + variable, quoted_text(value));
}

void open_outstream(Layer& layer, streaminf& stream) {
    if (stream.tagname != "out") {
        outname(layer, stream);
    } else if (const auto given = getch_text(layer, "out")) {
        if (*given != "stdout")
            stream.dataname = expand_name(*given);
        else
            stream.dataname = stream.headfile == layer.out ? "follow_hdr" : "stdout";
    } else if (stream.isapipe || datapath(layer).prefix == "stdout") {
        stream.dataname = "follow_hdr";
    } else {
        std::string name = getch_text(layer, "head").value_or("");
        if (name.empty() || !fdordinary(::fileno(stream.headfile)) || name == "stdout" || name == "stderr")
            name = findnm(::fileno(stream.headfile));
        name = qas_tail(name);
        if (name.starts_with('H')) name.erase(0, 1);
        if (!name.empty())
            name_data_by_path(layer, stream, name, false);
        else
            name_data_by_path(layer, stream, qas_tail(layer.argv.empty() ? "" : layer.argv[0]), true);
        stream.unique_data = name.empty();
    }
    check_data_name(stream);
    init_io(layer, stream);
}

/// The format of "out" is the one asked for on the command line or that of the input.
void set_output_data_format(Layer& layer, streaminf& stream) {
    const Values name = fetch(layer, "data_format", "s", 1);
    if (!found(name)) return;
    const std::string& format = std::get<std::string>(name);
    stream.format_num = get_format_num(format);
    if (stream.format_num < 0)
        qaserr("unknown data format: %s \n %s \n  data_format for tag \"%s\"\n", format.c_str(), format_list().c_str(),
               stream.tagname.c_str());
}

/// Opens the header named by stream.headername for writing.
void open_output_header(Layer& layer, streaminf& stream) {
    if (is_command(stream.headername) || is_socket(stream.headername)) {
        refuse_from_history(stream);
        return is_command(stream.headername) ? open_outpipe(layer, stream) : open_outsok(layer, stream);
    }
    if (stream.headername != "stdout") return open_outfile(layer, stream);
    stream.headfile = layer.out;
    const std::string head = getch_text(layer, "head").value_or("");
    if (head.empty() || head == "stdout") return;
    if (head == "stderr") {
        stream.headfile = layer.notes.err;
        return;
    }
    stream.headername = head;
    open_output_header(layer, stream);
}

bool is_plain_file(const streaminf& stream) {
    const std::string& name = stream.headername;
    struct stat status;
    return name != "stdin" && name != "stdout" && !is_command(name) && !is_socket(name) &&
           (::stat(name.c_str(), &status) < 0 || S_ISREG(status.st_mode));
}

void open_inoutstream(Layer& layer, streaminf& stream) {
    if (stream.headerbuf) {
        const Values in = qasstrpar(layer, stream, "in", "s", 1);
        if (found(in) && std::get<std::string>(in) != "-1") {
            const std::string& name = std::get<std::string>(in);
            stream.dataname = name == "stdin" ? "follow_hdr" : name;
            stream.fresh_data = false;
        }
    }
    if (stream.dataname.empty()) outname(layer, stream);
    if (stream.fresh_data) check_data_name(stream);
    init_io(layer, stream);
}

/// Opens the header file; what it holds already is read if it is to be kept.
void open_updated_header(Layer& layer, streaminf& stream, bool keep, const std::string& refused) {
    check_named_by_history(layer, stream);
    stream.headfile = open_header_file(layer, stream, true);
    if (!stream.headfile) {
        layer.notes.perror("qasstrinouthead, openfile()");
        throw Fatal(refused);
    }
    stream.format_num = 0;
    if (keep && fsize(::fileno(stream.headfile)) > 0) {
        stream.header_source = ByteSource::borrow(::fileno(stream.headfile));
        readhdr(layer, stream);
        stream.header_source.close();
        std::fseek(stream.headfile, 0, SEEK_END);
        stream.text_end = ::ftello(stream.headfile);
        stream.tail =
            stream.headerbuf->substr(stream.headerbuf->size() - std::min(stream.headerbuf->size(), header_look_back));
        choose_input_format(layer, stream);
    }
    open_inoutstream(layer, stream);
    check_files_are_free(layer, stream);
    take_over(layer, stream);
}

}  // namespace

void qasstr_out_head(Layer& layer, streaminf& stream) {
    open_output_header(layer, stream);
    stream.isapipe = isapipe(::fileno(stream.headfile));
    stream.format_num = 0;
    if (stream.tagname == "out") set_output_data_format(layer, stream);
    open_outstream(layer, stream);
    const streaminf* in = stream.tagname == "out" ? &input_tag(layer, "in") : nullptr;
    check_files_are_free(layer, stream);
    if (!in || in->headerbuf) take_over(layer, stream);
    if (in) qasstr_copyh(layer, *in, stream);
}

void qasstr_inout_head(Layer& layer, streaminf& stream) {
    const char* name = stream.headername.c_str();
    const char* tag = stream.tagname.c_str();
    if (!is_plain_file(stream))
        qaserr(
            "Headername \"%s\" for tag \"%s\" cannot be opened as an in/out dataset because it is not a regular file \n",
            name, tag);
    open_updated_header(layer, stream, true,
                        strprintf("Headername \"%s\" for tag \"%s\" cannot be opened read/write \n", name, tag));
}

void qasstr_scr_head(Layer& layer, streaminf& stream) {
    const char* name = stream.headername.c_str();
    const char* tag = stream.tagname.c_str();
    const std::string refused = strprintf(
        "Headername \"%s\" for tag \"%s\" cannot be opened as a scratch dataset because it is not a regular file \n",
        name, tag);
    if (!is_plain_file(stream)) throw Fatal(refused);
    open_updated_header(layer, stream, false, refused);
}

void qasstr_socket_head(Layer& layer, streaminf& stream) {
    stream.format_num = 0;
    std::string service = "0";
    stream.listener = opensock1(service, false, listen_address(layer));
    if (stream.listener.get() < 0) {
        layer.notes.perror("qasstrhead:open_outsok() ");
        qaserr("open_outsok(): open socket \"%s\" failed for tag \"%s\"\n", listen_address(layer).c_str(),
               stream.tagname.c_str());
    }
    const std::string host = host_name();
    if (host.empty()) qaserr("qasstr_socket_head(): getting hostname\n");
    stream.headername = host + ':' + service + '\n';
    stream.isapipe = true;
    stream.dataname = "follow_hdr";
    init_io(layer, stream);
}

void await_reader(Layer& layer, streaminf& stream) {
    if (stream.listener.get() < 0) return;
    Descriptor fd = socklisten(stream.listener.get(), getch_integer(layer, "timeout", 30), nullptr);
    stream.listener.reset();
    if (fd.get() >= 0) stream.headfile = ::fdopen(fd.release(), "w");
    if (!stream.headfile) {
        stream.valid = false;
        qaserr("open_outsok(): open socket \"%s\" failed for tag \"%s\"\n  no reader came\n",
               kill_trailing(stream.headername, '\n').c_str(), stream.tagname.c_str());
    }
    stream.close_headfile = true;
    survive_broken_pipes(layer);
    write_header_text(layer, stream, std::exchange(stream.pending, {}), "qasstr_ready_out");
}

}  // namespace qas
