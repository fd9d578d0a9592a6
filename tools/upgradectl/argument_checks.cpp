#include "tools/upgradectl/argument_checks.h"

#include <charconv>
#include <string>

namespace upgradectl {

// Without a name of their own: help shows no more than the type of the value.
CLI::Validator isPath() {
    return {
        [](const std::string& text) { return std::string(text.empty() ? "an empty text is no path" : ""); },
        ""};
}

void addWait(CLI::App& command, std::chrono::milliseconds& patience) {
    const auto take = [&patience](int seconds) { patience = std::chrono::seconds(seconds); };
    command
        .add_option_function<int>("--wait", take,
                                  "Wait so many seconds for another process that changes the device")
        ->type_name("SECONDS")
        ->check(isAtLeastOne());
}

CLI::Validator isAtLeastOne() {
    return {[](const std::string& text) {
                int number = 0;
                const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
                const bool good = error == std::errc() && end == text.data() + text.size() && number >= 1;
                return good ? std::string() : "'" + text + "' is no whole number of at least 1";
            },
            ""};
}

}  // namespace upgradectl
