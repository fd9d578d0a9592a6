#include <gtest/gtest.h>

#include <ostream>

#include "tests/tools/tool_support.h"

namespace {

using namespace tool_test;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct UsageError {
    const char* name;
    std::vector<std::string> arguments;
};

// Without it the name of a case would hold addresses.
void PrintTo(const UsageError& error, std::ostream* out) {
    *out << error.name;
}

class WrongCommandLine : public testing::TestWithParam<UsageError> {};

TEST_P(WrongCommandLine, ends_with_exit_code_2_and_the_next_step) {
    const ProgramResult result = upgradectl(GetParam().arguments);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err.rfind("upgradectl: ", 0), 0U) << result.err;
    EXPECT_TRUE(contains(result.err, "\n  next: ")) << result.err;
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Cli, WrongCommandLine,
    testing::Values(UsageError{"no_command", {}}, UsageError{"unknown_command", {"upgrade"}},
                    UsageError{"unknown_option", {"--frobnicate"}},
                    UsageError{"pack_without_arguments", {"pack"}},
                    UsageError{"pack_without_key", {"pack", "--version", "1.1.1.1", "-o", "x", "/"}},
                    UsageError{"pack_without_output", {"pack", "--version", "1.1.1.1", "-k", "x", "/"}},
                    UsageError{"pack_without_version", {"pack", "-k", "x", "-o", "y", "/"}},
                    UsageError{"pack_with_a_bad_version",
                               {"pack", "--version", "1.1.1", "-k", "x", "-o", "y", "/"}},
                    UsageError{"inspect_without_a_package", {"inspect"}},
                    UsageError{"verify_without_a_package", {"verify", "--json"}},
                    UsageError{"install_without_a_package", {"install"}},
                    UsageError{"install_in_two_forms", {"install", "--plain", "--json", "x"}},
                    UsageError{"status_with_an_argument", {"status", "x"}},
                    UsageError{"watch_of_no_lines", {"watch", "--count", "0"}},
                    UsageError{"two_commands", {"status", "activate"}},
                    UsageError{"pack_with_two_directories",
                               {"pack", "--version", "1.1.1.1", "-k", "x", "-o", "y", "/", "/"}}),
    [](const testing::TestParamInfo<UsageError>& test) { return std::string(test.param.name); });

TEST(Cli, a_word_that_is_no_command_is_named) {
    EXPECT_EQ(upgradectl({"foo"}).err, "upgradectl: 'foo' is no command\n  next: upgradectl --help\n");
}

TEST(Cli, an_unknown_option_is_named) {
    EXPECT_EQ(upgradectl({"--foo"}).err, "upgradectl: '--foo' is no option\n  next: upgradectl --help\n");
}

TEST(Cli, a_missing_command_is_told) {
    EXPECT_EQ(upgradectl({}).err, "upgradectl: a command is missing\n  next: upgradectl --help\n");
}

TEST(Cli, a_wrong_use_of_a_command_leads_to_its_help) {
    const ProgramResult result = upgradectl({"install"});
    EXPECT_EQ(result.err, "upgradectl: PACKAGE is required\n  next: upgradectl install --help\n");
}

struct EmptyPath {
    const char* argument;
    std::vector<std::string> words;
};

TEST(Cli, an_empty_path_is_a_wrong_command_line_that_names_the_argument) {
    const EmptyPath cases[] = {
        {"PACKAGE", {"install", ""}},
        {"PACKAGE", {"inspect", ""}},
        {"PACKAGE", {"verify", ""}},
        {"--report", {"install", "--report", "", "x"}},
        {"--report", {"rollback", "--report", ""}},
        {"--trusted-key", {"install", "--trusted-key", "", "x"}},
        {"--trusted-key", {"verify", "--trusted-key", "", "x"}},
        {"--output", {"pack", "--version", "1.1.1.1", "-k", "x", "--output", "", "/"}},
        {"--key", {"pack", "--version", "1.1.1.1", "--key", "", "-o", "x", "/"}},
        {"COMPONENT_DIR", {"pack", "--version", "1.1.1.1", "-k", "x", "-o", "y", ""}},
    };
    for (const EmptyPath& each : cases) {
        const ProgramResult result = upgradectl(each.words);
        EXPECT_EQ(result.exitCode, 2) << each.argument;
        EXPECT_EQ(result.err, std::string("upgradectl: ") + each.argument +
                                  ": an empty text is no path\n  next: upgradectl " + each.words[0] +
                                  " --help\n");
    }
}

TEST(Cli, a_number_of_lines_that_is_none_is_told_as_it_was_given) {
    for (const std::string text : {"0", "x", "-1", "1.5", "99999999999"}) {
        const ProgramResult result = upgradectl({"watch", "--count=" + text});
        EXPECT_EQ(result.exitCode, 2) << text;
        EXPECT_EQ(result.err, "upgradectl: --count: '" + text +
                                  "' is no whole number of at least 1\n  next: upgradectl watch --help\n");
    }
}

TEST(Cli, help_lists_commands_and_exit_codes_on_standard_output) {
    const ProgramResult result = upgradectl({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.out, "pack"));
    EXPECT_TRUE(contains(result.out, "3  the package"));
    EXPECT_EQ(result.err, "");
}

