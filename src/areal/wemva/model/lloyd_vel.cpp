#include "src/areal/wemva/model/lloyd_vel.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <span>
#include <vector>

#include "lib/class/quantile_mod.h"

namespace morvane {

namespace {

constexpr float no_bound = 1000000.0f;  // above any slowness
constexpr int no_region = -1;

/// The clustering of one level. Regions are counted from 0; the first `ndiv` entries of the vectors are live.
struct Level {
    const Parms& par;
    float min_count;               // samples a region must have
    std::span<const float> array;  // slowness samples
    std::vector<float> near;       // centres, and one element more that stays 0
    std::vector<float> bound;      // upper bounds
    std::vector<int> block;        // region of each sample
    std::vector<int> region_count;
    std::vector<float> distort_local;  // mean squared deviation
    int ndiv;
    float minme, maxme;  // extreme slownesses

    Level(const Parms& parms, float min_region, std::span<const float> samples)
        : par(parms),
          min_count(min_region * static_cast<float>(samples.size())),
          array(samples),
          near(static_cast<std::size_t>(par.nref) + 1),
          bound(static_cast<std::size_t>(par.nref)),
          block(samples.size()),
          region_count(static_cast<std::size_t>(par.nref)),
          distort_local(static_cast<std::size_t>(par.nref)),
          ndiv(par.nref),
          minme(*std::ranges::min_element(samples)),
          maxme(*std::ranges::max_element(samples)) {}

