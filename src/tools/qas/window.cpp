// qas window: every j-th sample from f on, n of them, along any axis.
#include <algorithm>

#include "lib/corelibs/qas/messages/notes.h"
#include "lib/corelibs/qas/tags/transfer.h"
#include "src/tools/qas/commands.h"
#include "src/tools/qas/dataset.h"

namespace qastool {
namespace {

using qas::qaserr;

qas::Window chosen_window(qas::Session& session, const Dataset& set) {
    qas::Window window;
    window.esize = set.esize;
    for (int k = 1; k <= most_axes; ++k) {
        const std::string number = std::to_string(k);
        const bool exists = static_cast<std::size_t>(k) <= set.axes.size();
        const std::int64_t grid = exists ? set.axes[static_cast<std::size_t>(k - 1)].n : 1;
        const std::int64_t first = integer_parameter(session, "f" + number, 0).value_or(0);
        const std::int64_t step = integer_parameter(session, "j" + number, 1).value_or(1);
        if (first >= grid)
            qaserr("f%d=%lld: %s has n%d=%lld, the last index is %lld\n", k, static_cast<long long>(first),
                   set.name.c_str(), k, static_cast<long long>(grid), static_cast<long long>(grid - 1));
        const std::int64_t fitting = (grid - 1 - first) / step + 1;
        const std::int64_t n = integer_parameter(session, "n" + number, 1).value_or(fitting);
        if (n > fitting)
            qaserr("n%d=%lld: %lld fit from f%d=%lld with j%d=%lld, %s has n%d=%lld\n", k, static_cast<long long>(n),
                   static_cast<long long>(fitting), k, static_cast<long long>(first), k, static_cast<long long>(step),
                   set.name.c_str(), k, static_cast<long long>(grid));
        if (!exists) continue;
        window.grid.push_back(grid);
        window.first.push_back(first);
        window.step.push_back(step);
        window.n.push_back(n);
    }
    return window;
}

/// Bytes from the start of the data to the end of the window's last sample.
std::int64_t reach(const qas::Window& window) {
    std::int64_t last = 0;
    for (std::size_t i = window.grid.size(); i-- > 0;)
        last = last * window.grid[i] + window.first[i] + (window.n[i] - 1) * window.step[i];
    return (last + 1) * window.esize;
}

/// The same samples with axes that are taken whole joined to the next one, so that lines are long.
qas::Window with_long_lines(qas::Window window) {
    while (window.grid.size() > 1 && window.n[0] == window.grid[0] && window.step[1] == 1) {
        const std::int64_t line = window.grid[0];
        for (auto* values : {&window.grid, &window.n, &window.first}) {
            (*values)[1] *= line;
            values->erase(values->begin());
        }
        window.step.erase(window.step.begin());
        window.step[0] = 1;
    }
    return window;
}

/// Calls use(part) for parts of the window in order, each of at most block_bytes.
template <class Use>
void for_each_part(const qas::Window& window, Use use) {
    const std::int64_t most = block_bytes / window.esize;
    std::size_t cut = 0;  // axes before this one are in every part whole
    std::int64_t whole = 1;
    while (cut + 1 < window.n.size() && whole * window.n[cut] <= most) whole *= window.n[cut++];
    const std::int64_t piece = std::max<std::int64_t>(1, most / whole);
    std::vector<std::int64_t> at(window.n.size(), 0);
    for (;;) {
        qas::Window part = window;
        for (std::size_t i = cut; i < at.size(); ++i) {
            part.first[i] = window.first[i] + at[i] * window.step[i];
            part.n[i] = i == cut ? std::min(piece, window.n[i] - at[i]) : 1;
        }
        use(part);
        at[cut] += part.n[cut];
        std::size_t i = cut;
        while (i < at.size() && at[i] == window.n[i]) {
            at[i] = 0;
            if (++i < at.size()) ++at[i];
        }
        if (i == at.size()) return;
    }
}

void write_header(qas::Session& session, const Dataset& set, const qas::Window& window) {
    for (const char* letter : {"f", "j", "n"})
        for (int k = 1; k <= most_axes; ++k) {
            const std::string key = letter + std::to_string(k);
            if (const auto value = integer_parameter(session, key, 0)) put_integer(session, "From par: " + key, *value);
        }
    for (std::size_t i = 0; i < set.axes.size(); ++i) {
        const GridAxis& axis = set.axes[i];
        const std::string k = std::to_string(i + 1);
        if (!axis.given) continue;
        put_integer(session, "n" + k, window.n[i]);
        if (window.first[i] == 0 && window.step[i] == 1) continue;
        session.to_history("o" + k, axis.o + static_cast<double>(window.first[i]) * axis.d);
        session.to_history("d" + k, axis.d * static_cast<double>(window.step[i]));
    }
}

}  // namespace

int run_window(Words words) {
    check_words(words, {"f#", "j#", "n#"}, {}, true);
    check_files(words, 0, 1);
    qas::Session session(session_words(words, {{"stdin", words.files[0]}}));
    session.replace_outputs();
    const Dataset set = read_description(session, "in", words.files[0]);
    check_output_format(session, set);
    if (set.axes.empty()) require_data(session, set, 0);
    const qas::Window window = chosen_window(session, set);
    require_data(session, set, reach(window));
    write_header(session, set, window);
    const Sink sink = dataset_sink(session);
    std::vector<char> buffer;
    for_each_part(with_long_lines(window), [&](const qas::Window& part) {
        std::int64_t bytes = part.esize;
        for (const std::int64_t n : part.n) bytes *= n;
        buffer.resize(static_cast<std::size_t>(bytes));
        if (session.sreed_window("in", part, buffer.data()) != bytes)
            qaserr("%s: its data \"%s\" end before the window does\n", set.name.c_str(), printable(set.data).c_str());
        sink(buffer);
    });
    session.hclose();
    session.finish_outputs();
    return 0;
}

}  // namespace qastool
