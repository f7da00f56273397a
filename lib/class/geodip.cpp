#include "lib/class/geodip.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <limits>

#include "lib/base/report.h"
#include "lib/base/warning.h"
#include "lib/class/helix/polydiv.h"
#include "lib/class/inv_tomo_mod.h"
#include "lib/class/ow_steer_parms.h"
#include "lib/corelibs/qas/messages/qaserr.h"

namespace morvane {

namespace {

/// The gradient with depth fastest, its first and last row repeated in the frames.
Array<float, 2> padded(View<const double, 2> g, std::ptrdiff_t frame) {
    const auto [nx, nz] = g.n;
    Array<float, 2> slow0({nz + 2 * frame, nx});
    for (std::ptrdiff_t ix = 0; ix < nx; ++ix)
        for (std::ptrdiff_t row = 0; row < nz + 2 * frame; ++row)
            slow0(row, ix) = static_cast<float>(g(ix, std::clamp<std::ptrdiff_t>(row - frame, 0, nz - 1)));
    return slow0;
}

/// 0 above the horizon, 1 from it on down.
Array<float, 2> horizon_mask(std::span<const float> pick, Extents<2> size) {
    Array<float, 2> mask(size);
    for (std::ptrdiff_t ix = 0; ix < size[1]; ++ix)
        for (std::ptrdiff_t row = 0; row < size[0]; ++row) {
            const bool above = static_cast<float>(row + 1) < std::trunc(pick[static_cast<std::size_t>(ix)]);
            mask(row, ix) = above ? 0.0f : 1.0f;
        }
    return mask;
}

bool all_zero(std::span<const float> samples) {
    return std::ranges::all_of(samples, [](float s) { return s == 0.0f; });
}

void write_maskout(qas::Session& session, const Axis& z, const Axis& xm, int frame, std::span<const float> slow) {
    constexpr const char* tag = "maskout";
    if (!session.exist_file(tag)) return;
    session.to_history<int>("n1", z.n + 2 * frame, tag);
    session.to_history<float>("d1", z.d, tag);
    session.to_history<float>("o1", z.o - static_cast<float>(frame) * z.d, tag);
    session.to_history<int>("n3", 1, tag);
    session.to_history<float>("d3", 1.0f, tag);
    session.to_history<float>("o3", 0.0f, tag);
    session.to_history<int>("n2", xm.n, tag);
    session.to_history<float>("d2", xm.d, tag);
    session.to_history<float>("o2", xm.o, tag);
    for (const char* unit_axis : {"4", "5"}) {
        session.to_history<int>(std::string("n") + unit_axis, 1, tag);
        session.to_history<int>(std::string("d") + unit_axis, 1, tag);
        session.to_history<int>(std::string("o") + unit_axis, 0, tag);
    }
    session.to_history<int>("esize", 4, tag);
    session.srite(tag, slow.data(), static_cast<std::int64_t>(slow.size_bytes()));
}

/// An rms narrowed to single precision.
float single_rms(double sum_of_squares, std::size_t samples, const char* what) {
    const double rms = std::sqrt(sum_of_squares / static_cast<double>(samples));
    if (std::isfinite(rms) && (rms < std::numeric_limits<float>::min() || rms > std::numeric_limits<float>::max()))
        qas::qaserr("dip filter: the rms of the %s, %g, lies outside single precision: scale rec and sou\n", what, rms);
    return static_cast<float>(rms);
}

}  // namespace

std::vector<float> owgeodip_init(std::span<const float> pick_in, bool verb) {
    if (verb)
        report({"max pick", double{*std::ranges::max_element(pick_in)}, "min pick",
                double{*std::ranges::min_element(pick_in)}});
    return {pick_in.begin(), pick_in.end()};
}

void ow_geodip(qas::Session& session, const Axis& z, const Axis& xm, int frame, std::span<const float> pick,
               View<double, 2> g, bool verb) {
    assert(g.n == (Extents<2>{xm.n, z.n}) && (pick.empty() || std::ssize(pick) == xm.n));
    if (frame < 0) qas::qaserr("frame=%d: must not be negative\n", frame);
    SteerParms parms = owsteer_parms(session, z, xm);
    const Array<float, 2> slow0 = padded(g, frame);
    const Filter filt = owfilter_init(session, z, xm, frame, parms, verb);
    if (verb) report({"initialize operators"});
    polydiv_init(filt);
    Array<float, 2> mask, slow(slow0.n());
    if (!pick.empty()) mask = horizon_mask(pick, slow0.n());
    if (all_zero(slow0.flat())) warn("dip filter: the gradient is zero everywhere");
    if (!pick.empty() && all_zero(mask.flat()))
        warn("dip filter: horv0, taken as row numbers, lies below the model and masks every sample");
    inv_tomo(filt, mask.flat(), parms.epspoly, parms.steerniter, slow.flat(), slow0.flat(), verb);
    write_maskout(session, z, xm, frame, slow.flat());

    double sum_g = 0.0, sum_slow = 0.0;
    for (int iz = 0; iz < z.n; ++iz)
        for (int ix = 0; ix < xm.n; ++ix) {
            const double s = slow(frame + iz, ix);
            sum_g += g(ix, iz) * g(ix, iz);
            sum_slow += s * s;
        }
    if (sum_slow == 0.0)
        qas::qaserr(
            "dip filter: the filtered gradient is zero in the image (steerniter=%d; the horizon masks the rest)\n",
            parms.steerniter);
    const float a1 = single_rms(sum_g, g.flat().size(), "gradient");
    const float b1 = single_rms(sum_slow, g.flat().size(), "filtered gradient");
    const float match = a1 / b1;
    for (int iz = 0; iz < z.n; ++iz)
        for (int ix = 0; ix < xm.n; ++ix) g(ix, iz) = slow(frame + iz, ix) * match;
}

}  // namespace morvane
