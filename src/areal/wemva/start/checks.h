#pragma once
/// Start-up checks beyond those of owparam's own steps: what would otherwise divide by zero, leave an array or give a
/// silently wrong result is refused or warned about before anything is computed, with key, value and what is permitted.
#include <array>
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"

namespace morvane {

/// Keys that are refused unless gradient=exact.
inline constexpr std::array keys_of_exact_mode = {"normalise", "fun_xmin",  "fun_xmax",      "depthdiff", "regularise",
                                                  "reg_x",     "reg_z",     "fit",           "course",    "best",
                                                  "stop",      "stop_rise", "stop_patience", "stages",    "keep"};

/// Axes as read from the headers: counts, steps, finite numbers, sizes against those of the data files; the margins.
void check_axes(const Parms& par, qas::Session& session);

/// Everything that parameters and headers decide together; par.img, nz, nzmin and nzmax are set, output headers are not
/// written yet.
void check_settings(const Parms& par, qas::Session& session);

/// What a stage may set: knots, weight, differences, regularisation, first step, iterations, stop rule.
void check_stage(const Parms& par);

/// The depth axis: levels lost to rounding, the top of the image against that of the model.
void check_depths(const Parms& par);

/// Tags of the outputs that get samples during a run.
std::vector<std::string> outputs_with_data(const Parms& par, qas::Session& session);

/// Looks into inputs that are read for good only later: the horizon file and the start model. Inputs from pipes and
/// sockets go to scratch files, since they are read again.
void check_input_files(const Parms& par, qas::Session& session);

/// The start model on the image grid (img.xm.n, img.z.n): positive and finite, of a plausible unit, against vsal.
void check_model(const Parms& par, View<const float, 2> vel0);

/// Largest prime factor of n >= 1.
int largest_prime_factor(int n);

}  // namespace morvane
