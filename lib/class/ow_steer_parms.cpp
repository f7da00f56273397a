#include "lib/class/ow_steer_parms.h"

#include <algorithm>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

#include "lib/base/array.h"
#include "lib/base/report.h"
#include "lib/class/helix/polydiv.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

constexpr std::string_view dipfile = "dipfile";

/// Looks keys up, recording them in the history of "out" or not.
struct Keys {
    qas::Session& session;
    bool record;
    template <class T>
    T get(const char* key, const T& otherwise) const {
        const T value = record ? session.from_param<T>(key, otherwise) : session.getch<T>(key).value_or(otherwise);
        if constexpr (std::same_as<T, float>)
            if (!std::isfinite(value)) qas::qaserr("%s=%g: a finite number is needed\n", key, value);
        return value;
    }
};

SteerParms solver_keys(const Keys& keys) {
    SteerParms parms;
    parms.steerniter = keys.get("steerniter", parms.steerniter);
    if (parms.steerniter < 1)
        qas::qaserr("steerniter=%d: 1 or more iterations are needed, or the filtered gradient is zero\n",
                    parms.steerniter);
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
    if (filters.triangle && !(filters.half_width > 0.0f))
        qas::qaserr("tri_width=%g: must be greater than 0\n", 2.0 * filters.half_width);
    if (filters.steering_lags < 0 || filters.steering_lags > column)
        qas::qaserr("steer_lags=%d: must be from 0 to the %d samples of a column\n", filters.steering_lags, column);
    init_filters(filters);
}

/// The panel has one dip for each sample of the image.
void check_size(qas::Session& session, const Axis& z, const Axis& xm, int frame) {
    const int n1 = session.from_aux<int>(dipfile, "n1"), n2 = session.from_aux<int>(dipfile, "n2");
    const int n3 = session.from_aux<int>(dipfile, "n3", 1);
    if (n1 == z.n && n2 == xm.n && n3 == 1) return;
    const auto size = [](int n) { return static_cast<long long>(n); };
    report({"Angles", size(n1 + 2 * frame), size(n2), size(n3), "model", size(z.n + 2 * frame), size(xm.n), size(1)});
    qas::qaserr("angles not the same size as model");
}

/// (n1, n2) dips, depth fastest; those of a steering filter lie within their range.
Array<float, 2> read_dips(qas::Session& session, int n1, int n2, bool steering) {
    Array<float, 2> tangle({n1, n2});
    const auto dips = tangle.view().flat();
    session.sseek(dipfile, 0, 0);  // the same dips for each gradient
    session.sreed(dipfile, dips.data(), static_cast<std::int64_t>(dips.size_bytes()));
    const auto count = [&](const auto& wrong) { return static_cast<long long>(std::ranges::count_if(dips, wrong)); };
    if (const auto bad = count([](float dip) { return std::isnan(dip); }); bad > 0)
        qas::qaserr("dipfile: %lld of %zu dips are not numbers\n", bad, dips.size());
    if (const auto bad = count([](float dip) { return std::abs(dip) > 90.0f; }); steering && bad > 0) {
        const auto [least, most] = std::ranges::minmax(dips);
        report({"dipfile: dips beyond 90 degrees", bad, "of", static_cast<long long>(dips.size()), "least",
                double{least}, "largest", double{most}});
    }
    return tangle;
}

Filter make_filter(qas::Session& session, const Axis& z, const Axis& xm, int frame, const FilterChoice& filters) {
    check_filters(filters, z.n);
    check_size(session, z, xm, frame);
    const Array<float, 2> tangle = read_dips(session, z.n, xm.n, filters.steering_lags != 0);
    Array<float, 2> angles({z.n + 2 * frame, xm.n});
    for (int ix = 0; ix < xm.n; ++ix)
        for (int row = 0; row < z.n + 2 * frame; ++row)
            angles(row, ix) = tangle(std::clamp(row - frame, 0, z.n - 1), ix);
    return new_steering(filters, {z.n + 2 * frame, xm.n}, {1, 1}, angles.flat());
}

}  // namespace

void owsteer_check(qas::Session& session, const Axis& z, const Axis& xm, int frame) {
    const Keys keys{session, false};
    SteerParms parms = solver_keys(keys);
    check_axes(session, z, xm);
    filter_keys(keys, parms);
    session.make_unpipe(dipfile);
    polydiv_init(make_filter(session, z, xm, frame, parms.filters));
}

SteerParms owsteer_parms(qas::Session& session, const Axis& z, const Axis& xm) {
    const SteerParms parms = solver_keys({session, true});
    check_axes(session, z, xm);
    return parms;
}

Filter owfilter_init(qas::Session& session, const Axis& z, const Axis& xm, int frame, SteerParms& parms, bool verb) {
    filter_keys({session, true}, parms);
    const FilterChoice& filters = parms.filters;
    if (verb) {
        report({"width lap_factor lap_lags", 2.0 * filters.half_width, double{filters.laplacian_scale},
                static_cast<long long>(filters.laplacian_lags)});
        report({"steerlags steer_factor eps", static_cast<long long>(filters.steering_lags),
                double{filters.steering_scale}, double{parms.epsflt}});
    }
    return make_filter(session, z, xm, frame, filters);
}

}  // namespace morvane
