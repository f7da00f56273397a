#include <gtest/gtest.h>

#include <algorithm>

#include "src/areal/wemva/image/weights.h"
#include "tests/src/areal/wemva/passes/shot.h"

using namespace morvane;

namespace {

constexpr float variation = 0.2f, trend = 0.02f;

struct Result {
    double f = 0.0;
    Array<float, 2> deltas;
    Array<float, 3> deltai;
    explicit Result(const Parms& par) : deltas({par.kxm.n, par.nz}), deltai({par.kxm.n, par.nsecdim, par.nz}) {}
};

Result single_pass(const Shot& shot, int nodes) {
    Result out(shot.par);
    out.f = 7.0;  // the outputs are added to
    out.deltas.fill(1.0f);
    out.deltai.fill(1.0f);
    owwemva_adj(shot.context(nodes), shot.recv.view(), shot.source.view(), shot.vel.view(), out.f, out.deltas,
                out.deltai);
    out.f -= 7.0;
    for (float& s : out.deltas.flat()) s -= 1.0f;
    for (float& s : out.deltai.flat()) s -= 1.0f;
    return out;
}

/// The parameters with one of the frequencies.
Parms at_frequency(Parms par, int iw) {
    par.rec.w.all = {par.rec.w.all[static_cast<std::size_t>(iw)]};
    par.rec.w.n = 1;
    return par;
}

/// The same from migrations and adjoints of one frequency each, in their order on one thread.
Result two_passes(const Shot& shot) {
    Result out(shot.par);
    Array<float, 3> gg({shot.par.kxm.n, shot.par.nsecdim, shot.par.nz});
    for (int iw = 0; iw < shot.par.rec.w.n; ++iw) {
        Shot one(at_frequency(shot.par, iw), variation, trend);
        std::ranges::copy(shot.recv.view().slice(iw).flat(), one.recv.flat().begin());
        std::ranges::copy(shot.source.view().slice(iw).flat(), one.source.flat().begin());
        const Array<float, 3> image = one.image(), before = gg;
        std::ranges::transform(before.flat(), image.flat(), gg.flat().begin(), std::plus());
        owdso(shot.par, false, gg, {});
        owdso(shot.par, true, gg, {});
        const Array<float, 2> deltas = one.adjoint(gg), sum = out.deltas;
        std::ranges::transform(sum.flat(), deltas.flat(), out.deltas.flat().begin(), std::plus());
        out.f = 0.0;
        for (const float s : gg.flat()) out.f += static_cast<double>(s) * static_cast<double>(s);
    }
    for (int iz = shot.par.nzmin - 1; iz < shot.par.nz; ++iz)
        std::ranges::copy(gg.view().slice(iz).flat(), out.deltai.view().slice(iz).flat().begin());
    return out;
}

void expect_equal(const Result& got, const Result& want) {
    EXPECT_NEAR(got.f / want.f, 1.0, 1e-4);
    EXPECT_LT(relative_difference<float>(got.deltas.flat(), want.deltas.flat()), 1e-4);
    EXPECT_LT(relative_difference<float>(got.deltai.flat(), want.deltai.flat()), 1e-4);
}

}  // namespace

TEST(SinglePass, EqualsMigrationWeightAndAdjointOfEachFrequencyInTurn) {
    struct Row {
        const char* about;
        const char* extrap;
        int nw, nodes, margin, nzmin;
    };
    for (const Row& row :
         {Row{"one frequency", "pspi", 1, 1, 3, 1}, Row{"other extrapolator", "ffd", 1, 1, 3, 1},
          Row{"idle threads", "pspi", 1, 3, 3, 1}, Row{"earlier images are weighted again", "ffd", 3, 1, 0, 1},
          Row{"image begins below the top", "pspi", 1, 1, 0, 3}}) {
        SCOPED_TRACE(row.about);
        WaveCase wave{.nx = 24, .nz = 9, .nw = row.nw, .extrap = row.extrap, .nh = 5};
        wave.tapertr = wave.padtraces = row.margin;
        Parms par = wave.parms();
        par.nzmin = row.nzmin;
        par.expdso = 0.4f;
        const Shot shot(par, variation, trend);
        expect_equal(single_pass(shot, row.nodes), two_passes(shot));
    }
}

// With weights of one the threads' images add up to the stack, whoever took which frequency.
TEST(SinglePass, TheThreadsImagesAreSummed) {
    Parms par = WaveCase{.nx = 24, .nz = 9, .nw = 7, .nh = 5}.parms();
    par.expdso = 0.0f;
    const Shot shot(par, variation, trend);
    EXPECT_LT(relative_difference<float>(single_pass(shot, 3).deltai.flat(), shot.image().flat()), 1e-4);
}
