#pragma once
/// What follows from data, model and options before any output is made, and the reason of each choice.
#include <string>
#include <vector>

#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/conditioning.h"
#include "src/tools/morvane_prepare/options.h"
#include "src/tools/morvane_prepare/scan.h"
#include "src/tools/morvane_prepare/source.h"
#include "src/tools/morvane_prepare/survey_grid.h"

namespace morvane::prepare {

/// A value with the sentence that goes behind it into report and parameter file.
struct Reason {
    std::string name, value, why;
};

struct Plan {
    Line line;
    SurveyGrid grid;
    Geometry geometry;
    Axis freq, x, z;        ///< frequencies; the model's columns and levels
    double dx = 0, dz = 0;  ///< as in grid and z, before they were rounded to single precision
    double origin = 0;      ///< position of the model's first column
    double first = 0;       ///< earliest time of the records
    int nt = 0;             ///< samples of a trace that are used
    Conditioning conditioning;
    double surface_velocity = 0, fastest = 0;
    std::vector<std::complex<double>> wavelet;  ///< spectrum at freq, source time and rotation apart
    std::vector<double> factor;                 ///< of source and data: flattening, band taper, scale
    double data_scale = 1, source_scale = 1;    ///< further factors, to rms 1
    int nh = 1;
    double dh = 0, dxk = 0, dzk = 0;
    double strongest = 0;                ///< frequency of the muted data's greatest amplitude
    double fun_least = 0, fun_most = 0;  ///< columns that count in fun
    int nxk = 0, nzk = 0;
    std::vector<Reason> reasons;
    std::vector<std::string> warnings;

    void because(const std::string& name, const std::string& value, const std::string& why);
};

/// A number as it goes into report and parameter file, up to seven digits.
std::string digits(double value);

/// The largest of 1, 2, 2.5, 4, 5, 8 times a power of ten that is not above `value`.
double round_down(double value);
/// The nearest of those.
double round_near(double value);

/// Factors of data and source at each frequency: band_factor of morvane_synth's survey with the largest amplitude of
/// the source in the band brought to 1 (scale=none: left).
std::vector<double> factors(const PrepareOptions& options, const Axis& freq,
                            const std::vector<std::complex<double>>& wavelet);

/// What the transform of a trace is multiplied by: factors, scale, and for point sources exp(i pi/4) / sqrt(f).
std::vector<std::complex<double>> data_factor(const Plan& plan, const PrepareOptions& options);

/// Looks at some traces and decides. Refuses (qas::Fatal) what cannot be prepared: a df that folds the records, a band
/// beyond the sampling, a model too large; and whatever the parts it calls refuse.
Plan make_plan(qas::Session& session, const PrepareOptions& options, Survey& survey, const Scan& scan,
               const Velocity& velocity, const Line& line);

}  // namespace morvane::prepare
