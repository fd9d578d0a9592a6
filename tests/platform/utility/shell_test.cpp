// runSystem.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <sstream>
#include <thread>

#include "common/utility.h"
#include "tests/platform/utility/process_view.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::runSystem;
using kavro_test::allChildrenEnd;
using kavro_test::slurp;
using kavro_test::spill;
using kavro_test::TempDir;

class RunSystem : public testing::Test {
  protected:
    // What the command prints.
    std::string outputOf(const std::string& command) const {
        const std::string file = directory / "output";
        EXPECT_EQ(runSystem("{ %s\n} > %s 2>&1", command.c_str(), file.c_str()), 0);
        return slurp(file);
    }
    const TempDir directory;
};

TEST_F(RunSystem, status_0_is_0) {
    EXPECT_EQ(runSystem("true"), 0);
}

TEST_F(RunSystem, every_other_status_is_negative) {
    for (const int status : {1, 2, 126, 127, 128, 255}) {
        EXPECT_LT(runSystem("exit %d", status), 0) << status;
    }
}

TEST_F(RunSystem, death_by_a_signal_is_negative) {
    EXPECT_LT(runSystem("kill -KILL $$"), 0);
    EXPECT_LT(runSystem("kill -TERM $$"), 0);
}

TEST_F(RunSystem, unknown_command_and_bad_syntax_are_negative) {
    EXPECT_LT(runSystem("/nonexistent/command 2>/dev/null"), 0);
    EXPECT_LT(runSystem("( 2>/dev/null"), 0);
}

TEST_F(RunSystem, empty_command_is_0) {
    EXPECT_EQ(runSystem("%s", ""), 0);
}

TEST_F(RunSystem, format_is_filled_in) {
    EXPECT_EQ(outputOf("echo 7 word"), "7 word\n");
    EXPECT_EQ(runSystem("test %s = %d", "0042", 42), -1);
    EXPECT_EQ(runSystem("test %s -eq %d", "0042", 42), 0);
}

TEST_F(RunSystem, command_is_the_shell_s) {
    EXPECT_EQ(outputOf("for i in 1 2; do echo $i | tr 12 ab; done"), "a\nb\n");
}

TEST_F(RunSystem, standard_input_is_empty) {
    EXPECT_EQ(outputOf("cat; readlink /proc/self/fd/0"), "/dev/null\n");
}

TEST_F(RunSystem, variables_that_change_what_a_command_does_are_withheld) {
    const char* const withheld[] = {"TAR_OPTIONS", "OPENSSL_CONF", "IFS",
                                    "ENV",         "BASH_ENV",     "BASH_FUNC_tar%%"};
    for (const char* name : withheld) {
        ASSERT_EQ(setenv(name, "/tmp/of_another", 1), 0);
    }
    ASSERT_EQ(setenv("KAVRO_OF_THE_APPLICATION", "/tmp/its own", 1), 0);
    const std::string environment = outputOf("/usr/bin/env");
    for (const char* name : withheld) {
        EXPECT_EQ(environment.find(std::string(name) + "=/tmp/of_another"), std::string::npos) << name;
        ASSERT_EQ(unsetenv(name), 0);
    }
    EXPECT_NE(environment.find("KAVRO_OF_THE_APPLICATION=/tmp/its own\n"), std::string::npos) << environment;
    EXPECT_NE(environment.find("PATH="), std::string::npos);
}

TEST_F(RunSystem, options_for_tar_in_the_environment_change_nothing) {
    spill(directory / "kept", "text");
    ASSERT_EQ(setenv("TAR_OPTIONS", "--remove-files", 1), 0);
    EXPECT_EQ(runSystem("tar -cf %s -C %s kept", (directory / "archive").c_str(), (directory / "").c_str()),
              0);
    ASSERT_EQ(unsetenv("TAR_OPTIONS"), 0);
    EXPECT_EQ(slurp(directory / "kept"), "text");
}

// The program's standard descriptors are closed, as those of some services are: nothing of ours may take their place.
TEST_F(RunSystem, closed_standard_descriptors_make_no_difference) {
    for (const std::string& filler : {std::string(), std::string(200000, 'w')}) {
        const std::string file = directory / ("output" + std::to_string(filler.size()));
        EXPECT_TRUE(kavro_test::trueInChild([&] {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            const bool ran =
                runSystem("{ echo out; echo err >&2; } >%s 2>&1; : %s", file.c_str(), filler.c_str()) == 0;
            return ran && runSystem("echo out; echo err >&2; : %s", filler.c_str()) == 0 &&
                   runSystem("cat; exit 1; : %s", filler.c_str()) < 0;
        }));
        EXPECT_EQ(slurp(file), "out\nerr\n");
    }
}

TEST_F(RunSystem, what_a_command_prints_does_not_reach_the_program_s_output) {
    const std::string file = directory / "of the program";
    EXPECT_TRUE(kavro_test::trueInChild([&] {
        const int output = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
        return dup2(output, STDOUT_FILENO) >= 0 && dup2(output, STDERR_FILENO) >= 0 &&
               runSystem("echo out; echo err >&2") == 0;
    }));
    EXPECT_EQ(slurp(file), "");
}

TEST_F(RunSystem, command_has_a_process_group_of_its_own) {
    const std::string group = outputOf("ps -o pgid= -p $$ 2>/dev/null || cut -d' ' -f5 /proc/$$/stat");
    EXPECT_NE(std::stoi(group), getpgrp());
}

