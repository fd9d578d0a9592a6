// docs/states.dot, from which docs/states.svg is drawn, and docs/states.md have the stages and states of the library,
// all of them and no others.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "tests/docs/source_literals.h"
#include "upgrade/upgrade_api.h"

namespace {

using Names = std::set<std::string>;

template <std::size_t kRows>
Names namesIn(const COMMON_YR::MapKeyString (&table)[kRows]) {
    Names names;
    for (std::size_t row = 0; table[row].key != COMMON_YR::kMapKeyEnd; ++row) {
        names.insert(table[row].text);
    }
    return names;
}

// The names that stand behind a word in the labels of the diagram.
Names drawnBehind(const std::string& word) {
    const std::regex drawn(word + " ([A-Z][A-Z_]+)");
    Names names;
    for (const std::string& line : testsupport::linesOf("docs/states.dot")) {
        for (std::sregex_iterator found(line.begin(), line.end(), drawn); found != std::sregex_iterator();
             ++found) {
            names.insert((*found)[1]);
        }
    }
    return names;
}

// The names in a column of the table of a run.
Names tabulatedIn(int column) {
    static const std::regex kRow(R"(\| ([A-Z_]+) \|([^|]*)\| .*)");
    static const std::regex kName("[A-Z][A-Z_]+");
    Names names;
    for (const std::string& line : testsupport::linesOf("docs/states.md")) {
        std::smatch cells;
        if (!std::regex_match(line, cells, kRow)) {
            continue;
        }
        const std::string cell = cells[static_cast<std::size_t>(column)];
        for (std::sregex_iterator found(cell.begin(), cell.end(), kName); found != std::sregex_iterator();
             ++found) {
            names.insert(found->str());
        }
    }
    return names;
}

TEST(States, diagram_and_table_have_all_stages) {
    EXPECT_EQ(drawnBehind("stage"), namesIn(UpgradeProc::stageNames));
    EXPECT_EQ(tabulatedIn(1), namesIn(UpgradeProc::stageNames));
}

TEST(States, diagram_and_table_have_all_states) {
    EXPECT_EQ(drawnBehind("state"), namesIn(UpgradeProc::stateNames));
    Names tabulated = tabulatedIn(2);
    tabulated.insert("FAIL");  // in the column of what happens when a stage fails
    EXPECT_EQ(tabulated, namesIn(UpgradeProc::stateNames));
}

}  // namespace
