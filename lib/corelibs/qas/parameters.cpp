#include "lib/corelibs/qas/parameters.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "lib/corelibs/qas/header_lines.h"
#include "lib/corelibs/qas/headers.h"
#include "lib/corelibs/qas/keys.h"
#include "lib/corelibs/qas/qaserr.h"

namespace qas {
namespace {

ParTable& command_line(Layer& layer) {
    if (layer.first_invoke) {
        layer.first_invoke = false;
        for (std::size_t i = 1; i < layer.argv.size(); ++i)
            getpar_string_store(layer.getch_queue, layer.clock, layer.argv[i]);
    }
    return layer.getch_queue;
}

/// Whether the text is one value in double quotes.
bool is_quoted(std::string_view text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"') return false;
    const std::string_view inside = text.substr(1, text.size() - 2);
    for (std::size_t at = inside.find('"'); at != std::string_view::npos; at = inside.find('"', at + 2))
        if (inside.substr(at, 2) != "\"\"") return false;
    return true;
}

std::string history_line(const streaminf& stream, std::string_view name, const Value& value) {
    if (const auto* text = std::get_if<std::string>(&value))
        check_readable(header_place(stream) + ": the value of " + std::string(name.substr(name.rfind(' ') + 1)), *text);
    return "\t\t" + std::string(name) + '=' + format_value(value) + '\n';
}

void scan_header(Layer& layer, streaminf& stream) {
    if (stream.scanned || !stream.headerbuf) return;
    stream.scanned = true;
    getpar_scan(stream.hetch_queue, layer.clock, *stream.headerbuf, Origin::history);
}

/// A dataset that is read and written sees its own lines.
void read_back(Layer& layer, streaminf& stream, const std::string& line) {
    if (stream.entrytype != STREAMINOUT && stream.entrytype != STREAMSCR) return;
    scan_header(layer, stream);
    getpar_scan(stream.hetch_queue, layer.clock, line, Origin::history);
}

/// Whether the program's table of keys, if it has declared one, lists what it looks up.
[[maybe_unused]] bool listed(const Layer& layer, std::string_view names) {
    for (std::size_t begin = 0; layer.keys && begin < names.size();) {
        const std::size_t end = std::min(names.find(' ', begin), names.size());
        const std::string_view name = names.substr(begin, end - begin);
        if (!name.empty() && !layer.keys->knows(name)) {
            std::fprintf(stderr, "%.*s is looked up and not in the table of keys\n", static_cast<int>(name.size()),
                         name.data());
            return false;
        }
        begin = end + 1;
    }
    return true;
}

/// A word as a message shows it.
std::string shown(std::string_view word) {
    constexpr std::size_t longest = 60;
    std::string text(word.substr(0, longest));
    if (word.size() > longest) text += "...";
    std::ranges::replace_if(
        text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; }, '?');
    return text;
}

/// Whether a value refers to the parameter `name`.
bool refers_to(const ParTable& table, const std::string& name) {
    return std::ranges::any_of(table, [&](const auto& pair) {
        const std::string value = pair.second.value.value_or("");
        const std::size_t at = value.find("$" + name);
        return at != std::string::npos && std::min(value.find('/', at), value.size()) == at + 1 + name.size();
    });
}

/// Words of the command line that hold no name.
void unnamed_words(const Layer& layer, const KeyTable& keys, std::vector<std::string>& messages) {
    for (std::size_t i = 1; i < layer.argv.size(); ++i) {
        const std::string& word = layer.argv[i];
        const std::size_t equals = word.find('=');
        bool named = equals != std::string::npos && equals > 0;
        if (named && word.find_first_of("\"'") != std::string::npos && !word.starts_with("par=")) {
            ParTable alone;
            std::int64_t clock = 0;
            getpar_string_store(alone, clock, word);
            named = !alone.empty();
        }
        if (named) continue;
        const std::string near = keys.nearest(word);
        messages.push_back(strprintf("\"%s\" is not read: a parameter is name=value", shown(word).c_str()));
        if (!near.empty()) messages.back() += "; did you mean " + near + "=...?";
    }
}

}  // namespace

