#pragma once
/// What a run carries from one evaluation to the next.
#include <array>
#include <string>
#include <vector>

#include "src/areal/wemva/inversion/setup.h"
#include "src/areal/wemva/model/variables.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/exec_time.h"
#include "src/areal/wemva/solver/precision.h"
#include "src/areal/wemva/solver/solver_lbfgsb_mod.h"

namespace morvane {

/// Everything the solver keeps between calls. Its variables are those of variables.h.
struct SolverState {
    // The solver's own convergence tests practically never end a run; niter does.
    static constexpr double smallest_normal = 1.17549435e-38;
    static constexpr double pgtol = 1.1754943508222875e-38;  // 2^-126

    int n, m;
    std::vector<double> x, g, wa;
    VariableBounds bounds;
    std::vector<int> iwa;
    double fun = 0.0;
    double factr = smallest_normal / solver::dpmeps();
    solver::Text60 task = "START", csave;
    std::array<int, 4> lsave{};
    std::array<int, 44> isave{};
    std::array<double, 29> dsave{};

    explicit SolverState(const InversionSetup& setup);
    void call(int report_level);
    /// Whether it will end at once because an argument is wrong.
    bool refuses();
    /// Whether it has asked for something, and can be called again.
    bool goes_on() const;
    void archive(Archive& archive);
};

/// What the closing line tells.
struct Outcome {
    int evaluations = 0, accepted = 0;
    double first_fun = 0.0;
    double last_fun = 0.0;   ///< of the last evaluation
    int accepted_panel = 1;  ///< evaluation whose model was accepted last
    std::string stopped;     ///< why, if not by niter or the solver
};

struct RunState {
    SolverState solver;
    Outcome outcome;
    int iter = 1, titer = 1;
    int stage = 1, first_iter = 1;  ///< first_iter: of the stage
    double fun = 0.0;
    double scale = 1.0;  ///< of firststep
    /// Of the evaluation at hand: by the runs before this one, and when this one took it up.
    Spent spent_before, taken_up;
    Spent spent() const;
    explicit RunState(const InversionSetup& setup) : solver(setup) {}
    void archive(Archive& archive);
};

}  // namespace morvane
