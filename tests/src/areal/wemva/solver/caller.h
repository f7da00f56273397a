#pragma once
/// The caller's side of the optimiser: all arrays in one value that can be copied, and the loop around it.
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "src/areal/wemva/solver/solver_lbfgsb_mod.h"

namespace morvane {

using Vector = std::vector<double>;

/// Sets g and returns f.
using Objective = std::function<double(std::span<const double> x, std::span<double> g)>;

struct Caller {
    int n, m;
    Vector x, l, u;
    std::vector<int> nbd;
    double f = 0;
    Vector g;
    double factr = 0, pgtol = 0;
    Vector wa;
    std::vector<int> iwa;
    solver::Text60 task = "START", csave;
    int iprint = -1;
    std::array<int, 4> lsave{};
    std::array<int, 44> isave{};
    std::array<double, 29> dsave{};
    int evaluations = 0;

    /// Work arrays start as not-a-number and nonsense, so that a read of what was never written shows.
    Caller(int m, Vector start, Vector lower, Vector upper, std::vector<int> kinds)
        : n(static_cast<int>(start.size())),
          m(m),
          x(std::move(start)),
          l(std::move(lower)),
          u(std::move(upper)),
          nbd(std::move(kinds)),
          g(x.size()),
          wa(solver::wa_size(x.size(), static_cast<std::size_t>(m)), std::numeric_limits<double>::quiet_NaN()),
          iwa(solver::iwa_size(x.size()), -12345) {
        lsave.fill(77);
        isave.fill(-54321);
        dsave.fill(std::numeric_limits<double>::quiet_NaN());
    }
    /// Free variables.
    Caller(int m, const Vector& start)
        : Caller(m, start, Vector(start.size()), Vector(start.size()), std::vector<int>(start.size(), 0)) {}

    void call() {
        solver::setulb(n, m, x, l, u, nbd, f, g, factr, pgtol, wa, iwa, task, iprint, csave, lsave, isave, dsave);
    }
    std::string text() const { return std::string(task.text()); }
    /// Saved values by their number in the caller's arrays, from 1.
    int saved_int(int k) const { return isave[static_cast<std::size_t>(k - 1)]; }
    double saved_real(int k) const { return dsave[static_cast<std::size_t>(k - 1)]; }
    /// Block of wa whose start is isave(k).
    double* block(int k) { return wa.data() + saved_int(k) - 1; }

    /// Call until the next NEW_X or the end, evaluating when asked.
    void advance(const Objective& objective) {
        do {
            if (task.starts_with("FG")) {
                f = objective(x, g);
                ++evaluations;
            }
            call();
        } while (task.starts_with("FG"));
    }
    /// Run to the end, or to a limit that only a loop without end reaches.
    void run(const Objective& objective, int limit = 10000) {
        do advance(objective);
        while (task.starts_with("NEW_X") && evaluations < limit);
    }
};

}  // namespace morvane
