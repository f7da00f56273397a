#include "lib/corelibs/qas/records/header_lines.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "lib/corelibs/qas/files/machine.h"
#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/command_line.h"
#include "lib/corelibs/qas/records/data_names.h"
#include "lib/corelibs/qas/records/formats.h"
#include "lib/corelibs/qas/records/header_text.h"
#include "lib/corelibs/qas/records/history.h"
#include "lib/corelibs/qas/records/sync.h"

namespace qas {

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
    write_header_text(layer, stream, text, "putch");
    return true;
}

void append_last(Layer& layer, streaminf& stream, std::string_view name, std::string_view line) {
    if (!replace_last_line(layer, stream, "\t\t" + std::string(name) + '=', line)) append_history(layer, stream, line);
}

void write_title(Layer& layer, streaminf& stream) {
    if (stream.header_title) return;
    stream.header_title = true;
    if (getch_text(layer, stream.tagname + ".write_title")) return;
    const std::time_t now = std::time(nullptr);
    char stamp[64] = "\n";
    ::ctime_r(&now, stamp);
    write_header_text(layer, stream,
                      strprintf("\n\n%s:   %s@%s   %s", layer.argv.empty() ? "" : layer.argv[0].c_str(),
                                user_name().c_str(), host_name().c_str(), stamp),
                      "write_title");
}

void write_outname(Layer& layer, streaminf& stream) {
    if (stream.header_outname) return;
    write_title(layer, stream);
    stream.header_outname = true;
    stream.header_in = stream.dataname;
    if (stream.dataname == "follow_hdr") {
        write_header_text(layer, stream, "\t\tqasstr_ready_out() : sets next in=\"stdin\"\n", "write_outname");
        return;
    }
    write_header_text(layer, stream, "\t\tsets next: in=" + quoted_text(stream.dataname) + "\n", "write_outname");
    const std::string variable = envhead(stream.dataname);
    if (!variable.empty()) {
        const char* value = std::getenv(variable.c_str());
        write_header_text(
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
    write_header_text(layer, stream, "\t\tdata_format=\"" + get_format_name(stream.format_num) + "\"\n",
                      "qasstr_ready_out");
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
    write_header_text(layer, to, std::string_view(*from.headerbuf).substr(0, from.hdrlen), "qasstr_copyh()");
    write_outname(layer, to);
}

}  // namespace qas
