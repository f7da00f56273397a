#pragma once
/// The texts by which the solver and its caller speak to each other.
#include <algorithm>
#include <array>
#include <string_view>

namespace morvane::solver {

/// A text field of 60 characters, padded with blanks; what does not fit is cut.
class Text60 {
    std::array<char, 60> characters_;

public:
    Text60() : Text60("") {}
    Text60(const char* text) : Text60(std::string_view(text)) {}
    Text60(std::string_view text) {
        characters_.fill(' ');
        std::copy_n(text.begin(), std::min(text.size(), characters_.size()), characters_.begin());
    }
    /// All 60 characters.
    std::string_view field() const { return {characters_.data(), characters_.size()}; }
    /// The text without its trailing blanks.
    std::string_view text() const { return field().substr(0, field().find_last_not_of(' ') + 1); }
    bool starts_with(std::string_view prefix) const { return field().starts_with(prefix); }
    /// Comparison of the whole field with a text padded with blanks.
    friend bool operator==(const Text60& a, std::string_view b) { return a.text() == Text60(b).text(); }
};

}  // namespace morvane::solver
