#include "tools/upgradectl/manual_page.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <sstream>
#include <vector>

namespace upgradectl {

namespace {

struct File {
    const char* path;
    const char* use;
};

constexpr File kFiles[] = {
    {"/etc/kavro/platform.json", "Where the device's partitions, microcontroller, message node and log are."},
    {"/etc/kavro/version.json", "The versions of the running software."},
    {"/firmware", "Received and kept packages: current.pkg, rollback.pkg."},
    {"/config/upgraded", "There while an installed package awaits its activation."},
    {"/config/upgrade_last_runtime", "The outcome of the last run."},
    {"/config/upgrade_history.jsonl", "What was done to the device, and what came of it."},
};

// --- text as roff -----------------------------------------------------------------------------------------------------

// As it is: what looks like ASCII on a screen must stay ASCII, so that it can be copied.
std::string literal(const std::string& text) {
    std::string roff;
    for (const char character : text) {
        switch (character) {
            case '\\':
                roff += "\\e";
                break;
            case '-':
                roff += "\\-";
                break;
            case '\'':
                roff += "\\(aq";
                break;
            case '`':
                roff += "\\(ga";
                break;
            case '^':
                roff += "\\(ha";
                break;
            case '~':
                roff += "\\(ti";
                break;
            default:
                roff += character;
        }
    }
    return roff.rfind('.', 0) == 0 ? "\\&" + roff : roff;
}

std::string bold(const std::string& text) {
    return "\\fB" + literal(text) + "\\fR";
}

std::string italic(const std::string& text) {
    return "\\fI" + literal(text) + "\\fR";
}

// A sentence may come without its full stop.
std::string sentence(const std::string& text) {
    return literal(text) + (text.empty() || text.back() == '.' ? "" : ".");
}

std::string verbatim(const std::string& lines) {
    std::string roff = ".PP\n.nf\n.RS 4\n";
    std::istringstream input(lines);
    for (std::string line; std::getline(input, line);) {
        roff += literal(line.substr(line.rfind("  ", 0) == 0 ? 2 : 0)) + "\n";
    }
    return roff + ".RE\n.fi\n";
}

std::string capitalized(std::string text) {
    text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
    return text;
}

std::string upperCase(std::string text) {
    for (char& character : text) {
        character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    return text;
}

// --- footers ----------------------------------------------------------------------------------------------------------

std::vector<std::string> paragraphsOf(const std::string& text) {
    std::vector<std::string> paragraphs(1);
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        if (!line.empty()) {
            paragraphs.back() += line + "\n";
        } else if (!paragraphs.back().empty()) {
            paragraphs.emplace_back();
        }
    }
    return paragraphs;
}

// The lines below the heading of the paragraph that begins with it; empty when there is none.
std::string linesBelow(const std::string& heading, const CLI::App& app) {
    for (const std::string& paragraph : paragraphsOf(app.get_footer())) {
        if (paragraph.rfind(heading, 0) == 0) {
            return paragraph.substr(paragraph.find('\n') + 1);
        }
    }
    return "";
}

bool hasOwnSection(const std::string& paragraph) {
    return paragraph.rfind("Example", 0) == 0 || paragraph.rfind("Exit codes:", 0) == 0;
}

// The prose of a footer. Lines that are indented keep their form.
std::string footerText(const CLI::App& app) {
    std::string roff;
    for (const std::string& paragraph : paragraphsOf(app.get_footer())) {
        if (hasOwnSection(paragraph) || paragraph.empty()) {
            continue;
        }
        if (paragraph.front() == ' ') {
            roff += verbatim(paragraph);
            continue;
        }
        roff += ".PP\n";
        std::istringstream lines(paragraph);
        for (std::string line; std::getline(lines, line);) {
            roff += literal(line) + (line.front() == ' ' ? "\n.br\n" : "\n");
        }
    }
    return roff;
}

std::string examples(const CLI::App& app) {
    std::string lines = linesBelow("Example:", app) + linesBelow("Examples:", app);
    return lines.empty() ? "" : ".SH EXAMPLES\n" + verbatim(lines);
}

// Those of the command, if it has its own, or else of the tool.
std::string exitStatus(const CLI::App& app, const CLI::App& command) {
    const std::string own = linesBelow("Exit codes:", command);
    std::string roff = ".SH EXIT STATUS\n";
    std::istringstream lines(own.empty() ? linesBelow("Exit codes:", app) : own);
    int code = 0;
    while (lines >> code >> std::ws) {
        std::string meaning;
        std::getline(lines, meaning);
        roff += ".TP\n" + bold(std::to_string(code)) + "\n" + sentence(capitalized(meaning)) + "\n";
    }
    return roff;
}

// --- options and commands ---------------------------------------------------------------------------------------------

bool isShown(const CLI::Option* option) {
    return !option->get_group().empty();
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

std::string optionTag(const CLI::Option& option) {
    if (option.get_positional()) {
        return italic(option.get_name(true));
    }
    std::string tag;
    for (const std::string& name : option.get_snames()) {
        tag += (tag.empty() ? "" : ", ") + bold("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        tag += (tag.empty() ? "" : ", ") + bold("--" + name);
    }
    const bool takesValue = option.get_items_expected_max() > 0;
    return tag + (takesValue ? " " + italic(option.get_type_name()) : "");
}

// The positional arguments first, each group in the order of the description.
std::string options(const CLI::App& app, bool withHelp = true) {
    std::string arguments;
    std::string named;
    for (const CLI::Option* option : app.get_options(isShown)) {
        if (app.get_help_ptr() == option && !withHelp) {
            continue;
        }
        const bool mustBeSaid = option->get_required() && !option->get_positional();
        std::string& roff = option->get_positional() ? arguments : named;
        roff += ".TP\n" + optionTag(*option) + "\n" + sentence(option->get_description()) +
                (mustBeSaid ? " Required." : "") + "\n";
    }
    return arguments + named;
}

// What follows the names of the commands on the line of the usage.
std::string usageArguments(const CLI::App& app, const std::string& name) {
    const auto formatter = std::dynamic_pointer_cast<CLI::Formatter>(app.get_formatter());
    const std::string usage = formatter ? formatter->make_usage(&app, name) : "Usage: " + name + "\n";
    const std::size_t begin = usage.find(name) + name.size();
    return usage.substr(begin, usage.find_last_not_of('\n') + 1 - begin);
}

std::string synopsis(const CLI::App& app, const std::string& name) {
    return ".SH SYNOPSIS\n" + bold(name) + literal(usageArguments(app, name)) + "\n";
}

std::string nestedCommand(const CLI::App& command) {
    const std::string& name = command.get_name();
    return ".SS " + name + literal(usageArguments(command, name)) + "\n" +
           sentence(command.get_description()) + "\n" + options(command, false);
}

std::string nestedCommands(const CLI::App& app) {
    std::string roff;
    for (const CLI::App* command : commandsOf(app)) {
        roff += nestedCommand(*command);
    }
    return roff.empty() ? "" : ".SH COMMANDS\n" + roff;
}

// --- pages ------------------------------------------------------------------------------------------------------------

std::string header(const std::string& page, const CLI::App& app, const ManualTitle& title) {
    std::string summary = app.get_description();
    summary.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(summary.front())));
    return ".TH " + literal(upperCase(page)) + " 1 " + title.date + " \"kavro-upgrade " + title.version +
           "\" \"User Commands\"\n.SH NAME\n" + literal(page) + " \\- " + literal(summary) + "\n";
}

std::string files() {
    std::string roff = ".SH FILES\n";
    for (const File& file : kFiles) {
        roff += ".TP\n.I " + literal(file.path) + "\n" + literal(file.use) + "\n";
    }
    return roff;
}

std::string pageOf(const CLI::App& app, const CLI::App& command) {
    return app.get_name() + "-" + command.get_name();
}

}  // namespace

std::string mainManualPage(const CLI::App& app, const ManualTitle& title) {
    std::string commands;
    std::string seeAlso;
    for (const CLI::App* command : commandsOf(app)) {
        commands += ".TP\n" + bold(command->get_name()) + "\n" + sentence(command->get_description()) + "\n";
        seeAlso += (seeAlso.empty() ? "\\%" : ",\n\\%") + bold(pageOf(app, *command)) + "(1)";
    }
    return header(app.get_name(), app, title) + synopsis(app, app.get_name()) + ".SH DESCRIPTION\n" +
           sentence(app.get_description()) + "\n" + footerText(app) + ".SH COMMANDS\n" + commands +
           ".SH OPTIONS\n" + options(app) + exitStatus(app, app) + files() + ".SH SEE ALSO\n" + seeAlso +
           "\n";
}

std::string commandManualPage(const CLI::App& app, const CLI::App& command, const ManualTitle& title) {
    return header(pageOf(app, command), command, title) +
           synopsis(command, app.get_name() + " " + command.get_name()) + ".SH DESCRIPTION\n" +
           sentence(command.get_description()) + "\n" + footerText(command) + ".SH OPTIONS\n" +
           options(command) + nestedCommands(command) + exitStatus(app, command) + examples(command) +
           ".SH SEE ALSO\n" + bold(app.get_name()) + "(1)\n";
}

}  // namespace upgradectl
