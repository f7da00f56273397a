// qas cat: datasets put together along an axis, or bare samples on the standard output.
#include <cmath>
#include <cstdio>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/records/formats.h"
#include "src/tools/qas/commands.h"
#include "src/tools/qas/dataset.h"

namespace qastool {
namespace {

using qas::qaserr;

/// The axis to put together along, counted from 1; one behind the last stacks the inputs.
std::size_t joined_axis(qas::Session& session, const Dataset& first) {
    const auto axis = integer_parameter(session, "axis", 1);
    if (!axis) return first.axes.size();
    if (*axis > static_cast<std::int64_t>(first.axes.size()) + 1 || *axis > most_axes)
        qaserr("axis=%lld: %s has %zu axes, one more can be made, %d is the most\n", static_cast<long long>(*axis),
               first.name.c_str(), first.axes.size(), most_axes);
    return static_cast<std::size_t>(*axis);
}

/// Refuses inputs that do not fit the first one; warns of axes that lie elsewhere.
void check_fit(const Dataset& first, const Dataset& next, std::size_t axis) {
    if (next.kind != first.kind)
        qaserr("%s holds %s samples, %s %s ones\n", first.name.c_str(), kind_name(first.kind).c_str(),
               next.name.c_str(), kind_name(next.kind).c_str());
    for (std::size_t k = 1; k <= std::max(first.axes.size(), next.axes.size()); ++k) {
        const GridAxis a = k <= first.axes.size() ? first.axes[k - 1] : GridAxis();
        const GridAxis b = k <= next.axes.size() ? next.axes[k - 1] : GridAxis();
        if (k == axis) continue;
        if (a.n != b.n)
            qaserr("n%zu=%lld in %s, %lld in %s: only axis=%zu may differ\n", k, static_cast<long long>(a.n),
                   first.name.c_str(), static_cast<long long>(b.n), next.name.c_str(), axis);
        const double tolerance = 1e-5 * std::abs(a.d);
        if (a.n > 1 && (std::abs(a.d - b.d) > tolerance || std::abs(a.o - b.o) > tolerance))
            std::fprintf(stderr, "qas cat: warning: d%zu or o%zu of %s and %s differ; those of %s are kept\n", k, k,
                         first.name.c_str(), next.name.c_str(), first.name.c_str());
    }
}

/// What `raw=` asks for: the byte order of this machine, or the other one if that is not big-endian.
bool wants_big_endian(const std::string& raw) {
    if (raw == "native") return false;
    if (raw == "xdr") return true;
    qaserr("raw=%s: native (byte order of this machine) or xdr (big-endian) is needed\n", printable(raw).c_str());
}

Sink raw_sink(const Dataset& first, bool big_endian) {
    return [swap = big_endian && first.kind != Kind::byte &&
                   __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__](std::span<char> block) {
        if (swap) qas::swap_words(block.data(), block.data(), block.size() / 4);
        if (std::fwrite(block.data(), 1, block.size(), stdout) != block.size())
            qaserr("the samples cannot be written to the standard output\n");
    };
}

}  // namespace

int run_cat(Words words) {
    check_words(words, {"axis", "raw"}, {}, true);
    check_files(words, 0, 1000);
    std::vector<std::pair<std::string, std::string>> tags{{"stdin", words.files[0]}};
    for (std::size_t i = 1; i < words.files.size(); ++i) tags.emplace_back("cat" + std::to_string(i), words.files[i]);
    qas::Session session(session_words(words, tags));
    session.replace_outputs();
    std::vector<Dataset> sets;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        sets.push_back(read_description(session, i == 0 ? "in" : tags[i].first, tags[i].second));
        require_data(session, sets.back(), sets.back().bytes());
    }
    const Dataset& first = sets.front();
    const auto raw = session.getch<std::string>("raw");
    const std::size_t axis = joined_axis(session, first);
    std::int64_t total = 0, outer = 1;
    for (const Dataset& set : sets) {
        check_fit(first, set, axis);
        std::int64_t bytes = 0;
        total += axis <= set.axes.size() ? set.axes[axis - 1].n : 1;
        if (total < 1 || __builtin_mul_overflow(first.bytes(), total, &bytes))
            qaserr("the sum of n%zu is too large\n", axis);
    }
    for (std::size_t k = axis; k < first.axes.size(); ++k) outer *= first.axes[k].n;
    Sink sink;
    if (raw) {
        require_numbers(first);
        sink = raw_sink(first, wants_big_endian(*raw));
    } else {
        check_output_format(session, first);
        put_integer(session, qas::strprintf("n%zu", axis), total);
        sink = dataset_sink(session);
    }
    for (std::int64_t i = 0; i < outer; ++i)
        for (const Dataset& set : sets) pass_on(session, set, set.bytes() / outer, sink);
    if (!raw) {
        session.hclose();
        session.finish_outputs();
    }
    if (std::fflush(stdout) != 0) qaserr("the samples cannot be written to the standard output\n");
    return 0;
}

}  // namespace qastool