std::vector<std::string> finitpar(int argc, const char* const* argv, Notes& notes) {
    constexpr std::size_t width = 255;
    std::vector<std::string> words;
    for (int i = 0; i < argc; ++i) {
        words.push_back(kill_trailing(argv[i], ' '));
        std::string& word = words.back();
        if (word.size() <= width || word.size() > max_token) continue;  // what no reader takes is refused by its name
        const std::size_t length = word.size();
        word = kill_trailing(word.substr(0, width), ' ');
        notes.program = words.front();
        notes.warning(strprintf(
            "a word of the command line has %zu characters and is cut after %zu (a file named by par= may hold longer "
            "values): %s\n",
            length, width, word.c_str()));
    }
    return words;
}

void initpar(Layer& layer, std::vector<std::string> argv) {
    for (std::string& word : argv) word.erase(word.find_last_not_of(' ') + 1);
    layer.argv = std::move(argv);
    layer.notes.program = layer.argv.empty() ? std::string() : layer.argv.front();
}

Values getch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    assert(listed(layer, names));
    return getpar_decode(command_line(layer), names, type, most, "parameter", layer.notes);
}

void getch_add_string(Layer& layer, std::string_view word) {
    getpar_string_store(command_line(layer), layer.clock, word);
}

Values hetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    return auxpar(layer, names, type, most, "in");
}

Values fetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    Values values = getch(layer, names, type, most);
    return found(values) ? values : hetch(layer, names, type, most);
}

Values tetch(Layer& layer, std::string_view names, std::string_view type, std::size_t most) {
    Values values = getch(layer, names, type, most);
    if (found(values)) return values;
    streaminf& stream = *tag_info(layer, "in", Mode::input);
    if (!stream.tetch_queue) return {};
    return getpar_decode(*stream.tetch_queue, names, type, most, "second table of tag \"in\":", layer.notes);
}

Values auxpar(Layer& layer, std::string_view names, std::string_view type, std::size_t most, std::string_view tag) {
    return qasstrpar(layer, *tag_info(layer, tag, Mode::input), names, type, most);
}

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

std::optional<std::string> getch_text(Layer& layer, std::string_view names) {
    Values values = getch(layer, names, "s", 1);
    if (!found(values)) return std::nullopt;
    return std::get<std::string>(std::move(values));
}

std::optional<std::string> getch_variable(Layer& layer, std::string_view name) {
    const Entry* entry = getpar_find(command_line(layer), name);
    return entry ? entry->value : std::nullopt;
}

std::vector<std::string> unread(Layer& layer, const KeyTable& keys, bool with_files) {
    ParTable typed;
    std::int64_t clock = 0;
    for (std::size_t i = 1; i < layer.argv.size() && !with_files; ++i)
        if (!layer.argv[i].starts_with("par=")) getpar_string_store(typed, clock, layer.argv[i]);
    const ParTable& table = with_files ? command_line(layer) : typed;
    std::vector<std::pair<std::int64_t, std::string>> found;
    for (const auto& [name, entry] : table) {
        if (keys.knows(name) || refers_to(table, name)) continue;
        const std::string near = keys.nearest(name);
        std::string message = shown(name + "=" + entry.value.value_or("")) + " is not read, there is no such key";
        if (!near.empty()) message += "; did you mean " + near + "?";
        found.emplace_back(entry.timestamp, std::move(message));
    }
    std::ranges::sort(found);
    std::vector<std::string> messages;
    for (auto& [order, text] : found) messages.push_back(std::move(text));
    unnamed_words(layer, keys, messages);
    return messages;
}

int getch_integer(Layer& layer, std::string_view names, int otherwise) {
    const Values values = getch(layer, names, "i", 1);
    return found(values) ? std::get<std::vector<int>>(values).front() : otherwise;
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

void putch(Layer& layer, std::string_view name, const Value& value) {
    auxputch(layer, name, value, "out");
}

void auxputch(Layer& layer, std::string_view name, const Value& value, std::string_view tag) {
    qasstrput(layer, *tag_info(layer, tag, Mode::output), name, value);
}

void qasstrput(Layer& layer, streaminf& stream, std::string_view name, const Value& value) {
    const std::string line = history_line(stream, name, value);
    if (append_history(layer, stream, line)) read_back(layer, stream, line);
}

void qasstrputlast(Layer& layer, streaminf& stream, std::string_view name, const Value& value) {
    const std::string full_name = "putlast: " + std::string(name);
    const std::string line = history_line(stream, full_name, value);
    append_last(layer, stream, full_name, line);
    read_back(layer, stream, line);
}

}  // namespace qas
