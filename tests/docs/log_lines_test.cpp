// docs/log-lines.md and the sources say the same: no text of the log is missing there, and none is there that nobody
// logs.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/docs/source_literals.h"

namespace {

using testsupport::Literal;

constexpr const char* kDocument = "docs/log-lines.md";

// What has the looks of a text for people and is none of the log's.
const std::set<std::string> kNoLogTexts = {
    // commands
    "rm %s/* -fr",
    "mkdir -p %s",
    "tar -zxf %s -C %s",
    "tar -xvf %s -C %s",
    "cp %s %s",
    "openssl dgst -sha256 -verify %s -signature %s%s %s",
    "kavro_command=$(cat <&3) || exit 127; exec 3<&-; eval \"$kavro_command\"",
    // parts of other texts, and numbers in them
    "V%02d.%03d.%03d.%03d",
    "%3d%3d%3d%3d",
    "%8X",
    "%02X",
    "0x%08llX",
    " 0x%02X",
    "%F %T",
    "%FT%TZ",
    ".%03ld",
    "%.*s",
    "UPGRADE_write_target_version ",
    // of the tools'
    "it is not known what slot ",
    "\"node\" names no \"address\" to listen to",
    " must hold",
    "check the directory, its permissions and the room there",
    "check the memory and the storage of this machine",
    "' cannot be ",
    "' exists and is no regular file",
    "flushed to storage",
    "give another output file",
    "given its name",
    // read, not written
    "%*d: FLOCK ADVISORY WRITE %d %x:%x:%lu",
    // of the compiler's
    "the message node carries messages of this size",
};

std::vector<Literal> sourceLiterals() {
    return testsupport::literalsBelow({"upgrade", "platform", "base", "common"});
}

bool isText(const std::string& text) {
    return text.find_first_of(" %!") != std::string::npos &&
           std::any_of(text.begin(), text.end(), [](unsigned char c) { return std::isalpha(c) != 0; });
}

bool isFormat(const std::string& text) {
    return text.find('%') != std::string::npos;
}

std::string trimmed(const std::string& text, const char* blanks = " ") {
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

struct Row {
    std::set<int> levels;
    std::string text;
};

// The rows `| level | text | ..`, one for each text.
std::vector<Row> documentedRows() {
    static const std::regex kRow(R"(\| (\d)(?: or (\d))? \| (`.*?) \| .*)");
    std::vector<Row> rows;
    for (const std::string& line : testsupport::linesOf(kDocument)) {
        std::smatch cells;
        if (!std::regex_match(line, cells, kRow)) {
            continue;
        }
        std::set<int> levels = {std::stoi(cells[1])};
        if (cells[2].matched) {
            levels.insert(std::stoi(cells[2]));
        }
        for (const std::string& text : testsupport::codeSpansIn(cells[3])) {
            rows.push_back({levels, text});
        }
    }
    return rows;
}

std::vector<std::string> documentedSpans() {
    std::vector<std::string> spans;
    for (const std::string& line : testsupport::linesOf(kDocument)) {
        const std::vector<std::string> found = testsupport::codeSpansIn(line);
        spans.insert(spans.end(), found.begin(), found.end());
    }
    return spans;
}

// The level that a call gives its text; 0 where it is not written in the call.
int levelOf(const Literal& literal) {
    static const std::regex kLevel(R"((?:UPGRADE_LOG|printLog)\((\d), $)");
    static const std::regex kError(R"(UPGRADE_ERROR(?:_AT)?\([^()]*$)");
    std::smatch found;
    if (std::regex_search(literal.before, found, kLevel)) {
        return std::stoi(found[1]);
    }
    return std::regex_search(literal.before, kError) ? 1 : 0;
}

// Without what stands for something else, such as <FILE>.
std::vector<std::string> fixedPartsOf(const std::string& text) {
    static const std::regex kPlaceholder("<[^<>]*[A-Z][^<>]*>");
    std::vector<std::string> parts;
    const std::sregex_token_iterator end;
    for (std::sregex_token_iterator part(text.begin(), text.end(), kPlaceholder, -1); part != end; ++part) {
        parts.push_back(trimmed(*part, " :"));
    }
    return parts;
}

TEST(LogLines, every_text_of_the_log_is_documented) {
    const std::vector<std::string> spans = documentedSpans();
    int texts = 0;
    for (const Literal& literal : sourceLiterals()) {
        if (!isText(literal.text) || kNoLogTexts.count(literal.text) != 0) {
            continue;
        }
        ++texts;
        const auto isDocumented = [&](const std::string& span) {
            return isFormat(literal.text) ? span == literal.text
                                          : span.find(trimmed(literal.text)) != std::string::npos;
        };
        EXPECT_TRUE(std::any_of(spans.begin(), spans.end(), isDocumented))
            << literal.file << " has \"" << literal.text << "\", which " << kDocument << " does not have";
    }
    EXPECT_GT(texts, 200) << "most texts are not found any more";
}

TEST(LogLines, every_documented_text_is_in_the_sources) {
    const std::vector<Literal> literals = sourceLiterals();
    const std::vector<Row> rows = documentedRows();
    EXPECT_GT(rows.size(), 150U) << "most rows are not found any more";
    for (const Row& row : rows) {
        for (const std::string& part : fixedPartsOf(row.text)) {
            const auto has = [&](const Literal& literal) {
                return isFormat(part) ? trimmed(literal.text, " :") == part
                                      : literal.text.find(part) != std::string::npos;
            };
            EXPECT_TRUE(std::any_of(literals.begin(), literals.end(), has))
                << kDocument << ": no source has \"" << part << "\" of: " << row.text;
        }
    }
}

TEST(LogLines, levels_are_those_of_the_sources) {
    std::map<std::string, std::set<int>> levels;
    for (const Literal& literal : sourceLiterals()) {
        if (const int level = levelOf(literal); level != 0) {
            levels[literal.text].insert(level);
        }
    }
    EXPECT_GT(levels.size(), 60U) << "most levels are not found any more";
    const std::vector<Row> rows = documentedRows();
    for (const auto& [text, given] : levels) {
        const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& r) { return r.text == text; });
        ASSERT_NE(row, rows.end()) << text;
        EXPECT_EQ(row->levels, given) << text;
    }
}

