// `upgradectl twin` against a script that tells how it was called, and against the twin's own.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/tools/tool_support.h"

namespace {

using namespace tool_test;
namespace fs = std::filesystem;

class TwinCommand : public testing::Test {
  protected:
    TwinCommand() {
        std::ofstream(script) << "#!/bin/sh\n"
                                 "for word; do printf '<%s>' \"$word\"; done\n"
                                 "exit \"${ENDS_WITH:-0}\"\n";
        fs::permissions(script, fs::perms::owner_all);
    }

    ProgramResult callScript(std::vector<std::string> words, const std::string& setting = "IGNORED=1") {
        words.insert(words.begin(), "twin");
        return upgradectl(words, {"KAVRO_TWIN=" + script.string(), setting});
    }

    TemporaryDirectory directory;
    const fs::path script = fs::path(directory.path()) / "script";
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(TwinCommand, the_words_reach_the_script_as_they_are) {
    const ProgramResult result =
        callScript({"run", "a dir", "--env", "A=[1,2]", "--env", "B=", "--no-mcu", "--", "twin", "--help", "",
                    "[a,b]", "--", "status", "{x}", "-o"});
    EXPECT_EQ(
        result.out,
        "<run><a dir><--env><A=[1,2]><--env><B=><--no-mcu><--><twin><--help><><[a,b]><--><status><{x}><-o>");
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(TwinCommand, the_exit_code_is_the_scripts) {
    EXPECT_EQ(callScript({"boot", "d"}, "ENDS_WITH=77").exitCode, 77);
    EXPECT_EQ(callScript({"boot", "d"}, "ENDS_WITH=1").exitCode, 1);
}

TEST_F(TwinCommand, every_command_of_the_script_is_known) {
    for (const std::string name : {"boot", "show", "reset", "detach", "remove", "create"}) {
        EXPECT_EQ(callScript({name, "d"}).out, "<" + name + "><d>");
    }
    EXPECT_EQ(callScript({"compare", "d", "a", "c"}).out, "<compare><d><a><c>");
    EXPECT_EQ(callScript({"help"}).out, "<help>");
}

TEST_F(TwinCommand, a_wrong_use_is_told_in_the_tools_form) {
    struct Wrong {
        std::vector<std::string> words;
        std::string told;
    };
    for (const Wrong& wrong :
         {Wrong{{}, "upgradectl: a command is missing\n  next: upgradectl twin --help\n"},
          Wrong{{"fly"}, "upgradectl: 'fly' is no command\n  next: upgradectl twin --help\n"},
          Wrong{{"--fly"}, "upgradectl: '--fly' is no option\n  next: upgradectl twin --help\n"},
          Wrong{{"boot"}, "upgradectl: DIR is required\n  next: upgradectl twin boot --help\n"}}) {
        const ProgramResult result = callScript(wrong.words);
        EXPECT_EQ(result.err, wrong.told);
        EXPECT_EQ(result.exitCode, 2) << wrong.told;
        EXPECT_EQ(result.out, "") << wrong.told;
    }
    EXPECT_EQ(callScript({"run", "d", "--fly", "--", "true"}).exitCode, 2);
}

TEST_F(TwinCommand, a_missing_script_is_named) {
    const ProgramResult result = upgradectl({"twin", "help"}, {"KAVRO_TWIN=/nowhere/twin"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.err, "'/nowhere/twin'")) << result.err;
    EXPECT_TRUE(contains(result.err, "\n  next: ")) << result.err;
}

// The help of the tool and that of the script are written apart.
TEST_F(TwinCommand, the_options_are_those_of_the_script) {
    const std::string scriptHelp = upgradectl({"twin", "help"}).out;
    const std::regex call("upgradectl twin ([a-z]+)([^\n]*(\n {20}[^\n]*)?)");
    const std::regex option("--[a-z]+(-[a-z]+)*");
    int options = 0;
    for (std::sregex_iterator line(scriptHelp.begin(), scriptHelp.end(), call), end; line != end; ++line) {
        const std::string help = upgradectl({"twin", (*line)[1], "--help"}).out;
        const std::string words = (*line)[2];
        for (std::sregex_iterator word(words.begin(), words.end(), option); word != end; ++word) {
            EXPECT_TRUE(contains(help, word->str())) << (*line)[1] << " " << word->str();
            ++options;
        }
    }
    EXPECT_GE(options, 13) << scriptHelp;
}

}  // namespace
