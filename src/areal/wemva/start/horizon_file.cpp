#include "src/areal/wemva/start/horizon_file.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

constexpr const char* separators = " \t\r,;";
constexpr std::size_t shown = 40;  // characters of a faulty line in its message

/// A whole word as a number; the exponent letter may be e or d.
bool parse(std::string word, float& value) {
    std::transform(word.begin(), word.end(), word.begin(), [](char c) { return c == 'd' || c == 'D' ? 'e' : c; });
    char* end = nullptr;
    value = std::strtof(word.c_str(), &end);
    return end == word.c_str() + word.size() && std::isfinite(value);
}

}  // namespace

std::vector<float> read_horizon(const std::string& name, int n) {
    std::ifstream file(name);
    if (!file || std::filesystem::is_directory(name))
        refuse("horv0=%s: cannot read this horizon file: %s", name.c_str(), std::strerror(file ? EISDIR : errno));
    std::vector<float> depths;
    std::string text;
    int line = 1;
    for (; static_cast<int>(depths.size()) < n && std::getline(file, text); ++line) {
        const std::size_t first = text.find_first_not_of(separators);
        if (first == std::string::npos) continue;
        const std::string word = text.substr(first, text.find_first_of(separators, first) - first);
        float value = 0.0f;
        if (!parse(word, value))
            refuse("horv0=%s: line %d begins with \"%s\", a finite number is needed (value %zu of %d)", name.c_str(),
                   line, word.substr(0, shown).c_str(), depths.size() + 1, n);
        depths.push_back(value);
    }
    if (static_cast<int>(depths.size()) < n)
        refuse("horv0=%s: %zu values in its %d lines, one per line for each of the %d columns of the image are needed",
               name.c_str(), depths.size(), line - 1, n);
    return depths;
}

}  // namespace morvane
