// qas head: lines at the end of a history.
#include <sys/stat.h>

#include <algorithm>
#include <limits>

#include "lib/corelibs/qas/records/formats.h"
#include "src/tools/qas/commands.h"
#include "src/tools/qas/dataset.h"

namespace qastool {
namespace {

using qas::qaserr;

constexpr int patience_ms = 10000;           // with another program that writes the history
constexpr std::size_t longest_value = 4000;  // stays readable when every character is a quote

bool is_axis_key(const std::string& key, const char* letters) {
    return key.size() == 2 && std::string_view(letters).find(key[0]) != std::string_view::npos && key[1] >= '1' &&
           key[1] <= '9';
}

/// Refuses what a reader of the history could not take.
void check_line(const std::string& key, const std::string& value) {
    const std::string shown = printable(value);
    const char* name = key.c_str();
    if (key.find('.') != std::string::npos) qaserr("%s=%s: a name in a history holds no dot\n", name, shown.c_str());
    if (key == "par") qaserr("par=%s: every reader of the history would look for that file\n", shown.c_str());
    if (value.empty()) qaserr("%s=: a value is needed\n", name);
    if (value.size() > longest_value)
        qaserr("%s: its value has %zu characters, %zu are allowed\n", name, value.size(), longest_value);
    if (shown != value) qaserr("%s=%s: control characters are not allowed in a history\n", name, shown.c_str());
    if (is_axis_key(key, "n")) {
        const auto n = whole_number(value);
        if (!n || *n < 1) qaserr("%s=%s: an integer of at least 1 is needed\n", name, shown.c_str());
    } else if (is_axis_key(key, "do") && !real_number(value)) {
        qaserr("%s=%s: a finite number is needed\n", name, shown.c_str());
    } else if (key == "esize" && value != "1" && value != "4" && value != "8") {
        qaserr("esize=%s: 1, 4 or 8 is needed\n", shown.c_str());
    } else if (key == "data_format" && qas::get_format_num(value) < 0) {
        qaserr("data_format=%s: known are %s\n", shown.c_str(), qas::format_list().c_str());
    }
}

/// A number stays bare if it is typed as it would be printed, everything else goes into quotes.
void append_line(qas::Session& session, const std::string& key, const std::string& value, const std::string& tag) {
    const auto integer = whole_number(value);
    if (integer && std::abs(*integer) <= std::numeric_limits<int>::max()) {
        session.to_history(key, static_cast<int>(*integer), tag);
    } else if (const auto real = real_number(value); real && !integer) {
        session.to_history(key, *real, tag);
    } else {
        std::string quoted = "\"";
        for (const char c : value) quoted.append(c == '"' ? 2 : 1, c);
        session.to_history(key, quoted + '"', tag);
    }
}

void append_in_place(const Words& words) {
    const std::string& file = words.files[0];
    struct stat status;
    if (::stat(file.c_str(), &status) != 0)
        qaserr("%s: no such header; qas head appends to one that exists\n", file.c_str());
    Words none = words;
    none.parameters.clear();  // they are for the history, not for this program
    qas::Session session(session_words(none, {{"head", file}}));
    session.set_patience(patience_ms);
    session.hold_outputs();  // all lines or none
    session.auxinout("head");
    for (const auto& [key, value] : words.parameters) append_line(session, key, value, "head");
    session.finish_outputs();
}

/// Standard input's dataset goes to the standard output with the lines in its history.
void append_on_the_way(const Words& words) {
    Words none = words;
    none.parameters.clear();
    qas::Session session(session_words(none, {}));
    session.replace_outputs();
    const Dataset set = read_description(session, "in", "stdin");
    require_data(session, set, set.bytes());
    for (const auto& [key, value] : words.parameters) append_line(session, key, value, "out");
    pass_on(session, set, set.bytes(), dataset_sink(session));
    session.hclose();
    session.finish_outputs();
}

}  // namespace

int run_head(Words words) {
    for (const std::string& flag : words.flags) qaserr("unknown flag %s; known are: --help\n", printable(flag).c_str());
    check_files(words, 0, 1);
    if (words.parameters.empty()) qaserr("no key=value is given to append\n");
    for (const auto& [key, value] : words.parameters) check_line(key, value);
    const bool filter = words.files[0] == "stdin";
    const auto names_data = [](const auto& word) { return word.first == "in" || word.first == "data_format"; };
    if (filter && std::any_of(words.parameters.begin(), words.parameters.end(), names_data))
        qaserr("in= and data_format= can be appended to a header file only: data that pass through are named anew\n");
    filter ? append_on_the_way(words) : append_in_place(words);
    return 0;
}

}  // namespace qastool
