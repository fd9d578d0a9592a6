#include "tools/upgradectl/bash_completion.h"

#include <CLI/CLI.hpp>
#include <map>
#include <vector>

namespace upgradectl {

namespace {

// `path` is the command so far. A value behind `--option=` is a word of its own for bash, as is the `=`.
constexpr const char* kBegin = R"(# shellcheck shell=bash
_upgradectl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} path=upgradectl word
    if [[ $current == "=" ]]; then
        current=''
    elif [[ $previous == "=" ]]; then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word != -- ]] || return 0
        case "$path $word" in
)";

constexpr const char* kValues = R"(            path+=" $word" ;;
        esac
    done
    case "$path $previous" in
)";

constexpr const char* kWords = R"(    esac
    case "$path" in
)";

constexpr const char* kEnd = R"(    esac
}
complete -o default -F _upgradectl upgradectl
)";

// walk(app, path, visit): all commands, each with the words that lead to it.
template <typename Visit>
void walk(const CLI::App& app, const std::string& path, const Visit& visit) {
    visit(app, path);
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        walk(*command, path + " " + command->get_name(), visit);
    }
}

std::string fill(const std::string& words) {
    return "mapfile -t COMPREPLY < <(compgen " + words + " -- \"$current\")";
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// "TEXT:{a,b}", as the library describes a choice; empty when it is none.
std::string choices(const std::string& type) {
    const std::size_t begin = type.find('{');
    const std::size_t end = type.find('}');
    if (begin == std::string::npos || end == std::string::npos) {
        return "";
    }
    std::string words = type.substr(begin + 1, end - begin - 1);
    for (char& character : words) {
        character = character == ',' ? ' ' : character;
    }
    return words;
}

// What completes a value of this type. Without a reply bash completes file names, unless it is told not to.
std::string valueCompletion(const std::string& type) {
    if (!choices(type).empty()) {
        return fill("-W '" + choices(type) + "'");
    }
    if (contains(type, "DIR")) {
        return "compopt -o filenames 2>/dev/null; " + fill("-d");
    }
    if (contains(type, "INT") || contains(type, "FLOAT") || contains(type, "NUMBER")) {
        return "compopt +o default 2>/dev/null";
    }
    return ":";
}

std::vector<std::string> namesOf(const CLI::Option& option) {
    std::vector<std::string> names;
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

bool isCompleted(const CLI::Option* option) {
    return option->nonpositional() && !option->get_group().empty();
}

std::string commandPaths(const CLI::App& app) {
    std::string paths;
    walk(app, app.get_name(), [&](const CLI::App& command, const std::string& path) {
        if (&command != &app) {
            paths += (paths.empty() ? "            '" : " | \\\n            '") + path + "'";
        }
    });
    return paths + ")\n";
}

// The options that take a value, by what completes it.
std::string optionValues(const CLI::App& app) {
    std::map<std::string, std::string> options;
    walk(app, app.get_name(), [&](const CLI::App& command, const std::string& path) {
        for (const CLI::Option* option : command.get_options(isCompleted)) {
            if (option->get_items_expected_max() == 0) {
                continue;
            }
            std::string& patterns = options[valueCompletion(option->get_type_name())];
            for (const std::string& name : namesOf(*option)) {
                patterns.append(patterns.empty() ? "        '" : " | \\\n        '");
                patterns.append(path).append(" ").append(name).append("'");
            }
        }
    });
    std::string cases;
    for (const auto& [completion, patterns] : options) {
        cases.append(patterns).append(")\n            ").append(completion);
        cases.append("\n            return 0 ;;\n");
    }
    return cases;
}

std::string firstArgument(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_positional()) {
            return option->get_name(true);
        }
    }
    return "";
}

// Behind the command: its options, and its commands or else the values of its arguments.
std::string ownWords(const CLI::App& app) {
    std::string cases;
    walk(app, app.get_name(), [&](const CLI::App& command, const std::string& path) {
        std::string options;
        for (const CLI::Option* option : command.get_options(isCompleted)) {
            for (const std::string& name : namesOf(*option)) {
                options += (options.empty() ? "" : " ") + name;
            }
        }
        std::string commands;
        for (const CLI::App* nested : command.get_subcommands([](const CLI::App*) { return true; })) {
            commands += (commands.empty() ? "" : " ") + nested->get_name();
        }
        const std::string others =
            commands.empty() ? valueCompletion(firstArgument(command)) : fill("-W '" + commands + "'");
        cases += "        '" + path + "')\n            if [[ $current == -* ]]; then\n                " +
                 fill("-W '" + options + "'") + "\n            else\n                " + others +
                 "\n            fi ;;\n";
    });
    return cases;
}

}  // namespace

std::string bashCompletion(const CLI::App& app) {
    return kBegin + commandPaths(app) + kValues + optionValues(app) + kWords + ownWords(app) + kEnd;
}

}  // namespace upgradectl
