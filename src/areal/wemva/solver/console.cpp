#include "src/areal/wemva/solver/console.h"

#include <cstdio>

#include "lib/base/fixed_format.h"

namespace morvane::solver {

void screen(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string six_a_line(std::span<const double> x) {
    std::string text;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (i % 6 == 0) text += i == 0 ? "    " : "\n    ";
        text += ' ' + column_exp(x[i], 11, 4, 'D');
    }
    return text + '\n';
}

std::string labelled_vector(std::string_view label, std::span<const double> x) {
    std::string text = six_a_line(x);
    text.replace(4 - label.size(), label.size(), label);
    return '\n' + text + (x.size() == 6 ? "\n" : "");
}

}  // namespace morvane::solver
