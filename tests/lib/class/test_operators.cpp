/// The properties every linear operator shares: adjoint pairs, and what add does.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "lib/base/lin_op.h"
#include "lib/class/chain_mod.h"
#include "lib/class/helix/helicon.h"
#include "lib/class/helix/polydiv.h"
#include "lib/class/igrad1.h"
#include "lib/class/inv_tomo_mod.h"
#include "tests/dot_test.h"

using namespace morvane;

namespace {

constexpr bool forward = false, adjoint = true, fresh = false, keep = true;

/// Every sample its own lags and coefficients, contracting.
Filter wandering_filter(int n, int na, int shared) {
    std::mt19937 engine(11);
    std::uniform_int_distribution<int> lag(1, n + 2);
    std::uniform_real_distribution<float> coefficient(-0.3f, 0.3f);
    const int sets = (n + shared - 1) / shared;
    Filter aa = allocatehelix(na, sets);
    for (int& l : aa.lags.flat()) l = lag(engine);
    for (float& c : aa.coeffs.flat()) c = coefficient(engine);
    aa.datadims = {sets * shared};
    aa.filterdims = {shared};
    aa.filterj = shared;
    polydiv_init(aa);
    return aa;
}

struct Named {
    const char* name;
    LinOp op;
};

std::vector<Named> operators(int n) {
    const auto size = static_cast<std::size_t>(n);
    Filter still = stationary_filter(n, {1, 3});
    still.coeffs(0, 0) = -0.6f;
    still.coeffs(1, 0) = 0.25f;
    Filter marked = still;
    marked.edges.assign(size, 0);
    for (std::size_t i = 0; i < size; i += 3) marked.edges[i] = 1;
    const std::vector<float> mask = random_vector<float>(size, 21);
    const auto of = [](const auto& lop, const Filter& aa) -> LinOp {
        return [=](bool adj, bool add, std::span<float> x, std::span<float> y) { return lop(aa, adj, add, x, y); };
    };
    const LinOp divide = of(polydiv_lop, wandering_filter(n, 3, 1));
    return {
        {"identity", i_op},
        {"difference", igrad1_lop},
        {"mask",
         [=](bool adj, bool add, std::span<float> x, std::span<float> y) { return mask_op(mask, adj, add, x, y); }},
        {"convolution", of(helicon_lop, still)},
        {"convolution with edges", of(helicon_lop, marked)},
        {"division, one filter", of(polydiv_lop, still)},
        {"division, one filter per sample", divide},
        {"division, a filter for two samples", of(polydiv_lop, wandering_filter(n, 2, 2))},
        {"chain",
         [=](bool adj, bool add, std::span<float> x, std::span<float> y) {
             std::vector<float> t(size);
             return chain20(divide, igrad1_lop, adj, add, x, y, t);
         }},
    };
}

}  // namespace

TEST(Operators, PassTheDotTest) {
    for (const int n : {1, 2, 7, 40, 41}) {
        for (const Named& c : operators(n)) {
            if (n == 1 && (c.name == std::string("difference") || c.name == std::string("chain"))) continue;  // zero
            EXPECT_LT(dot_mismatch(c.op, static_cast<std::size_t>(n), static_cast<std::size_t>(n)), 1e-6)
                << c.name << ", " << n << " samples";
        }
    }
}

TEST(Operators, AddKeepsWhatTheOutputHeld) {
    const std::size_t n = 30;
    for (const Named& c : operators(30)) {
        SCOPED_TRACE(c.name);
        const bool division = std::string(c.name).starts_with("division") || c.name == std::string("chain");
        for (const bool adj : {forward, adjoint}) {
            std::vector<float> in = random_vector<float>(n, 1), once(n, 7.0f), twice = in;
            adj ? c.op(adj, fresh, once, in) : c.op(adj, fresh, in, once);
            twice = once;
            adj ? c.op(adj, keep, twice, in) : c.op(adj, keep, in, twice);
            if (division) continue;  // its recursion runs over what was there
            for (std::size_t i = 0; i < n; ++i) EXPECT_NEAR(twice[i], 2 * once[i], 1e-6);
        }
    }
}

TEST(Igrad1, DifferencesToTheNextSample) {
    std::vector<float> x{1, 2, 4, 8}, y(4, 7.0f);
    igrad1_lop(forward, fresh, x, y);
    EXPECT_EQ(y, (std::vector<float>{1, 2, 4, 0}));
    igrad1_lop2(forward, fresh, x, y);
    EXPECT_EQ(y, (std::vector<float>{2, 4, 8, 0})) << "clears nothing";
}
