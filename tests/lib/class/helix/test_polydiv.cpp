#include <gtest/gtest.h>

#include <vector>

#include "lib/class/helix/helicon.h"
#include "lib/class/helix/polydiv.h"
#include "lib/corelibs/qas/messages/qaserr.h"
#include "tests/dot_test.h"
#include "tests/refusal.h"

using namespace morvane;

namespace {

constexpr bool forward = false, adjoint = true, fresh = false, keep = true;

Filter decay(int n, float c) {
    Filter aa = stationary_filter(n, {1});
    aa.coeffs(0, 0) = c;
    return aa;
}

}  // namespace

TEST(Polydiv, RunsForwardAndBackward) {
    const Filter aa = decay(5, -0.5f);
    std::vector<float> spike{0, 0, 1, 0, 0}, y(5, 9.0f);
    polydiv_lop(aa, forward, fresh, spike, y);
    EXPECT_EQ(y, (std::vector<float>{0, 0, 1, 0.5f, 0.25f}));
    polydiv_lop(aa, adjoint, fresh, y, spike);
    EXPECT_EQ(y, (std::vector<float>{0.25f, 0.5f, 1, 0, 0}));
}

TEST(Polydiv, DividesOverWhatTheOutputHeld) {
    const Filter aa = decay(3, -0.5f);
    std::vector<float> x{0, 1, 0}, y{4, 0, 0};
    polydiv_lop(aa, forward, keep, x, y);
    EXPECT_EQ(y, (std::vector<float>{4, 3, 1.5f}));
}

TEST(Polydiv, EachSetHasItsOwnLags) {
    Filter aa = allocatehelix(1, 3);  // for samples 0-1, 2-3, 4-5
    aa.datadims = {6};
    aa.filterdims = {2};
    aa.filterj = 2;
    const int lags[] = {1, 2, 3};
    for (int i = 0; i < 3; ++i) {
        aa.lags(0, i) = lags[i];
        aa.coeffs(0, i) = -1.0f;
    }
    polydiv_init(aa);
    std::vector<float> x{1, 0, 0, 0, 0, 0}, y(6);
    polydiv_lop(aa, forward, fresh, x, y);
    EXPECT_EQ(y, (std::vector<float>{1, 1, 1, 1, 1, 1}));
    x = {0, 1, 0, 0, 0, 0};
    polydiv_lop(aa, forward, fresh, x, y);
    EXPECT_EQ(y, (std::vector<float>{0, 1, 0, 1, 1, 0}));
}

TEST(Polydiv, UndoesConvolution) {
    Filter aa = stationary_filter(50, {1, 2, 7});
    aa.coeffs(0, 0) = -0.7f;
    aa.coeffs(1, 0) = 0.2f;
    aa.coeffs(2, 0) = -0.15f;
    for (const bool adj : {forward, adjoint}) {
        std::vector<float> x = random_vector<float>(50, 4), y(50), back(50);
        adj ? helicon_lop(aa, adj, fresh, y, x) : helicon_lop(aa, adj, fresh, x, y);
        adj ? polydiv_lop(aa, adj, fresh, back, y) : polydiv_lop(aa, adj, fresh, y, back);
        for (std::size_t i = 0; i < 50; ++i) EXPECT_NEAR(back[i], x[i], 2e-5);
    }
}

TEST(Helicon, AnOutputMarkedAsEdgeTakesNothingFromOthers) {
    Filter aa = stationary_filter(4, {1});
    aa.coeffs(0, 0) = 10;
    aa.edges = {0, 0, 1, 0};
    std::vector<float> x{1, 2, 3, 4}, y(4);
    helicon_lop(aa, forward, fresh, x, y);
    EXPECT_EQ(y, (std::vector<float>{1, 12, 3, 34}));
}

TEST(Polydiv, RefusesFiltersThatDoNotFit) {
    Filter aa = stationary_filter(12, {1, 2});
    EXPECT_NO_THROW(polydiv_init(aa));
    const auto text = [](const Filter& filter) { return refusal([&] { polydiv_init(filter); }); };
    Filter other = aa;
    other.datadims = {13};
    EXPECT_EQ(text(other), "polydiv_init: number of coffients .ne. ndata/filterJ\n");
    other = aa;
    other.filterdims = {6};
    EXPECT_EQ(text(other), "polydiv_init: its my first day\n");
    other = aa;
    other.lags(1, 0) = 0;
    EXPECT_EQ(text(other), "polydiv_init: lags must be positive\n");
}
