#include "src/tools/morvane_prepare/text_table.h"

#include <fstream>

namespace morvane::prepare {

bool for_each_row(const std::string& path,
                  const std::function<void(int number, const std::string& line, std::istringstream& words)>& row) {
    std::ifstream file(path);
    if (!file) return false;
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        const std::size_t first = line.find_first_not_of(" \t\r\v\f");
        if (first == std::string::npos || line[first] == '#') continue;
        std::istringstream words(line);
        row(number, line, words);
    }
    return true;
}

}  // namespace morvane::prepare
