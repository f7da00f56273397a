#include "src/areal/wemva/solver/solver_lbfgsb_mod.h"

#include <cassert>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

#include "lib/base/fixed_format.h"
#include "lib/base/index.h"
#include "src/areal/wemva/solver/bounds.h"
#include "src/areal/wemva/solver/cauchy.h"
#include "src/areal/wemva/solver/console.h"
#include "src/areal/wemva/solver/dense.h"
#include "src/areal/wemva/solver/line_search.h"
#include "src/areal/wemva/solver/matrices.h"
#include "src/areal/wemva/solver/precision.h"
#include "src/areal/wemva/solver/reports.h"
#include "src/areal/wemva/solver/subspace.h"

namespace morvane::solver {

namespace {

constexpr int max_backtracks = 20;

/// There is something to minimise, and the indices of the blocks fit the 32 bits of isave.
bool usable(int n, int m) {
    return n > 0 && m > 0 && (2.0 * m + 4) * n + 12.0 * m * m + 12.0 * m <= std::numeric_limits<int>::max();
}

/// Store where each block of `wa` begins, counted from 1, in isave(4) on.
void partition(int n, int m, std::array<int, 44>& isave) {
    const int nm = n * m;
    const int mm = m * m;
    isave[0] = nm;
    isave[1] = mm;
    isave[2] = 4 * mm;
    //                     ws  wy  sy  ss  yy  wt  wn      snd     z  r  d  t  wa     sg sgo yg ygo
    const int lengths[] = {nm, nm, mm, mm, mm, mm, 4 * mm, 4 * mm, n, n, n, n, 8 * m, m, m, m, m};
    int start = 1;
    std::size_t slot = 3;
    for (const int length : lengths) {
        isave[slot++] = start;
        start += length;
    }
}

/// One call: the caller's arguments, the blocks of his arrays, and the saved scalars.
struct Run {
    int n, m;
    std::span<double> x;
    Bounds bounds;
    double& f;
    std::span<double> g;
    double factr, pgtol;
    Text60& task;
    int iprint;
    SearchState search_state;

    std::span<double> z{}, r{}, d{}, t{};
    View<double, 2> wn{}, wn1{};
    CauchyScratch scratch{};
    std::span<int> iwhere{};
    FreeSet set{};

