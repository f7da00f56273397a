#include "lib/corelibs/qas/messages/help.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qas {

std::string_view version() {
    return MORVANE_VERSION;
}

std::optional<int> answer(int argc, const char* const* argv, std::string_view program,
                          const std::function<std::string()>& help) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        std::string text;
        if (word == "--help" || word == "-h")
            text = help();
        else if (word == "--version")
            text = std::string(program) + (program == "morvane" ? " " : " (morvane) ") + MORVANE_VERSION + "\n";
        else
            continue;
        if (std::fputs(text.c_str(), stdout) != EOF && std::fflush(stdout) == 0) return 0;
        std::fprintf(stderr, "%.*s: the standard output cannot be written: %s\n", static_cast<int>(program.size()),
                     program.data(), std::strerror(errno));
        return 23;
    }
    return std::nullopt;
}

}  // namespace qas
