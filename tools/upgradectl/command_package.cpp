// The command lines of inspect and verify, which look into a package.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "package/check.h"
#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/package_view.h"

namespace upgradectl {

namespace {

// The exit code is for scripts, the text for those who did not look at what was printed.
void requireInOrder(const std::string& package, const kavro::package::Check& check) {
    if (check.inOrder()) {
        return;
    }
    if (check.lacksOnlyTrust()) {
        throw Failure(ErrorCode::kRefused, "the package '" + package + "' is signed with another key",
                      "use a package of the maker that you trust, or give the key of this one's maker");
    }
    throw Failure(ErrorCode::kRefused, "the package '" + package + "' is not in order",
                  "use a package that 'upgradectl pack' made, and transfer it again");
}

void runInspect(const std::string& package, bool json) {
    Inspection inspection;
    inspection.package = package;
    const auto keep = [&inspection](const kavro::package::Entry& entry) {
        inspection.entries.push_back(entry);
    };
    inspection.check = kavro::valueOf(kavro::package::check(package, std::nullopt, keep));
    std::fputs((json ? inspectionJson(inspection) : inspectionText(inspection)).c_str(), stdout);
    requireInOrder(package, inspection.check);
}

void runVerify(const std::string& package, const std::optional<std::filesystem::path>& trustedKey,
               bool json) {
    const kavro::package::Check check = kavro::valueOf(kavro::package::check(package, trustedKey));
    std::fputs((json ? verificationJson(package, check) : verificationText(check)).c_str(), stdout);
    requireInOrder(package, check);
}

}  // namespace

void addInspect(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("inspect", "Show what is in a package");
    command->footer(
        "Reads the package only, on any machine. Of a damaged package it shows what can be read, says what "
        "is "
        "wrong and\n"
        "ends with exit code 3.\n\n"
        "Example:\n"
        "  upgradectl inspect camera.pkg\n");
    const auto package = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command->add_option("PACKAGE", *package, "Package file")->check(isPath())->required();
    command->add_flag("--json", *json, "Print one JSON object");
    command->callback(
        [package, json, &chosen] { chosen = [package, json] { runInspect(*package, *json); }; });
}

void addVerify(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("verify", "Check whether a device would take a package");
    command->footer(
        "Checks trailer, key, md5, archive and the signature of each component, on any machine. A package "
        "comes "
        "with the\n"
        "key that its signatures are checked by: only --trusted-key tells whose package it is.\n\n"
        "Example:\n"
        "  upgradectl verify --trusted-key release.pem camera.pkg\n");
    const auto package = std::make_shared<std::string>();
    const auto trustedKey = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command->add_option("PACKAGE", *package, "Package file")->check(isPath())->required();
    CLI::Option* trusted = command
                               ->add_option("--trusted-key", *trustedKey,
                                            "Public key (PEM): refuse a package that carries another one")
                               ->type_name("FILE")
                               ->check(isPath());
    command->add_flag("--json", *json, "Print one JSON object");
    command->callback([=, &chosen] {
        chosen = [=, given = trusted->count() > 0] {
            runVerify(*package, given ? std::optional<std::filesystem::path>(*trustedKey) : std::nullopt,
                      *json);
        };
    });
}

}  // namespace upgradectl
