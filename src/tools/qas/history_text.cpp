#include "src/tools/qas/history_text.h"

#include <cctype>

namespace qastool {
namespace {

constexpr std::string_view gap = "   ";
constexpr std::string_view from_par = "From par: ";
constexpr std::size_t ctime_length = 24;

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t\r") + 1 - begin);
}

bool is_ctime(std::string_view text) {
    constexpr std::string_view pattern = "Aaa Aaa _0 00:00:00 0000";
    if (text.size() != ctime_length) return false;
    for (std::size_t i = 0; i < ctime_length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const bool fits = pattern[i] == '0'                        ? std::isdigit(c)
                          : pattern[i] == '_'                      ? c == ' ' || std::isdigit(c)
                          : pattern[i] == 'A' || pattern[i] == 'a' ? std::isalpha(c) != 0
                                                                   : c == static_cast<unsigned char>(pattern[i]);
        if (!fits) return false;
    }
    return true;
}

bool is_title(std::string_view line, HistoryBlock& block) {
    const std::size_t colon = line.find(":   ");
    if (colon == std::string_view::npos || colon == 0 || line.size() < ctime_length + gap.size()) return false;
    const std::size_t time = line.size() - ctime_length;
    if (!is_ctime(line.substr(time)) || line.substr(time - gap.size(), gap.size()) != gap) return false;
    const std::size_t place = colon + 1 + gap.size();
    if (place > time - gap.size()) return false;
    block.program = line.substr(0, colon);
    block.place = line.substr(place, time - gap.size() - place);
    block.time = line.substr(time);
    return block.place.find('@') != std::string::npos;
}

void add_line(HistoryBlock& block, std::string_view text) {
    HistoryBlock::Line line;
    line.parameter = text.starts_with(from_par);
    if (line.parameter) text.remove_prefix(from_par.size());
    line.text = text;
    const std::size_t equals = text.find('=');
    if (equals != std::string_view::npos) line.name = text.substr(0, equals);
    if (!block.lines.empty()) {
        HistoryBlock::Line& last = block.lines.back();
        if (!line.name.empty() && last.name == line.name && last.parameter == line.parameter) {
            line.times = last.times + 1;
            last = line;
            return;
        }
    }
    block.lines.push_back(line);
}

}  // namespace

std::vector<HistoryBlock> history_blocks(std::string_view text) {
    std::vector<HistoryBlock> blocks;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = trimmed(text.substr(at, end - at));
        at = end + 1;
        if (line.empty()) continue;
        HistoryBlock fresh;
        if (is_title(line, fresh)) {
            blocks.push_back(fresh);
            continue;
        }
        if (blocks.empty()) blocks.emplace_back();
        add_line(blocks.back(), line);
    }
    return blocks;
}

}  // namespace qastool
