// qas info: what a dataset is and what its samples are like.
#include <algorithm>
#include <cstdio>

#include "lib/corelibs/qas/messages/notes.h"
#include "src/tools/qas/commands.h"
#include "src/tools/qas/dataset.h"
#include "src/tools/qas/statistics.h"

namespace qastool {
namespace {

using qas::strprintf;

void print_axes(const Dataset& set) {
    if (set.axes.empty()) std::puts("  no axes");
    for (std::size_t i = 0; i < set.axes.size(); ++i) {
        const GridAxis& axis = set.axes[i];
        if (!axis.given) continue;
        const std::size_t k = i + 1;
        std::string line =
            strprintf("  n%zu=%lld d%zu=%g o%zu=%g", k, static_cast<long long>(axis.n), k, axis.d, k, axis.o);
        if (axis.n > 1) line += strprintf(" end=%g", axis.o + static_cast<double>(axis.n - 1) * axis.d);
        if (!axis.label.empty()) line += strprintf(" label%zu=\"%s\"", k, printable(axis.label).c_str());
        std::puts(line.c_str());
    }
}

/// One line on what the axes promise against what is there; `size` is -1 where that cannot be told.
void print_size(const Dataset& set, std::int64_t size) {
    std::string line = strprintf("  header: %lld samples, %lld bytes; ", static_cast<long long>(set.samples),
                                 static_cast<long long>(set.bytes()));
    if (size < 0) {
        line += "data: a stream";
    } else {
        line += strprintf("data: %lld bytes", static_cast<long long>(size));
        if (!set.axes.empty() && size != set.bytes())
            line += strprintf(", %lld too %s", static_cast<long long>(std::abs(size - set.bytes())),
                              size < set.bytes() ? "few" : "many");
    }
    std::puts(line.c_str());
}

/// Number of axes with the one that counts the panels: the last. One sample there counts nothing, as in the model and
/// image panels of a run, where it is axis 4; then it is the one before.
std::size_t panel_axis(const Dataset& set) {
    const std::size_t last = set.axes.size();
    return last > 1 && set.axes.back().n == 1 ? last - 1 : last;
}

/// Reads the samples; prints a line per panel if asked, then one for all.
void print_statistics(qas::Session& session, const Dataset& set, std::int64_t size, bool panels) {
    std::int64_t left = set.axes.empty() ? size : set.bytes();
    if (size >= 0) left = std::min(left, size) / set.esize * set.esize;
    const std::size_t axis = panel_axis(set);
    const std::int64_t panel = axis < 2 ? left : set.bytes() / set.axes[axis - 1].n;
    std::vector<char> buffer(static_cast<std::size_t>(std::min(left, block_bytes)));
    Statistics all;
    bool ended = false;
    for (std::int64_t number = 0; left > 0 && !ended; ++number) {
        Statistics one;
        const std::int64_t bytes = std::min(panel, left);
        std::int64_t done = 0;
        while (done < bytes && !ended) {
            const std::int64_t wanted = std::min(block_bytes / set.esize * set.esize, bytes - done);
            const std::int64_t got = session.sreed(set.tag, buffer.data(), wanted);
            one.add(set.kind, std::span(buffer).first(static_cast<std::size_t>(got / set.esize * set.esize)));
            done += got;
            ended = got < wanted;
        }
        left -= done;
        all.add(one);
        if (panels && done > 0)
            std::printf("  f%zu=%lld %s%s\n", std::max<std::size_t>(1, axis),
                        static_cast<long long>(axis < 2 ? 0 : number), statistics_text(one).c_str(),
                        done < panel ? " (incomplete)" : "");
    }
    std::printf("  %s\n", statistics_text(all).c_str());
    if (ended && size < 0) std::printf("  the stream ended %lld bytes too early\n", static_cast<long long>(left));
}

void describe(qas::Session& session, const std::string& tag, const std::string& file, bool panels) {
    const Dataset set = read_description(session, tag, file);
    if (session.history(tag).empty()) qas::qaserr("%s: its header is empty\n", set.name.c_str());
    std::printf("%s\n", printable(set.name).c_str());
    const bool no_data = set.data.empty() || set.data == "-1";
    std::printf("  data: %s\n", no_data               ? "none"
                                : set.data == "stdin" ? "behind the header"
                                                      : printable(set.data).c_str());
    std::printf("  format: %s, esize=%lld (%s)\n", set.format.c_str(), static_cast<long long>(set.esize),
                kind_name(set.kind).c_str());
    print_axes(set);
    if (no_data) return;
    const std::int64_t size = session.data_size(tag);
    print_size(set, size);
    if (set.kind == Kind::other || (set.axes.empty() && size < 0))
        std::puts("  no statistics: the samples cannot be read as numbers, or nothing tells how many there are");
    else
        print_statistics(session, set, size, panels);
}

}  // namespace

int run_info(Words words) {
    check_words(words, {"panels"}, {"--panels"}, false);
    check_files(words, 0, 100000);
    std::vector<std::pair<std::string, std::string>> tags;
    for (std::size_t i = 0; i < words.files.size(); ++i) tags.emplace_back("info" + std::to_string(i), words.files[i]);
    qas::Session session(session_words(words, tags));
    const bool panels = words.has_flag("--panels") || logical_parameter(session, "panels").value_or(false);
    int status = 0;
    for (const auto& [tag, file] : tags) {
        try {
            describe(session, tag, file, panels);
            session.auxclose(tag);
        } catch (const qas::Fatal& error) {
            std::fflush(stdout);
            std::fprintf(stderr, "qas info: %s", error.what());
            status = 23;
        }
        std::fflush(stdout);
    }
    return status;
}

}  // namespace qastool
