#include "lib/corelibs/qas/headers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "lib/corelibs/qas/data_names.h"
#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/io.h"
#include "lib/corelibs/qas/parameters.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

constexpr std::size_t max_header = std::size_t{64} << 20;

// ---- names -------------------------------------------------------------------------------------------------------

void name_header(Layer& layer, streaminf& stream, Mode mode) {
    stream.headername = stream.tagname;
    if (stream.tagname == "in" || stream.tagname == "out") {
        const std::string standard = stream.tagname == "in" ? "stdin" : "stdout";
        stream.headername = getch_text(layer, standard).value_or(standard);
        return;
    }
    if (const auto given = getch_text(layer, stream.tagname)) {
        stream.headername = *given;
    } else if (mode != Mode::input) {
        const Values inherited = hetch(layer, stream.tagname, "s", 1);
        if (found(inherited)) {
            stream.headername = std::get<std::string>(inherited);
            stream.from_history = true;
        }
    }
}

bool is_command(const std::string& name) {
    return name.find('|') != std::string::npos;
}
bool is_socket(const std::string& name) {
    return name.find(':') != std::string::npos;
}

/// A command or a connection is obeyed only when the user asked for it.
void refuse_from_history(const streaminf& stream) {
    if (stream.from_history)
        qaserr(
            "tag \"%s\": the history of \"in\" names \"%s\" as its header; commands and sockets are taken only from the"
            " command line or a par= file\n",
            stream.tagname.c_str(), stream.headername.c_str());
}

void refuse_streams(const streaminf& stream) {
    if (!is_command(stream.headername) && !is_socket(stream.headername)) return;
    refuse_from_history(stream);
    qaserr("parameter %s=%s: pipes and sockets are not available in this version\n", stream.tagname.c_str(),
           stream.headername.c_str());
}

/// An output must not overwrite the header of another dataset in use.
void check_header_is_free(Layer& layer, const streaminf& stream) {
    const std::string identity = file_identity(stream.headername);
    if (identity.empty()) return;
    for (const auto& other : layer.streams) {
        if (other.get() == &stream) continue;
        const int fd = other->headfile ? ::fileno(other->headfile) : other->header_source.fd();
        const std::string theirs = fd >= 0 ? file_identity(fd) : file_identity(other->headername);
        if (theirs == identity)
            qaserr("output header \"%s\" for tag \"%s\" is the header of tag \"%s\" too: give %s another name\n",
                   stream.headername.c_str(), stream.tagname.c_str(), other->tagname.c_str(), stream.tagname.c_str());
    }
}

// ---- input headers -----------------------------------------------------------------------------------------------

void fixed_header(streaminf& stream, const char* text) {
    stream.headerbuf = text;
    stream.hdrlen = std::strlen(text) - 1;
}

