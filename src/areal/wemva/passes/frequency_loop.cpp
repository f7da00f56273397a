#include "src/areal/wemva/passes/frequency_loop.h"

#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "lib/base/fixed_format.h"

namespace morvane {

namespace {

int announce_threads(const Parms& par) {
    int nodes = par.node;
    if (par.node == node_default) {
#pragma omp parallel
#pragma omp single
        nodes = omp_get_num_threads();
    }
    std::printf("****************\n* NUM.THREADS = %d\n****************\n", nodes);
    std::fflush(stdout);
    return nodes;
}

}  // namespace

int owwei_init(const Parms& par) {
    return announce_threads(par);
}

int owwemva_init(const Parms& par, int ishot) {
    static_cast<void>(ishot);  // part of the call's form; nothing depends on the shot
    return announce_threads(par);
}

std::span<Arena> arenas_of(const WaveContext& context, std::vector<Arena>& own) {
    std::vector<Arena>& arenas = context.memory ? *context.memory : own;
    arenas.resize(std::max(arenas.size(), static_cast<std::size_t>(context.nodes)));
    const std::span<Arena> used(arenas.data(), static_cast<std::size_t>(context.nodes));
    for (Arena& arena : used) arena.rewind();
    return used;
}

bool steps_at(const Parms& par, int iw) {
    return par.ffd() ? par.rec.w.all[static_cast<std::size_t>(iw)] != 0.0f : par.pspi();
}

DepthRange::DepthRange(const Parms& par) : first(std::max(par.nzmin, 2) - 1), end(std::min(par.nzmax, par.img.z.n)) {}

void load_surface(const Parms& par, View<const cf, 2> surface, int iw, bool clear, View<cf, 1> column) {
    if (clear) std::fill_n(column.p, column.n[0], cf{});
    std::copy_n(surface.slice(iw).p, par.rec.h.n, column.p + par.tapertr + par.padtraces);
}

void apply_taper(View<const float, 1> taper, View<const cf, 1> column, View<cf, 1> out) {
    const float* const z = parts(column.p);
    float* const tapered = parts(out.p);
#pragma GCC ivdep
    for (std::ptrdiff_t i = 0; i < column.n[0]; ++i) {
        tapered[2 * i] = z[2 * i] * taper.p[i];
        tapered[2 * i + 1] = z[2 * i + 1] * taper.p[i];
    }
}

void add_to(std::span<const float> part, std::span<float> sum) {
    for (std::size_t i = 0; i < part.size(); ++i) sum[i] += part[i];
}

void report_frequency(const Parms& par, int iw, int inode) {
    if ((iw + 1) % 50 != 1) return;
    std::string line = " FREQUENCY # " + column_int(iw + 1, 3) + " OUT OF " + column_int(par.rec.w.n, 3) +
                       " / SYNTH.FCT. " + column_int(par.rec.xd.n, 3) + " FROM NODE: " + column_int(inode + 1, 3) +
                       "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);  // one write, so that lines of several threads do not mix
}

}  // namespace morvane
