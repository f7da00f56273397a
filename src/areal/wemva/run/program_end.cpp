#include "src/areal/wemva/run/program_end.h"

#include <exception>
#include <new>
#include <string>

#include "src/areal/wemva/run/messages.h"

namespace morvane {

int end_of(qas::Session& session, const std::function<int()>& work) {
    try {
        return work();
    } catch (const StrictEnd& error) {
        qas::report_fatal(error, session);
        return StrictEnd::status;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return qas::report_fatal(
            qas::Fatal(
                "not enough memory for this run: fewer threads (node), offsets (nh) or a smaller image need less\n"),
            session);
    } catch (const std::exception& error) {
        return qas::report_fatal(qas::Fatal(std::string("unexpected failure: ") + error.what() + "\n"), session);
    }
}

}  // namespace morvane
