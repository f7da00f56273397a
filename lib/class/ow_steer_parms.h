#pragma once
/// Parameters of the dip filter, and the dips themselves.
#include "lib/base/axis.h"
#include "lib/class/filters_mod.h"
#include "lib/corelibs/qas/session.h"

namespace morvane {

struct SteerParms {
    int steerniter = 15;     ///< solver iterations
    float epspoly = 100.0f;  ///< weight of the regularisation
    int ndim_mod = 1;        ///< kept
    float epsflt = 1.0f;     ///< printed and kept
    FilterChoice filters{0.0f, 0.999f, 0, 0, 1.25f, false};
};

/// Check, without recording anything, that a run with these axes can filter: keys, header and dips of "dipfile"; the
/// filter is built and dropped. Dips from a pipe go to a scratch file, since each gradient reads them again. Throws the
/// message that owsteer_parms or owfilter_init would throw.
void owsteer_check(qas::Session& session, const Axis& z, const Axis& xm, int frame);

/// Read "steerniter", "epspoly" and "ndim_mod", and compare the axes of "dipfile" with those of the image.
SteerParms owsteer_parms(qas::Session& session, const Axis& z, const Axis& xm);

/// Read the other keys ("lap_lags", "steer_lags", "tri_width", "lap_factor", "steer_factor", "epsflt", and
/// "steer_triangle" if given) into `parms`, then the dips of "dipfile" from its start, and build the filter of the
/// panel that is padded by `frame` rows at each end; the frames take the dips of the first and last row. "dipfile":
/// degrees from -90 to 90, depth fastest, positive where an event grows deeper with the midpoint; 45 degrees is one
/// depth sample per column, whatever their lengths. With `verb` the values are printed on standard error.
Filter owfilter_init(qas::Session& session, const Axis& z, const Axis& xm, int frame, SteerParms& parms, bool verb);

}  // namespace morvane
