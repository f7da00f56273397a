#include "lib/corelibs/qas/parameters/command_line.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

ParTable& scanned_words(CommandLine& line) {
    if (line.first_invoke) {
        line.first_invoke = false;
        for (std::size_t i = 1; i < line.argv.size(); ++i)
            getpar_string_store(line.getch_queue, line.clock, line.argv[i]);
    }
    return line.getch_queue;
}

/// Whether the program's table of keys, if it has declared one, lists what it looks up.
[[maybe_unused]] bool listed(const CommandLine& line, std::string_view names) {
    for (std::size_t begin = 0; line.keys && begin < names.size();) {
        const std::size_t end = std::min(names.find(' ', begin), names.size());
        const std::string_view name = names.substr(begin, end - begin);
        if (!name.empty() && !line.keys->knows(name)) {
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
void unnamed_words(const CommandLine& line, const KeyTable& keys, std::vector<std::string>& messages) {
    for (std::size_t i = 1; i < line.argv.size(); ++i) {
        const std::string& word = line.argv[i];
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

void initpar(CommandLine& line, std::vector<std::string> argv) {
    for (std::string& word : argv) word.erase(word.find_last_not_of(' ') + 1);
    line.argv = std::move(argv);
    line.notes.program = line.argv.empty() ? std::string() : line.argv.front();
}

Values getch(CommandLine& line, std::string_view names, std::string_view type, std::size_t most) {
    assert(listed(line, names));
    return getpar_decode(scanned_words(line), names, type, most, "parameter", line.notes);
}

void getch_add_string(CommandLine& line, std::string_view word) {
    getpar_string_store(scanned_words(line), line.clock, word);
}

std::optional<std::string> getch_text(CommandLine& line, std::string_view names) {
    Values values = getch(line, names, "s", 1);
    if (!found(values)) return std::nullopt;
    return std::get<std::string>(std::move(values));
}

std::optional<std::string> getch_variable(CommandLine& line, std::string_view name) {
    const Entry* entry = getpar_find(scanned_words(line), name);
    return entry ? entry->value : std::nullopt;
}

std::vector<std::string> unread(CommandLine& line, const KeyTable& keys, bool with_files) {
    ParTable typed;
    std::int64_t clock = 0;
    for (std::size_t i = 1; i < line.argv.size() && !with_files; ++i)
        if (!line.argv[i].starts_with("par=")) getpar_string_store(typed, clock, line.argv[i]);
    const ParTable& table = with_files ? scanned_words(line) : typed;
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
    messages.reserve(found.size());
    for (auto& [order, text] : found) messages.push_back(std::move(text));
    unnamed_words(line, keys, messages);
    return messages;
}

int getch_integer(CommandLine& line, std::string_view names, int otherwise) {
    const Values values = getch(line, names, "i", 1);
    return found(values) ? std::get<std::vector<int>>(values).front() : otherwise;
}

}  // namespace qas
