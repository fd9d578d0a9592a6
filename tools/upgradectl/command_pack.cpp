// The command line of pack.
#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/failure.h"
#include "package/pack.h"
#include "package/version.h"
#include "tools/upgradectl/argument_checks.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/interrupts.h"

namespace upgradectl {

namespace {

void tellWarnings(const std::vector<std::string>& warnings) {
    for (const std::string& warning : warnings) {
        std::fprintf(stderr, "upgradectl: warning: %s\n", warning.c_str());
    }
}

void runDigests(const kavro::package::PackRequest& request, const std::string& directory) {
    const Interrupts interrupts;
    kavro::valueOf(
        kavro::package::writeDigests(request, directory, [&interrupts] { return interrupts.count() == 0; }));
    std::printf("digests   %s\n", directory.c_str());
    std::printf("version   %s\n", kavro::package::formatVersion(request.version).c_str());
}

void runPack(const kavro::package::PackRequest& request) {
    if (request.output.empty()) {
        throw Failure(ErrorCode::kUsage, "there is no package to write",
                      "give --output FILE, or --digests DIR");
    }
    const Interrupts interrupts;
    const kavro::package::PackSummary summary =
        kavro::valueOf(kavro::package::pack(request, [&interrupts] { return interrupts.count() == 0; }));
    tellWarnings(summary.warnings);
    std::printf("package   %s\n", request.output.c_str());
    std::printf("version   %s\n", kavro::package::formatVersion(request.version).c_str());
    std::printf("payload   %u bytes, md5 %s\n", summary.payloadBytes, summary.md5.c_str());
    std::printf("signed    %s\n", summary.keyDescription.c_str());
}

struct Options {
    kavro::package::PackRequest request;
    std::string version, stamp, passphraseFile, publicKey, digests;
    std::uint64_t epoch = 0;
};

void addSigning(CLI::App& command, Options& options) {
    command
        .add_option("--passphrase-file", options.passphraseFile,
                    "File whose first line decrypts the private key")
        ->type_name("FILE")
        ->check(isPath());
    command
        .add_option(
            "--sign-command", options.request.signCommand,
            "Shell command that signs: the SHA-256 digest (32 bytes) on its standard input, the signature on "
            "its standard output")
        ->type_name("COMMAND");
    command
        .add_option("--public-key", options.publicKey,
                    "Public key (PEM) of --sign-command, in place of --key")
        ->type_name("FILE")
        ->check(isPath());
    command
        .add_option("--digests", options.digests,
                    "Write what is to be signed into this directory, and no package")
        ->type_name("DIR")
        ->check(isPath());
}

// What was not given stays without a value.
std::optional<std::filesystem::path> pathIfAny(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional<std::filesystem::path>(text);
}

}  // namespace

void addPack(CLI::App& app, Action& chosen) {
    CLI::App* command = app.add_subcommand("pack", "Make a signed upgrade package out of components");
    command->footer(
        "The directory holds bld_release.bin, cv22_kavro_qz7.dtb, ext4, Image, mcu_flash_app.s19,\n"
        "mcu_flash_drv.s19 and, if wanted, version_list.acs, whose lines become notes of the release list "
        "that is made.\n"
        "Refused are a kernel, device tree, file system or microcontroller's file that is not one, unless "
        "--force "
        "is given.\n"
        "It signs with --key, or by --sign-command with a key that is elsewhere.\n"
        "SOURCE_DATE_EPOCH sets the times in the package. With it and an RSA key the same components give "
        "the same "
        "package,\n"
        "byte for byte; an EC signature is another one each time.\n\n"
        "Example:\n"
        "  upgradectl pack --key signing.pem --version 1.105.8.3 --output camera.pkg components/\n");

    const auto options = std::make_shared<Options>();
    command->add_option("COMPONENT_DIR", options->request.componentDir, "Directory of the components")
        ->type_name("DIR")
        ->check(isPath())
        ->required();
    command->add_option("-o,--output", options->request.output, "Package to write")
        ->type_name("FILE")
        ->check(isPath());
    command->add_option("-k,--key", options->request.key, "Private key (PEM, RSA or EC)")
        ->type_name("FILE")
        ->check(isPath());
    addSigning(*command, *options);
    command->add_option("--version", options->version, "Versions as HW.MPU.MCU.BLD, each 0 to 999")
        ->type_name("VERSION")
        ->required();
    CLI::Option* stamp =
        command->add_option("--stamp", options->stamp, "Stamp, up to 14 bytes (default: UTC time)");
    command->add_option("--ident", options->request.ident, "Identifier, up to 40 bytes, such as a commit");
    command->add_option("--branch", options->request.branch, "Branch text; devices keep 127 bytes");
    command->add_option("--user", options->request.user, "User text, needs --branch; devices keep 127 bytes");
    CLI::Option* epoch =
        command->add_option("--epoch", options->epoch, "Security epoch of the release, 0 to 4294967295")
            ->type_name("N")
            ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{std::numeric_limits<std::uint32_t>::max()}));
    command->add_flag("--force", options->request.force,
                      "Only warn of a component that is not in the format which a device needs");

    command->callback([options, stamp, epoch, &chosen] {
        if (stamp->count() > 0) {
            options->request.stamp = options->stamp;
        }
        if (epoch->count() > 0) {
            options->request.epoch = static_cast<std::uint32_t>(options->epoch);
        }
        options->request.passphraseFile = pathIfAny(options->passphraseFile);
        options->request.publicKey = pathIfAny(options->publicKey);
        chosen = [options] {
            options->request.version = kavro::valueOf(kavro::package::parseVersion(options->version));
            if (options->digests.empty()) {
                runPack(options->request);
            } else {
                runDigests(options->request, options->digests);
            }
        };
    });
}

}  // namespace upgradectl
