#pragma once
/// The parameters of morvane_prepare: one table from which they are read, checked and explained.
#include <string>
#include <vector>

#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_prepare/segy_file.h"
#include "src/tools/morvane_prepare/survey_grid.h"
#include "src/tools/morvane_prepare/velocity.h"

namespace morvane::prepare {

struct PrepareOptions {
    std::vector<std::string> segy;
    SegyOptions reading;
    std::string prefix, length_name;  ///< length_name empty: as the files say
    std::string segy_unit;
    bool overwrite = false;

    std::vector<double> line;  ///< empty: fitted; else x0, y0, x1, y1
    GridOptions grid;
    double max_distance = 0;  ///< 0: 500 m

    bool field = true;  ///< data=field: from point sources
    std::string mute = "auto";
    double mute_velocity = 0, mute_intercept = 0, mute_taper = -1;
    double tmax = 0, end_taper = -1, gain = 0;
    double fmin = 0, fmax = 0, df = 0, band_taper = -1, whiten = 0;
    std::string scale = "rms";

    std::string source = "zero";
    double fpeak = 0, source_time = 0, wavelet_dt = 0, rotate = 0, source_length = 0;

    VelocityOptions velocity;
    double smooth = 0;

    double dz = 0, zmax = 0;
    int nh = 0;
    double dh = 0, error = 10, dxk = -1, dzk = -1, bound = -1, first_step = 0.03;
    int niter = 18;
    bool plain = false;  ///< settings=plain
};

/// All parameters with units, defaults and meanings: as a table, and as --help prints them.
qas::KeyTable prepare_keys();
std::string prepare_help();

/// Values from the session. Refuses (qas::Fatal) what is no number where one is needed and what is outside its range,
/// with the key, the value and what is permitted.
PrepareOptions read_options(qas::Session& session);

}  // namespace morvane::prepare
