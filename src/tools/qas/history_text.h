#pragma once
/// The blocks that programs appended to a history.
#include <string>
#include <string_view>
#include <vector>

namespace qastool {

/// What one program wrote. `program` is empty for text before the first title.
struct HistoryBlock {
    std::string program, place, time;  ///< place: user@host
    struct Line {
        std::string name, text;  ///< text: the line without blanks around it and without "From par: "
        bool parameter = false;  ///< it recorded a parameter of the program
        int times = 1;           ///< lines of this name in a row, of which this is the last
    };
    std::vector<Line> lines;
};

/// Parts a history at its title lines, "program:   user@host   Www Mmm dd hh:mm:ss yyyy". Empty lines are dropped.
std::vector<HistoryBlock> history_blocks(std::string_view text);

}  // namespace qastool
