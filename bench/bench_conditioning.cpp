// What an evaluation does to image and gradient beside the wavefields, for four shots of the demo's survey, and one of
// those shots (migration and classic gradient) to compare with.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "lib/class/filters_mod.h"
#include "lib/class/inv_tomo_mod.h"
#include "src/areal/wemva/image/fx2d.h"
#include "src/areal/wemva/image/smoothing.h"
#include "src/areal/wemva/image/weights.h"
#include "src/areal/wemva/model/base_spline_mod.h"
#include "src/areal/wemva/model/lloyd_vel.h"
#include "tests/src/areal/wemva/passes/shot.h"

using namespace morvane;

namespace {

constexpr int shot_width = 360, nx = shot_width + 3 * 6, nh = 33, nz = 141, frame = 50;

WaveCase wave(const char* extrap) {
    return {.nx = shot_width,
            .nz = nz,
            .nw = 51,
            .dz = 10.0f,
            .f0 = 4.0f,
            .df = 0.6f,
            .extrap = extrap,
            .nh = nh,
            .tapertr = 20,
            .padtraces = 10};
}

/// Of the image of all shots.
Parms line_parms() {
    Parms par = wave("pspi").parms();
    par.img.xm.n = nx;
    return par;
}

Array<float, 3> random_image() {
    Array<float, 3> image({nx, nh, nz});
    randomize(image.flat(), 3);
    return image;
}

void one_shot(benchmark::State& state, const char* extrap) {
    const Shot shot(wave(extrap), 0.1f, 0.002f);
    Array<float, 3> image({shot_width, nh, nz});
    randomize(image.flat(), 3);
    Array<float, 2> flat({shot_width, nz});
    std::vector<Arena> memory;
    WaveContext context = shot.context(2);
    context.memory = &memory;
    for (auto _ : state) {
        owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), image, {});
        owwemva(context, true, shot.recv.view(), shot.source.view(), shot.vel.view(), flat, image, nullptr);
    }
}

void offset_weight(benchmark::State& state) {
    const Parms par = line_parms();
    Array<float, 3> image = random_image();
    for (auto _ : state) owdso(par, false, image, {});
}

void smoothing(benchmark::State& state) {
    const Parms par = line_parms();
    const Array<float, 3> image = random_image();
    Array<float, 3> out(image.n());
    for (auto _ : state) owsmooth(par, image, out);
}

void prediction(benchmark::State& state) {
    const FxDesign design{15, 150, 5, nz * 3 / 12, nx * 3 / 92, 20.0f, 2};
    const Array<float, 3> image = random_image();
    Array<float, 3> out(image.n());
    for (auto _ : state) fx2d_lop(design, image, out, nullptr);
}

/// Forth and back, with one knot per every so many samples.
void spline_projection(benchmark::State& state) {
    const auto every = static_cast<int>(state.range(0));
    const Axis fine_x{nx, 10, 0, {}}, fine_z{nz, 8, 0, {}};
    const base_spln2d spln =
        base_spln2d_init(fine_x, fine_z, {nx / every + 1, 10.0f * static_cast<float>(every), 0, {}},
                         {nz / every + 1, 8.0f * static_cast<float>(every), 0, {}}, 2);
    std::vector<double> gspl(static_cast<std::size_t>(spln.axk1.n * spln.ayk1.n)), g(nx * nz, 1.0);
    for (auto _ : state) {
        base_spln2d_oper(spln, true, false, gspl, g);
        base_spln2d_oper(spln, false, false, gspl, g);
    }
}

void dip_filter(benchmark::State& state) {
    const FilterChoice choice{0, 0.9f, 0, static_cast<int>(state.range(0)), 1.25f, true};
    constexpr int rows = nz + 2 * frame;
    std::vector<float> angle;
    for (int ix = 0; ix < nx; ++ix)
        for (int row = 0; row < rows; ++row)
            angle.push_back(20.0f * std::sin(0.01f * static_cast<float>(ix)) +
                            0.1f * static_cast<float>(std::clamp(row - frame, 0, nz - 1)));
    std::vector<float> slow(angle.size()), slow0(angle.size());
    randomize(std::span<float>(slow0), 4);
    for (auto _ : state) {
        const Filter filt = new_steering(choice, {rows, nx}, {1, 1}, angle);
        inv_tomo(filt, {}, 100.0f, 15, slow, slow0, true);
    }
}

void clustering(benchmark::State& state) {
    Parms par = line_parms();
    par.nref = 5;
    const Array<float, 2> slow = slowness(nx, nz, 0.2f, 0.002f);
    Array<float, 3> junk({5, 2, nz});
    for (auto _ : state) lloyd_vel1(par, slow, junk);
}

}  // namespace

BENCHMARK_CAPTURE(one_shot, pspi, "pspi")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_CAPTURE(one_shot, ffd, "ffd")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(offset_weight)->MeasureProcessCPUTime();
BENCHMARK(smoothing)->MeasureProcessCPUTime();
BENCHMARK(prediction)->MeasureProcessCPUTime();
BENCHMARK(spline_projection)->MeasureProcessCPUTime()->Arg(2)->Arg(5)->Arg(20)->UseRealTime();
BENCHMARK(dip_filter)->MeasureProcessCPUTime()->Arg(2)->Arg(4);
BENCHMARK(clustering)->MeasureProcessCPUTime();

int main(int argc, char** argv) {
    // shots report their progress on standard output, the dip filter on standard error
    std::FILE* const report = fdopen(dup(STDOUT_FILENO), "w");
    if (!report || !std::freopen("/dev/null", "w", stdout) || !std::freopen("/dev/null", "w", stderr)) return 1;
    benchmark::Initialize(&argc, argv);
    std::ostringstream table;
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&table);
    reporter.SetErrorStream(&table);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::fputs(table.str().c_str(), report);
    std::fclose(report);
}
