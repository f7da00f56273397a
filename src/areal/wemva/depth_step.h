#pragma once
/// One depth step of a monochromatic wavefield, prepared once and applied to any number of fields in either direction.
///
/// Three layers: a Medium holds what depends on the model alone (once a shot); StepTables turn a range of its levels
/// into the factors of one frequency; apply_step runs them on a field. The step with sign -1 uses the complex
/// conjugates.
///
/// Phase-shift form, for each reference velocity c: phase shift exp(i dz sqrt((w/c)^2 - kx^2)) in the lateral spectrum,
/// zero where the root is imaginary; exp(i dz w (s - 1/c)) in space; then the fields are picked or blended by weights.
/// Finite-difference form: the same with one reference, then the stages of ow_ffd_areal.h.
#include <vector>

#include "lib/base/arena.h"
#include "lib/base/array.h"
#include "src/areal/wemva/ow_fftw_areal.h"
#include "src/areal/wemva/ow_parms_areal.h"

/// Levels that are turned into tables together: the recursions of the finite-difference factors run along x, and fill
/// the lanes of a SIMD register with depths.
inline constexpr int lane_count = 8;
template <class Real>
struct LaneTypes {
    typedef Real type __attribute__((vector_size(sizeof(Real) * lane_count)));
};
template <class Real>
using LanesOf = typename LaneTypes<Real>::type;
using Lanes = LanesOf<float>;

/// The model at one depth as the extrapolators see it.
struct MediumLevel {
    std::vector<float> vref;     ///< reference velocities (length/s), 1 to nref
    Array<float, 2> sdiff;       ///< (nx, nref) slowness less the reference slowness
    Array<float, 2> weight;      ///< (nx, nref) share of each reference's field in a sample; empty with one reference
    Array<float, 2> dweight;     ///< (nx, nref) its derivative with respect to slowness; empty where all are zero
    Array<float, 1> velocity;    ///< (nx) finite-difference form with given references: 1 / slowness
    std::vector<int> untouched;  ///< samples that keep the spectrum coefficient of their index (a tie of region bounds)
};

/// What the finite-difference stages of a shot need of its model.
template <class Real>
struct StageMedium {
    Array<LanesOf<Real>, 2> drift;  ///< (nx, blocks) dz/2 v (1 - c/v) / dx^2, a lane a depth
    Array<LanesOf<Real>, 2> curve;  ///< (nx, blocks) v^2 ((c/v)^2 + c/v + 1) / dx^2
};

/// The model of one shot, prepared for the extrapolator of the run.
struct Medium {
    std::vector<MediumLevel> levels;
    StageMedium<float> stages;  ///< finite-difference form
    StageMedium<double> fine;   ///< instead, with given references, for stages that need double precision
};

/// Reference velocities of every level of a shot's window.
using ReferenceTable = std::vector<std::vector<float>>;

/// What is kept while the model of a shot changes, so that its steps depend on slowness smoothly.
struct Frozen {
    const ReferenceTable* references = nullptr;  ///< null: the model chooses its own
    View<const float, 2> start;                  ///< (kxm.n, levels) the slowness by which samples choose among them
};

/// Prepare the model of one shot.
/// @param vel    (kxm.n, levels) slowness (s/length), each > 0
/// @param sref   (nref, 2, levels) region table, or empty
/// @param frozen if it has references: they are used instead of the model's own, a tie of region bounds goes to the
///               slower region, and the samples' derivatives are prepared
Medium prepare_medium(const Parms& par, View<const float, 2> vel, View<const float, 3> sref, const Frozen& frozen);

/// The reference velocities that a medium uses.
ReferenceTable references_of(const Medium& medium);

