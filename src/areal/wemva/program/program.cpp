#include "src/areal/wemva/program/program.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/driver.h"
#include "src/areal/wemva/program/member.h"
#include "src/areal/wemva/run/denormals.h"
#include "src/areal/wemva/run/messages.h"
#include "src/areal/wemva/start/key_table.h"

namespace morvane {

namespace {

constexpr const char* usage =
    R"(morvane: wave-equation migration velocity analysis in two dimensions

    morvane name=value ... [par=FILE ...] < /dev/null > HISTORY

A run that lowers the objective (firststep and bounds keep its steps small):
    morvane inversion=y dso=y gradient=exact firststep=0.03 bounds=y p_up=20 p_lo=20 areal=n \
        vel=start.H rec=data.H sou=wavelet.H zmax=1500 nh=33 traces_in_taper=20 niter=10 \
        Velout=velocity.H bkgimg=image.H Dimage=residual.H grad=gradient.H < /dev/null > history.H

Keys with their defaults, and in brackets what makes them count. "kept": read and recorded, nothing acts on it.
docs/parameters.md tells of each what is permitted, docs/datasets.md of the dataset format.
)";

int report(const char* text, qas::Session& session) {
    return qas::report_fatal(qas::Fatal(text), session);
}

int lead(qas::Session& session, const qas::KeyTable& keys, Team& team) {
    try {
        check_keys(session, keys);
        invert(session, team);
        return 0;
    } catch (const StrictEnd& error) {
        qas::report_fatal(error, session);
        return StrictEnd::status;
    } catch (const qas::Fatal& error) {
        return qas::report_fatal(error, session);
    } catch (const std::bad_alloc&) {
        return report(
            "not enough memory for this run: fewer threads (node), offsets (nh) or a smaller image need less\n",
            session);
    } catch (const std::exception& error) {
        return report((std::string("unexpected failure: ") + error.what() + "\n").c_str(), session);
    }
}

}  // namespace

void prepare_process() {
    flush_denormals();
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes then is a failed write, with its message
}

int run_program(int argc, const char* const* argv, const char* name, Team& team) {
    if (!team.leads()) {
        serve(qas::Session(argc, argv).words(), team);
        return 0;
    }
    const qas::KeyTable keys(run_keys());
    if (const auto status = qas::answer(argc, argv, name, [&] { return usage + keys.help(); })) return *status;
    qas::Session session(argc, argv);
    return lead(session, keys, team);
}

}  // namespace morvane
