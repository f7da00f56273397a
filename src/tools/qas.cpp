/// A companion for the shell: looks into datasets, cuts, joins, converts and compares them. `qas --help` tells more.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/parameters/keys.h"
#include "src/tools/qas/commands.h"

namespace {

/// The message on the standard error, and on the standard output unless samples go there.
int report(const std::string& name, const std::string& message, bool samples_on_stdout, int status) {
    std::fflush(stdout);
    for (std::FILE* stream : {stderr, stdout}) {
        if (stream == stdout && samples_on_stdout) continue;
        std::fprintf(stream, "%s: %s", name.c_str(), message.c_str());
        std::fflush(stream);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes then is a failed write, with its message
    const std::vector<std::string> words(argv + std::min(argc, 2), argv + argc);
    const std::string_view name = argc > 1 ? argv[1] : "";
    if (const auto status = qas::answer(std::min(argc, 2), argv, "qas", qastool::overview)) return *status;
    for (const qastool::Command& command : qastool::commands()) {
        if (name != command.name) continue;
        const std::string full = "qas " + std::string(name);
        if (const auto status = qas::answer(argc - 1, argv + 1, full, [&] { return std::string(command.help); }))
            return *status;
        try {
            const int status = command.run(qastool::sort_words("qas-" + std::string(name), words));
            if (std::fflush(stdout) != 0 || std::ferror(stdout))
                return report(full, "the standard output cannot be written\n", true, command.trouble);
            return status;
        } catch (const qas::Fatal& error) {
            return report(full, error.what(), command.samples_on_stdout, command.trouble);
        } catch (const std::bad_alloc&) {
            return report(full, "not enough memory\n", command.samples_on_stdout, command.trouble);
        } catch (const std::length_error&) {
            return report(full, "not enough memory\n", command.samples_on_stdout, command.trouble);
        }
    }
    std::string wrong = "a subcommand is needed";
    if (argc > 1) {
        std::vector<std::string> known;
        for (const qastool::Command& command : qastool::commands()) known.emplace_back(command.name);
        const std::string near = qas::nearest_name(name, known);
        wrong = "unknown subcommand " + qastool::printable(name) + (near.empty() ? "" : "; did you mean " + near + "?");
    }
    std::fprintf(stderr, "qas: %s\n%s", wrong.c_str(), qastool::overview().c_str());
    return 23;
}
