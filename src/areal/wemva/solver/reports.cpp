#include "src/areal/wemva/solver/reports.h"

#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/base/fixed_format.h"
#include "lib/base/warning.h"
#include "src/areal/wemva/solver/console.h"

namespace morvane::solver {

namespace {

constexpr const char* itfile_name = "iterate.dat";
constexpr int itfile_unit = 8;

bool put(const char* mode, std::string_view text) {
    std::FILE* file = std::fopen(itfile_name, mode);
    if (file == nullptr) return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    return std::fclose(file) == 0 && written;
}

void warn_of_itfile() {
    warn("%s: %s; the run goes on without this report", itfile_name, std::strerror(errno));
}

std::string blanks(int count) {
    return std::string(static_cast<std::size_t>(count), ' ');
}

/// k groups of `gap` blanks and an integer.
template <class... Values>
std::string ints(int gap, int width, Values... values) {
    return (... + (blanks(gap) + column_int(values, width)));
}

template <class... Values>
std::string reals(int gap, int width, int digits, Values... values) {
    return (... + (blanks(gap) + column_exp(values, width, digits, 'D')));
}

const char* subspace_word(int iword) {
    switch (iword) {
        case 0:
            return "con";
        case 1:
            return "bnd";
        case 5:
            return "TNT";
        default:
            return "---";
    }
}

/// The row of the file up to the step columns.
std::string step_row(const Progress& p, const Search& search) {
    return ints(1, 4, p.iter, p.nfgv) + ints(1, 5, p.nint, p.nact) + "  " + subspace_word(p.iword) +
           ints(1, 4, search.iback) + reals(2, 7, 1, search.stp, search.xstep);
}

/// Why the run ended, beside the text of its task.
/// @param k    the variable concerned
/// @param ifun evaluations of the last line search
std::string info_text(int info, int k, int ifun) {
    switch (info) {
        case -1:
            return "\n Matrix in 1st Cholesky factorization in formk is not Pos. Def.\n";
        case -2:
            return "\n Matrix in 2st Cholesky factorization in formk is not Pos. Def.\n";
        case -3:
            return "\n Matrix in the Cholesky factorization in formt is not Pos. Def.\n";
        case -4:
            return "\n Derivative >= 0, backtracking line search impossible.\n"
                   "   Previous x, f and g restored.\n"
                   " Possible causes: 1 error in function or gradient evaluation;\n"
                   "                  2 rounding errors dominate computation.\n";
        case -5:
            return "\n Warning:  more than 10 function and gradient\n"
                   "   evaluations in the last line search.  Termination\n"
                   "   may possibly be caused by a bad search direction.\n";
        case -6:
            return list_line({" Input nbd(", static_cast<long long>(k), ") is invalid."}) + '\n';
        case -7:
            return list_line({" l(", static_cast<long long>(k), ") > u(", static_cast<long long>(k),
                              ").  No feasible solution."}) +
                   '\n';
        case -8:
            return "\n The triangular system is singular.\n";
        case -9:
            return "\n Line search cannot locate an adequate point after " + std::to_string(ifun) +
                   " function\n"
                   "  and gradient evaluations.  Previous x, f and g restored.\n"
                   " Possible causes: 1 error in function or gradient evaluation;\n"
                   "                  2 rounding error dominate computation.\n";
        default:
            return "";
    }
}

std::string seconds(const char* what, double time) {
    return what + column_exp(time, 10, 3) + " seconds.\n";
}

}  // namespace

double timer() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<float>(static_cast<double>(usage.ru_utime.tv_sec) +
                              1e-6 * static_cast<double>(usage.ru_utime.tv_usec));
}

int create_itfile() {
    if (put("w", "")) return itfile_unit;
    warn_of_itfile();
    return 0;
}

void write_itfile(int& itfile, std::string_view text) {
    if (itfile != itfile_unit || put("a", text)) return;
    warn_of_itfile();
    itfile = 0;
}

