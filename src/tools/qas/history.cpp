// qas history: which programs made a dataset, with which parameters.
#include <cstdio>

#include "src/tools/qas/commands.h"
#include "src/tools/qas/history_text.h"

namespace qastool {

int run_history(Words words) {
    check_words(words, {}, {}, false);
    check_files(words, 0, 1);
    if (words.files[0] != "stdin") check_readable(words.files[0]);
    qas::Session session(session_words(words, {{"past", words.files[0]}}));
    int number = 0;
    for (const HistoryBlock& block : history_blocks(session.history("past"))) {
        if (block.program.empty())
            std::puts("before any program:");
        else
            std::printf("%d. %s   %s   %s\n", ++number, printable(block.program).c_str(),
                        printable(block.place).c_str(), printable(block.time).c_str());
        for (const HistoryBlock::Line& line : block.lines) {
            std::printf("   %s  %s", line.parameter ? "par" : "   ", printable(line.text).c_str());
            if (line.times > 1) std::printf("   (the last of %d)", line.times);
            std::printf("\n");
        }
    }
    return 0;
}

}  // namespace qastool
