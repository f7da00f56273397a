#pragma once
/// The parameters of morvane_synth: one list from which the values are read and the help is printed.
#include <string>
#include <vector>

#include "lib/corelibs/qas/parameters/keys.h"
#include "lib/corelibs/qas/session.h"
#include "src/tools/morvane_synth/earth_model.h"
#include "src/tools/morvane_synth/survey.h"

namespace morvane {

struct SynthOptions {
    std::string model = "lens";  ///< lens, layers, fast, random, or the header of a dataset of slowness
    int seed = 1;                ///< of model=random
    ModelSpec spec;
    bool from_file = false;
    float dx = 10.0f, dz = 10.0f, zmax = 1400.0f;
    float smooth = 100.0f;

    Geometry geometry;
    Acquisition acquisition;
    FdGrid grid;  ///< dt = 0: the largest stable step is taken
    float margin = 200.0f;

    std::string parfile = "morvane.par";
    int nh = 33;
    float dxk = 200.0f, dzk = 100.0f;
    float regx = 100.0f, regz = 100.0f;  ///< lengths of the regularisation
    bool hold = false;                   ///< no knots at the surface and at the bottom
    float bound = 25.0f;
    bool below_shots = false;  ///< fun counts the columns below the shots only
    int niter = 12;
};

/// All parameters with units, defaults and meanings: as a table, and as --help prints them.
qas::KeyTable synth_keys();
std::string synth_help();

/// Values from the session. Refuses (qas::Fatal) what is not a number where one is needed, and values outside their
/// range, with the key, the value and what is permitted. A model from a dataset brings its own dx, dz and, unless
/// given, zmax. The padding of the geometry is set here; whether the geometry fits is for check_geometry to say.
SynthOptions read_options(qas::Session& session);

}  // namespace morvane
