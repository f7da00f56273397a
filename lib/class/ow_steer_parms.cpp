#include "lib/class/ow_steer_parms.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string_view>
#include <vector>

#include "lib/class/report.h"
#include "lib/corelibs/qas/qaserr.h"

namespace {

constexpr std::string_view dipfile = "dipfile";

/// Looks keys up, recording them in the history of "out" or not.
struct Keys {
    qas::Session& session;
    bool record;
    template <class T>
    T get(std::string_view key, const T& otherwise) const {
        return record ? session.from_param<T>(key, otherwise) : session.getch<T>(key).value_or(otherwise);
    }
};

SteerParms solver_keys(const Keys& keys) {
    SteerParms parms;
    parms.steerniter = keys.get("steerniter", parms.steerniter);
    parms.epspoly = keys.get("epspoly", parms.epspoly);
    parms.ndim_mod = keys.get("ndim_mod", parms.ndim_mod);
    return parms;
}

void filter_keys(const Keys& keys, SteerParms& parms) {
    FilterChoice& filters = parms.filters;
    filters.laplacian_lags = keys.get("lap_lags", filters.laplacian_lags);
    filters.steering_lags = keys.get("steer_lags", filters.steering_lags);
    filters.half_width = keys.get("tri_width", 2.5f) * 0.5f;
    filters.laplacian_scale = keys.get("lap_factor", filters.laplacian_scale);
    filters.steering_scale = keys.get("steer_factor", filters.steering_scale);
    parms.epsflt = keys.get("epsflt", parms.epsflt);
    if (keys.session.exist_file("steer_triangle")) filters.triangle = keys.get("steer_triangle", false);
}

void check_axes(qas::Session& session, const Axis& z, const Axis& xm) {
    const int n1 = session.from_aux<int>(dipfile, "n1"), n2 = session.from_aux<int>(dipfile, "n2");
    const float o1 = session.from_aux<float>(dipfile, "o1"), o2 = session.from_aux<float>(dipfile, "o2");
    const float d1 = session.from_aux<float>(dipfile, "d1"), d2 = session.from_aux<float>(dipfile, "d2");
    if (n2 != xm.n) qas::qaserr("Nx dip file .ne. nx image space");
    if (n1 != z.n) qas::qaserr("Nz dip file .ne. nz image space");
    if (d2 != xm.d) qas::qaserr("Dx dip file .ne. dx image space");
    if (d1 != z.d) qas::qaserr("Dz dip file .ne. dz image space");
    if (o2 != xm.o) qas::qaserr("Ox dip file .ne. ox image space");
    if (o1 != z.o) qas::qaserr("Oz dip file .ne. oz image space");
}

void check_filters(const FilterChoice& filters, int column) {
    if (filters.steering_lags < 0 || filters.steering_lags > column)
        qas::qaserr("steer_lags=%d: must be from 0 to the %d samples of a column\n", filters.steering_lags, column);
    init_filters(filters);
}

std::vector<float> read_dips(qas::Session& session, int n1, int n2) {
    std::vector<float> tangle(static_cast<std::size_t>(n1) * static_cast<std::size_t>(n2));
    session.sseek(dipfile, 0, 0);  // the same dips for each gradient
    session.sreed(dipfile, tangle.data(), static_cast<std::int64_t>(tangle.size() * sizeof(float)));
    const auto bad = std::ranges::count_if(tangle, [](float dip) { return std::isnan(dip); });
    if (bad > 0) qas::qaserr("dipfile: %lld of %zu dips are not numbers\n", static_cast<long long>(bad), tangle.size());
    return tangle;
}

}  // namespace

void owsteer_check(qas::Session& session, const Axis& z, const Axis& xm) {
    const Keys keys{session, false};
    SteerParms parms = solver_keys(keys);
    check_axes(session, z, xm);
    filter_keys(keys, parms);
    check_filters(parms.filters, z.n);
}

SteerParms owsteer_parms(qas::Session& session, const Axis& z, const Axis& xm) {
    const SteerParms parms = solver_keys({session, true});
    check_axes(session, z, xm);
    return parms;
}

Filter owfilter_init(qas::Session& session, const Axis& z, const Axis& xm, int frame, SteerParms& parms) {
    filter_keys({session, true}, parms);
    const FilterChoice& filters = parms.filters;
    report({"width lap_factor lap_lags", 2.0 * filters.half_width, double{filters.laplacian_scale},
            static_cast<long long>(filters.laplacian_lags)});
    report({"steerlags steer_factor eps", static_cast<long long>(filters.steering_lags), double{filters.steering_scale},
            double{parms.epsflt}});
    check_filters(filters, z.n);

    const int n1 = session.from_aux<int>(dipfile, "n1"), n2 = session.from_aux<int>(dipfile, "n2");
    const int n3 = session.from_aux<int>(dipfile, "n3", 1);
    const int nz_mod = z.n + 2 * frame, nx_mod = xm.n;
    if (n1 + 2 * frame != nz_mod || n2 != nx_mod || n3 != 1) {
        const auto size = [](int n) { return static_cast<long long>(n); };
        report({"Angles", size(n1 + 2 * frame), size(n2), size(n3), "model", size(nz_mod), size(nx_mod), size(1)});
        qas::qaserr("angles not the same size as model");
    }
    const std::vector<float> tangle = read_dips(session, n1, n2);
    Array<float, 2> angles({nz_mod, nx_mod});
    for (int ix = 0; ix < nx_mod; ++ix)
        for (int iz = 0; iz < nz_mod; ++iz) {
            const int row = std::clamp(iz - frame, 0, n1 - 1);
            angles(iz, ix) =
                tangle[static_cast<std::size_t>(ix) * static_cast<std::size_t>(n1) + static_cast<std::size_t>(row)];
        }
    return new_steering(filters, {nz_mod, nx_mod}, {1, 1}, angles.flat());
}
