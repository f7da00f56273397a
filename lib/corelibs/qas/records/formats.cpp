#include "lib/corelibs/qas/records/formats.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace qas {
namespace {

constexpr std::array<std::string_view, 8> str_fmt_names{"xdr_float",   "xdr_int", "xdr_byte",  "native_float",
                                                        "native_byte", "kplot",   "tmc_float", "tmc_byte"};

}  // namespace

int get_format_num(std::string_view name) {
    for (std::size_t i = 0; i < str_fmt_names.size(); ++i)
        if (str_fmt_names[i] == name) return static_cast<int>(i);
    return -1;
}

std::string get_format_name(int number) {
    if (number < 0 || number >= static_cast<int>(str_fmt_names.size())) return {};
    return std::string(str_fmt_names[static_cast<std::size_t>(number)]);
}

std::string format_list() {
    std::string list;
    for (const std::string_view name : str_fmt_names) {
        if (!list.empty()) list += ' ';
        list += name;
    }
    return list;
}

void swap_words(const void* source, void* target, std::size_t count) {
    const char* from = static_cast<const char*>(source);
    char* to = static_cast<char*>(target);
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t word;
        std::memcpy(&word, from + 4 * i, sizeof word);
        word = __builtin_bswap32(word);
        std::memcpy(to + 4 * i, &word, sizeof word);
    }
}

}  // namespace qas
