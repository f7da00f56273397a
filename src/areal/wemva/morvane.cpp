/// morvane: two-dimensional wave-equation migration velocity analysis.
#include <csignal>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "lib/corelibs/qas/qaserr.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/denormals.h"
#include "src/areal/wemva/driver.h"

namespace {

constexpr const char* usage =
    R"(morvane: wave-equation migration velocity analysis in two dimensions

    morvane name=value ... [par=FILE ...] < /dev/null > HISTORY

Inputs (header files; samples are 4-byte big-endian floats unless the header says otherwise)
    vel=FILE            start model: slowness, n1 lateral, n3 depth
    rec=FILE            receiver wavefields: complex, n1 traces, n3 frequencies, n4 shots
    sou=FILE            source wavefields as rec (areal=yes), or one source function (areal=no)
Required
    inversion=yes       with dso=yes: penalise energy away from zero subsurface offset
    zmax=DEPTH          bottom of the image
    nh=N                number of subsurface offsets, odd; more than 1 with dso=yes
    vsal=V              with extrapolator=pspi and no lloyd=yes: velocity of a fast body
Outputs (one panel an evaluation)
    Velout=FILE grad=FILE bkgimg=FILE Dimage=FILE
    log=FILE            a line an evaluation and accepted step [log]
    list=FILE           progress [listagem]
Often given
    niter=N [5]         iterations of the solver
    areal=no            per-shot data with one source function [yes]
    traces_in_taper=N padtraces=N   margins on each side of the line
    bounds=yes p_up=20 p_lo=20      bounds in percent of the start model
    node=N              threads
    datapath=PREFIX     where data files go

Every parameter stands in docs/parameters.md, the dataset format in docs/datasets.md.
)";

int report(const char* text, qas::Session& session) {
    return qas::report_fatal(qas::Fatal(text), session);
}

}  // namespace

int main(int argc, char** argv) {
    flush_denormals();
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes then is a failed write, with its message
    if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
        std::fputs(usage, stdout);
        return 0;
    }
    qas::Session session(argc, argv);
    try {
        invert(session);
        return 0;
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
