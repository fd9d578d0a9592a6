// The string literals of C++ sources, for tests that compare documents with what the programs say.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

struct Literal {
    std::string file;    // relative to the source tree
    std::string text;    // as the program has it, but without a line break at the end
    std::string before;  // the code between the literal before it and this one, blanks squeezed
};

// Of one source file. Literals that follow each other directly, or with a `+` in between, are one.
std::vector<Literal> literalsIn(const std::string& file);

// Of all sources and headers below these directories.
std::vector<Literal> literalsBelow(const std::vector<std::string>& directories);

// What stands between backquotes in a text.
std::vector<std::string> codeSpansIn(const std::string& text);

// The lines of a file of the source tree.
std::vector<std::string> linesOf(const std::string& file);

}  // namespace testsupport
