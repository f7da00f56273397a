/// Models a survey for morvane. `morvane_synth --help` lists the parameters.
#include <algorithm>
#include <csignal>
#include <new>
#include <string_view>
#include <vector>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/options.h"
#include "src/tools/morvane_synth/synthesise.h"

using namespace morvane;

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes then is a failed write, with its message
    std::vector<const char*> words(argv, argv + argc);
    std::ranges::replace(words, std::string_view("help"), "--help", [](const char* w) { return std::string_view(w); });
    if (const auto status = qas::answer(argc, words.data(), "morvane_synth", synth_help)) return *status;
    const qas::KeyTable keys = synth_keys();
    qas::Session session(argc, argv);
    try {
        session.declare(keys);
        qas::refuse_unread(session, keys);
        synthesise(session);
        return 0;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(qas::Fatal("not enough memory for the survey\n"), session);
    }
}