TEST_F(RunSystem, no_signal_is_ignored_or_blocked_in_the_command) {
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE, SIGHUP, SIGTERM}) {
        ASSERT_NE(signal(number, SIG_IGN), SIG_ERR);
    }
    sigset_t all;
    sigfillset(&all);
    sigset_t before;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &all, &before), 0);
    const std::string masks = outputOf("sed -n 's/^Sig\\(Blk\\|Ign\\):\\t//p' /proc/self/status");
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    std::istringstream words(masks);
    unsigned long blocked = 0;
    unsigned long ignored = 0;
    ASSERT_TRUE(words >> std::hex >> blocked >> ignored) << masks;
    constexpr unsigned long kOrdinarySignals = 0x7FFFFFFF;  // libc keeps two of its own beyond these
    EXPECT_EQ(blocked, 0U);
    EXPECT_EQ(ignored & kOrdinarySignals, 0U);
}

TEST_F(RunSystem, host_that_ignores_sigchld_gets_no_success_by_mistake) {
    ASSERT_NE(signal(SIGCHLD, SIG_IGN), SIG_ERR);
    EXPECT_LT(runSystem("exit 1"), 0);
    ASSERT_NE(signal(SIGCHLD, SIG_DFL), SIG_ERR);
    EXPECT_EQ(runSystem("true"), 0);
}

TEST_F(RunSystem, command_of_every_length_runs) {
    for (const std::size_t length : {1000UL, 131000UL, 131071UL, 131072UL, 131073UL, 3000000UL}) {
        const std::string word(length, 'w');
        EXPECT_EQ(runSystem(": %s; cat; exit 0", word.c_str()), 0) << length;
        EXPECT_LT(runSystem(": %s; exit 3", word.c_str()), 0) << length;
    }
}

TEST_F(RunSystem, long_command_is_run_as_it_stands) {
    const std::string word = std::string(200000, 'w') + "'\"$(echo)`\\ \t*";
    std::string quoted;
    for (const char character : word) {
        quoted += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    EXPECT_EQ(outputOf("printf %s '" + quoted + "'"), word);
}

TEST_F(RunSystem, long_command_has_no_more_descriptors_than_a_short_one) {
    (void)fcntl(3, F_SETFD, FD_CLOEXEC);  // should whoever runs the test have left it open
    const std::string list = "ls -l /proc/self/fd | grep -c -- '->'";
    EXPECT_EQ(outputOf(list + "; : " + std::string(200000, 'w')), outputOf(list));
}

TEST_F(RunSystem, long_command_does_not_see_standard_input) {
    EXPECT_EQ(outputOf("cat; : " + std::string(200000, 'w')), "");
}

TEST_F(RunSystem, small_room_for_arguments_is_no_limit) {
    EXPECT_TRUE(kavro_test::trueInChild([] {
        const rlimit stack = {400 << 10, 400 << 10};  // a quarter of it is for arguments and environment
        const std::string word(125000, 'w');
        return setrlimit(RLIMIT_STACK, &stack) == 0 && runSystem(": %s; exit 0", word.c_str()) == 0 &&
               runSystem(": %s; exit 1", word.c_str()) < 0;
    }));
}

TEST_F(RunSystem, background_process_of_a_finished_command_lives_on) {
    kavro_test::adoptOrphans();
    EXPECT_EQ(runSystem("sleep 1000 & echo $! > %s", (directory / "pid").c_str()), 0);
    const pid_t background = std::stoi(slurp(directory / "pid"));
    EXPECT_EQ(kill(background, 0), 0);
    ASSERT_EQ(kill(background, SIGKILL), 0);
    EXPECT_TRUE(allChildrenEnd());
}

TEST_F(RunSystem, descriptors_and_children_are_gone_afterwards) {
    const int before = kavro_test::openDescriptors();
    EXPECT_EQ(runSystem("true"), 0);
    EXPECT_LT(runSystem("false"), 0);
    EXPECT_EQ(runSystem(": %s", std::string(200000, 'w').c_str()), 0);
    EXPECT_EQ(kavro_test::openDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_F(RunSystem, descriptors_of_the_library_are_not_handed_down) {
    std::atomic<bool> over = false;
    spill(directory / "source", std::string(3000000, 'x'));
    std::thread copying([&] {
        while (!over) {
            COMMON_YR::cpFile(directory / "source", directory / "copy");
        }
    });
    std::string seen;
    for (int i = 0; i < 30; ++i) {
        seen += outputOf("ls -l /proc/self/fd");
    }
    over = true;
    copying.join();
    EXPECT_EQ(seen.find(directory / "source"), std::string::npos);
    EXPECT_EQ(seen.find(directory / "copy"), std::string::npos);
}

TEST_F(RunSystem, signal_handler_of_the_host_does_not_disturb_the_wait) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);  // without SA_RESTART
    const pthread_t self = pthread_self();
    std::atomic<bool> over = false;
    std::thread disturber([&] {
        while (!over) {
            pthread_kill(self, SIGUSR1);
            usleep(1000);
        }
    });
    EXPECT_EQ(runSystem("sleep 0.3"), 0);
    EXPECT_LT(runSystem("sleep 0.1; exit 1"), 0);
    over = true;
    disturber.join();
}

TEST_F(RunSystem, commands_at_once_get_their_own_results) {
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 10; ++round) {
                const bool failed = runSystem("exit %d", i % 2) < 0;
                wrong += failed != (i % 2 == 1) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

}  // namespace
