#include "lib/corelibs/qas/records/history.h"

#include <algorithm>
#include <vector>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/parameters/scanner.h"

namespace qas {
namespace {

/// Whether the text is one value in double quotes.
bool is_quoted(std::string_view text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    const std::string_view inside = text.substr(1, text.size() - 2);
    for (std::size_t at = inside.find('"'); at != std::string_view::npos; at = inside.find('"', at + 2))
        if (inside.substr(at, 2) != "\"\"") return false;
    return true;
}

void scan_header(Layer& layer, streaminf& stream) {
    if (stream.scanned || !stream.headerbuf) return;
    stream.scanned = true;
    getpar_scan(stream.hetch_queue, layer.clock, *stream.headerbuf, Origin::history);
}

}  // namespace

Values qasstrpar(Layer& layer, streaminf& stream, std::string_view names, std::string_view type, std::size_t most) {
    const std::string key(names);
    if (stream.entrytype != STREAMIN && stream.entrytype != STREAMINOUT && stream.entrytype != STREAMSCR)
        qaserr(
            "Attempt to get parameter %s from tag %s which is not a valid description file \n"
            "  the tag is in use as an output\n",
            key.c_str(), stream.tagname.c_str());
    if (stream.entrytype == STREAMIN && !stream.headerbuf)
        qaserr("Attempt to get parameter %s from tag %s which is not a valid description file \n%s", key.c_str(),
               stream.tagname.c_str(), stream.trouble.c_str());
    if (layer.argv.empty()) qaserr("Must call initpar() at the start of your program\n");
    scan_header(layer, stream);
    const std::string where = "header \"" + stream.headername + "\" of tag \"" + stream.tagname + "\":";
    Values values = getpar_decode(stream.hetch_queue, names, type, most, where, layer.notes);
    if (!found(values) && stream.tetch_queue)
        values = getpar_decode(*stream.tetch_queue, names, type, most, where, layer.notes);
    return values;
}

void read_back(Layer& layer, streaminf& stream, std::string_view line) {
    if (stream.entrytype != STREAMINOUT && stream.entrytype != STREAMSCR) return;
    scan_header(layer, stream);
    getpar_scan(stream.hetch_queue, layer.clock, line, Origin::history);
}

std::string format_value(const Value& value) {
    struct {
        std::string operator()(int v) const { return strprintf("%d", v); }
        std::string operator()(float v) const { return strprintf("%g", static_cast<double>(v)); }
        std::string operator()(double v) const { return strprintf("%.15g", v); }
        std::string operator()(bool v) const { return v ? "yes" : "no"; }
        std::string operator()(const std::string& v) const { return is_quoted(v) ? v : quoted_text(v); }
    } format;
    return std::visit(format, value);
}

std::string quoted_text(std::string_view text) {
    std::string quoted(1, '"');
    for (const char c : text) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

void check_readable(const std::string& what, std::string_view text) {
    const auto unreadable = [](char c) { return (static_cast<unsigned char>(c) < 32 && c != '\t') || c == 127; };
    const auto at = std::find_if(text.begin(), text.end(), unreadable);
    if (at != text.end())
        qaserr("%s: character %td of it is a control character (number %d), which a history cannot hold\n",
               what.c_str(), at - text.begin() + 1, *at);
    const std::size_t length = is_quoted(text) ? text.size() : quoted_text(text).size();
    if (length > max_token)
        qaserr("%s: %zu characters with its quotes, of which a history can hold %zu\n", what.c_str(), length,
               max_token);
}

}  // namespace qas