void readhdr(Layer& layer, streaminf& stream) {
    if (stream.tagname == "in" && noheader(layer)) return fixed_header(stream, "No input header \n");
    if (::isatty(stream.header_source.fd())) return fixed_header(stream, "Input from a tty\n");
    const auto waiting = [&] {
        layer.notes.warn(
            "waiting for the header of tag \"" + stream.tagname + "\" on " + stream.headername +
            (stream.tagname == "in" ? " (its history goes to \"out\"); < /dev/null gives an empty one\n" : "\n"));
    };
    std::string text;
    bool too_long = false;
    const bool marked = stream.header_source.read_header(text, max_header, too_long, waiting, layer.hint_after_ms);
    if (too_long)
        qaserr("%s is longer than %zu MiB without an end-of-header mark: not a header\n", header_place(stream).c_str(),
               max_header >> 20);
    if (!marked && errno != 0) qaserr("%s cannot be read: %s\n", header_place(stream).c_str(), std::strerror(errno));
    if (marked && text.size() >= 2 && text.ends_with("\f\f")) text.resize(text.size() - 2);
    stream.hdrlen = text.size();
    stream.headerbuf = std::move(text);
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

void open_instream(Layer& layer, streaminf& stream) {
    std::optional<std::string> name;
    if (stream.tagname == "in") name = getch_text(layer, "in");
    if (!name) {
        const Values in = qasstrpar(layer, stream, "in", "s", 1);
        if (found(in)) name = std::get<std::string>(in);
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

void qasstr_in_head(Layer& layer, streaminf& stream) {
    if (!(stream.tagname == "in" && noheader(layer))) {
        refuse_streams(stream);
        if (stream.headername == "stdin") {
            stream.header_source = ByteSource::borrow(::fileno(layer.in));
        } else {
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
                return no_header();
            }
        }
    } else {
        stream.header_source = ByteSource::borrow(::fileno(layer.in));
    }
    readhdr(layer, stream);
    open_instream(layer, stream);
}

// ---- output headers ----------------------------------------------------------------------------------------------

void open_outfile(Layer& layer, streaminf& stream) {
    check_header_is_free(layer, stream);
    const char* name = stream.headername.c_str();
    const bool exists = ::access(name, F_OK) == 0;
    stream.headfile = std::fopen(name, exists ? "we" : "w+e");
    stream.close_headfile = true;
    if (stream.headfile) return;
    const int reason = errno;
    layer.notes.perror("qasstrhead, openfile()");
    qaserr("cannot create output header \"%s\" for tag \"%s\" (parameter %s): %s\n", name, stream.tagname.c_str(),
           stream.tagname.c_str(), std::strerror(reason));
}

void name_data_by_path(Layer& layer, streaminf& stream, const std::string& name, bool unique) {
    const DataPath path = datapath(layer);
    stream.datapath_source = "data path \"" + path.prefix + "\" is from " + path.source;
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
    }
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
    refuse_streams(stream);
    if (stream.headername != "stdout") return open_outfile(layer, stream);
    stream.headfile = layer.out;
    const std::string head = getch_text(layer, "head").value_or("");
    if (stream.tagname != "out" || head.empty() || head == "stdout") return;
    if (head == "stderr") {
        stream.headfile = layer.notes.err;
        return;
    }
    stream.headername = head;
    refuse_streams(stream);
    open_outfile(layer, stream);
}

void qasstr_out_head(Layer& layer, streaminf& stream) {
    open_output_header(layer, stream);
    stream.isapipe = isapipe(::fileno(stream.headfile));
    stream.format_num = 0;
    if (stream.tagname == "out") set_output_data_format(layer, stream);
    open_outstream(layer, stream);
    if (stream.tagname == "out") qasstr_copyh(layer, *tag_info(layer, "in", Mode::input), stream);
}

void history_error(Layer& layer, const streaminf& stream, const char* label) {
    const int reason = errno;
    layer.notes.perror(label);
    qaserr("I/O error writing output history\n  %s: %s\n", header_place(stream).c_str(), std::strerror(reason));
}

void write_text(Layer& layer, streaminf& stream, std::string_view text, const char* label) {
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stream.headfile) != text.size() || std::fflush(stream.headfile) != 0)
        history_error(layer, stream, label);
}

void close_header(streaminf& stream) {
    if (stream.headfile && stream.close_headfile) std::fclose(stream.headfile);
    stream.headfile = nullptr;
}

}  // namespace

std::string header_place(const streaminf& stream) {
    std::string key = stream.tagname;
    if (key == "in") key = "stdin";
    if (key == "out") key = "stdout";
    return "header \"" + stream.headername + "\" of tag \"" + stream.tagname + "\" (parameter " + key + ")";
}

streaminf* tag_info(Layer& layer, std::string_view tag, Mode mode) {
    for (const auto& stream : layer.streams)
        if (stream->tagname == tag) return stream.get();
    if (mode == Mode::existing) return nullptr;
    auto fresh = std::make_unique<streaminf>();
    streaminf& stream = *fresh;
    stream.tagname = tag;
    if (mode == Mode::inout || mode == Mode::scratch || mode == Mode::socket_output)
        qaserr("tag \"%s\": in/out, scratch and socket datasets are not available in this version\n",
               stream.tagname.c_str());
    stream.entrytype = mode == Mode::input ? STREAMIN : STREAMOUT;
    name_header(layer, stream, mode);
    const auto at = layer.streams.insert(layer.streams.end(), std::move(fresh));
    try {
        if (mode == Mode::input)
            qasstr_in_head(layer, stream);
        else
            qasstr_out_head(layer, stream);
    } catch (...) {
        close_header(stream);
        layer.streams.erase(at);
        throw;
    }
    return &stream;
}

streaminf& known_tag(Layer& layer, std::string_view tag) {
    streaminf* stream = tag_info(layer, tag, Mode::existing);
    if (!stream) qaserr("Unknown tag \"%s\" \n", std::string(tag).c_str());
    return *stream;
}

bool noheader(Layer& layer) {
    return getch_text(layer, "noheader").value_or("").starts_with('y');
}

std::string get_format(Layer& layer, std::string_view tag) {
    return get_format_name(tag_info(layer, tag, Mode::input)->format_num);
}

