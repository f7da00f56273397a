// The passes of one shot, migration and gradient, with the classic and the exact gradient, whose references are
// given; one and two threads.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <iostream>

#include "src/areal/wemva/run/denormals.h"
#include "tests/src/areal/wemva/passes/shot.h"

using namespace morvane;

namespace {

enum class Pass { migration, gradient };

void shot(benchmark::State& state, Pass pass, bool exact, const char* extrap, int nref) {
    const int nodes = static_cast<int>(state.range(0));
    const WaveCase wave{.nx = 360,
                        .nz = 135,
                        .nw = 16,
                        .f0 = 5.0f,
                        .df = 1.8f,
                        .extrap = extrap,
                        .nref = nref,
                        .nh = 33,
                        .tapertr = 15,
                        .padtraces = 15};
    const Shot shot(wave, 0.1f, 0.002f);
    Array<float, 3> image({360, 33, 135});
    Array<float, 2> flat({360, 135});
    randomize(image.flat(), 3);
    std::vector<Arena> memory;
    WaveContext context = exact ? shot.exact_context(nodes) : shot.context(nodes);
    context.memory = &memory;
    for (auto _ : state) {
        if (pass == Pass::migration) {
            owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), image, {});
        } else if (exact) {
            owwei_gradient(context, shot.recv.view(), shot.source.view(), shot.vel.view(), flat, image.view());
        } else {
            owwemva(context, true, shot.recv.view(), shot.source.view(), shot.vel.view(), flat, image, nullptr);
        }
    }
}

}  // namespace

#define PASS(name, pass, exact, extrap, nref) \
    BENCHMARK_CAPTURE(shot, name, Pass::pass, exact, extrap, nref)->Arg(1)->Arg(2)->UseRealTime()
#define PASSES(name, extrap, nref)                                  \
    PASS(name##_classic_migration, migration, false, extrap, nref); \
    PASS(name##_classic_gradient, gradient, false, extrap, nref);   \
    PASS(name##_exact_migration, migration, true, extrap, nref);    \
    PASS(name##_exact_gradient, gradient, true, extrap, nref)
PASSES(pspi1, "pspi", 1);
PASSES(pspi3, "pspi", 3);
PASSES(ffd45, "ffd", 1);

int main(int argc, char** argv) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;  // the passes report their progress there
    flush_denormals();                                                // as a run does
    benchmark::Initialize(&argc, argv);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
}
