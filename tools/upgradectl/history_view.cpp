#include "tools/upgradectl/history_view.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "base/escaped_text.h"

namespace upgradectl {

namespace {

using kavro::escaped;
using kavro::agent::HistoryEntry;

constexpr std::size_t kGapColumns = 2;

// The last one as wide as it is.
using Row = std::array<std::string, 5>;

std::string orDash(const std::string& text) {
    return text.empty() ? "-" : escaped(text);
}

std::string releasesText(const HistoryEntry& entry) {
    return entry.before.empty() ? orDash(entry.release)
                                : escaped(entry.before) + " -> " + orDash(entry.release);
}

std::string remarksText(const HistoryEntry& entry) {
    std::string text;
    for (const std::string& part :
         {entry.text, entry.package, entry.by.empty() ? std::string() : "by " + entry.by}) {
        text += (text.empty() || part.empty() ? "" : "; ") + escaped(part);
    }
    return text;
}

Row rowOf(const HistoryEntry& entry) {
    return {orDash(entry.time), orDash(entry.event), orDash(entry.outcome), releasesText(entry),
            remarksText(entry)};
}

std::string lineOf(const Row& row, const std::array<std::size_t, std::tuple_size_v<Row>>& columns) {
    std::string line;
    for (std::size_t index = 0; index + 1 < row.size(); ++index) {
        line += row[index] + std::string(columns[index] + kGapColumns - row[index].size(), ' ');
    }
    line += row.back();
    return line.erase(line.find_last_not_of(' ') + 1) + "\n";
}

}  // namespace

std::string historyText(const std::vector<HistoryEntry>& history) {
    if (history.empty()) {
        return "nothing was recorded yet\n";
    }
    std::vector<Row> rows;
    std::array<std::size_t, std::tuple_size_v<Row>> columns = {};
    for (const HistoryEntry& entry : history) {
        const Row row = rowOf(entry);
        for (std::size_t index = 0; index < row.size(); ++index) {
            columns[index] = std::max(columns[index], row[index].size());
        }
        rows.push_back(row);
    }
    std::string text;
    for (const Row& row : rows) {
        text += lineOf(row, columns);
    }
    return text;
}

std::string historyJson(const std::vector<HistoryEntry>& history) {
    std::string text;
    for (const HistoryEntry& entry : history) {
        text += kavro::agent::historyLine(entry) + "\n";
    }
    return text;
}

}  // namespace upgradectl
