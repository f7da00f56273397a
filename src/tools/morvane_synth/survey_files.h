#pragma once
/// Models from datasets, and the files that a survey consists of.
#include "lib/corelibs/qas/files/plain_output.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/options.h"

namespace morvane {

/// The model of `options` over the image axis of its survey: built, or read from the dataset with tag "model" (and
/// "start") with its edge columns continued where the survey reaches beyond it, which is said on standard error.
/// Refuses (qas::Fatal) datasets off the grid of the survey, short ones, and slowness that is not positive and finite.
EarthModel survey_model(qas::Session& session, const SynthOptions& options);

/// What a survey is written to beside its datasets.
struct SurveyFiles {
    qas::PlainOutput parameters;
};

/// Opens all files of a survey, so that one that cannot be written is known before the modelling. What they hold stays.
SurveyFiles open_survey(qas::Session& session, const SynthOptions& options);

/// Write "vel", "true", "rec", "sou", "full" and "dips" if they were named, and the parameter file.
/// vel, true, full: n1 lateral, n3 depth, slowness. dips: n1 depth, n2 lateral (layer_dips). rec: n1 traces, n3
/// frequencies in cycles, n4 shots, complex. sou: as rec, or one trace and one shot. If they were named
/// traces: n1 times, n2 traces, n3 shots, real, and wavelet: n1 times. The header of "true" also says
/// where the model is illuminated: xmin, xmax (first and last shot), zmin, zmax (shallowest and deepest reflector).
/// The parameter file is put into its place when all else is on the disk.
void write_survey(qas::Session& session, SurveyFiles& files, const SynthOptions& options, const EarthModel& model,
                  const SurveyData& data);

/// The parameter file, with the names under which the datasets were written.
std::string parameter_file(qas::Session& session, const SynthOptions& options, const EarthModel& model);

}  // namespace morvane
