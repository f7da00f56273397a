/// Models a survey for morvane. `morvane_synth --help` lists the parameters.
#include <cstdio>
#include <new>
#include <string_view>

#include "src/tools/morvane_synth/options.h"
#include "src/tools/morvane_synth/synthesise.h"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    for (const std::string_view word : words)
        if (word == "--help" || word == "-h" || word == "help") {
            std::fputs(synth_help().c_str(), stdout);
            return 0;
        }
    qas::Session session(argc, argv);
    try {
        check_command_line(words);
        synthesise(session);
        return 0;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(qas::Fatal("not enough memory for the survey\n"), session);
    }
}
