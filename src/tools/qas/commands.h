#pragma once
/// The subcommands of qas. Each takes the words behind its name and returns the exit status; errors throw qas::Fatal.
#include <span>
#include <string>

#include "src/tools/qas/words.h"

namespace qastool {

int run_info(Words words);
int run_cat(Words words);
int run_window(Words words);
int run_head(Words words);
int run_npy(Words words);
int run_from_npy(Words words);
int run_diff(Words words);
int run_history(Words words);

struct Command {
    const char* name;
    int (*run)(Words);
    bool samples_on_stdout;  ///< its messages go to the standard error alone
    int trouble;             ///< exit status of an error
    const char* help;
};

/// All subcommands, in the order of the help.
std::span<const Command> commands();
/// The help of qas itself.
std::string overview();

}  // namespace qastool