void set_format(Layer& layer, std::string_view tag, std::string_view name) {
    const int number = get_format_num(name);
    if (number < 0)
        qaserr("set_format( %s , %s ): unknown format ", std::string(tag).c_str(), std::string(name).c_str());
    tag_info(layer, tag, Mode::output)->format_num = number;
}

bool append_history(Layer& layer, streaminf& stream, std::string_view text) {
    if (stream.entrytype == STREAMIN)
        qaserr("tag \"%s\" is in use as an input: its history cannot be written\n", stream.tagname.c_str());
    if (!stream.headfile || (stream.ready_out && stream.dataname == "follow_hdr")) {
        layer.notes.once("complete\n" + stream.tagname,
                         "warning: the history of tag \"" + stream.tagname +
                             "\" is complete (closed, or its data have begun behind it): later lines are dropped\n");
        return false;
    }
    write_title(layer, stream);
    write_text(layer, stream, text, "putch");
    return true;
}

void write_title(Layer& layer, streaminf& stream) {
    if (stream.header_title) return;
    stream.header_title = true;
    if (getch_text(layer, stream.tagname + ".write_title")) return;
    const std::time_t now = std::time(nullptr);
    char stamp[64] = "\n";
    ::ctime_r(&now, stamp);
    write_text(layer, stream,
               strprintf("\n\n%s:   %s@%s   %s", layer.argv.empty() ? "" : layer.argv[0].c_str(), user_name().c_str(),
                         host_name().c_str(), stamp),
               "write_title");
}

void write_outname(Layer& layer, streaminf& stream) {
    if (stream.header_outname) return;
    write_title(layer, stream);
    stream.header_outname = true;
    if (stream.dataname == "follow_hdr") {
        write_text(layer, stream, "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n", "write_outname");
        return;
    }
    write_text(layer, stream, "\t\tsets next: in=" + format_value(stream.dataname) + "\n", "write_outname");
    const std::string variable = envhead(stream.dataname);
    if (!variable.empty()) {
        const char* value = std::getenv(variable.c_str());
        write_text(layer, stream,
                   strprintf("\t\t current environment %s=\"%s\"\n", variable.c_str(), value ? value : ""),
                   "write_outname");
    }
}

void qasstr_ready_out(Layer& layer, streaminf& stream) {
    if (stream.ready_out) return;
    write_title(layer, stream);
    write_outname(layer, stream);
    write_text(layer, stream, "\t\tdata_format=\"" + get_format_name(stream.format_num) + "\"\n", "qasstr_ready_out");
    if (stream.dataname == "follow_hdr") write_text(layer, stream, "\n\f\f\4", "qasstr_ready_out");
    stream.ready_out = true;
}

void qasstr_copyh(Layer& layer, const streaminf& from, streaminf& to) {
    if (to.header_title || to.header_outname || to.ready_out)
        qaserr("cannot copy header to output tag \"%s\" after it has been used \n", to.tagname.c_str());
    if (!to.headfile || !from.headerbuf) {
        layer.notes.perror("qasstr_copyh()");
        qaserr(" error copying header to output history\n%s", from.trouble.c_str());
    }
    write_text(layer, to, std::string_view(*from.headerbuf).substr(0, from.hdrlen), "qasstr_copyh()");
    write_outname(layer, to);
}

void qasstr_hclose(Layer& layer, streaminf& stream) {
    if (!stream.headfile) {
        layer.notes.warn("WARNING: Multiple closes of output header with tag \"" + stream.tagname +
                         "\"\n or close called after first write\n");
        return;
    }
    qasstr_ready_out(layer, stream);
    if (stream.dataname == "follow_hdr") return;
    write_text(layer, stream, "\n", "qasstr_hclose");
    close_header(stream);
}

void hclose(Layer& layer) {
    for (const auto& stream : layer.streams)
        if (stream->tagname == "out" || stream->entrytype == STREAMINOUT) qasstr_hclose(layer, *stream);
}

void auxhclose(Layer& layer, std::string_view tag) {
    qasstr_hclose(layer, *tag_info(layer, tag, Mode::output));
}

void auxclose(Layer& layer, std::string_view tag) {
    streaminf& stream = known_tag(layer, tag);
    if (stream.entrytype != STREAMIN && stream.headfile) qasstr_hclose(layer, stream);
    if (stream.ioinf) stream.io->close(layer, stream);
    close_header(stream);
    layer.streams.remove_if([&](const auto& other) { return other.get() == &stream; });
}

Layer::~Layer() {
    for (const auto& stream : streams) close_header(*stream);
}

}  // namespace qas
