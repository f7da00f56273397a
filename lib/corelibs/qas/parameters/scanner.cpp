#include "lib/corelibs/qas/parameters/scanner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "lib/corelibs/qas/files/files.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

constexpr std::size_t max_included = std::size_t{16} << 20;
constexpr int max_files = 10000;

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool is_name_character(char c) {
    return is_letter(c) || (c >= '0' && c <= '9') || c == '-' || c == '_';
}
bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

struct Token {
    std::string_view name;
    std::string value;
};

struct Input {
    std::string text;
    std::string file;  // empty: not a file
    dev_t device = 0;
    ino_t inode = 0;
    std::size_t at = 0;
    bool line_start = true;
    bool after_blank = false;  // the last character that was not a `#` is a blank or tab
};

void check_token(std::size_t length) {
    if (length > max_token) qaserr("token too large, exceeds YYLMAX");
}

/// The value that starts at in.at, just behind `=`.
std::string take_value(Input& in) {
    const std::string& text = in.text;
    const std::size_t begin = in.at;
    std::size_t i = begin;
    if (i == text.size() || is_blank(text[i]) || text[i] == '\n') return {};
    std::string value;
    bool closed_by_newline = false;
    if (text[i] == '"' || text[i] == '\'') {
        const char quote = text[i++];
        while (i < text.size()) {
            const char c = text[i++];
            if (c == '\n') {
                closed_by_newline = true;
                break;
            }
            if (c == quote) {
                if (i == text.size() || text[i] != quote) break;
                ++i;
            }
            value.push_back(c);
        }
    } else {
        while (i < text.size() && !is_blank(text[i]) && text[i] != '\n') ++i;
        value = text.substr(begin, i - begin);
    }
    check_token(i - begin);
    in.at = i;
    in.line_start = closed_by_newline;
    return value;
}

bool next_token(Input& in, Token& token) {
    const std::string& text = in.text;
    while (in.at < text.size()) {
        const char c = text[in.at];
        if (in.line_start && c == '#') {
            in.at = std::min(text.find('\n', in.at), text.size());
            continue;
        }
        if ((in.line_start || in.after_blank) && is_letter(c)) {
            const std::size_t begin = in.at;
            while (in.at < text.size() && is_name_character(text[in.at])) ++in.at;
            in.line_start = in.after_blank = false;
            if (in.at == text.size() || text[in.at] != '=') continue;
            check_token(in.at + 1 - begin);
            token.name = std::string_view(text).substr(begin, in.at - begin);
            ++in.at;
            token.value = take_value(in);
            return true;
        }
        ++in.at;
        in.after_blank = is_blank(c) || (c == '#' && in.after_blank);
        in.line_start = c == '\n';
    }
    return false;
}

/// Reads a parameter file whole, with a newline before and after.
Input getpar_stack_par(const std::string& name, const std::vector<Input>& open_inputs, std::size_t& included,
                       Origin origin) {
    if (origin == Origin::history) {
        struct stat status;  // asked before opening: opening a FIFO would wait
        if (::stat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            qaserr("par=%s, named in a history, is not a regular file\n", name.c_str());
    }
    Input input;
    input.file = name;
    Descriptor fd;
    if (origin == Origin::history)  // special files in disguise, as there are under /proc, give an error instead
        fd.reset(::open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (fd.get() < 0) fd.reset(file(name, 0));
    struct stat status {};
    if (::fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode)) {
        input.device = status.st_dev;
        input.inode = status.st_ino;
        for (const Input& other : open_inputs)
            if (!other.file.empty() && other.inode == input.inode && other.device == input.device)
                qaserr("parameter file \"%s\" includes itself (par=%s in \"%s\")\n", name.c_str(), name.c_str(),
                       open_inputs.back().file.c_str());
    }
    input.text.assign(1, '\n');
    char block[65536];
    for (;;) {
        const ssize_t got = ::read(fd.get(), block, sizeof block);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            qaserr("file() can't open file %s\n  par=%s cannot be read: %s\n", name.c_str(), name.c_str(),
                   std::strerror(errno));
        }
        included += static_cast<std::size_t>(got);
        if (included > max_included)
            qaserr("par=%s: more than %zu MiB of parameter files\n", name.c_str(), max_included >> 20);
        input.text.append(block, static_cast<std::size_t>(got));
    }
    input.text.push_back('\n');
    return input;
}

void scan_inputs(ParTable& table, std::int64_t& clock, std::vector<Input> inputs, std::size_t included, Origin origin) {
    Token token;
    int files = 0;
    while (!inputs.empty()) {
        if (!next_token(inputs.back(), token)) {
            inputs.pop_back();
            continue;
        }
        getpar_hash_store(table, clock, token.name, token.value);
        if (token.name == "par") {
            if (++files > max_files) qaserr("par=%s: more than %d parameter files\n", token.value.c_str(), max_files);
            inputs.push_back(getpar_stack_par(token.value, inputs, included, origin));
            table.files.push_back(token.value);
        }
    }
}

}  // namespace

void getpar_hash_store(ParTable& table, std::int64_t& clock, std::string_view name, std::optional<std::string> value) {
    table.insert_or_assign(std::string(name), Entry{std::move(value), clock++});
}

void getpar_scan(ParTable& table, std::int64_t& clock, std::string_view text, Origin origin) {
    std::vector<Input> inputs(1);
    inputs.back().text = text;
    scan_inputs(table, clock, std::move(inputs), 0, origin);
}

void getpar_string_store(ParTable& table, std::int64_t& clock, std::string_view word) {
    if (word.find_first_of("\"'") != std::string_view::npos) {
        getpar_scan(table, clock, word, Origin::user);
        return;
    }
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos || equals == 0) return;
    const std::string_view name = word.substr(0, equals);
    if (equals + 1 == word.size()) {
        getpar_hash_store(table, clock, name, std::nullopt);
        return;
    }
    const std::string value(word.substr(equals + 1));
    if (value.size() > max_token)
        qaserr("parameter %s: a value of %zu characters; at most %zu can be read\n", std::string(name).c_str(),
               value.size(), max_token);
    getpar_hash_store(table, clock, name, value);
    if (name == "par") {
        std::size_t included = 0;
        std::vector<Input> inputs;
        inputs.push_back(getpar_stack_par(value, {}, included, Origin::user));
        table.files.push_back(value);
        scan_inputs(table, clock, std::move(inputs), included, Origin::user);
    }
}

}  // namespace qas
