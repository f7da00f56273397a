#pragma once
/// Lateral transforms of wavefield columns.
#include <fftw3.h>

#include <memory>
#include <type_traits>

#include "lib/base/array.h"

namespace morvane {

/// Complex transform of one length, unscaled, from one column to another: in place it takes a fifth to a third longer.
/// Make and destroy it outside parallel regions; run() serves any number of threads at once, each with its own columns.
class FftPlan {
public:
    /// @param n     length, >= 1
    /// @param sign  -1 forward, exp(-i k x); +1 inverse
    /// @param flags planner flags of the library; FFTW_PATIENT measures, so that the last bits may differ between runs,
    ///              FFTW_ESTIMATE always gives the same plan
    FftPlan(int n, int sign, unsigned flags);
    /// Columns that do not overlap; `from` is left as it is.
    void run(View<const cf, 1> from, View<cf, 1> to) const;

private:
    struct Destroy {
        void operator()(fftwf_plan plan) const { fftwf_destroy_plan(plan); }
    };
    std::unique_ptr<std::remove_pointer_t<fftwf_plan>, Destroy> plan_;
};

/// Forward and inverse transform of wavefield columns of n samples, made once for a run. The caller divides each result
/// by sqrt(n), which makes both directions unitary.
struct LateralFft {
    int n;
    FftPlan forward, inverse;
    LateralFft(int length, unsigned flags) : n(length), forward(length, -1, flags), inverse(length, +1, flags) {}
};

/// Planner flags for a run on `nodes` threads: patient; on one thread the plan that is the same in every run, so that
/// such a run can be repeated bit by bit.
unsigned plan_flags(int nodes);

}  // namespace morvane
