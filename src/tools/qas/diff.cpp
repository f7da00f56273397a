// qas diff: do two datasets agree, and how well.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "src/tools/qas/commands.h"
#include "src/tools/qas/comparison.h"
#include "src/tools/qas/dataset.h"

namespace qastool {
namespace {

using qas::qaserr;

constexpr double axis_tolerance = 1e-5;  // of the sampling interval: "%g" in a header keeps six digits

bool same_number(double a, double b, double scale) {
    return std::abs(a - b) <= axis_tolerance * scale;
}

/// Prints where the descriptions differ. Axes beyond the last and axes not given have one sample.
/// Returns whether samples can be compared; `same` turns false at any difference.
bool compare_axes(const Dataset& a, const Dataset& b, bool& same) {
    bool comparable = true;
    if ((a.kind == Kind::complex) != (b.kind == Kind::complex)) {
        std::printf("samples are %s and %s\n", kind_name(a.kind).c_str(), kind_name(b.kind).c_str());
        comparable = false;
    }
    for (std::size_t i = 0; i < std::max(a.axes.size(), b.axes.size()); ++i) {
        const GridAxis first = i < a.axes.size() ? a.axes[i] : GridAxis();
        const GridAxis second = i < b.axes.size() ? b.axes[i] : GridAxis();
        if (first.n != second.n) {
            std::printf("n%zu is %lld and %lld\n", i + 1, static_cast<long long>(first.n),
                        static_cast<long long>(second.n));
            comparable = false;
            continue;
        }
        if (!first.given || !second.given) continue;
        const double scale = std::max(std::abs(first.d), std::abs(second.d));
        if (first.n > 1 && !same_number(first.d, second.d, scale)) {
            std::printf("d%zu is %.9g and %.9g\n", i + 1, first.d, second.d);
            same = false;
        }
        if (!same_number(first.o, second.o, std::max({scale, std::abs(first.o), std::abs(second.o)}))) {
            std::printf("o%zu is %.9g and %.9g\n", i + 1, first.o, second.o);
            same = false;
        }
    }
    same = same && comparable;
    return comparable;
}

Comparison compare_samples(qas::Session& session, const Dataset& a, const Dataset& b) {
    Comparison comparison;
    const std::int64_t block = block_bytes / 8;
    std::vector<char> of_a(static_cast<std::size_t>(block * a.esize)), of_b(static_cast<std::size_t>(block * b.esize));
    const auto read = [&](const Dataset& set, std::vector<char>& buffer, std::int64_t samples) {
        const std::int64_t bytes = samples * set.esize;
        if (session.sreed(set.tag, buffer.data(), bytes) != bytes)
            qaserr("%s: its data \"%s\" end before its axes do\n", set.name.c_str(), printable(set.data).c_str());
        return std::span<const char>(buffer.data(), static_cast<std::size_t>(bytes));
    };
    for (std::int64_t done = 0; done < a.samples;) {
        const std::int64_t samples = std::min(block, a.samples - done);
        const auto block_a = read(a, of_a, samples);
        comparison.add(a.kind, block_a, b.kind, read(b, of_b, samples));
        done += samples;
    }
    return comparison;
}

void print_comparison(const Dataset& a, const Comparison& c) {
    std::printf("relative_l2=%.9g largest=%.9g", c.relative(), c.largest);
    if (c.largest_at >= 0) std::printf(" at %s (%.9g and %.9g)", position_text(a.axes, c.largest_at).c_str(), c.a, c.b);
    std::printf("\n");
    if (c.clashes > 0)
        std::printf("not finite in one of them, or in different ways: %lld samples, the first at %s\n",
                    static_cast<long long>(c.clashes), position_text(a.axes, c.first_clash).c_str());
}

}  // namespace

int run_diff(Words words) {
    check_words(words, {"tol", "max"}, {}, false);
    check_files(words, 2, 2);
    qas::Session session(session_words(words, {{"diffa", words.files[0]}, {"diffb", words.files[1]}}));
    const auto tolerance = tolerance_parameter(session, "tol");
    const auto most = tolerance_parameter(session, "max");
    const Dataset a = read_description(session, "diffa", words.files[0]);
    const Dataset b = read_description(session, "diffb", words.files[1]);
    for (const Dataset* set : {&a, &b}) {
        require_numbers(*set);
        require_data(session, *set, set->bytes());
    }
    bool same = true;
    if (!compare_axes(a, b, same)) return 1;
    const Comparison c = compare_samples(session, a, b);
    print_comparison(a, c);
    if (tolerance) same = same && c.relative() <= *tolerance;
    if (most) same = same && c.largest <= *most;
    if (!tolerance && !most) same = same && c.largest_at < 0;
    return same && c.clashes == 0 ? 0 : 1;
}

}  // namespace qastool
