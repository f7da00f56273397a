#include "src/areal/wemva/program/program.h"

#include <csignal>

#include "lib/corelibs/qas/messages/help.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/driver.h"
#include "src/areal/wemva/program/member.h"
#include "src/areal/wemva/run/denormals.h"
#include "src/areal/wemva/run/program_end.h"
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

int lead(qas::Session& session, const qas::KeyTable& keys, Team& team) {
    return end_of(session, [&] {
        check_keys(session, keys);
        invert(session, team);
        return 0;
    });
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
