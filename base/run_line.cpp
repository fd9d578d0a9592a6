#include "base/run_line.h"

namespace kavro {

namespace {

// The text between two marks, the search for the first beginning at `from`; `from` moves behind the second.
std::optional<std::string> between(const std::string& text, const std::string& first, const char* second,
                                   std::size_t& from) {
    const std::size_t mark = text.find(first, from);
    if (mark == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t start = mark + first.size();
    const std::size_t end = text.find(second, start);
    if (end == std::string::npos) {
        return std::nullopt;
    }
    from = end;
    return text.substr(start, end - start);
}

}  // namespace

std::optional<RunLine> runLineIn(const std::string& line) {
    std::size_t position = 0;
    const std::optional<std::string> stage = between(line, "&&&&& upgrade [stage ", "], [result ", position);
    if (!stage) {
        return std::nullopt;
    }
    const std::optional<std::string> state = between(line, "], [result ", "] &&&&&", position);
    if (!state) {
        return std::nullopt;
    }
    return RunLine{*stage, *state};
}

}  // namespace kavro
