#pragma once
/// One depth step of a monochromatic wavefield, prepared once and applied to any number of fields in either direction.
///
/// Three layers: a Medium holds what depends on the model alone (once per shot); StepTables turn a range of its levels
/// into the factors of one frequency; apply_step runs them on a field. The step with sign -1 uses the complex
/// conjugates.
///
/// Phase-shift form, for each reference velocity c: phase shift exp(i dz sqrt((w/c)^2 - kx^2)) in the lateral spectrum,
/// zero where the root is imaginary; exp(i dz w (s - 1/c)) in space; then the fields are picked or blended by weights.
/// Finite-difference form: the same with one reference, then the stages of ffd_stage.h.
#include <span>
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/step/ffd_tables.h"
#include "src/areal/wemva/step/medium.h"
#include "src/areal/wemva/step/ow_fftw_areal.h"

namespace morvane {

/// Factors of one step at one frequency. Views into StepTables.
struct DepthStep {
    const MediumLevel* level = nullptr;
    View<const cf, 2> phase;  ///< (nx, nref)
    View<const cf, 2> space;  ///< (nx, nref) weights, thin-lens term and the 1/nx of the transforms
    bool blends = false;  ///< the weights have derivatives and are the level's: then `space` is without them, and one
                          ///< column serves all references, what they differ by being in `phase`
    float dz_w = 0.0f;    ///< dz w: the thin-lens term's derivative is i sign dz_w
    std::span<const FfdStage> stages;
};

/// The phase shift's factors of the step's level at angular frequency w.
/// @param phase, space (nx, >= references) where they go
/// @param work         (nx, 2)
void prepare_phases(const Parms& par, float w, View<cf, 2> phase, View<cf, 2> space, View<float, 2> work,
                    DepthStep& step);

/// Tables of the steps through a range of levels at one frequency. One per thread.
class StepTables {
public:
    /// @param most_levels levels that prepare() is asked for at a time
    /// @param arena       where all memory is taken from, at construction
    StepTables(const Parms& par, const Medium& medium, int most_levels, Arena& arena);
    /// Factors of the steps that start at levels first..first+count-1, at frequency iw (its angular frequency must not
    /// be zero in the finite-difference form).
    void prepare(int iw, int first, int count);
    const DepthStep& step(int level) const { return steps_[static_cast<std::size_t>(level - first_)]; }
    /// The number of levels that are worth preparing at a time when they are not kept.
    static int batch(const Parms& par) { return par.ffd() ? levels_at_a_time : 1; }

private:
    template <class Real>
    void prepare_stages(FfdTables<Real>& tables, float w, int first, int count);

    const Parms& par_;
    const Medium& medium_;
    FfdTables<float> stages_;
    FfdTables<double> fine_;
    int first_ = 0;
    int nrefs_;
    std::vector<DepthStep> steps_;
    View<cf, 3> phase_, space_;  // (nx, nref, levels)
    View<float, 2> work_;        // (nx, 2)
};

/// out = in * table, sample by sample, the table as it is or its conjugate. May run in place.
void multiply(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out);
void multiply_add(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out);
/// out = in * weight, sample by sample. May run in place.
void weigh(View<const cf, 1> in, View<const float, 1> weight, cf* out);

/// Scratch of apply_step. One per thread.
struct StepScratch {
    Array<cf, 1> spectrum, shifted, field;  // (nx)
    StageScratch stages;
    explicit StepScratch(int nx);
};

/// A step but for its finite-difference stages. `out` may be `in`.
/// @param record null, or where the derivative of `out` with respect to slowness goes if the references are blended
void shift(const DepthStep& step, const LateralFft& fft, int sign, View<const cf, 1> in, View<cf, 1> out, cf* record,
           StepScratch& scratch);

/// Carry a field through one step. sign +1: the factors as they are (source side); -1: their conjugates (receiver
/// side).
void apply_step(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, StepScratch& scratch);

/// Carry two fields through one step together, the first with sign, the second with -sign.
void apply_step_pair(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, View<cf, 1> other,
                     StepScratch& scratch);

/// Carry a field through level 0 of a medium at frequency iw, with tables made for this one step.
void apply_alone(const Parms& par, const Medium& medium, const LateralFft& fft, int iw, int sign, View<cf, 1> field);

}  // namespace morvane