TEST(Cli, version_of_the_tool_is_printed) {
    const ProgramResult result = upgradectl({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out.rfind("upgradectl ", 0), 0U) << result.out;
}

class CommandHelp : public testing::TestWithParam<const char*> {};

TEST_P(CommandHelp, has_an_example) {
    const ProgramResult result = upgradectl({GetParam(), "--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.out, "Example:\n  upgradectl " + std::string(GetParam()))) << result.out;
}

INSTANTIATE_TEST_SUITE_P(Cli, CommandHelp,
                         testing::Values("pack", "inspect", "verify", "init", "install", "status", "versions",
                                         "watch", "activate", "discard", "confirm", "rollback"));

TEST(Cli, pack_writes_a_package_and_says_what_is_in_it) {
    const TemporaryDirectory files;
    makeComponents(files / "components");
    makeEcKey(files / "key.pem");
    const ProgramResult result = upgradectl({"pack", "--key", files / "key.pem", "--version", "1.105.8.3",
                                             "--stamp", "1", "--ident", "2", "--branch", "b", "--user", "u",
                                             "--output", files / "out.pkg", files / "components"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "V01.105.008.003")) << result.out;
    EXPECT_EQ(std::filesystem::file_size(files / "out.pkg"), 134217728U);
}

// The shell's limit is in blocks of 512 bytes or 1 KiB: either is beyond the archive and below the package.
TEST(Cli, a_file_size_limit_in_the_way_is_reported_and_leaves_nothing_behind) {
    const TemporaryDirectory files;
    makeComponents(files / "components");
    makeEcKey(files / "key.pem");
    const std::vector<std::string> before = files.names();
    const ProgramResult result = runProgram({"sh", "-c", "trap '' XFSZ; ulimit -f 20000; exec \"$@\"", "sh",
                                             UPGRADECTL, "pack", "--key", files / "key.pem", "--version",
                                             "1.105.8.3", "-o", files / "out.pkg", files / "components"});
    EXPECT_EQ(result.exitCode, 1) << result.err;
    EXPECT_TRUE(contains(result.err, "out.pkg' cannot be written")) << result.err;
    EXPECT_EQ(files.names(), before);
}

// It comes while the archive is made, from a program in tar's place.
TEST(Cli, an_interrupt_of_pack_ends_with_exit_code_5_and_leaves_nothing_behind) {
    const TemporaryDirectory files;
    makeComponents(files / "components");
    makeEcKey(files / "key.pem");
    const std::string tar = files / "tar";
    kavro_test::spill(tar, R"sh(#!/bin/sh
tool=$PPID
[ "$(cat "/proc/$tool/comm")" != sh ] || tool=$(sed 's/.*) . //; s/ .*//' "/proc/$tool/stat")
kill -INT "$tool"
)sh");
    std::filesystem::permissions(tar, std::filesystem::perms::owner_all);
    const std::vector<std::string> before = files.names();
    const ProgramResult result = runProgram({"env", "PATH=" + files.path() + ":/usr/bin:/bin", UPGRADECTL,
                                             "pack", "-k", files / "key.pem", "--version", "1.105.8.3", "-o",
                                             files / "out.pkg", files / "components"});
    EXPECT_EQ(result.exitCode, 5) << result.err;
    EXPECT_TRUE(contains(result.err, "interrupted, no package was written")) << result.err;
    EXPECT_EQ(files.names(), before);
}

TEST(Cli, refused_component_ends_with_exit_code_3_and_the_next_step) {
    const TemporaryDirectory files;
    makeComponents(files / "components");
    makeEcKey(files / "key.pem");
    std::filesystem::remove(files / "components/Image");
    const ProgramResult result = upgradectl({"pack", "-k", files / "key.pem", "--version", "1.105.8.3", "-o",
                                             files / "out.pkg", files / "components"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(contains(result.err, "components/Image' is missing\n  next: ")) << result.err;
}

TEST(Cli, every_fault_is_told_and_force_makes_a_warning_of_it) {
    const TemporaryDirectory files;
    makeComponents(files / "components");
    makeEcKey(files / "key.pem");
    const std::string dtb = files / "components/cv22_kavro_qz7.dtb";
    const std::string kernel = files / "components/Image";
    std::filesystem::resize_file(dtb, 100);
    std::filesystem::resize_file(kernel, 10);
    std::vector<std::string> words = {"pack",      "-k", files / "key.pem", "--version",
                                      "1.105.8.3", "-o", files / "out.pkg", files / "components"};
    const ProgramResult refused = upgradectl(words);
    EXPECT_EQ(refused.exitCode, 3);
    EXPECT_TRUE(contains(refused.err, "upgradectl: the component '" + dtb + "' states")) << refused.err;
    EXPECT_TRUE(contains(refused.err, "\nupgradectl: the component '" + kernel + "' is no")) << refused.err;

    words.emplace_back("--force");
    const ProgramResult forced = upgradectl(words);
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_EQ(forced.err, "upgradectl: warning: the component '" + dtb +
                              "' states a device tree of 200 bytes, the file has 100 bytes\n"
                              "upgradectl: warning: the component '" +
                              kernel + "' is no arm64 kernel image: 'ARM\\x64' is not at offset 56\n");
}

}  // namespace
