#include "lib/corelibs/qas/header_lines.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "lib/corelibs/qas/data_names.h"
#include "lib/corelibs/qas/formats.h"
#include "lib/corelibs/qas/parameters.h"
#include "lib/corelibs/qas/qaserr.h"
#include "lib/corelibs/qas/sync.h"

namespace qas {
namespace {

void history_error(Layer& layer, const streaminf& stream, const char* label) {
    const int reason = errno;
    layer.notes.perror(label);
    qaserr("I/O error writing output history\n  %s: %s\n", header_place(stream).c_str(), std::strerror(reason));
}

/// Where the next text goes in an ordinary file; -1 in anything else.
std::int64_t next_text(std::FILE* file) {
    const int fd = ::fileno(file);
    if (std::fflush(file) != 0 || !fdordinary(fd)) return -1;
    return (::fcntl(fd, F_GETFL) & O_APPEND) ? fsize(fd) : ::ftello(file);
}

/// Takes back the part of a text that reached an ordinary file before its write failed: half a line would be read as
/// another value. Nothing is cut off if somebody else has written behind it.
void take_back(std::FILE* file, std::int64_t begin) {
    ::__fpurge(file);
    std::clearerr(file);
    const int fd = ::fileno(file);
    const std::int64_t end = begin < 0 ? -1 : ::lseek(fd, 0, SEEK_CUR);
    if (end > begin && fsize(fd) == end && ::ftruncate(fd, begin) == 0) std::fseek(file, begin, SEEK_SET);
}

void write_text(Layer& layer, streaminf& stream, std::string_view text, const char* label) {
    if (stream.held || (!stream.headfile && stream.listener.get() >= 0)) {
        stream.pending += text;
        return;
    }
    const std::int64_t begin = next_text(stream.headfile);
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stream.headfile) != text.size() || std::fflush(stream.headfile) != 0) {
        const int reason = errno;
        take_back(stream.headfile, begin);
        errno = reason;
        history_error(layer, stream, label);
    }
    stream.tail += text;
    if (stream.tail.size() > header_look_back) stream.tail.erase(0, stream.tail.size() - header_look_back);
    stream.text_end = ::ftello(stream.headfile);
}

/// Whether the header is a file that ends where this record last wrote, and can be rewritten from there.
bool ends_with_our_text(const streaminf& stream) {
    if (!stream.headfile || std::fflush(stream.headfile) != 0) return false;
    const int fd = ::fileno(stream.headfile);
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && !(flags & O_APPEND) && stream.text_end >= 0 && fsize(fd) == stream.text_end &&
           ::ftello(stream.headfile) == stream.text_end;
}

}  // namespace

bool header_open(const streaminf& stream) {
    return stream.headfile || stream.listener.get() >= 0;
}

std::string header_place(const streaminf& stream) {
    std::string key = stream.tagname;
    if (key == "in") key = "stdin";
    if (key == "out") key = "stdout";
    return "header \"" + stream.headername + "\" of tag \"" + stream.tagname + "\" (parameter " + key + ")";
}

void write_header_text(Layer& layer, streaminf& stream, std::string_view text) {
    write_text(layer, stream, text, "qasstr_ready_out");
}

bool append_history(Layer& layer, streaminf& stream, std::string_view text) {
    if (stream.entrytype == STREAMIN)
        qaserr("tag \"%s\" is in use as an input: its history cannot be written\n", stream.tagname.c_str());
    if (!header_open(stream) || (stream.ready_out && stream.dataname == "follow_hdr")) {
        layer.notes.once("complete\n" + stream.tagname,
                         "the history of tag \"" + stream.tagname +
                             "\" is complete (closed, or its data have begun behind it): later lines are dropped\n");
        return false;
    }
    write_title(layer, stream);
    write_text(layer, stream, text, "putch");
    return true;
}

void append_last(Layer& layer, streaminf& stream, std::string_view name, std::string_view line) {
    const std::string start = "\t\t" + std::string(name) + '=';
    std::size_t last = stream.tail.size();
    if (last > 0) last = last < 2 ? 0 : stream.tail.rfind('\n', last - 2) + 1;
    const bool again = stream.tail.compare(last, start.size(), start) == 0 && stream.tail.ends_with('\n');
    if (!again || stream.held || !ends_with_our_text(stream)) {
        append_history(layer, stream, line);
        return;
    }
    const std::string old = stream.tail.substr(last);
    const std::int64_t begin = stream.text_end - std::ssize(old);
    stream.tail.erase(last);
    std::fseek(stream.headfile, begin, SEEK_SET);
    try {
        write_text(layer, stream, line, "putch");
    } catch (const Fatal&) {  // its place is on the disk already
        std::fseek(stream.headfile, begin, SEEK_SET);
        std::fwrite(old.data(), 1, old.size(), stream.headfile);
        std::fflush(stream.headfile);
        throw;
    }
    if (line.size() < old.size() && ::ftruncate(::fileno(stream.headfile), std::ftell(stream.headfile)) < 0)
        history_error(layer, stream, "putch");
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
    stream.header_in = stream.dataname;
    if (stream.dataname == "follow_hdr") {
        write_text(layer, stream, "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n", "write_outname");
        return;
    }
    write_text(layer, stream, "\t\tsets next: in=" + quoted_text(stream.dataname) + "\n", "write_outname");
    const std::string variable = envhead(stream.dataname);
    if (!variable.empty()) {
        const char* value = std::getenv(variable.c_str());
        write_text(
            layer, stream,
            strprintf("\t\t current environment %s=%s\n", variable.c_str(), quoted_text(value ? value : "").c_str()),
            "write_outname");
    }
}

void update_out(Layer& layer, streaminf& stream, const std::string& names) {
    stream.dataname = names;
    if (names == stream.header_in || !stream.header_outname) return;
    stream.header_in = names;
    append_history(layer, stream, "\t\tsets next: in=" + quoted_text(names) + "\n");
}

void qasstr_ready_out(Layer& layer, streaminf& stream) {
    if (stream.ready_out) return;
    write_title(layer, stream);
    write_outname(layer, stream);
    write_text(layer, stream, "\t\tdata_format=\"" + get_format_name(stream.format_num) + "\"\n", "qasstr_ready_out");
    if (stream.dataname == "follow_hdr") syncout(layer, stream);
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

}  // namespace qas