    Kind kind{};
    bool updatd = false;
    Pairs pairs{};
    Search search{};
    Progress progress{};
    Times times{};
    int itfile = 0, info = 0;
    double tol = 0, epsmch = 0, cpu1 = 0, time1 = 0;
};

/// Pair each saved value with its slot; `move(value, slot)` copies one way or the other.
template <class Move>
void each_saved(Run& run, std::array<int, 4>& lsave, std::array<int, 44>& isave, std::array<double, 29>& dsave,
                Move move) {
    move(run.kind.prjctd, lsave[0]);
    move(run.kind.cnstnd, lsave[1]);
    move(run.kind.boxed, lsave[2]);
    move(run.updatd, lsave[3]);

    move(run.progress.nintol, isave[21]);
    move(run.itfile, isave[23]);
    move(run.search.iback, isave[24]);
    move(run.progress.nskip, isave[25]);
    move(run.pairs.head, isave[26]);
    move(run.pairs.col, isave[27]);
    move(run.pairs.itail, isave[28]);
    move(run.progress.iter, isave[29]);
    move(run.pairs.iupdat, isave[30]);
    move(run.progress.nint, isave[32]);
    move(run.progress.nfgv, isave[33]);
    move(run.info, isave[34]);
    move(run.search.ifun, isave[35]);
    move(run.progress.iword, isave[36]);
    move(run.set.nfree, isave[37]);
    move(run.progress.nact, isave[38]);
    move(run.set.ileave, isave[39]);
    move(run.set.nenter, isave[40]);

    move(run.pairs.theta, dsave[0]);
    move(run.search.fold, dsave[1]);
    move(run.tol, dsave[2]);
    move(run.search.dnorm, dsave[3]);
    move(run.epsmch, dsave[4]);
    move(run.cpu1, dsave[5]);
    move(run.times.cachyt, dsave[6]);
    move(run.times.sbtime, dsave[7]);
    move(run.times.lnscht, dsave[8]);
    move(run.time1, dsave[9]);
    move(run.search.gd, dsave[10]);
    move(run.search.stpmx, dsave[11]);
    move(run.progress.sbgnrm, dsave[12]);
    move(run.search.stp, dsave[13]);
    move(run.search.gdold, dsave[14]);
    move(run.search.dtd, dsave[15]);
}

/// Find the blocks of the work arrays from the indices in isave.
void lay_out(Run& run, std::span<double> wa, std::span<int> iwa, const std::array<int, 44>& isave) {
    const std::ptrdiff_t n = run.n;
    const std::ptrdiff_t m = run.m;
    const auto block = [&](std::size_t slot) { return wa.data() + (isave[slot - 1] - 1); };
    const auto vector = [&](std::size_t slot) { return std::span<double>(block(slot), static_cast<std::size_t>(n)); };
    run.pairs.n = run.n;
    run.pairs.m = run.m;
    run.pairs.ws = {block(4), {n, m}};
    run.pairs.wy = {block(5), {n, m}};
    run.pairs.sy = {block(6), {m, m}};
    run.pairs.ss = {block(7), {m, m}};
    run.pairs.wt = {block(9), {m, m}};
    run.wn = {block(10), {2 * m, 2 * m}};
    run.wn1 = {block(11), {2 * m, 2 * m}};
    run.z = vector(12);
    run.r = vector(13);
    run.d = vector(14);
    run.t = vector(15);
    double* work = block(16);
    run.scratch = {work, work + 2 * m, work + 4 * m, work + 6 * m};
    run.set.index = iwa.subspan(0, run.x.size());
    run.iwhere = iwa.subspan(run.x.size(), run.x.size());
    run.set.indx2 = iwa.subspan(2 * run.x.size(), run.x.size());
}

void finish(Run& run, int k) {
    run.times.time = timer() - run.time1;
    prn3lb(run.x, run.f, {run.task, run.info, k}, run.iprint, run.itfile, run.progress, run.search, run.times);
}

/// The first call. @return false when an argument is wrong; nothing is to be saved then.
bool start(Run& run) {
    run.time1 = timer();
    run.epsmch = dpmeps();
    run.set.nfree = run.n;
    run.set.ileave = run.n + 1;
    run.tol = run.factr * run.epsmch;
    if (run.iprint >= 1) run.itfile = create_itfile();
    int k = 0;
    if (!usable(run.n, run.m)) run.task = "ERROR: N*M TOO LARGE FOR 32-BIT INDICES";
    errclb(run.n, run.m, run.factr, run.bounds, run.task, run.info, k);
    if (run.task.starts_with("ERROR")) {
        finish(run, k);
        return false;
    }
    prn1lb(run.bounds, run.n, run.m, run.x, run.iprint, run.itfile, run.epsmch);
    run.kind = active(run.bounds, run.x, run.iwhere, run.iprint);
    run.task = "FG_START";
    return true;
}

void forget_pairs(Run& run, const char* why) {
    if (run.iprint >= 1) {
        screen(std::string("\n ") + why + "\n   refresh the lbfgs memory and restart the iteration.\n");
    }
    run.info = 0;
    run.pairs.reset();
    run.updatd = false;
}

constexpr const char* singular = "Singular triangular system detected;";

/// Put x, f and g back to where the line search started, if there was one.
void restore_previous(Run& run) {
    if (run.progress.nfgv == 0) return;
    std::copy(run.t.begin(), run.t.end(), run.x.begin());
    std::copy(run.r.begin(), run.r.end(), run.g.begin());
    run.f = run.search.fold;
}

/// Minimise the model over the free variables. @return false after a breakdown: the pairs are gone, begin again.
bool subspace_step(Run& run, bool wrk) {
    const FreeSet& set = run.set;
    if (wrk) {
        run.info = formk(run.pairs, set, run.updatd, run.wn, run.wn1);
        if (run.info != 0) {
            forget_pairs(run, "Nonpositive definiteness in Cholesky factorization in formk;");
            return false;
        }
    }
    run.info = cmprlb(run.pairs, set, run.x, run.g, run.z, run.scratch.c, run.scratch.p, run.kind.cnstnd, run.r);
    if (run.info == 0) {
        run.info = subsm(run.pairs, set.free(), run.bounds, run.z, run.r, run.progress.iword, run.scratch.p, run.wn,
                         run.iprint);
    }
    if (run.info != 0) {
        forget_pairs(run, singular);
        return false;
    }
    return true;
}

/// Set z to the minimiser of the quadratic model in the box. @return false after a breakdown, as above.
bool minimise_model(Run& run) {
    Progress& progress = run.progress;
    if (run.iprint >= 99) screen("\nITERATION " + column_int(progress.iter + 1, 5) + '\n');
    progress.iword = -1;
    bool wrk = run.updatd;
    if (!run.kind.cnstnd && run.pairs.col > 0) {
        std::copy(run.x.begin(), run.x.end(), run.z.begin());
        progress.nint = 0;
    } else {
        const double before = timer();
        const CauchyVectors vectors{run.x, run.g, run.set.indx2, run.iwhere, run.t, run.d, run.z};
        run.info =
            cauchy(run.pairs, run.bounds, vectors, run.scratch, progress.nint, run.iprint, progress.sbgnrm, run.epsmch);
        run.times.cachyt += timer() - before;
        if (run.info != 0) {
            forget_pairs(run, singular);
            return false;
        }
        progress.nintol += progress.nint;
        wrk = freev(run.set, run.iwhere, run.updatd, run.kind.cnstnd, run.iprint, progress.iter);
        progress.nact = run.n - run.set.nfree;
    }
    if (run.pairs.col == 0) return true;
    if (run.set.nfree == 0) {
        // There is no subspace, but the sums over free and active variables have to follow the new pair and the sets.
        if (wrk) update_wn1(run.pairs, run.set, run.updatd, run.wn1);
        return true;
    }
    const double before = timer();
    const bool done = subspace_step(run, wrk);
    run.times.sbtime += timer() - before;
    return done;
}

/// After an accepted step: one of the stopping tests holds.
bool converged(Run& run) {
    if (run.progress.sbgnrm <= run.pgtol) {
        run.task = "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL";
        return true;
    }
    const double ddum = std::max({std::abs(run.search.fold), std::abs(run.f), 1.0});
    if (run.search.fold - run.f <= run.tol * ddum) {
        run.task = "CONVERGENCE: REL_REDUCTION_OF_F <= FACTR*EPSMCH";
        if (run.search.iback >= 10) run.info = -5;
        return true;
    }
    return false;
}

/// After an accepted step: store the pair of step and change of gradient, unless its curvature is not positive.
void store_pair(Run& run) {
    const std::ptrdiff_t n = run.n;
    const Search& search = run.search;
    for (std::ptrdiff_t i = 0; i < n; ++i) run.r[at(i)] = run.g[at(i)] - run.r[at(i)];
    const double rr = ddot(n, run.r.data(), run.r.data());
    double dr = search.gd - search.gdold;
    double ddum = -search.gdold;
    if (search.stp != 1) {
        dr *= search.stp;
        dscal(n, search.stp, run.d.data());
        ddum *= search.stp;
    }
    if (dr <= run.epsmch * ddum) {
        ++run.progress.nskip;
        run.updatd = false;
        if (run.iprint >= 1) {
            screen("  ys=" + column_exp(dr, 10, 3) + "  -gs=" + column_exp(ddum, 10, 3) + " BFGS update SKIPPED\n");
        }
        return;
    }
    run.updatd = true;
    ++run.pairs.iupdat;
    matupd(run.pairs, run.d, run.r, rr, dr, search.stp, search.dtd);
    run.info = formt(run.pairs);
    if (run.info != 0) forget_pairs(run, "Nonpositive definiteness in Cholesky factorization in formt;");
}

/// Go on from the texts "FG_START", "NEW_X" (tests and update done) or "FG_LN..." to the next one for the caller.
/// @return false at the end of the run.
bool iterate(Run& run) {
    Search& search = run.search;
    Progress& progress = run.progress;
    for (;;) {
        if (!run.task.starts_with("FG_LN")) {
            if (!minimise_model(run)) continue;  // without pairs it cannot break down again
            for (std::size_t i = 0; i < run.x.size(); ++i) run.d[i] = run.z[i] - run.x[i];
            run.cpu1 = timer();
        }
        run.info = lnsrlb(run.bounds, run.kind, {run.x, run.g, run.d, run.z, run.r, run.t}, run.f, search, progress,
                          run.task, run.search_state);
        const bool gave_up = run.info == 0 && search.iback >= max_backtracks;  // the last trial point was not evaluated
        const bool undefined = run.task.starts_with("NEW_X") && !(std::isfinite(run.f) && std::isfinite(search.gd));
        if (run.info != 0 || gave_up || undefined) {
            restore_previous(run);
            if (run.pairs.col == 0) {
                if (gave_up) {
                    --progress.nfgv;
                    --search.ifun;
                    --search.iback;
                }
                if (run.info == 0) run.info = -9;
                run.task = "ABNORMAL_TERMINATION_IN_LNSRCH";
                ++progress.iter;
                return false;
            }
            if (gave_up) --progress.nfgv;
            forget_pairs(run, "Bad direction in the line search;");
            run.task = "RESTART_FROM_LNSRCH";
            run.times.lnscht += timer() - run.cpu1;
            continue;
        }
        if (run.task.starts_with("FG_LN")) return true;
        run.times.lnscht += timer() - run.cpu1;
        ++progress.iter;
        progress.sbgnrm = projgr(run.bounds, run.x, run.g);
        prn2lb(run.x, run.f, run.g, run.iprint, run.itfile, progress, search);
        return true;
    }
}

/// All calls but the first. @return false at the end of the run.
bool proceed(Run& run) {
    if (run.task.starts_with("STOP")) {
        if (run.task.field().substr(6, 3) == "CPU") restore_previous(run);
        return false;
    }
    if (run.task.starts_with("NEW_X")) {
        if (converged(run)) return false;
        store_pair(run);
        return iterate(run);
    }
    if (run.task.starts_with("FG_ST")) {
        run.progress.nfgv = 1;
        run.progress.sbgnrm = projgr(run.bounds, run.x, run.g);
        print_first(run.progress, run.f, run.iprint, run.itfile);
        if (run.progress.sbgnrm <= run.pgtol) {
            run.task = "CONVERGENCE: NORM OF PROJECTED GRADIENT <= PGTOL";
            return false;
        }
        return iterate(run);
    }
    if (run.task.starts_with("FG_LN")) return iterate(run);
    run.task = "FG_START";
    return true;
}

/// One call of the main iteration.
void mainlb(Run& run, std::span<double> wa, std::span<int> iwa, std::array<int, 4>& lsave, std::array<int, 44>& isave,
            std::array<double, 29>& dsave) {
    const auto save = [](const auto& value, auto& slot) { slot = value; };
    const auto restore = [](auto& value, const auto& slot) { value = slot; };
    const bool can_run = usable(run.n, run.m);
    if (can_run) lay_out(run, wa, iwa, isave);
    if (run.task == "START" || !can_run) {  // a run that cannot go on gets its error text again
        if (!start(run)) return;
    } else {
        each_saved(run, lsave, isave, dsave, restore);
        if (!proceed(run)) finish(run, 0);
    }
    each_saved(run, lsave, isave, dsave, save);
}

}  // namespace

void setulb(int n, int m, std::span<double> x, std::span<const double> l, std::span<const double> u,
            std::span<const int> nbd, double& f, std::span<double> g, double factr, double pgtol, std::span<double> wa,
            std::span<int> iwa, Text60& task, int iprint, Text60& csave, std::array<int, 4>& lsave,
            std::array<int, 44>& isave, std::array<double, 29>& dsave) {
    const auto size = static_cast<std::size_t>(std::max(n, 0));
    assert(x.size() >= size && l.size() >= size && u.size() >= size && nbd.size() >= size && g.size() >= size);
    assert(!usable(n, m) || wa.size() >= wa_size(size, static_cast<std::size_t>(m)));
    assert(iwa.size() >= iwa_size(size));
    if (task == "START" && usable(n, m)) partition(n, m, isave);
    Run run{.n = n,
            .m = m,
            .x = x.first(size),
            .bounds = {l.first(size), u.first(size), nbd.first(size)},
            .f = f,
            .g = g.first(size),
            .factr = factr,
            .pgtol = pgtol,
            .task = task,
            .iprint = iprint,
            .search_state = {csave, std::span(isave).subspan<42, 2>(), std::span(dsave).subspan<16, 13>()}};
    mainlb(run, wa, iwa, lsave, isave, dsave);
    if (iprint >= 0) std::fflush(stdout);
}

}  // namespace morvane::solver
