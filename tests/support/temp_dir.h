// A directory of a test's own, removed with everything in it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavro_test {

class TempDir {
  public:
    explicit TempDir(const std::string& parent = testing::TempDir())
        : root(parent + (parent.back() == '/' ? "" : "/") + "kavro-test-XXXXXX") {
        if (mkdtemp(root.data()) == nullptr) {
            throw std::runtime_error("no temporary directory in " + parent);
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return root; }
    std::string operator/(const std::string& name) const { return root + "/" + name; }

    // The bare names of all entries, sorted.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(root)) {
            found.push_back(entry.path().filename().string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

  private:
    std::string root;
};

// Independent of the code under test.
inline std::string slurp(const std::string& path) {
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void spill(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

// Content in which no two blocks are alike.
inline std::string patterned(std::size_t size) {
    std::string content(size, '\0');
    unsigned long state = 88172645463325252UL;
    for (std::size_t at = 0; at < size; at += sizeof state) {  // by words, for tests are not optimised
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(&content[at], &state, std::min(sizeof state, size - at));
    }
    return content;
}

}  // namespace kavro_test
