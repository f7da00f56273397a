/// The table of keys against the documents and against what a run records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "lib/corelibs/qas/session.h"
#include "src/areal/wemva/run/ow_parms_areal.h"
#include "src/areal/wemva/start/key_table.h"
#include "src/areal/wemva/start/owparam.h"
#include "tests/quiet.h"
#include "tests/tiny_survey.h"

using namespace morvane;

namespace {

using Cells = std::vector<std::string>;

/// The parts of a text between separators, without the blanks at their ends.
Cells split(const std::string& text, const std::string& separator) {
    Cells parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(separator, begin), text.size());
        std::string part = text.substr(begin, end - begin);
        part.erase(0, part.find_first_not_of(' '));
        part.erase(part.find_last_not_of(' ') + 1);
        parts.push_back(part);
        begin = end + separator.size();
    }
    return parts;
}

/// A cell for each of n keys: a list of n, or one for all.
Cells for_each_key(const std::string& cell, std::size_t n) {
    const Cells list = split(cell, ", ");
    return list.size() == n ? list : Cells(n, cell);
}

struct Documented {
    std::string type, standard;  ///< as the table of the document has them; empty: it has no such column
};

/// The keys of those tables of a document whose first column is headed "key", up to a heading.
std::map<std::string, Documented> documented(const std::string& file, const std::string& until) {
    std::map<std::string, Documented> keys;
    std::map<std::string, std::size_t> columns;
    Cells above;
    for (std::string line : files::lines_of(files::read_text(MORVANE_SOURCE_DIR "/docs/" + file))) {
        if (line == until) break;
        std::erase(line, '`');
        const Cells cells = split(line, "|");
        if (line.starts_with("|---")) {
            columns.clear();
            for (std::size_t i = 1; i < above.size() && above[1] == "key"; ++i)
                columns[split(above[i], " (").front()] = i;
        } else if (line.starts_with("| ") && columns.contains("key") && !cells[1].empty()) {
            const Cells names = split(cells[1], ", ");
            const auto column = [&](const char* name) {
                return for_each_key(columns.contains(name) ? cells[columns[name]] : "", names.size());
            };
            const Cells types = column(columns.contains("direction") ? "direction" : "type");
            const Cells standards = column("default");
            for (std::size_t i = 0; i < names.size(); ++i) keys[names[i]] = {types[i], standards[i]};
        } else if (!line.starts_with("|")) {
            columns.clear();
        }
        above = cells;
    }
    return keys;
}

std::string type_of(const qas::Key& key) {
    return std::string(type_name(key.type)) + (key.unit.empty() ? "" : " (" + key.unit + ")");
}

}  // namespace

TEST(Keys, AreThoseOfTheDocuments) {
    std::map<std::string, Documented> keys = documented("parameters.md", "## Keys of morvane_taylor");
    ASSERT_GT(keys.size(), 100u);
    std::set<std::string> seen;
    for (const qas::KeyGroup& group : run_keys()) {
        for (const qas::Key& key : group.keys) {
            SCOPED_TRACE(key.name);
            EXPECT_TRUE(seen.insert(key.name).second) << "twice";
            ASSERT_TRUE(keys.contains(key.name)) << "not in docs/parameters.md";
            const Documented& there = keys[key.name];
            EXPECT_EQ(there.type, type_of(key));
            if (there.standard != "" && there.standard != "absent") {
                EXPECT_EQ(there.standard, key.standard);
            }
            keys.erase(key.name);
        }
    }
    for (const auto& [name, key] : keys) ADD_FAILURE() << name << " is in docs/parameters.md only";

    std::map<std::string, Documented> layer = documented("datasets.md", "no heading");
    for (const qas::Key& key : qas::layer_keys().keys) EXPECT_EQ(layer.erase(key.name), 1u) << key.name;
    EXPECT_THAT(layer, testing::UnorderedElementsAre(testing::Key("TAG"), testing::Key("TAG.out"),
                                                     testing::Key("TAG.write_title")));
}

// owparam, which knows nothing of the table, records every value that it reads.
TEST(Keys, HaveTheDefaultsThatARunRecords) {
    const qas::KeyTable table(run_keys());
    std::map<std::string, std::string> standard;
    for (const qas::KeyGroup& group : table.groups())
        for (const qas::Key& key : group.keys) standard[key.name] = key.standard;
    using Arguments = std::map<std::string, std::string>;
    std::set<std::string> compared;
    for (const Arguments& more :
         {Arguments{{"envelope", "y"}, {"moddso", "y"}, {"icwind", "y"}}, Arguments{{"timeshift", "y"}},
          Arguments{{"dso", "n"}, {"resmig", "y"}}, Arguments{{"dso", "n"}, {"resmig_lin", "y"}},
          Arguments{{"extrapolator", "pspi"}, {"lloyd", "y"}}}) {
        files::TinySurvey survey(true);
        for (const auto& [key, value] : more) survey.arguments[key] = value;
        {
            const Quiet quiet;
            qas::Session session(survey.command());
            session.declare(table);
            owparam(session);
        }
        const std::string label = "From par: ";
        for (const std::string& line : files::lines_of(files::read_text(survey.dir / "history"))) {
            const std::size_t at = line.find(label), equals = line.find('=');
            if (at == std::string::npos) continue;
            const std::string key = line.substr(at + label.size(), equals - at - label.size());
            std::string value = line.substr(equals + 1);
            std::erase(value, '"');
            value.erase(value.find_last_not_of(' ') + 1);
            if (survey.arguments.contains(key) || standard[key].find(' ') != std::string::npos) continue;
            EXPECT_EQ(value == "yes" ? "y" : value == "no" ? "n" : value, standard[key]) << key;
            compared.insert(key);
        }
    }
    EXPECT_GE(compared.size(), 75u) << "keys were left out";
}