TEST(LogLines, failed_steps_are_documented_by_function_and_number) {
    static const std::regex kStep(R"(UPGRADE_STEP_ERROR_AT\(\w+, (\d+)\))");
    std::set<int> inSources;
    for (const char* file : {"upgrade/upgrade_api.cpp", "upgrade/upgrade_interface.cpp"}) {
        for (const std::string& line : testsupport::linesOf(file)) {
            if (std::smatch found; std::regex_search(line, found, kStep)) {
                inSources.insert(std::stoi(found[1]));
            }
        }
    }
    static const std::regex kRow(R"(\| `\w+` \| (\d+) \| .*)");
    std::set<int> documented;
    for (const std::string& line : testsupport::linesOf(kDocument)) {
        if (std::smatch found; std::regex_match(line, found, kRow)) {
            documented.insert(std::stoi(found[1]));
        }
    }
    EXPECT_EQ(documented, inSources);
    EXPECT_FALSE(inSources.empty());
}

TEST(LogLines, what_is_left_out_is_still_in_the_sources) {
    std::set<std::string> all;
    for (const Literal& literal : sourceLiterals()) {
        all.insert(literal.text);
    }
    for (const std::string& text : kNoLogTexts) {
        EXPECT_EQ(all.count(text), 1U) << text;
    }
}

// Of what the sources name, by its whole path or by its name in a directory.
TEST(Files, every_file_that_is_named_is_documented) {
    static const std::regex kPath("(/(config|firmware|raw|tmp|etc/kavro|run))?/[A-Za-z_./]+");
    std::string document;
    for (const std::string& line : testsupport::linesOf("docs/files.md")) {
        document += line + "\n";
    }
    int paths = 0;
    for (const Literal& literal : sourceLiterals()) {
        const bool isSystems = literal.text.rfind("/bin/", 0) == 0 || literal.text.rfind("/dev/", 0) == 0;
        if (isSystems || !std::regex_match(literal.text, kPath)) {
            continue;
        }
        ++paths;
        EXPECT_NE(document.find(literal.text), std::string::npos)
            << literal.file << " names " << literal.text;
    }
    EXPECT_GT(paths, 15) << "most names are not found any more";
}

}  // namespace
