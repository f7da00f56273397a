// What an evaluation does to image and gradient beside the wavefields, at the size of a small survey, and one shot of
// that survey (migration and described gradient) to compare with.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "lib/class/filters_mod.h"
#include "lib/class/inv_tomo_mod.h"
#include "src/areal/wemva/base_spline_mod.h"
#include "src/areal/wemva/fx2d.h"
#include "src/areal/wemva/lloyd_vel.h"
#include "tests/src/areal/wemva/shot.h"

namespace {

constexpr int nx = 360, nh = 33, nz = 135, frame = 50;

WaveCase wave() {
    return {.nx = nx,
            .nz = nz,
            .nw = 51,
            .f0 = 4.0f,
            .df = 0.6f,
            .extrap = "ffd",
            .nh = nh,
            .tapertr = 15,
            .padtraces = 15};
}

Array<float, 3> random_image() {
    Array<float, 3> image({nx, nh, nz});
    randomize(image.flat(), 3);
    return image;
}

void one_shot(benchmark::State& state) {
    const Shot shot(wave(), 0.1f, 0.002f);
    Array<float, 3> image = random_image();
    Array<float, 2> flat({nx, nz});
    for (auto _ : state) {
        owwei(shot.context(2), shot.recv.view(), shot.source.view(), shot.vel.view(), image, flat);
        owwemva(shot.context(2), true, shot.recv.view(), shot.source.view(), shot.vel.view(), flat, image, nullptr);
    }
}

void offset_weight(benchmark::State& state) {
    const Parms par = wave().parms();
    Array<float, 3> image = random_image();
    for (auto _ : state) owdso(par, false, image, {});
}

void smoothing(benchmark::State& state) {
    const Parms par = wave().parms();
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

/// Forth and back, with every so many samples a knot.
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
    const FilterChoice choice{0, 0.999f, 0, static_cast<int>(state.range(0)), 1.25f, false};
    constexpr int rows = nz + 2 * frame;
    const std::vector<float> angle(rows * nx, 20.0f);
    std::vector<float> slow(angle.size()), slow0(angle.size());
    randomize(std::span<float>(slow0), 4);
    for (auto _ : state) {
        const Filter filt = new_steering(choice, {rows, nx}, {1, 1}, angle);
        inv_tomo(filt, {}, 100.0f, 15, slow, slow0);
    }
}

void clustering(benchmark::State& state) {
    Parms par = wave().parms();
    par.nref = 5;
    const Array<float, 2> slow = slowness(nx, nz, 0.2f, 0.002f);
    Array<float, 3> junk({5, 2, nz});
    for (auto _ : state) lloyd_vel1(par, slow, junk);
}

}  // namespace

BENCHMARK(one_shot)->MeasureProcessCPUTime()->UseRealTime();
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