/// Factors of one step at one frequency. Views into StepTables.
struct DepthStep {
    struct Stage {
        View<const cf, 1> drive;        ///< (nx) 2i Im(-a)/a: right side of the correction
        View<const float, 2> pivot;     ///< (4, nx/2) inverse pivots from the left (re, im) and from the right
        View<const double, 2> fine;     ///< the same of a medium that has the stages in double precision
        std::complex<double> middle{};  ///< inverse pivot where the two eliminations meet
        float alph_w = 0.0f;            ///< alph / w
        float beta_w2 = 0.0f;           ///< beta / w^2
    };
    const MediumLevel* level = nullptr;
    View<const cf, 2> phase;  ///< (nx, nref)
    View<const cf, 2> space;  ///< (nx, nref) weights, thin-lens term and the 1/nx of the transforms
    bool blends = false;   ///< the weights have derivatives and are the level's: then `space` is without them, and one
                           ///< column serves all references, what they differ by being in `phase`
    float trick = 0.0f;    ///< the term added to the finite-difference operator
    float half_dz = 0.0f;  ///< dz / 2
    float dx2 = 0.0f;      ///< dx^2
    float dz_w = 0.0f;     ///< dz w: the thin-lens term's derivative is i sign dz_w
    std::array<Stage, 5> stage;
    int nstage = 0;
};

/// Tables of the steps through a range of levels at one frequency. One a thread.
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
    static int batch(const Parms& par) { return par.ffd() ? lane_count : 1; }

private:
    void prepare_phases(float w, DepthStep& step, View<cf, 2> phase, View<cf, 2> space);
    /// Inverse pivots of the stages, and where they are made.
    template <class Real>
    struct Pivots {
        View<Real, 4> all;            // (4, nx/2, stage, levels)
        View<LanesOf<Real>, 2> work;  // (nx, 2)
        void take(Arena& arena, std::ptrdiff_t nx, int nstage, int levels);
    };
    template <class Real>
    void prepare_stages(const StageMedium<Real>& medium, const Pivots<Real>& pivots, float w, int block, int first,
                        int count);

    const Parms& par_;
    const Medium& medium_;
    int first_ = 0;
    int nrefs_;
    int nstage_ = 0;
    std::array<float, 5> alph_{}, beta_{};
    std::vector<DepthStep> steps_;
    View<cf, 3> phase_, space_;  // (nx, nref, levels)
    View<cf, 3> drive_;          // (nx, stage, levels)
    Pivots<float> pivots_;
    Pivots<double> fine_;
    View<float, 2> work_;       // (nx, 2)
    View<Lanes, 2> gain_work_;  // (nx, 2)
};

/// out = in * table, sample by sample, the table as it is or its conjugate. May run in place.
void multiply(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out);
void multiply_add(View<const cf, 1> in, View<const cf, 1> table, bool conjugate, cf* out);
/// out = in * weight, sample by sample.
void weigh(View<const cf, 1> in, View<const float, 1> weight, cf* out);

/// Scratch of apply_step. One a thread.
struct StepScratch {
    Array<cf, 1> spectrum, shifted, field;    // (nx)
    Array<cf, 2> correction;                  // (2, nx + 1), the last column zero
    Array<float, 2> differences;              // (2 nx, 4)
    std::vector<Lanes> chain;                 // nx/2 + 1
    std::vector<LanesOf<double>> fine_chain;  // nx/2 + 1
    explicit StepScratch(int nx);
};

/// A step but for its finite-difference stages. `out` may be `in`.
/// @param record null, or where the derivative of `out` with respect to slowness goes if the references are blended
void shift(const DepthStep& step, const LateralFft& fft, int sign, View<const cf, 1> in, View<cf, 1> out, cf* record,
           StepScratch& scratch);

/// One finite-difference stage of two fields, the first with sign, the second with -sign. May run in place.
void apply_stage(const DepthStep::Stage& stage, int sign, View<const cf, 1> field, View<const cf, 1> other,
                 View<cf, 1> out, View<cf, 1> other_out, StepScratch& scratch);

/// Carry a field through one step. sign +1: the factors as they are (source side); -1: their conjugates (receiver
/// side).
void apply_step(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, StepScratch& scratch);

/// Carry two fields through one step together, the first with sign, the second with -sign.
void apply_step_pair(const DepthStep& step, const LateralFft& fft, int sign, View<cf, 1> field, View<cf, 1> other,
                     StepScratch& scratch);
