// Links in the documents lead to files, and to headings, that are there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/docs/source_literals.h"

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = KAVRO_SOURCE_DIR;

std::vector<fs::path> documents() {
    std::vector<fs::path> found;
    for (const fs::path& directory : {kRoot, kRoot / "docs"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            if (entry.path().extension() == ".md") {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

// How a code host names a heading in an address.
std::string anchorOf(const std::string& heading) {
    std::string anchor;
    for (const char character : heading) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0 || character == '-' || character == '_') {
            anchor += static_cast<char>(std::tolower(byte));
        } else if (character == ' ') {
            anchor += '-';
        }
    }
    return anchor;
}

std::set<std::string> anchorsIn(const fs::path& document) {
    static const std::regex kHeading("#+ (.*)");
    std::set<std::string> anchors;
    for (const std::string& line : testsupport::linesOf(document.lexically_relative(kRoot))) {
        if (std::smatch heading; std::regex_match(line, heading, kHeading)) {
            anchors.insert(anchorOf(heading[1]));
        }
    }
    return anchors;
}

TEST(Links, lead_to_files_and_headings_that_are_there) {
    static const std::regex kLink(R"(\]\(([^)# ]*)(?:#([^)]*))?\))");
    int links = 0;
    for (const fs::path& document : documents()) {
        for (const std::string& line : testsupport::linesOf(document.lexically_relative(kRoot))) {
            for (std::sregex_iterator link(line.begin(), line.end(), kLink); link != std::sregex_iterator();
                 ++link) {
                const std::string path = (*link)[1];
                const std::string anchor = (*link)[2];
                if (path.find("://") != std::string::npos) {
                    continue;
                }
                ++links;
                const fs::path target = path.empty() ? document : document.parent_path() / path;
                EXPECT_TRUE(fs::exists(target)) << document << ": " << link->str();
                if (!anchor.empty() && fs::exists(target)) {
                    EXPECT_EQ(anchorsIn(target).count(anchor), 1U) << document << ": " << link->str();
                }
            }
        }
    }
    EXPECT_GT(links, 40) << "most links are not found any more";
}

}  // namespace
