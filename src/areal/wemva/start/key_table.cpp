#include "src/areal/wemva/start/key_table.h"

#include "lib/base/warning.h"
#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/messages.h"

namespace morvane {

namespace {

using qas::Key;
using qas::KeyGroup;
using enum qas::KeyType;

KeyGroup datasets() {
    return {
        "Datasets: header files",
        {
            {"vel", input, "", "vel", "", "start model: slowness, n1 lateral, n3 depth"},
            {"rec", input, "", "rec", "", "receiver wavefields: complex, n1 traces, n3 frequencies, n4 shots"},
            {"sou", input, "", "sou", "", "source wavefields as rec (areal=y), or one source function (areal=n)"},
            {"deltaI", input, "", "deltaI", "", "image grid, outside inversion, dot and migration with adj=y"},
            {"deltaS", input, "", "deltaS", "", "must match vel, outside inversion, dot and migration with adj=n"},
            {"Velout", output, "", "Velout", "", "model of each evaluation as velocity; the last panel is the result"},
            {"grad", output, "", "grad", "", "gradient of each evaluation"},
            {"bkgimg", output, "", "bkgimg", "", "image of each evaluation: n1 lateral, n2 offset, n3 depth"},
            {"Dimage", output, "", "Dimage", "", "image residual of each evaluation, as bkgimg"},
            {"illum", output, "", "illum", "light", "illumination up to each evaluation: n1 lateral, n3 depth"},
            {"ddws", output, "", "", "", "wavefields of the gradient, complex: source side"},
            {"ddwr", output, "", "", "", "the same: receiver side"},
            {"ddwsz", output, "", "", "ddws or ddwr", "the same: source side, scattered again"},
            {"ddwrz", output, "", "", "ddws or ddwr", "the same: receiver side, scattered again"},
            {"dws", output, "", "", "", "header only"},
            {"dwr", output, "", "", "", "header only"},
            {"xxx", output, "", "", "", "debugging: start model on the image grid as velocity"},
            {"zzz", output, "", "", "areal=n", "debugging: model window of each shot and pass as velocity"},
        }};
}

KeyGroup the_run() {
    return {"The run",
            {
                {"niter", integer, "", "5", "", "accepted steps after which the run ends; 0: start-up only"},
                {"mmax", integer, "", "10", "", "correction pairs that the solver keeps"},
                {"log", text, "", "log", "", "iteration log: one line per evaluation and accepted step"},
                {"list", text, "", "listagem", "", "file of the progress listing, with times"},
                {"node", integer, "", "9999", "", "threads; 9999: as many as the runtime gives"},
                {"bounds", logical, "", "n", "", "bounds on the slowness"},
                {"cbounds", logical, "", "n", "bounds", "the same bounds everywhere: 1/vmax to 1/vmin"},
                {"vmin", real, "velocity", "required", "cbounds", "smallest velocity"},
                {"vmax", real, "velocity", "required", "cbounds", "largest velocity"},
                {"p_up", real, "", "required", "bounds without cbounds", "upper bound: percent, or below 1 a factor"},
                {"p_lo", real, "", "required", "bounds without cbounds", "lower bound: percent, or below 1 a factor"},
                {"horv0", text, "", "", "", "horizon, a depth for each column: the model above it stays"},
            }};
}

KeyGroup modes() {
    return {"Modes",
            {
                {"vspl", presence, "", "", "", "read axes and knots only, and end with a message"},
                {"inversion", logical, "", "n", "", "y in every run: image grid from the data, headers of the outputs"},
                {"dso", logical, "", "n", "", "y in every run: penalise energy away from zero offset"},
                {"migration", logical, "", "n", "", "forward image with the phase sqrt(w) exp(-i pi/4)"},
                {"areal", logical, "", "y", "", "y: wavefields over the line; n: a window for each shot, one source"},
                {"timeshift", logical, "", "n", "", "time shifts instead of offsets"},
                {"imgcon", text, "", "imgprim", "", "imaging condition: imgprim or imgmult"},
                {"l1norm", logical, "", "n", "", "sum of absolute values, the residual reweighted by its envelope"},
                {"dot", logical, "", "n", "", "choice of headers only"},
                {"adj", logical, "", "y", "", "choice of headers only"},
            }};
}

KeyGroup geometry() {
    return {"Geometry and margins",
            {
                {"zmin", real, "length", "0", "", "top of the image, that of vel"},
                {"zmax", real, "length", "0", "", "bottom of the image; in practice always given"},
                {"traces_in_taper", integer, "traces", "0", "", "lateral taper, on each side"},
                {"padtraces", integer, "traces", "traces_in_taper", "", "further margin, on each side"},
                {"wbott", real, "length", "0", "", "water bottom; kept"},
                {"xv_min", real, "length", "10 columns inside the image", "inversion or deltaI",
                 "limit of a horizon edit; kept"},
                {"xv_max", real, "length", "10 columns inside the image", "inversion or deltaI",
                 "limit of a horizon edit; kept"},
                {"ymin", real, "length", "0", "", "printed only"},
                {"ymax", real, "length", "0", "", "printed only"},
            }};
}

KeyGroup objective() {
    return {"Second image axis and objective",
            {
                {"nh", integer, "", "1", "not timeshift", "subsurface half-offsets, an odd number"},
                {"jh", integer, "traces", "1", "not timeshift", "their spacing"},
                {"dh", real, "length", "jh traces", "not timeshift", "their spacing"},
                {"oh", real, "length", "-(nh/2) dh", "not timeshift", "the first one"},
                {"nth", integer, "", "121", "timeshift", "time shifts"},
                {"oth", real, "time", "-0.24", "timeshift", "the first one"},
                {"dth", real, "time", "0.004", "timeshift", "their spacing"},
                {"expdso", real, "", "1", "dso", "exponent of the weight |h / max h|"},
                {"windx", integer, "samples", "11", "", "l1norm: half-width of the envelope along midpoint"},
                {"windh", integer, "samples", "3", "", "l1norm: the same along offset or time shift"},
                {"windz", integer, "samples", "11", "", "l1norm: the same along depth"},
                {"nxfilt", integer, "", "99999", "", "any other value: f-x prediction of the residual across offset"},
                {"maxvchg", real, "", "0.15", "dso", "kept"},
                {"moddso", logical, "", "n", "dso", "reads beta; kept"},
                {"envelope", logical, "", "n", "dso", "reads tc1, tc2, freq; kept"},
                {"tc1", integer, "", "25", "envelope", "kept"},
                {"tc2", integer, "", "5", "envelope", "kept"},
                {"freq", integer, "", "0", "envelope", "kept"},
                {"beta", real, "", "0.1", "moddso", "kept"},
                {"born2", logical, "", "n", "", "kept"},
                {"resmig", logical, "", "n", "inversion without dso", "kept"},
                {"rho", real, "", "1", "inversion without dso", "kept"},
                {"resmig_lin", logical, "", "n", "inversion without dso and resmig", "kept"},
                {"zwgt", real, "", "99999", "", "exponent of a depth weight that the run does not apply"},
            }};
}

KeyGroup extrapolation() {
    return {"Extrapolation",
            {
                {"extrapolator", text, "", "ffd", "", "ffd or pspi"},
                {"dipop", integer, "degrees", "45", "ffd", "dip limit: 15, 45, 65, 79, 80, 87, 89 or 90"},
                {"trick", real, "", "0.14", "ffd", "term added to the finite-difference operator"},
                {"nrefvel", integer, "", "1", "pspi", "reference slownesses of a level"},
                {"vsal", real, "velocity", "required", "pspi without lloyd", "from it on a body counts as fast"},
                {"lloyd", logical, "", "n", "pspi", "references by clustering each level of the start model"},
                {"min_region_pct", real, "percent", "1", "lloyd", "smallest share of a level that makes a region"},
                {"min_slow_dev", real, "percent", "9", "lloyd", "smallest difference of neighbouring regions"},
                {"perc_start", logical, "", "n", "lloyd", "start at quantiles, not evenly"},
                {"vel_own", real, "velocity", "-1", "lloyd", "velocity with a region of its own; -1: none"},
                {"niter_lloyd", integer, "", "-1", "lloyd", "passes of the clustering; -1: 30"},
                {"icwind", logical, "", "n", "", "reads deltat and dt; kept"},
                {"deltat", real, "time", "0.048", "icwind", "kept"},
                {"dt", real, "time", "0.008", "icwind", "kept"},
            }};
}

KeyGroup gradient() {
    KeyGroup group{"Gradient", {}};
    for (const char* axis : {"x", "z", "y"}) {
        const std::string name = axis;
        const std::string what = name == "x"   ? "lateral spline knots"
                                 : name == "z" ? "spline knots in depth"
                                               : "crossline knots; kept";
        group.keys.push_back({"n" + name + "k", integer, "", "99999", "", what + (name == "y" ? "" : "; 99999: none")});
        group.keys.push_back({"d" + name + "k", real, "length", "1", "", name == "y" ? "kept" : "their distance"});
        group.keys.push_back({"o" + name + "k", real, "length", "0", "", name == "y" ? "kept" : "the first one"});
    }
    const std::vector<Key> others = {
        {"dipflt", logical, "", "n", "", "smooth the gradient along the dips of dipfile"},
        {"frame", integer, "samples", "50", "dipflt", "rows that the dip filter adds above and below the image"},
        {"epscg", real, "", "1", "", "kept"},
        {"cgsolv", text, "", "", "", "kept"},
        {"smooth", logical, "", "y", "", "guards the next; kept"},
        {"serg_na", integer, "", "8", "smooth", "kept"},
        {"serg_epsh", real, "", "0.01", "smooth", "kept"},
        {"serg_niter", integer, "", "30", "smooth", "kept"},
        {"serg_eps1", real, "", "0.002", "smooth", "kept"},
        {"serg_eps2", real, "", "0.002", "smooth", "kept"},
        {"dip_niter", integer, "", "100", "smooth", "kept"},
        {"dip_eps", real, "", "10", "smooth", "kept"},
    };
    group.keys.insert(group.keys.end(), others.begin(), others.end());
    return group;
}

KeyGroup dip_filter() {
    return {
        "Dip filter, with dipflt=y",
        {
            {"dipfile", input, "", "dipfile", "", "dips in degrees, positive downwards with x, n1 depth, n2 lateral"},
            {"steer_lags", integer, "samples", "0", "", "coefficients per sample; has to be given"},
            {"steer_factor", real, "", "0.999", "", "decay of the filter from column to column"},
            {"steer_triangle", logical, "", "n", "", "coefficients from a triangle around the dip"},
            {"tri_width", real, "samples", "2.5", "", "steer_triangle: its full width"},
            {"lap_lags", integer, "", "0", "", "coefficients of a factor of the Laplacian, even"},
            {"lap_factor", real, "", "0", "", "its share"},
            {"steerniter", integer, "", "15", "", "iterations"},
            {"epspoly", real, "", "100", "", "weight of the regularisation"},
            {"maskout", output, "", "", "", "filtered gradients before their rms is matched"},
            {"epsflt", real, "", "1", "", "printed only"},
            {"ndim_mod", integer, "", "1", "", "kept"},
        }};
}

KeyGroup prediction() {
    return {"f-x prediction, with nxfilt",
            {{"oper-fxdecon.H", output, "", "oper-fxdecon.H", "", "prediction filters of each evaluation"}}};
}

KeyGroup kept() {
    return {"Other keys that are kept",
            {
                {"sufx", text, "", "_", "", "kept"},
                {"impulse", logical, "", "n", "", "kept"},
                {"zweight", logical, "", "n", "", "kept"},
                {"maxang", real, "", "89", "", "kept"},
                {"damp", real, "", "25000", "", "kept"},
                {"thresh", real, "", "0.33", "timeshift", "kept"},
                {"nxw", integer, "", "31", "timeshift", "kept"},
                {"nah", integer, "", "41", "timeshift", "kept"},
                {"dah", real, "", "2", "timeshift", "kept"},
                {"oah", real, "", "-40", "timeshift", "kept"},
                {"nax", integer, "", "21", "timeshift", "kept"},
                {"dax", real, "", "2", "timeshift", "kept"},
                {"oax", real, "", "-10", "timeshift", "kept"},
            }};
}

KeyGroup own() {
    return {
        "Own keys, beyond the classic set",
        {
            {"gradient", text, "", "classic", "", "classic, or exact: the derivative of fun"},
            {"firststep", real, "", "", "", "largest relative change of slowness in the first trial; less than 1"},
            {"normalise", logical, "", "n", "gradient=exact", "fun is divided by the energy of the image"},
            {"fun_xmin", real, "length", "", "gradient=exact", "only columns from it on count in fun"},
            {"fun_xmax", real, "length", "", "gradient=exact", "only columns up to it count in fun"},
            {"depthdiff", integer, "", "0", "gradient=exact", "central differences of the image in depth, 0 to 2"},
            {"regularise", real, "", "0", "gradient=exact", "weight of the roughness of the model's change in fun"},
            {"reg_x", real, "length", "dxk", "regularise", "lateral length over which a change of 0.1 counts as one"},
            {"reg_z", real, "length", "dzk", "regularise", "the same in depth"},
            {"fit", logical, "", "n", "gradient=exact", "predict data from each image and compare them with rec"},
            {"course", text, "", "", "gradient=exact", "file (CSV) with a row for each evaluation"},
            {"best", output, "", "", "gradient=exact", "slowness of the accepted model of the greatest fit"},
            {"stop", text, "", "", "gradient=exact", "fit: end the run when fit no longer rises"},
            {"stop_rise", real, "", "0.001", "stop", "rise of fit that is too little"},
            {"stages", text, "", "", "gradient=exact", "file: a line of key=value words for each stage of the run"},
            {"stop_patience", integer, "", "2", "stop", "accepted models over which it is taken"},
            {"fftplan", text, "", "auto", "", "planning of transforms: auto, patient or estimate"},
            {"light", logical, "", "n", "gradient=classic", "illumination compensation of the image; writes illum"},
            {"accepted", output, "", "", "", "accepted models as velocity; the last panel is the result"},
            {"checkpoint", text, "", "", "",
             "file that a run goes on from after a kill or signal; FILE.1: the one before"},
            {"checkpoint_minutes", real, "minutes", "10", "checkpoint",
             "time between two of them; 0: before each shot"},
            {"resume", text, "", "n", "checkpoint", "y: go on from the checkpoint; auto: if it is there, else begin"},
            {"reproducible", logical, "", "n", "gradient=exact", "the same bits for any number of threads and ranks"},
            {"keep", text, "GB", "n", "gradient=exact",
             "memory for fields that the gradient pass takes from the migration; auto: half of what is free"},
            {"progress", logical, "", "y", "", "tell on the standard error how far the run is, once a minute"},
            {"quiet", logical, "", "n", "", "no lines of progress on the standard error"},
            {"check_signs", logical, "", "y", "",
             "before evaluation 1, migrate a few shots with other signs and warn if they focus better"},
            {"strict", logical, "", "n", "", "unknown keys are errors, and a run that got nowhere ends with status 3"},
        }};
}

}  // namespace

std::vector<KeyGroup> run_keys() {
    return {datasets(), the_run(),    modes(),      geometry(), objective(), extrapolation(),
            gradient(), dip_filter(), prediction(), kept(),     own()};
}

void check_keys(qas::Session& session, const qas::KeyTable& keys) {
    session.declare(keys);
    const std::vector<std::string> unread = session.unread();
    if (unread.empty()) return;
    if (!session.getch<bool>("strict").value_or(false)) {
        for (const std::string& message : unread) warn("%s", message.c_str());
        return;
    }
    std::string all;
    for (const std::string& message : unread) all += (all.empty() ? "" : "\n  ") + message;
    refuse("strict=y: %s", all.c_str());
}

}  // namespace morvane
