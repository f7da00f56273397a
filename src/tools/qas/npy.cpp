#include "src/tools/qas/npy.h"

#include <array>
#include <bit>
#include <charconv>
#include <cstring>

#include "lib/corelibs/qas/messages/qaserr.h"
#include "src/tools/qas/dataset.h"
#include "src/tools/qas/words.h"

namespace qastool {
namespace {

using qas::qaserr;

constexpr std::string_view magic("\x93NUMPY", 6);
constexpr std::uint32_t longest_dictionary = 1 << 20;
constexpr std::size_t alignment = 64;
constexpr bool little = std::endian::native == std::endian::little;

/// Reads the literal of a dictionary; every step refuses what does not fit.
class Literal {
    std::string_view text_;
    std::size_t at_ = 0;
    const std::string& name_;

public:
    Literal(std::string_view text, const std::string& name) : text_(text), name_(name) {}

    [[noreturn]] void refuse(const char* what) const {
        qaserr("%s: the header of this .npy file is malformed: %s at byte %zu of \"%s\"\n", name_.c_str(), what, at_,
               printable(text_.substr(0, 200)).c_str());
    }
    char next() {
        while (at_ < text_.size() && std::strchr(" \t\r\n", text_[at_]) && text_[at_] != '\0') ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool take(char c) {
        if (next() != c || c == '\0') return false;
        ++at_;
        return true;
    }
    void expect(char c, const char* what) {
        if (!take(c)) refuse(what);
    }
    std::string quoted() {
        const char quote = next();
        if (quote != '\'' && quote != '"') refuse("a quoted text is missing");
        const std::size_t end = text_.find(quote, at_ + 1);
        if (end == std::string_view::npos) refuse("a quote is not closed");
        const std::string value(text_.substr(at_ + 1, end - at_ - 1));
        at_ = end + 1;
        return value;
    }
    bool logical() {
        next();
        for (const bool value : {true, false}) {
            const std::string_view word = value ? "True" : "False";
            if (text_.substr(at_).starts_with(word)) {
                at_ += word.size();
                return value;
            }
        }
        refuse("True or False is missing");
    }
    std::vector<std::int64_t> integers() {
        std::vector<std::int64_t> values;
        expect('(', "a tuple is missing");
        while (!take(')')) {
            next();
            std::int64_t value = 0;
            const auto [end, error] = std::from_chars(text_.data() + at_, text_.data() + text_.size(), value);
            if (error != std::errc()) refuse("an integer is missing, or too large,");
            at_ = static_cast<std::size_t>(end - text_.data());
            take('L');
            values.push_back(value);
            if (!take(',') && next() != ')') refuse("a comma is missing");
        }
        return values;
    }
    void end() {
        if (next() != '\0' || at_ != text_.size()) refuse("more text follows");
    }
};

void set_type(NpyHeader& header, const std::string& descr, const std::string& name) {
    constexpr std::array<std::string_view, 6> known{"f4", "f8", "c8", "c16", "i4", "u1"};
    const std::string_view text(descr);
    const std::string_view type = text.substr(std::min<std::size_t>(1, text.size()));
    const char order = descr.empty() ? '\0' : descr[0];
    const bool found = std::find(known.begin(), known.end(), type) != known.end();
    const bool ordered = order == '<' || order == '>' || order == '=' || (order == '|' && type == "u1");
    if (!found || !ordered)
        qaserr("%s: dtype '%s' is not taken; f4, f8, c8, c16, i4 and u1 are (numpy: a.astype('f4'))\n", name.c_str(),
               printable(descr).c_str());
    header.type = type[0];
    header.size = type == "c16" ? 16 : type[1] - '0';
    header.swapped = header.size > 1 && order == (little ? '>' : '<');
}

void set_shape(NpyHeader& header, std::vector<std::int64_t> shape, const std::string& name) {
    if (shape.size() > most_axes)
        qaserr("%s: the array has %zu axes, a dataset at most %d\n", name.c_str(), shape.size(), most_axes);
    std::int64_t bytes = header.size;
    for (const std::int64_t n : shape) {
        if (n < 1) qaserr("%s: an axis of %lld samples cannot be kept\n", name.c_str(), static_cast<long long>(n));
        if (__builtin_mul_overflow(bytes, n, &bytes))
            qaserr("%s: its shape makes the data larger than a file can be\n", name.c_str());
    }
    header.elements = bytes / header.size;
    header.shape = std::move(shape);
}

}  // namespace

NpyHeader parse_npy_dictionary(std::string_view text, const std::string& name) {
    Literal literal(text, name);
    NpyHeader header;
    std::string descr;
    std::vector<std::int64_t> shape;
    bool has_descr = false, has_order = false, has_shape = false;
    literal.expect('{', "a dictionary is missing");
    while (!literal.take('}')) {
        const std::string key = literal.quoted();
        literal.expect(':', "a colon is missing");
        if (key == "descr" && !has_descr) {
            if (literal.next() == '[') qaserr("%s: arrays of records are not taken\n", name.c_str());
            descr = literal.quoted();
            has_descr = true;
        } else if (key == "fortran_order" && !has_order) {
            header.fortran_order = literal.logical();
            has_order = true;
        } else if (key == "shape" && !has_shape) {
            shape = literal.integers();
            has_shape = true;
        } else {
            literal.refuse("an unknown or repeated key");
        }
        if (!literal.take(',') && literal.next() != '}') literal.refuse("a comma is missing");
    }
    literal.end();
    if (!has_descr || !has_order || !has_shape) literal.refuse("descr, fortran_order or shape is missing");
    set_type(header, descr, name);
    set_shape(header, std::move(shape), name);
    return header;
}

NpyHeader read_npy_header(std::FILE* file, const std::string& name) {
    unsigned char start[12];
    const auto take = [&](void* target, std::size_t size) {
        if (std::fread(target, 1, size, file) != size)
            qaserr("%s: the header of this .npy file is cut short\n", name.c_str());
    };
    if (std::fread(start, 1, 8, file) != 8 || std::memcmp(start, magic.data(), magic.size()) != 0)
        qaserr("%s: not a .npy file (its first bytes are not \\x93NUMPY and a version)\n", name.c_str());
    if (start[6] < 1 || start[6] > 3)
        qaserr("%s: version %d.%d of .npy is not known\n", name.c_str(), start[6], start[7]);
    const std::size_t width = start[6] == 1 ? 2 : 4;
    take(start + 8, width);
    std::uint32_t length = 0;
    for (std::size_t i = width; i-- > 0;) length = length << 8 | start[8 + i];
    if (length > longest_dictionary)
        qaserr("%s: a .npy header of %u bytes is not taken, at most %u are\n", name.c_str(), length,
               longest_dictionary);
    std::string text(length, '\0');
    take(text.data(), text.size());
    return parse_npy_dictionary(text, name);
}

std::string npy_header_bytes(const NpyHeader& header) {
    std::string text = std::string("{'descr': '") +
                       (header.size == 1 ? '|'
                        : little         ? '<'
                                         : '>') +
                       header.type + std::to_string(header.size) +
                       "', 'fortran_order': " + (header.fortran_order ? "True" : "False") + ", 'shape': (";
    for (const std::int64_t n : header.shape) text += std::to_string(n) + ", ";
    if (header.shape.size() > 1) text.erase(text.size() - 2);  // one length keeps its comma: (5, )
    text += "), }";
    constexpr std::size_t before = magic.size() + 4;
    text.append(alignment - 1 - (before + text.size()) % alignment, ' ');
    text += '\n';
    std::string bytes(magic);
    bytes += {'\1', '\0', static_cast<char>(text.size() & 0xff), static_cast<char>(text.size() >> 8)};
    return bytes + text;
}

}  // namespace qastool
