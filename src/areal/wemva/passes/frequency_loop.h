#pragma once
/// The frequency loop of the passes, and what they share.
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <vector>

#include "src/areal/wemva/image/ow_image_areal.h"
#include "src/areal/wemva/passes/ow_wei_areal.h"
#include "src/areal/wemva/run/interruption.h"
#include "src/areal/wemva/step/depth_step.h"

namespace morvane {

/// Whether the fields are stepped at frequency iw: not with an extrapolator of another name, and the finite-difference
/// form leaves the zero frequency alone.
bool steps_at(const Parms& par, int iw);

/// Levels that are imaged, from 0: first (1 at the earliest, the surface never is) to end.
struct DepthRange {
    int first, end;
    explicit DepthRange(const Parms& par);
};

/// Write the surface fields of frequency iw into the middle of the columns. The margins keep what the thread's
/// preceding frequency left there at its last depth, unless `clear`.
void load_surface(const Parms& par, View<const cf, 2> surface, int iw, bool clear, View<cf, 1> column);

inline void copy(View<const cf, 1> from, View<cf, 1> to) {
    std::copy_n(from.p, from.n[0], to.p);
}

/// out = column * taper; may run in place
void apply_taper(View<const float, 1> taper, View<const cf, 1> column, View<cf, 1> out);
inline void apply_taper(View<const float, 1> taper, View<cf, 1> column) {
    apply_taper(taper, column, column);
}

/// sum += part, sample by sample
void add_to(std::span<const float> part, std::span<float> sum);

/// An arena for each thread, rewound: the context's, or those of `own` if it keeps none.
std::span<Arena> arenas_of(const WaveContext& context, std::vector<Arena>& own);

template <class T, std::size_t N>
void clear_samples(View<T, N> view) {
    std::ranges::fill(view.flat(), T{});
}

/// Clear the sums of every thread's slot, each by the thread that will most likely use it: `clear()` of each slot.
template <class Slot>
void clear_all(std::vector<Slot>& slots) {
#pragma omp parallel for schedule(static, 1) num_threads(slots.size())
    for (Slot& slot : slots) slot.clear();
}

/// sum += the slots' parts, in their order, depth by depth: `part(slot)` is a slot's view.
template <class Slot, std::size_t N, class Part>
void reduce(const std::vector<Slot>& slots, View<float, N> sum, std::ptrdiff_t first, std::ptrdiff_t end, Part part) {
#pragma omp parallel for schedule(static) num_threads(slots.size())
    for (std::ptrdiff_t iz = first; iz < end; ++iz)
        for (const Slot& slot : slots) add_to(part(slot).slice(iz).flat(), sum.slice(iz).flat());
}

/// The progress line of every 50th frequency, on standard output.
void report_frequency(const Parms& par, int iw, int inode);

/// A pass over the frequencies of a shot. The medium is prepared once; each thread has a Slot(par, medium, form,
/// arena), cleared at the start; `work(slot, iw, inode)` runs for each frequency, then `sum(slots)`.
/// @param vel (kxm.n, img.z.n) slowness
template <class Slot, class Work, class Sum>
void over_frequencies(const WaveContext& context, View<const float, 2> vel, bool form, Work work, Sum sum) {
    const Medium medium = prepare_medium(context.par, vel, context.sref, context.frozen);
    std::vector<Arena> own;
    std::vector<Slot> slots;
    for (Arena& arena : arenas_of(context, own)) slots.emplace_back(context.par, medium, form, arena);
    clear_all(slots);
#pragma omp parallel for schedule(dynamic, 1) num_threads(context.nodes)
    for (int iw = context.par.first_frequency(); iw < context.par.end_frequency(); ++iw) {
        const int inode = omp_get_thread_num();
        if (interruption::is_overdue()) continue;  // whoever listens drops the shot
        work(slots[static_cast<std::size_t>(inode)], iw, inode);
        report_frequency(context.par, iw, inode);
    }
    std::fflush(stdout);
    sum(slots);
}

}  // namespace morvane
