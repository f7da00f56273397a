#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "src/areal/wemva/model/lloyd_vel.h"

using namespace morvane;

namespace {

using testing::FloatNear;
using testing::Pointwise;

constexpr float top = 1000000.0f;

struct Rows {
    std::vector<float> centre, bound;
};

Parms parms(int nref) {
    Parms p;
    p.nref = nref;
    return p;
}

std::vector<float> repeated(std::initializer_list<std::pair<int, float>> groups) {
    std::vector<float> level;
    for (const auto& [count, value] : groups) level.insert(level.end(), static_cast<std::size_t>(count), value);
    return level;
}

/// The rows of each level; all levels of one length.
std::vector<Rows> cluster(const Parms& par, const std::vector<std::vector<float>>& levels) {
    const auto nx = std::ssize(levels[0]), nz = std::ssize(levels);
    Array<float, 2> slow({nx, nz});
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz)
        for (std::ptrdiff_t ix = 0; ix < nx; ++ix)
            slow(ix, iz) = levels[static_cast<std::size_t>(iz)][static_cast<std::size_t>(ix)];
    Array<float, 3> junk({par.nref, 2, nz});
    junk.fill(77.0f);
    lloyd_vel1(par, slow, junk);
    std::vector<Rows> rows;
    for (std::ptrdiff_t iz = 0; iz < nz; ++iz) {
        const auto centre = junk.view().slice(iz).slice(0).flat(), bound = junk.view().slice(iz).slice(1).flat();
        rows.push_back({{centre.begin(), centre.end()}, {bound.begin(), bound.end()}});
    }
    return rows;
}

void expect_rows(const Rows& rows, const std::vector<float>& centre, const std::vector<float>& bound) {
    EXPECT_THAT(rows.centre, Pointwise(FloatNear(2e-6f), centre));
    EXPECT_THAT(rows.bound, Pointwise(FloatNear(2e-6f), bound));
}

}  // namespace

TEST(Lloyd, EvenStart) {
    Parms p = parms(3);
    p.niter_over = 0;
    // (1 - 0.5) 2 + 1, ...: centres half a step inside the ends
    expect_rows(cluster(p, {{7, 1, 2, 3}})[0], {2, 4, 6}, {3, 5, top});
}

TEST(Lloyd, StartAtQuantiles) {
    Parms p = parms(3);
    p.niter_over = 0;
    p.perc_start = true;
    // int(i * 10 / 4) = 2, 5, 7
    expect_rows(cluster(p, {{20, 30, 10, 50, 40, 60, 70, 80, 100, 90}})[0], {20, 50, 70}, {35, 60, top});
    // int(i * 2 / 4) = 0, 1, 1: an index below 1 is 1
    expect_rows(cluster(p, {{9, 4}})[0], {4, 4, 4}, {4, 4, top});
}

TEST(Lloyd, StartWithTheSlownessOfTheFastBody) {
    Parms p = parms(3);
    p.niter_over = 0;
    p.slow_own = 1.2f;
    // the smallest slowness above 1.2 is 2; numbers 2 and 3 of steps of (4 - 2) / 2
    expect_rows(cluster(p, {{1, 2, 4}})[0], {1.2f, 3.5f, 4.5f}, {2.35f, 4.0f, top});
    p.nref = 1;
    expect_rows(cluster(p, {{1, 2, 4}})[0], {1.2f}, {top});
}

TEST(Lloyd, ASampleOnABoundBelongsAbove) {
    Parms p = parms(2);
    p.niter_over = 1;
    expect_rows(cluster(p, {{1, 2, 3}})[0], {1, 2.5f}, {2, top});
}

TEST(Lloyd, OneRegionIsTheMean) {
    expect_rows(cluster(parms(1), {{1, 2, 6}})[0], {3}, {top});
}

TEST(Lloyd, ConstantLevelKeepsOneRegion) {
    expect_rows(cluster(parms(3), {{0.25f, 0.25f, 0.25f, 0.25f}})[0], {0.25f, -1, -1}, {top, -1, -1});
}

TEST(Lloyd, OnePassRepairsNothing) {
    Parms p = parms(2);
    p.niter_over = 1;
    expect_rows(cluster(p, {{2, 2, 2}})[0], {2, 2}, {2, top});
}

TEST(Lloyd, EmptyRegionsTakeTheMiddleOfTheirNeighbours) {
    Parms p = parms(3);
    p.niter_over = 1;
    p.slow_own = 10.0f;  // above every sample: all fall into the first region
    // the second takes the first; the last takes the middle of the second and the 0 behind the last
    expect_rows(cluster(p, {{1, 2, 4}})[0], {7.0f / 3, 7.0f / 3, 7.0f / 6}, {7, 4, top});
}

TEST(Lloyd, FindsSeparateGroups) {
    const std::vector<float> level = repeated({{30, 1.0f}, {50, 1.5f}, {20, 2.5f}});
    expect_rows(cluster(parms(3), {level})[0], {1, 1.5f, 2.5f}, {1.25f, 2.0f, top});
}

TEST(Lloyd, SmallRegionGoesAndAWideOneIsSplit) {
    Parms p = parms(3);
    p.min_r_pct = 0.05f;
    const std::vector<float> level = repeated({{40, 1.0f}, {40, 1.5f}, {1, 2.0f}, {20, 3.0f}});
    const float mid = (40 * 1.5f + 2.0f) / 41;
    expect_rows(cluster(p, {level})[0], {1, mid, 3}, {(1 + mid) / 2, (mid + 3) / 2, top});
}

TEST(Lloyd, CloseRegionsMerge) {
    Parms p = parms(3);
    p.perc_start = true;
    const std::vector<float> level = repeated({{50, 1.0f}, {50, 1.05f}, {50, 3.0f}});
    expect_rows(cluster(p, {level})[0], {1.025f, 3, -1}, {2.0125f, top, -1});
    p.min_s_pct = 0.04f;
    expect_rows(cluster(p, {level})[0], {1, 1.05f, 3}, {1.025f, 2.025f, top});
}

TEST(Lloyd, ALevelKeepsARegionWhateverTheShareAskedFor) {
    Parms p = parms(2);
    p.min_r_pct = 0.6f;
    expect_rows(cluster(p, {{1, 1, 3, 3}})[0], {2, -1}, {top, -1});
}

TEST(Lloyd, LevelsDoNotTouchEachOther) {
    Parms p = parms(3);
    p.min_r_pct = 0.05f;
    const std::vector<float> constant(101, 2.0f), mixed = repeated({{40, 1.0f}, {40, 1.5f}, {1, 2.0f}, {20, 3.0f}});
    const std::vector<Rows> rows = cluster(p, {mixed, constant, mixed});
    EXPECT_EQ(rows[0].centre, rows[2].centre);
    EXPECT_EQ(rows[0].bound, rows[2].bound);
    expect_rows(rows[1], {2, -1, -1}, {top, -1, -1});
}
