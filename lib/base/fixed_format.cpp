#include "lib/base/fixed_format.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace morvane {

namespace {

std::string fit(const std::string& text, int width) {
    const auto columns = static_cast<std::size_t>(width);
    if (text.size() > columns) return std::string(columns, '*');
    return std::string(columns - text.size(), ' ') + text;
}

template <class... Args>
std::string print(const char* format, Args... args) {
    char text[512];
    const int n = std::snprintf(text, sizeof text, format, args...);
    return n < 0 ? std::string()
                 : std::string(text, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof text - 1));
}

std::string exponent_form(double value, int digits, char letter) {
    std::string text = print("%.*e", digits, value);
    const std::size_t e = text.find('e');
    if (text.size() - e > 4) return text.erase(e, 1);  // three-digit exponent: 1.0-101
    text[e] = letter;
    return text;
}

std::string list_real(double value) {
    if (!std::isfinite(value)) return std::isnan(value) ? "NaN" : value > 0 ? "Infinity" : "-Infinity";
    constexpr int digits = 17;
    const std::string text = print("%.*e", digits - 1, value);
    const int power = std::atoi(text.c_str() + text.find('e') + 1);  // log10 may round up to the next one
    if (power < -1 || power >= digits) return exponent_form(value, digits - 1, 'E');
    return print("%#.*f", digits - 1 - power, value);
}

}  // namespace

std::string column_int(long long value, int width) {
    return fit(std::to_string(value), width);
}

std::string column_exp(double value, int width, int digits, char letter) {
    if (!std::isfinite(value)) return std::string(static_cast<std::size_t>(width), '*');
    return fit(exponent_form(value, digits, letter), width);
}

std::string column_fixed(double value, int width, int digits) {
    if (!std::isfinite(value)) return std::string(static_cast<std::size_t>(width), '*');
    std::string text = print("%.*f", digits, value);
    if (static_cast<int>(text.size()) > width) {  // the zero before the point may go
        if (text.starts_with("0.")) text.erase(0, 1);
        if (text.starts_with("-0.")) text.erase(1, 1);
    }
    return fit(text, width);
}

std::string list_line(std::initializer_list<ListItem> items) {
    std::string line;
    bool after_number = false;
    for (const ListItem& item : items) {
        if (const auto* text = std::get_if<std::string_view>(&item)) {
            if (line.empty() || after_number) line += ' ';
            line += *text;
            after_number = false;
        } else {
            line += ' ';
            const auto* whole = std::get_if<long long>(&item);
            line += whole ? column_int(*whole, 11) : list_real(std::get<double>(item));
            after_number = true;
        }
    }
    return line;
}

}  // namespace morvane
