/// Surveys seen through a migration of their own: sums over wavenumbers in a constant medium, sharing no code with
/// morvane's.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "src/tools/morvane_synth/survey.h"

using namespace morvane;

namespace {

using cd = std::complex<double>;
constexpr double pi = std::numbers::pi, v = 2000.0, dx = 10.0, dz = 10.0;
constexpr int traces = 80, depths = 40;

struct Case {
    const char* what;
    bool areal;
    float rotate;
    int peak_row2;  ///< twice the row of the image's peak, to allow for half rows
    void (*put)(Array<float, 2>& velocity, const Axis& x);
};

SurveyData model_case(const Case& c, Geometry& g, Acquisition& a) {
    g.areal = c.areal;
    g.shot = {3, 100.0f, 300.0f, {}};
    g.trace = c.areal ? Axis{traces, 10.0f, 0.0f, {}} : Axis{traces, 10.0f, -400.0f, {}};
    g.taper = 0;
    g.pad = 0;
    a.freq = {16, 1.6f, 8.0f, {}};
    a.delay = 1.5f / a.fpeak;
    a.tmax = 0.6f;
    a.rotate = c.rotate;
    SurveyModels models;
    models.x = g.image();
    models.full = Array<float, 2>({models.x.n, depths});
    models.full.fill(float(v));
    models.start = models.reference = models.full;
    for (float& s : models.start.flat()) s = 1.0f / s;
    c.put(models.full, models.x);
    FdGrid grid;
    grid.vmax = 2600.0f;
    grid.fpeak = a.fpeak;
    grid.dt = static_cast<float>(0.9 * fd_stable_dt(dx, dz, grid.vmax));
    return model_survey(g, a, grid, models, 100.0f);
}

/// Zero-offset image (column of the image axis, depth): sum of Re(conj(S) R), S carried down by exp(+i kz z) and R by
/// exp(-i kz z).
std::vector<std::vector<double>> migrate(const Geometry& g, const Acquisition& a, const SurveyData& data) {
    const int n = 128, nf = a.freq.n, width = g.image().n;
    std::vector<std::vector<double>> image(width, std::vector<double>(depths));
    std::vector<cd> turn(n);
    for (int j = 0; j < n; ++j) turn[j] = std::polar(1.0, 2 * pi * j / n);
    for (int is = 0; is < g.shot.n; ++is)
        for (int f = 0; f < nf; ++f) {
            const double k = 2 * pi * (a.freq.o + f * double(a.freq.d)) / v;
            std::vector<cd> s(traces), r(traces);
            for (int i = 0; i < traces; ++i) {
                r[i] = cd(data.rec(i, f, is));
                if (g.areal) s[i] = cd(data.sou(i, f, is));
            }
            if (!g.areal) s[40] = cd(data.sou(0, f, 0));  // the trace at the shot
            std::vector<int> waves;
            std::vector<cd> sk, rk;
            std::vector<double> kz;
            for (int m = -n / 2; m < n / 2; ++m) {
                const double kx = 2 * pi * m / (n * dx);
                if (std::abs(kx) >= k) continue;
                cd ss = 0, rr = 0;
                for (int i = 0; i < traces; ++i) {
                    const cd e = std::conj(turn[((m * i) % n + n) % n]);
                    ss += s[i] * e;
                    rr += r[i] * e;
                }
                waves.push_back(m);
                sk.push_back(ss);
                rk.push_back(rr);
                kz.push_back(std::sqrt(k * k - kx * kx));
            }
            for (int iz = 0; iz < depths; ++iz) {
                std::vector<cd> sd(waves.size()), rd(waves.size());
                for (std::size_t j = 0; j < waves.size(); ++j) {
                    sd[j] = sk[j] * std::polar(1.0 / n, kz[j] * iz * dz);
                    rd[j] = rk[j] * std::polar(1.0 / n, -kz[j] * iz * dz);
                }
                for (int i = 0; i < traces; ++i) {
                    cd down = 0, up = 0;
                    for (std::size_t j = 0; j < waves.size(); ++j) {
                        const cd e = turn[((waves[j] * i) % n + n) % n];
                        down += sd[j] * e;
                        up += rd[j] * e;
                    }
                    const int column = g.areal ? i : i + static_cast<int>(std::lround(is * g.shot.d / dx));
                    image[column][iz] += std::real(std::conj(down) * up);
                }
            }
        }
    return image;
}

void point(Array<float, 2>& model, const Axis& x) {
    const auto column = std::lround((430 - x.o) / x.d);  // off the middle: a mirrored line would image elsewhere
    for (int iz = 19; iz <= 21; ++iz)
        for (long ix = column - 1; ix <= column + 1; ++ix) model(ix, iz) = 2300.0f;
}

void layer(Array<float, 2>& model, const Axis& x) {
    for (int ix = 0; ix < x.n; ++ix) model(ix, 20) = 2200.0f;
}

void half_space(Array<float, 2>& model, const Axis& x) {
    for (int iz = 20; iz < depths; ++iz)
        for (int ix = 0; ix < x.n; ++ix) model(ix, iz) = 2300.0f;
}

const Case thin_layer{"thin layer", false, -90.0f, 40, layer};
const Case thin_layer_areal{"thin layer, areal", true, -90.0f, 40, layer};
const Case interface { "interface between rows 19 and 20", false, 0.0f, 39, half_space };

}  // namespace

// A wrong sign of the transform, of the source's phase or of the time axis moves or splits the peak, or turns it over.
TEST(Focus, ReflectorsPeakAtTheirDepth) {
    for (const Case& c : {thin_layer, thin_layer_areal, interface}) {
        SCOPED_TRACE(c.what);
        Geometry g;
        Acquisition a;
        const SurveyData data = model_case(c, g, a);
        const auto image = migrate(g, a, data);
        const int column = static_cast<int>(std::lround((400 - g.image().o) / dx));  // under the middle shot
        const std::vector<double>& trace = image[column];
        const int peak = static_cast<int>(std::max_element(trace.begin() + 3, trace.end()) - trace.begin());
        // parabola through the peak and its neighbours
        const double l = trace[peak - 1], m = trace[peak], r = trace[peak + 1];
        EXPECT_NEAR(2 * (peak + 0.5 * (l - r) / (l - 2 * m + r)), c.peak_row2, 0.6);
        for (int away : {-5, 5}) EXPECT_LT(std::abs(trace[peak + away]), 0.6 * m);
        EXPECT_GT(m, -*std::min_element(trace.begin() + 3, trace.end()));
    }
}

TEST(Focus, ADiffractorImagesWhereItIs) {
    const Case c{"point", false, -90.0f, 40, point};
    Geometry g;
    Acquisition a;
    const SurveyData data = model_case(c, g, a);
    const auto image = migrate(g, a, data);
    int best_x = 0, best_z = 3;
    for (int ix = 0; ix < g.image().n; ++ix)
        for (int iz = 3; iz < depths; ++iz)
            if (image[ix][iz] > image[best_x][best_z]) best_x = ix, best_z = iz;
    EXPECT_NEAR(g.image().o + best_x * dx, 430, 10);
    EXPECT_NEAR(best_z * dz, 200, 10);
}
