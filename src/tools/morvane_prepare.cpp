/// Turns SEG-Y into what morvane reads. `morvane_prepare --help` lists the parameters.
#include <algorithm>
#include <new>
#include <string_view>
#include <vector>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/options.h"
#include "src/tools/morvane_prepare/prepare.h"

using namespace morvane;

int main(int argc, char** argv) {
    std::vector<const char*> words(argv, argv + argc);
    std::ranges::replace(words, std::string_view("help"), "--help", [](const char* w) { return std::string_view(w); });
    if (const auto status = qas::answer(argc, words.data(), "morvane_prepare", prepare::prepare_help)) return *status;
    const qas::KeyTable keys = prepare::prepare_keys();
    qas::Session session(argc, argv);
    try {
        qas::refuse_unread(session, keys);
        prepare::prepare_survey(session);
        return 0;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(qas::Fatal("not enough memory for the survey\n"), session);
    }
}
