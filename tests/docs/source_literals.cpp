#include "tests/docs/source_literals.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace testsupport {

namespace {

std::string contentOf(const std::string& file) {
    std::ifstream stream(std::string(KAVRO_SOURCE_DIR "/") + file);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

// Takes a source apart, from its begin to its end.
class Scanner {
  public:
    Scanner(std::string sourceFile, std::string sourceText)
        : file(std::move(sourceFile)), source(std::move(sourceText)) {}

    std::vector<Literal> scan() {
        while (position < source.size()) {
            step();
        }
        return std::move(literals);
    }

  private:
    [[nodiscard]] bool isAt(const char* text) const {
        return source.compare(position, std::char_traits<char>::length(text), text) == 0;
    }
    void skipTo(const std::string& end) {
        const std::size_t found = source.find(end, position);
        position = found == std::string::npos ? source.size() : found + end.size();
    }

    void step() {
        if (isAt("//") || isAt("#include")) {
            skipTo("\n");
        } else if (isAt("R\"(")) {
            const std::size_t begin = position + 3;
            skipTo(")\"");
            add(source.substr(begin, position - 2 - begin));
        } else if (source[position] == '"') {
            add(quoted('"'));
        } else if (source[position] == '\'' && !isInNumber()) {
            quoted('\'');
        } else {
            code += source[position++];
        }
    }

    // 1'000
    [[nodiscard]] bool isInNumber() const { return !code.empty() && std::isdigit(code.back()) != 0; }

    std::string quoted(char quote) {
        std::string text;
        for (++position; position < source.size() && source[position] != quote; ++position) {
            if (source[position] == '\\') {
                ++position;
                text += source[position] == 'n' ? '\n' : source[position];
            } else {
                text += source[position];
            }
        }
        ++position;
        return text;
    }

    void add(const std::string& text) {
        if (!literals.empty() && code.find_first_not_of(" \n+\\") == std::string::npos) {
            literals.back().text += text;
        } else {
            literals.push_back({file, text, std::regex_replace(code, std::regex("\\s+"), " ")});
        }
        code.clear();
    }

    const std::string file;
    const std::string source;
    std::size_t position = 0;
    std::string code;
    std::vector<Literal> literals;
};

}  // namespace

std::vector<Literal> literalsIn(const std::string& file) {
    std::vector<Literal> literals = Scanner(file, contentOf(file)).scan();
    for (Literal& literal : literals) {
        if (!literal.text.empty() && literal.text.back() == '\n') {
            literal.text.pop_back();
        }
    }
    return literals;
}

std::vector<Literal> literalsBelow(const std::vector<std::string>& directories) {
    const std::filesystem::path root = KAVRO_SOURCE_DIR;
    std::vector<Literal> literals;
    for (const std::string& directory : directories) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root / directory)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
                const std::vector<Literal> found = literalsIn(entry.path().lexically_relative(root));
                literals.insert(literals.end(), found.begin(), found.end());
            }
        }
    }
    return literals;
}

std::vector<std::string> codeSpansIn(const std::string& text) {
    std::vector<std::string> spans;
    std::size_t begin = 0;
    while ((begin = text.find('`', begin)) != std::string::npos) {
        const std::size_t end = text.find('`', begin + 1);
        if (end == std::string::npos) {
            break;
        }
        spans.push_back(text.substr(begin + 1, end - begin - 1));
        begin = end + 1;
    }
    return spans;
}

std::vector<std::string> linesOf(const std::string& file) {
    std::istringstream stream(contentOf(file));
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace testsupport
