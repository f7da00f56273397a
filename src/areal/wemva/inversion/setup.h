#pragma once
/// What an inversion needs before its first evaluation: run parameters, logs, start model, bounds, horizon.
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/inversion/course.h"
#include "src/areal/wemva/inversion/evaluation.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/model/variables.h"
#include "src/areal/wemva/restart/archive.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/run/text_log.h"
#include "src/areal/wemva/start/stages.h"

namespace morvane {

/// Reads, checks and prepares in the order of its members. Throws qas::Fatal for everything it cannot continue from.
/// Outputs are opened and held: what an earlier run left in them stays until begin_outputs.
struct InversionSetup {
    qas::Session& session;
    Parms par;                          ///< of the stage
    std::vector<Stage> stages;          ///< empty: the run is one, by its keys
    int mmax;                           ///< correction pairs of the solver
    std::optional<base_spln2d> spline;  ///< between knots and image grid, if there are knots
    TextLog log, listing;
    Course course;                 ///< the course of the run, if it is asked for
    Array<float, 1> taper;         ///< (kxm.n)
    Array<float, 2> vel0;          ///< (img.xm.n, img.z.n) start model of the stage
    Array<float, 2> origin;        ///< (img.xm.n, img.z.n) start model of the run
    Array<float, 3> vref;          ///< (nref, 2, img.z.n) region table of the clustering, or empty
    std::vector<double> start;     ///< the start model as the solver counts
    Variables variables;           ///< what the solver varies
    VariableBounds sample_bounds;  ///< of slowness, relative to the start model of the run
    VariableBounds bounds;         ///< of the variables
    Array<float, 2> slowest;       ///< (img.xm.n, img.z.n) exact: the greatest slowness a trial can have; else empty
    std::vector<float> pick1;      ///< (img.xm.n) horizon depths, or empty

    std::vector<qas::OutputExtent> extents;               ///< of the outputs, as archive() found or read them
    std::pair<std::int64_t, std::int64_t> lengths{0, 0};  ///< of log and list, likewise

    explicit InversionSetup(qas::Session& session);
    InversionSetup(const InversionSetup&) = delete;
    InversionSetup& operator=(const InversionSetup&) = delete;

    /// Empties all outputs and writes the headers; to be called when nothing but the work can fail any more.
    void begin_outputs();
    /// How far the outputs have come, once that is on the disk.
    void archive(Archive& archive);
    /// In place of begin_outputs, after archive() has read: goes on from there.
    void resume_outputs();
    /// Puts all outputs on the disk and closes them.
    void finish_outputs();

    /// Makes what belongs to a stage anew: it starts from this model (slowness), with references and knots of its own.
    void enter(const Stage& stage, std::span<const double> model);

    /// Planner flags of the run's transforms.
    unsigned planner_flags() const;
    /// What evaluations take; fft must outlive it, as this must.
    Inversion inversion(const LateralFft& fft);
};

}  // namespace morvane
