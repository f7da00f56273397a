// An evaluation of one shot at the size of a line that people invert: 462 traces, 512 with margins, 151 depths,
// whole-line fields of noise, exact gradient. One line per case: extrapolator, references, offsets, threads, seconds
// of migration and of gradient, both by the clock and by the processor, which neighbours disturb less.
//   bench_line [frequencies=200] [runs=3] [threads...=1 2]
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "src/areal/wemva/run/denormals.h"
#include "tests/src/areal/wemva/passes/shot.h"

using namespace morvane;

namespace {

struct Times {
    double clock = 0.0, processor = 0.0;
};
Times now() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return {std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(),
            static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec)};
}

template <class Work>
Times least(int runs, Work work) {
    Times best{1e30, 1e30};
    for (int i = 0; i < runs; ++i) {
        const Times start = now();
        work();
        const Times end = now();
        best.clock = std::min(best.clock, end.clock - start.clock);
        best.processor = std::min(best.processor, end.processor - start.processor);
    }
    return best;
}

void line(const char* extrap, int nref, int nh, int nodes, int nw, int runs) {
    const WaveCase wave{.nx = 512,
                        .nz = 151,
                        .nw = nw,
                        .f0 = 4.0f,
                        .df = 20.0f / static_cast<float>(nw),
                        .extrap = extrap,
                        .nref = nref,
                        .nh = nh,
                        .tapertr = 15,
                        .padtraces = 10};
    const Shot shot(wave, 0.1f, 0.002f);
    Array<float, 3> image({512, nh, 151});
    Array<float, 2> flat({512, 151});
    std::vector<Arena> memory;
    WaveContext context = shot.exact_context(nodes);
    context.memory = &memory;
    const Times migration =
        least(runs, [&] { owwei(context, shot.recv.view(), shot.source.view(), shot.vel.view(), image, {}); });
    randomize(image.flat(), 3);
    const Times gradient = least(runs, [&] {
        owwei_gradient(context, shot.recv.view(), shot.source.view(), shot.vel.view(), flat, image.view());
    });
    std::fprintf(stderr, "%s references %d nh %d threads %d migration %.4f %.4f gradient %.4f %.4f evaluation %.4f\n",
                 extrap, nref, nh, nodes, migration.clock, migration.processor, gradient.clock, gradient.processor,
                 migration.clock + gradient.clock);
}

}  // namespace

int main(int argc, char** argv) {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;  // the passes report their progress there
    flush_denormals();
    const int nw = argc > 1 ? std::atoi(argv[1]) : 200, runs = argc > 2 ? std::atoi(argv[2]) : 3;
    std::vector<int> threads;
    for (int i = 3; i < argc; ++i) threads.push_back(std::atoi(argv[i]));
    if (threads.empty()) threads = {1, 2};
    for (const int nodes : threads)
        for (const auto& [extrap, nref] : {std::pair("pspi", 1), std::pair("pspi", 3), std::pair("ffd", 1)})
            for (const int nh : {1, 41, 81}) line(extrap, nref, nh, nodes, nw, runs);
}
