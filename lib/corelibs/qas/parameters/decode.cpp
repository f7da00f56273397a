#include "lib/corelibs/qas/parameters/decode.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "lib/corelibs/qas/messages/qaserr.h"

namespace qas {
namespace {

/// Element texts are parsed from terminated copies; `clean` turns false when something other than blanks is left over.
struct Reader {
    bool clean = true;

    void check_rest(const char* text, const char* end) {
        if (end == text) clean = false;
        while (std::isspace(static_cast<unsigned char>(*end))) ++end;
        if (*end != '\0') clean = false;
    }
    int logical(const std::string& text) {
        const char first = text.empty() ? '\0' : text[0];
        const bool yes = first == 'y' || first == 'Y' || first == '1';
        if (!yes && first != 'n' && first != 'N' && first != '0') clean = false;
        return yes ? 1 : 0;
    }
    int integer(const std::string& text) {
        char* end = nullptr;
        const long number = std::strtol(text.c_str(), &end, 10);
        check_rest(text.c_str(), end);
        constexpr long lowest = std::numeric_limits<int>::min(), highest = std::numeric_limits<int>::max();
        if (number < lowest || number > highest) clean = false;
        return static_cast<int>(number < lowest ? lowest : number > highest ? highest : number);
    }
    int low_half(const std::string& text) {
        char* end = nullptr;
        const long long number = std::strtoll(text.c_str(), &end, 10);
        check_rest(text.c_str(), end);
        return static_cast<int>(static_cast<std::uint32_t>(number));
    }
    double real(const std::string& text) {
        char* end = nullptr;
        const double number = std::strtod(text.c_str(), &end);
        check_rest(text.c_str(), end);
        return number;
    }
};

/// A list that is being decoded: its text, the caller's room, and what a message on it begins with.
struct List {
    const std::string& text;
    std::size_t most;
    std::string name;
};

/// The elements of a list, each by decode_one, repeated as often as it says.
template <class T, class Decode>
Values decode_list(const List& list, Reader& reader, Decode decode_one) {
    std::vector<T> values;
    for (std::size_t begin = 0; begin < list.text.size();) {
        const std::size_t comma = std::min(list.text.find(',', begin), list.text.size());
        std::string element = list.text.substr(begin, comma - begin);
        const std::size_t mark = element.find_first_of("*x");
        long count = 1;
        if (mark != std::string::npos) {
            count = std::strtol(element.substr(0, mark).c_str(), nullptr, 10);
            if (count <= 0) reader.clean = false;
            element.erase(0, mark + 1);
        }
        const T value = static_cast<T>((reader.*decode_one)(element));
        if (count > 0) {
            if (static_cast<std::size_t>(count) > list.most - values.size())
                qaserr("%s=%s: more values than the %zu this key takes\n", list.name.c_str(), list.text.c_str(),
                       list.most);
            values.insert(values.end(), static_cast<std::size_t>(count), value);
        }
        begin = comma + 1;
    }
    if (values.empty()) return {};
    return values;
}

}  // namespace

const Entry* getpar_find(const ParTable& table, std::string_view names) {
    const Entry* newest = nullptr;
    for (std::size_t begin = 0; begin < names.size();) {
        std::size_t end = names.find(' ', begin);
        if (end == std::string_view::npos) end = names.size();
        if (end > begin) {
            const auto at = table.find(names.substr(begin, end - begin));
            if (at != table.end() && (!newest || at->second.timestamp > newest->timestamp)) newest = &at->second;
        }
        begin = end + 1;
    }
    return newest;
}

Values getpar_decode(const ParTable& table, std::string_view names, std::string_view type, std::size_t most,
                     const std::string& where, Notes& notes) {
    const char letter = type.empty() ? '\0' : type[0];
    if (letter == '\0' || std::string_view("1ldimfrgs").find(letter) == std::string_view::npos)
        qaserr("getpar() unknown conversion type %c\n", letter);
    const Entry* entry = getpar_find(table, names);
    if (!entry || !entry->value) return {};
    const std::string& text = *entry->value;
    if (letter == 's') return text;

    const std::string key(names);
    const List list{text, most, where + " " + key};
    Reader reader;
    Values values;
    const char* expected = "a number";
    switch (letter) {
        case '1':
        case 'l':
            expected = "yes or no";
            values = decode_list<int>(list, reader, &Reader::logical);
            break;
        case 'd':
        case 'i':
            expected = "a 32-bit integer";
            values = decode_list<int>(list, reader, &Reader::integer);
            break;
        case 'm':
            expected = "an integer";
            values = decode_list<int>(list, reader, &Reader::low_half);
            break;
        case 'f':
        case 'r':
            values = decode_list<float>(list, reader, &Reader::real);
            break;
        default:
            values = decode_list<double>(list, reader, &Reader::real);
    }
    if (!reader.clean || (!text.empty() && !found(values)))
        notes.once(where + '\n' + key + '\n' + text,
                   strprintf("%s=%s is not %s\n", list.name.c_str(), text.c_str(), expected));
    return values;
}

}  // namespace qas