void prn1lb(const Bounds& bounds, int n, int m, std::span<const double> x, int iprint, int& itfile, double epsmch) {
    const std::string precision = "Machine precision =" + column_exp(epsmch, 10, 3, 'D') + '\n';
    const std::string sizes =
        list_line({"N = ", static_cast<long long>(n), "    M = ", static_cast<long long>(m)}) + '\n';
    if (iprint >= 0) screen("RUNNING THE L-BFGS-B CODE\n\n           * * *\n\n" + precision + sizes);
    if (iprint >= 1) {
        write_itfile(itfile,
                     "RUNNING THE L-BFGS-B CODE\n"
                     "\n"
                     "it    = iteration number\n"
                     "nf    = number of function evaluations\n"
                     "nint  = number of segments explored during the Cauchy search\n"
                     "nact  = number of active bounds at the generalized Cauchy point\n"
                     "sub   = manner in which the subspace minimization terminated:\n"
                     "        con = converged, bnd = a bound was reached\n"
                     "itls  = number of iterations performed in the line search\n"
                     "stepl = step length used\n"
                     "tstep = norm of the displacement (total step)\n"
                     "projg = norm of the projected gradient\n"
                     "f     = function value\n"
                     "\n"
                     "           * * *\n"
                     "\n" +
                         precision + sizes +
                         "\n   it   nf  nint  nact  sub  itls  stepl    tstep     projg        f\n");
    }
    if (iprint > 100)
        screen(labelled_vector("L =", bounds.l) + labelled_vector("X0 =", x) + labelled_vector("U =", bounds.u));
}

void print_iterate(int iter, double f, double sbgnrm) {
    screen("\nAt iterate" + column_int(iter, 5) + "    f= " + column_exp(f, 12, 5, 'D') +
           "    |proj g|= " + column_exp(sbgnrm, 12, 5, 'D') + '\n');
}

void print_first(const Progress& progress, double f, int iprint, int& itfile) {
    if (iprint < 1) return;
    print_iterate(progress.iter, f, progress.sbgnrm);
    write_itfile(itfile, ints(1, 4, progress.iter, progress.nfgv) + "     -     -   -     -     -        -   " +
                             reals(1, 10, 3, progress.sbgnrm, f) + '\n');
}

void prn2lb(std::span<const double> x, double f, std::span<const double> g, int iprint, int& itfile,
            const Progress& progress, const Search& search) {
    if (iprint >= 99) {
        screen(
            list_line({"LINE SEARCH", static_cast<long long>(search.iback), " times; norm of step = ", search.xstep}) +
            '\n');
        print_iterate(progress.iter, f, progress.sbgnrm);
        if (iprint > 100) screen(labelled_vector("X =", x) + labelled_vector("G =", g));
    } else if (iprint > 0 && progress.iter % iprint == 0) {
        print_iterate(progress.iter, f, progress.sbgnrm);
    }
    if (iprint >= 1) {
        write_itfile(itfile, step_row(progress, search) + reals(1, 10, 3, progress.sbgnrm, f) + '\n');
    }
}

void prn3lb(std::span<const double> x, double f, const Ending& ending, int iprint, int& itfile, const Progress& p,
            const Search& search, const Times& times) {
    const auto& [task, info, k] = ending;
    if (!task.starts_with("ERROR")) {
        if (iprint >= 0) {
            screen(
                "\n           * * *\n\n"
                "Tit   = total number of iterations\n"
                "Tnf   = total number of function evaluations\n"
                "Tnint = total number of segments explored during Cauchy searches\n"
                "Skip  = number of BFGS updates skipped\n"
                "Nact  = number of active bounds at final generalized Cauchy point\n"
                "Projg = norm of the final projected gradient\n"
                "F     = final function value\n"
                "\n           * * *\n"
                "\n   N   Tit  Tnf  Tnint  Skip  Nact     Projg        F\n" +
                column_int(static_cast<long long>(x.size()), 5) + ints(1, 4, p.iter, p.nfgv) + ints(1, 6, p.nintol) +
                ints(2, 4, p.nskip) + ints(1, 5, p.nact) + reals(2, 10, 3, p.sbgnrm, f) + '\n');
        }
        if (iprint >= 100) screen(labelled_vector("X =", x));
        if (iprint >= 1) screen(list_line({" F =", f}) + '\n');
    }
    const std::string total = '\n' + seconds(" Total User time", times.time) + '\n';
    const std::string ended = '\n' + std::string(task.field()) + '\n';
    if (iprint >= 0) screen(ended + info_text(info, k, search.ifun));
    if (iprint >= 1) {
        screen('\n' + seconds(" Cauchy                time", times.cachyt) +
               seconds(" Subspace minimization time", times.sbtime) +
               seconds(" Line search           time", times.lnscht));
    }
    if (iprint >= 0) screen(total);
    if (iprint >= 1) {
        std::string text;
        if (info == -9 || info == -4) text = step_row(p, search) + "      -          -\n";
        text += ended;
        if (info != -6 && info != -7)
            text += info_text(info, k, search.ifun);  // those two are printed on the screen alone
        write_itfile(itfile, text + total);
    }
}

}  // namespace morvane::solver
