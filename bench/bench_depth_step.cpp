// One depth step of a source and a receiver field, prepared and applied, against the bare transforms it contains.
#include <benchmark/benchmark.h>

#include <cmath>

#include "src/areal/wemva/image/ow_image_areal.h"
#include "src/areal/wemva/step/depth_step.h"
#include "tests/src/areal/wemva/step/wave_case.h"

using namespace morvane;

namespace {

constexpr int levels = 64;

WaveCase wave(const benchmark::State& state, const char* extrap, int nref) {
    return {.nx = static_cast<int>(state.range(0)),
            .nz = levels,
            .nw = 1,
            .f0 = 20.0f,
            .extrap = extrap,
            .nref = nref,
            .nh = 41};
}

void step(benchmark::State& state, const char* extrap, int nref) {
    const Parms par = wave(state, extrap, nref).parms();
    const LateralFft fft(par.kxm.n, FFTW_PATIENT);
    const Array<float, 2> s = slowness(par.kxm.n, levels, 0.2f, 0.002f);
    const Medium medium = prepare_medium(par, s, {}, {});
    const int batch = StepTables::batch(par);
    Arena arena;
    StepTables tables(par, medium, batch, arena);
    StepScratch scratch(par.kxm.n);
    Array<cf, 1> ws({par.kxm.n}), wr({par.kxm.n});
    for (auto _ : state) {
        state.PauseTiming();
        randomize(ws.flat(), 1);
        randomize(wr.flat(), 2);
        state.ResumeTiming();
        for (int first = 0; first < levels; first += batch) {
            tables.prepare(0, first, batch);
            for (int i = first; i < first + batch; ++i) apply_step_pair(tables.step(i), fft, +1, ws, wr, scratch);
        }
    }
    state.SetItemsProcessed(state.iterations() * levels);
}

void transforms(benchmark::State& state, int count) {
    const auto n = static_cast<int>(state.range(0));
    const LateralFft fft(n, FFTW_PATIENT);
    Array<cf, 1> field({n}), spectrum({n});
    for (auto _ : state) {
        for (int i = 0; i < levels; ++i) {
            for (int k = 0; k < count; k += 2) {
                fft.forward.run(field.view(), spectrum);
                fft.inverse.run(spectrum.view(), field);
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * levels);
}

void imaging(benchmark::State& state) {
    WaveCase w = wave(state, "pspi", 1);
    w.nh = static_cast<int>(state.range(1));
    const Parms par = w.parms();
    const ImageCondition condition(par);
    Array<cf, 1> ws({par.kxm.n}), wr({par.kxm.n});
    randomize(ws.flat(), 1);
    randomize(wr.flat(), 2);
    Array<float, 3> image({par.kxm.n, w.nh, levels});
    ImageScratch scratch(par.kxm.n);
    for (auto _ : state) {
        for (int i = 0; i < levels; ++i) {
            owimage_forward(condition, 0, ws.view(), wr.view(), image.view().slice(i), scratch);
        }
    }
    state.SetItemsProcessed(state.iterations() * levels * par.kxm.n * w.nh);
}

}  // namespace

BENCHMARK_CAPTURE(step, ffd45, "ffd", 1)->Arg(512)->Arg(1024)->Arg(600);
BENCHMARK_CAPTURE(transforms, of_ffd, 4)->Arg(512)->Arg(1024)->Arg(600);
BENCHMARK_CAPTURE(step, pspi3, "pspi", 3)->Arg(512)->Arg(1024)->Arg(600);
BENCHMARK_CAPTURE(transforms, of_pspi3, 8)->Arg(512)->Arg(1024)->Arg(600);
BENCHMARK_CAPTURE(step, pspi1, "pspi", 1)->Arg(512)->Arg(1024);
BENCHMARK(imaging)->Args({512, 41})->Args({512, 81})->Args({1024, 41});
BENCHMARK_MAIN();
