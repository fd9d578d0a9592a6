// Writes what the build makes of the description of the command line: DIR/man1/*.1 and DIR/upgradectl.
//
//   make_manual DIR VERSION DATE
//
// SOURCE_DATE_EPOCH takes the place of DATE (2026-11-21): no page tells when it was made.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tools/upgradectl/bash_completion.h"
#include "tools/upgradectl/command_line.h"
#include "tools/upgradectl/manual_page.h"

namespace {

namespace fs = std::filesystem;

std::string dateOfSource(const std::string& date) {
    const char* epoch = std::getenv("SOURCE_DATE_EPOCH");
    if (epoch == nullptr) {
        return date;
    }
    const std::time_t time = std::stoll(epoch);
    std::tm parts = {};
    char text[] = "YYYY-MM-DD";
    gmtime_r(&time, &parts);
    return std::strftime(text, sizeof(text), "%Y-%m-%d", &parts) > 0 ? text : date;
}

void write(const fs::path& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error("'" + path.string() + "' cannot be written: check permissions and room");
    }
}

void makeManual(const fs::path& directory, const upgradectl::ManualTitle& title) {
    CLI::App app;
    upgradectl::Action chosen;
    upgradectl::describeCommandLine(app, chosen);
    fs::remove_all(directory);
    fs::create_directories(directory / "man1");
    write(directory / "man1" / "upgradectl.1", mainManualPage(app, title));
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        write(directory / "man1" / ("upgradectl-" + command->get_name() + ".1"),
              commandManualPage(app, *command, title));
    }
    write(directory / "upgradectl", upgradectl::bashCompletion(app));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: make_manual DIR VERSION DATE\n", stderr);
        return 2;
    }
    try {
        makeManual(argv[1], {dateOfSource(argv[3]), argv[2]});
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_manual: %s\n", error.what());
        return 1;
    }
}
