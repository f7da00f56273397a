#pragma once
/// The run parameters and shared axes as values: filled once at the start of a run, read-only from then on.
#include <limits>
#include <string>
#include <vector>

#include "lib/base/array.h"
#include "lib/base/axis.h"

namespace morvane {

struct DatGrid {
    Axis w, h, xd;  ///< frequency, trace within a shot, shot
};
struct ModGrid {
    Axis z, sh, xm, ym, th;  ///< depth, subsurface offset, midpoint, crossline midpoint, time shift
};
struct Velo {
    Axis z, xm, ym;  ///< depth, midpoint, crossline midpoint
};

inline constexpr int not_given = 99999;     ///< nxk, nyk, nzk, nxfilt, zwgt: absent
inline constexpr int node_default = 9999;   ///< node: take the runtime's team size
inline constexpr float pi_f = 3.14159274f;  ///< single-precision pi, bit pattern 0x40490fdb

/// Values that are read or derived, and take part in histories and listings, but decide nothing.
struct Kept {
    std::string sufx = "_", cgsolv = "      ";
    float epscg = 1.0f;
    bool smooth = true;
    int serg_na = 8, serg_niter = 30, dip_niter = 100;
    float serg_epsh = 0.01f, serg_eps1 = 0.002f, serg_eps2 = 0.002f, dip_eps = 10.0f;
    bool moddso = false, envelope = false, born2 = false, resmig = false, resmig_lin = false, impulse = false;
    float maxvchg = 0.15f, beta = 0.1f, rho = 1.0f;
    int freq = 0;
    float ymin = 0.0f, ymax = 0.0f;
    float maxang = 89.0f, damp = 25000.0f, thresh = 0.33f;
    bool zweight = false, icwind = false;
    int n_sampt = 0, n_wind = 0;  ///< of icwind
    int nh0 = 0, nwbott = 1;
    float dwbott = 0.0f;
    Axis ksh;                             ///< offset wavenumbers, as Parms::kz
    Axis ayk{not_given, 1.0f, 0.0f, {}};  ///< crossline knots
};

/// What a stage narrows. A default-constructed value narrows nothing.
struct StageLimits {
    float fmin = -std::numeric_limits<float>::infinity();  ///< frequencies that count, cycles/s
    float fmax = std::numeric_limits<float>::infinity();
    int first_frequency = 0, end_frequency = 0;  ///< their indices in rec.w; an end of 0: all
    int panel_offsets = 0;                       ///< offsets of the outputs' panels; 0: as many as the stage has
    float p_up = 0.0f, p_lo = 0.0f;              ///< bounds, as the run's keys; 0: those of the run
    bool bounds_of_stage = false;                ///< relative to the start model of the stage, not of the run
};

/// All run parameters. A default-constructed value holds the defaults, so a test sets only what it needs.
struct Parms {
    DatGrid rec;  ///< rec.w in rad/s (o, d and all) after owparam
    DatGrid sou;  ///< sou.w stays in cycles/s
    ModGrid img;
    Velo v;
    Axis kxm;  ///< lateral wavenumbers in transform order: all in rad/length; d and o in cycles/length
    Axis kz;   ///< depth wavenumbers in transform order: all in rad/length; d the first difference
    Axis axk{not_given, 1.0f, 0.0f, {}};  ///< spline knots across the line, n = not_given without a key
    Axis azk{not_given, 1.0f, 0.0f, {}};  ///< knots in depth

    bool vspl = false;  ///< spline-only path: just v, node, the knots, xv_min and xv_max are set
    bool dipflt = false;
    int frame = 50;
    bool dot = false, adj = true, inversion = false, dso = false, l1norm = false;
    int windx = 11, windh = 3, windz = 11;
    std::string extrap = "ffd";
    float zwgt = 99999.0f;
    int dipop = 45;
    float trick = 0.14f;
    float expdso = 0.0f;  ///< 0 unless dso is true
    int tc1 = 25, tc2 = 5;
    bool migration = false, areal = true, timeshift = false;
    std::string imgcon = "imgprim";
    float zmin = 0.0f, zmax = 0.0f;
    int node = node_default;
    int niter = 5;
    int nxfilt = not_given;
    int tapertr = 0, padtraces = 0;
    int nxw = 31, nah = 41, nax = 21;
    float dah = 2.0f, oah = -40.0f, dax = 2.0f, oax = -10.0f;
    float xv_min = 0.0f, xv_max = 0.0f;
    int nref = 1;
    bool lloyd = false;
    float min_r_pct = 0.01f, min_s_pct = 0.09f;
    bool perc_start = false;
    float slow_own = -1.0f;
    int niter_over = -1;
    float vsal = 0.0f;

    std::string gradient = "classic";                          ///< or "exact": the derivative of the reported fun
    bool normalise = false;                                    ///< exact: fun divided by the energy of the image
    float fun_xmin = -std::numeric_limits<float>::infinity();  ///< exact: columns outside do not count in fun
    float fun_xmax = std::numeric_limits<float>::infinity();
    int depthdiff = 0;                 ///< exact: differences of the image in depth before the weight
    float regularise = 0.0f;           ///< exact: weight of the model's roughness in fun; 0: none
    float reg_x = 0.0f, reg_z = 0.0f;  ///< lengths over which a relative change of 0.1 counts as one
    bool fit = false;                  ///< exact: predict the data from the image and compare
    bool course = false;               ///< exact: a file with a row for each evaluation
    bool stops_by_fit = false;         ///< exact: stop=fit
    float stop_rise = 0.001f;          ///< the run ends when fit has risen by less ...
    int stop_patience = 2;             ///< ... over so many accepted models
    bool light = false;                ///< illumination compensation of the stacked image
    float firststep = 0.0f;     ///< largest relative change of slowness in the first trial; 0: as the solver takes it
    bool reproducible = false;  ///< exact: the same bits for any number of threads and ranks
    std::string keep = "n";     ///< exact: background fields for the gradient pass: n, auto or a number of GB
    StageLimits limits;         ///< of the stage
    std::string fftplan = "auto";  ///< planning of the transforms: auto, patient or estimate
    std::string checkpoint;        ///< file to go on from later; empty: none is written
    float checkpoint_minutes = 10.0f;
    std::string resume = "n";  ///< y: go on from the checkpoint; auto: if it is there
    bool progress = true;      ///< a line that tells how far the run is
    bool quiet = false;        ///< no lines of progress on standard error
    bool strict = false;       ///< a run that got nowhere is an error
    bool check_signs = true;   ///< look at a few shots with other signs before evaluation 1

    int nz = 0, nzmin = 1, nzmax = 0, isp = 1;
    int nsecdim = 1;
    float dsecdim = 1.0f, osecdim = 0.0f;
    Kept kept;

    /// The frequencies that are read and computed, from 0.
    int first_frequency() const { return limits.first_frequency; }
    int end_frequency() const { return limits.end_frequency > 0 ? limits.end_frequency : rec.w.n; }
    bool spline_grad() const { return axk.n != not_given || azk.n != not_given; }
    bool exact() const { return gradient == "exact"; }
    /// Whether image column ix, from 0, counts in fun.
    bool counts_in_fun(int ix) const {
        const float x = static_cast<float>(ix) * img.xm.d + img.xm.o;
        return x >= fun_xmin && x <= fun_xmax;
    }
    /// Whether the image is divided by the illumination, which then is an output too.
    bool compensates() const { return light && !timeshift; }
    bool ffd() const { return extrap.starts_with("ffd"); }
    bool pspi() const { return extrap.starts_with("pspi"); }
};

}  // namespace morvane
