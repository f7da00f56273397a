#include "src/tools/qas/words.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <span>

#include "lib/corelibs/qas/parameters/keys.h"

namespace qastool {
namespace {

using qas::qaserr;

using Names = std::span<const std::string_view>;

constexpr std::array<std::string_view, 10> output_keys{
    "datapath", "out", "stdout", "head", "nfiles", "dirsize", "filesize", "data_format", "timeout", "out.write_title"};

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_name(std::string_view text) {
    return !text.empty() && is_letter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
        return is_letter(c) || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
    });
}

bool matches(std::string_view key, std::string_view pattern) {
    if (!pattern.ends_with('#')) return key == pattern;
    pattern.remove_suffix(1);
    return key.size() == pattern.size() + 1 && key.starts_with(pattern) && key.back() >= '1' && key.back() <= '9';
}

bool any_matches(std::string_view key, Names patterns) {
    return std::any_of(patterns.begin(), patterns.end(), [&](std::string_view p) { return matches(key, p); });
}

std::string joined(Names names) {
    std::string text;
    for (const std::string_view name : names) text.append(text.empty() ? "" : " ").append(name);
    return text;
}

/// "; did you mean KEY?", or nothing.
std::string meant(const std::string& key, Names keys) {
    std::vector<std::string> all(keys.begin(), keys.end());
    all.insert(all.end(), output_keys.begin(), output_keys.end());
    const std::string near = qas::nearest_name(key, all);
    return near.empty() ? "" : "; did you mean " + near + "?";
}

std::string_view without_blanks(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

}  // namespace

bool Words::has_flag(std::string_view flag) const {
    return std::find(flags.begin(), flags.end(), flag) != flags.end();
}

Words sort_words(std::string program, const std::vector<std::string>& words) {
    Words sorted;
    sorted.program = std::move(program);
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (equals != std::string::npos && is_name(std::string_view(word).substr(0, equals))) {
            sorted.parameters.emplace_back(word.substr(0, equals), word.substr(equals + 1));
        } else if (word.size() > 1 && word[0] == '-') {
            sorted.flags.push_back(word);
        } else {
            if (word.empty() || word.find_first_of("|:\n") != std::string::npos)
                qaserr(
                    "\"%s\" is taken as no file: a name here is not empty and holds no | : or newline (qas ... < FILE"
                    " reads any file)\n",
                    printable(word).c_str());
            sorted.files.push_back(word == "-" ? "stdin" : word);
        }
    }
    return sorted;
}

void check_words(const Words& words, std::initializer_list<std::string_view> known_keys,
                 std::initializer_list<std::string_view> known_flags, bool writes_dataset) {
    const Names keys(known_keys.begin(), known_keys.size()), flags(known_flags.begin(), known_flags.size());
    const std::string own = joined(keys);
    std::string common = own.empty() ? "par" : " par";
    if (writes_dataset) common.append(" ").append(joined(output_keys));
    for (const auto& [key, value] : words.parameters)
        if (key != "par" && !any_matches(key, keys) && !(writes_dataset && any_matches(key, output_keys)))
            qaserr("unknown parameter %s=%s%s; known are: %s%s\n", key.c_str(), printable(value).c_str(),
                   meant(key, keys).c_str(), own.c_str(), common.c_str());
    for (const std::string& flag : words.flags)
        if (!any_matches(flag, flags))
            qaserr("unknown flag %s; known are: --help %s\n", printable(flag).c_str(),
                   flags.empty() ? "" : joined(flags).c_str());
}

void check_files(Words& words, std::size_t least, std::size_t most) {
    if (words.files.empty() && least == 0) {
        if (::isatty(STDIN_FILENO)) qaserr("no FILE is given and standard input is a terminal; --help tells more\n");
        words.files.push_back("stdin");
    }
    if (words.files.size() < least || words.files.size() > most)
        qaserr("%zu files are given, %zu to %zu can be; --help tells more\n", words.files.size(), least, most);
    if (std::count(words.files.begin(), words.files.end(), "stdin") > 1)
        qaserr("standard input can be read as one dataset only\n");
}

void check_readable(const std::string& file) {
    struct stat status;
    const bool folder = ::stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    if (folder || ::access(file.c_str(), R_OK) != 0)
        qaserr("%s cannot be read: %s\n", printable(file).c_str(), std::strerror(folder ? EISDIR : errno));
}

std::vector<std::string> session_words(const Words& words,
                                       const std::vector<std::pair<std::string, std::string>>& tags) {
    std::vector<std::string> argv{words.program};
    for (const auto& [key, value] : words.parameters) argv.push_back(key + "=" + value);
    for (const auto& [tag, file] : tags) {
        std::string quoted;
        for (const char c : file) quoted.append(c == '"' ? 2 : 1, c);
        argv.push_back(tag + "=\"" + quoted + "\"");
    }
    return argv;
}

std::optional<std::int64_t> whole_number(std::string_view text) {
    text = without_blanks(text);
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

std::optional<double> real_number(const std::string& text) {
    const std::string trimmed(without_blanks(text));
    char* end = nullptr;
    const double number = std::strtod(trimmed.c_str(), &end);
    if (trimmed.empty() || *end != '\0' || end != trimmed.c_str() + trimmed.size() || !std::isfinite(number))
        return std::nullopt;
    return number;
}

std::optional<std::int64_t> integer_parameter(qas::Session& session, const std::string& key, std::int64_t least) {
    const auto text = session.getch<std::string>(key);
    if (!text) return std::nullopt;
    const auto number = whole_number(*text);
    if (!number || *number < least)
        qaserr("%s=%s: an integer of at least %lld is needed\n", key.c_str(), printable(*text).c_str(),
               static_cast<long long>(least));
    return number;
}

std::optional<double> tolerance_parameter(qas::Session& session, const std::string& key) {
    const auto text = session.getch<std::string>(key);
    if (!text) return std::nullopt;
    const auto number = real_number(*text);
    if (!number || *number < 0.0)
        qaserr("%s=%s: a number of at least 0 is needed\n", key.c_str(), printable(*text).c_str());
    return number;
}

std::optional<bool> logical_parameter(qas::Session& session, const std::string& key) {
    const auto text = session.getch<std::string>(key);
    if (!text) return std::nullopt;
    const char first = text->empty() ? '\0' : text->front();
    if (std::string_view("yY1").find(first) != std::string_view::npos) return true;
    if (std::string_view("nN0").find(first) != std::string_view::npos) return false;
    qaserr("%s=%s: y or n is needed\n", key.c_str(), printable(*text).c_str());
}

std::string printable(std::string_view text) {
    std::string shown(text);
    for (char& c : shown)
        if (static_cast<unsigned char>(c) < 32 || c == 127) c = '?';
    return shown;
}

}  // namespace qastool
