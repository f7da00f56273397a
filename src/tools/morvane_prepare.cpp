/// Turns SEG-Y into what morvane reads. `morvane_prepare --help` lists the parameters.
#include <cstdio>
#include <new>
#include <string_view>

#include "src/tools/morvane_prepare/options.h"
#include "src/tools/morvane_prepare/prepare.h"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    for (const std::string_view word : words)
        if (word == "--help" || word == "-h" || word == "help") {
            std::fputs(prepare::prepare_help().c_str(), stdout);
            return 0;
        }
    qas::Session session(argc, argv);
    try {
        prepare::check_command_line(words);
        prepare::prepare_survey(session);
        return 0;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(qas::Fatal("not enough memory for the survey\n"), session);
    }
}