    float count(int i) const { return static_cast<float>(region_count[static_cast<std::size_t>(i)]); }
};

/// Even start. With a fixed slowness of the fast body the first centre is that one and the others start above it; their
/// numbers are not shifted for that, so that the last lies beyond the maximum until the first pass.
void mean_init(Level& level) {
    const float own = level.par.slow_own;
    const int nn = level.par.nref;
    const float mymax = level.maxme;
    float mymin = level.minme;
    int first = 0;
    if (own > 0.0f) {
        mymin = mymax;
        for (const float s : level.array)
            if (s > own) mymin = std::min(mymin, s);
        level.near[0] = own;
        first = 1;
    }
    for (int i = first; i < nn; ++i) {
        const float delta = (mymax - mymin) / static_cast<float>(nn - first);
        level.near[static_cast<std::size_t>(i)] = (static_cast<float>(i + 1) - 0.5f) * delta + mymin;
    }
}

/// Start at quantiles.
void median_init(Level& level) {
    const int nn = level.par.nref;
    const auto size = static_cast<float>(level.array.size());
    for (int i = 1; i <= nn; ++i) {
        const auto k = static_cast<std::ptrdiff_t>(static_cast<float>(i) * size / static_cast<float>(nn + 1));
        level.near[static_cast<std::size_t>(i) - 1] = quantile(k, level.array);
    }
}

void find_bound(Level& level) {
    const auto last = static_cast<std::size_t>(level.ndiv) - 1;
    for (std::size_t i = 0; i < last; ++i) level.bound[i] = (level.near[i] + level.near[i + 1]) * 0.5f;
    level.bound[last] = no_bound;
}

/// A sample equal to a bound belongs to the region above it.
void partition_space(Level& level) {
    for (std::size_t i = 0; i < level.array.size(); ++i) {
        int region = 0;
        while (region < level.ndiv - 1 && level.array[i] >= level.bound[static_cast<std::size_t>(region)]) ++region;
        level.block[i] = region;
    }
}

/// Centres are the means of their samples; an empty region takes the middle of its neighbours.
void compute_center(Level& level) {
    std::vector<float>& near = level.near;
    std::ranges::fill(near, 0.0f);
    std::ranges::fill(level.region_count, 0);
    for (std::size_t i = 0; i < level.array.size(); ++i) {
        const auto region = static_cast<std::size_t>(level.block[i]);
        near[region] += level.array[i];
        ++level.region_count[region];
    }
    for (std::size_t i = 0; i < level.region_count.size(); ++i)
        if (level.region_count[i] > 0) near[i] /= static_cast<float>(level.region_count[i]);

    const auto last = static_cast<std::size_t>(level.ndiv) - 1;
    for (std::size_t i = 0; i <= last; ++i) {
        if (level.region_count[i] != 0) continue;
        if (i == 0) {
            std::size_t next = 1;
            while (next < last && near[next] == 0.0f) ++next;
            near[0] = near[next];
        } else if (i == last) {
            std::size_t next = last - 1;
            while (next > 0 && near[next] == 0.0f) --next;
            near[last] = near[next];
        }
        const float low = near[i == 0 ? 0 : i - 1];
        std::size_t next = i + 1;  // for the last region: the element behind it, 0
        while (next < last && near[next] == 0.0f) ++next;
        const float high = next == last && near[last] == 0.0f ? low : near[next];
        near[i] = (low + high) * 0.5f;
    }
}

void compute_distort(Level& level) {
    std::ranges::fill(level.distort_local, 0.0f);
    for (std::size_t i = 0; i < level.array.size(); ++i) {
        const auto region = static_cast<std::size_t>(level.block[i]);
        const float away = level.array[i] - level.near[region];
        level.distort_local[region] += away * away;
    }
    for (std::size_t i = 0; i < level.distort_local.size(); ++i)
        if (level.region_count[i] > 1) level.distort_local[i] /= static_cast<float>(level.region_count[i]);
}

void delete_region(Level& level, int gone) {
    if (gone >= level.ndiv - 1) return;
    const auto shift = [&](std::vector<float>& v) {
        std::copy(v.begin() + gone + 1, v.begin() + level.ndiv, v.begin() + gone);
    };
    shift(level.near);
    shift(level.bound);
}

/// Splits a region after `gone` has been deleted: its centre becomes two, at a third and two thirds of its width.
void add_region(Level& level, int gone, int split) {
    if (split > gone) --split;
    const auto at = static_cast<std::size_t>(split);
    std::vector<float>& near = level.near;
    if (split + 2 < level.ndiv)
        std::copy_backward(near.begin() + split + 1, near.begin() + level.ndiv - 1, near.begin() + level.ndiv);
    const float minr = split == 0 ? level.minme : level.bound[at - 1];
    const float maxr = split == level.ndiv - 2 ? level.maxme : level.bound[at];
    near[at] = minr * 0.666666687f + maxr * 0.333333343f;
    near[at + 1] = minr * 0.333333343f + maxr * 0.666666687f;
    find_bound(level);
    partition_space(level);
    compute_center(level);
    compute_distort(level);
}

/// Deletes a region; splits the one of largest distortion instead, if that one is wide and populated enough.
void replace_region(Level& level, int gone) {
    const float min_s = level.par.min_s_pct;
    const std::vector<float>& near = level.near;
    float maxd = 0.0f;
    int split = no_region;
    for (int i = 0; i < level.ndiv; ++i) {
        const auto at = static_cast<std::size_t>(i);
        float pct_close = 1000.0f;
        if (i > 0) pct_close = (near[at] - near[at - 1]) / near[at];
        if (i < level.ndiv - 1) pct_close = std::max(pct_close, (near[at + 1] - near[at]) / near[at + 1]);
        if (pct_close > min_s && level.distort_local[at] > maxd && i != gone && level.count(i) > level.min_count) {
            maxd = level.distort_local[at];
            split = i;
        }
    }
    if (std::sqrt(maxd) / near[0] < min_s * 0.25f) split = no_region;
    if (split == no_region && level.ndiv == 1) return;
    delete_region(level, gone);
    if (split != no_region) {
        add_region(level, gone, split);
    } else {
        --level.ndiv;
    }
}

/// Removes regions with too few samples. Counts stay where they were when a deletion shifts the regions below them.
void rid_small(Level& level) {
    const int entry = level.ndiv;
    for (int i = 0; i < entry; ++i)
        if (level.count(i) < level.min_count) replace_region(level, i);
}

/// Removes one region of the closest pair, the one of smaller distortion, if they are too close.
void rid_close(Level& level) {
    float maxd = 1000.0f;
    int gone = no_region;
    for (int i = 0; i + 1 < level.ndiv; ++i) {
        const auto at = static_cast<std::size_t>(i);
        const float val = (level.near[at + 1] - level.near[at]) / level.near[at];
        if (val < level.par.min_s_pct && val < maxd) {
            maxd = val;
            gone = level.distort_local[at + 1] < level.distort_local[at] ? i + 1 : i;
        }
    }
    if (gone != no_region) replace_region(level, gone);
}

void change_regions(Level& level) {
    rid_small(level);
    rid_close(level);
}

/// All passes run; regions change in the first half only, so that the rest can settle.
void lloyd_go(Level& level) {
    if (level.par.perc_start) {
        median_init(level);
    } else {
        mean_init(level);
    }
    const int niter = level.par.niter_over == -1 ? 30 : level.par.niter_over;
    if (niter < 1) find_bound(level);
    for (int i = 1; i <= niter; ++i) {
        find_bound(level);
        partition_space(level);
        compute_center(level);
        compute_distort(level);
        if (static_cast<float>(i) < static_cast<float>(niter) * 0.5f) change_regions(level);
    }
}

}  // namespace

void lloyd_vel1(const Parms& par, View<const float, 2> slow, View<float, 3> junk) {
    assert(junk.n[0] >= par.nref && junk.n[1] == 2 && junk.n[2] >= slow.n[1]);
    const auto size = static_cast<float>(slow.n[0]);
    float min_region = par.min_r_pct;
    for (std::ptrdiff_t izs = 0; izs < slow.n[1]; ++izs) {
        Level level(par, min_region, slow.slice(izs).flat());
        lloyd_go(level);
        min_region = level.min_count / size;  // the fraction as it comes back from the count, rounding and all
        const View<float, 2> rows = junk.slice(izs);
        std::ranges::fill(rows.flat(), -1.0f);
        std::copy_n(level.near.begin(), level.ndiv, rows.slice(0).p);
        std::copy_n(level.bound.begin(), level.ndiv, rows.slice(1).p);
    }
}

}  // namespace morvane
