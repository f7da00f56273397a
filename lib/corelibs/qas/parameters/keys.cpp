#include "lib/corelibs/qas/parameters/keys.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace qas {
namespace {

using enum KeyType;

bool is_tag(const Key& key) {
    return key.type == input || key.type == output;
}

bool names(const Key& key, std::string_view name) {
    if (key.name.ends_with('#'))
        return name.size() == key.name.size() && name.starts_with(key.name.substr(0, name.size() - 1)) &&
               name.back() >= '1' && name.back() <= '9';
    if (is_tag(key) && name.starts_with(key.name)) {
        const std::string_view rest = name.substr(key.name.size());
        if (rest == ".out" || rest == ".write_title") return true;
    }
    return name == key.name;
}

/// The name as it is compared: small letters, _ for -, no leading dashes.
std::string folded(std::string_view name) {
    name.remove_prefix(std::min(name.find_first_not_of('-'), name.size()));
    std::string text(name);
    for (char& c : text) c = c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

/// Insertions, deletions, replacements and swaps of neighbours that turn a into b.
std::size_t edits(std::string_view a, std::string_view b) {
    std::vector<std::size_t> before(b.size() + 1), above(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) above[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before = std::exchange(above, row);
    }
    return above[b.size()];
}

/// "  key=default unit", the meaning behind it, broken into lines.
std::string help_lines(const Key& key) {
    constexpr std::size_t indent = 28, width = 116;
    const bool file = is_tag(key);
    std::string head = "  " + key.name + "=" + (file ? "FILE" : key.standard == "required" ? "" : key.standard);
    if (!key.unit.empty()) head += " " + key.unit;
    std::string what = key.meaning;
    if (key.standard == "required") what += "; required";
    if (!key.when.empty()) what += " [" + key.when + "]";
    if (what.empty()) return head + "\n";
    head.resize(std::max(head.size() + 2, indent), ' ');
    std::string text;
    for (std::size_t start = 0; start < what.size();) {
        std::size_t n = what.size() - start;
        if (head.size() + n > width) n = what.rfind(' ', start + width - head.size()) - start;
        text += head + what.substr(start, n) + "\n";
        head.assign(indent, ' ');
        start += n + 1;
    }
    return text;
}

}  // namespace

KeyTable::KeyTable(std::vector<KeyGroup> own) : groups_(std::move(own)) {
    KeyGroup layer = layer_keys();
    std::erase_if(layer.keys, [&](const Key& key) { return knows(key.name); });
    groups_.push_back(std::move(layer));
}

bool KeyTable::knows(std::string_view name) const {
    return std::ranges::any_of(groups_, [&](const KeyGroup& group) {
        return std::ranges::any_of(group.keys, [&](const Key& key) { return names(key, name); });
    });
}

std::string nearest_name(std::string_view name, const std::vector<std::string>& names) {
    constexpr std::size_t telling = 4;  // characters that say something in the middle of a name
    const std::string asked = folded(name);
    const std::size_t most = std::max<std::size_t>(asked.size() / 3, 1);
    using Rank = std::pair<std::size_t, std::ptrdiff_t>;  // edits, then the characters in common from the start
    Rank best_rank{most + 1, 0};
    std::string best, holding;
    for (const std::string& candidate : names) {
        const std::string there = folded(candidate);
        const Rank rank{edits(asked, there), asked.begin() - std::ranges::mismatch(asked, there).in1};
        if (rank < best_rank && rank.first <= most && rank.first < there.size()) {
            best_rank = rank;
            best = candidate;
        }
        if (holding.empty() && asked.size() >= telling && there.find(asked) != std::string::npos) holding = candidate;
    }
    return best.empty() ? holding : best;
}

std::string KeyTable::nearest(std::string_view name) const {
    std::vector<std::string> all;
    for (const KeyGroup& group : groups_)
        for (const Key& key : group.keys) all.push_back(key.name);
    return nearest_name(name, all);
}

std::string KeyTable::help() const {
    std::string text;
    for (const KeyGroup& group : groups_) {
        text += "\n" + group.title + "\n";
        for (const Key& key : group.keys) text += help_lines(key);
    }
    return text;
}

std::string_view type_name(KeyType type) {
    constexpr std::array<std::string_view, 7> all = {"logical", "integer", "real", "text", "presence", "in", "out"};
    return all[static_cast<std::size_t>(type)];
}

KeyGroup layer_keys() {
    return {"Parameters and datasets",
            {
                {"par", text, "", "", "", "file of further parameters, read where it is named"},
                {"datapath", text, "", "", "", "what goes before the names of data files; several, parted by ;"},
                {"nfiles", integer, "", "1", "", "files over which the data of an output are spread"},
                {"filesize", integer, "MB", "999999", "nfiles", "largest size of these files, a list"},
                {"dirsize", integer, "MB", "9999000", "nfiles", "largest sum of them in a directory, a list"},
                {"stdin", text, "", "stdin", "", "header of \"in\", whose history goes to \"out\""},
                {"stdout", text, "", "stdout", "", "header of \"out\", the history of this run"},
                {"head", text, "", "", "", "header of an output that would be on the standard output"},
                {"in", input, "", "", "", "data of \"in\""},
                {"out", output, "", "", "", "data of \"out\""},
                {"noheader", logical, "", "n", "", "the standard input holds no header"},
                {"data_format", text, "", "xdr_float", "", "format of the data of \"out\""},
                {"timeout", integer, "s", "5", "pipes", "wait for a reader's handshake; 0: for ever"},
                {"isoutstream", integer, "", "0", "pipes", "1: no handshake"},
                {"qas.listen", text, "", "127.0.0.1", "sockets", "address that is listened at"},
                {"qas.jobid", text, "", "", "", "job master: identity of this job"},
                {"qas.mach_label", text, "", "", "", "job master: name of this machine"},
                {"qas.master_ip", text, "", "", "", "job master: its address"},
                {"qas.master_port", integer, "", "", "", "job master: its port"},
                {"qas.par_job", integer, "", "1", "", "0: the job master is told nothing"},
                {"qas.begin_par", integer, "", "0", "", "1: it is told the start of the run"},
                {"qas.end_par", integer, "", "0", "", "1: it is told the end of the run"},
            }};
}

}  // namespace qas
