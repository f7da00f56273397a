#pragma once
/// Tables of the keys that a program reads: its help, and what tells the user of keys that nobody reads.
#include <string>
#include <string_view>
#include <vector>

namespace qas {

/// `presence`: the key acts by being given, whatever its value. `input`, `output`: a tag, whose value is a header.
enum class KeyType { logical, integer, real, text, presence, input, output };

struct Key {
    std::string name;  ///< a `#` at its end stands for an axis number, 1 to 9
    KeyType type;
    std::string unit;      ///< of numbers; empty: none
    std::string standard;  ///< the default as it is typed; "required"; empty: absent
    std::string when;      ///< what must hold for the key to be read; empty: always
    std::string meaning;   ///< one line
};

struct KeyGroup {
    std::string title;
    std::vector<Key> keys;
};

/// The keys of one program, by group.
class KeyTable {
    std::vector<KeyGroup> groups_;

public:
    /// The groups, then the keys of the dataset layer, which every program reads; what `own` says of one of them
    /// counts.
    explicit KeyTable(std::vector<KeyGroup> own);
    const std::vector<KeyGroup>& groups() const { return groups_; }
    /// Whether the name is that of a key, or `TAG.out` or `TAG.write_title` of a tag.
    bool knows(std::string_view name) const;
    /// The key with the nearest name, see nearest_name.
    std::string nearest(std::string_view name) const;
    /// The groups with their keys, one or two lines each.
    std::string help() const;
};

/// The one of `names` that is nearest to `name` by insertions, deletions, replacements and swaps of characters;
/// capitals, leading dashes and - against _ do not count. A third of the characters may differ; else the first that
/// holds `name`, or nothing.
std::string nearest_name(std::string_view name, const std::vector<std::string>& names);

/// "logical", "integer", ... as in the documents.
std::string_view type_name(KeyType type);

/// The keys that the dataset layer reads in every program.
KeyGroup layer_keys();

}  // namespace qas
