// printLog on a device: its configuration, its log socket, its standard error.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <sstream>
#include <thread>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro_test::slurp;
using kavro_test::spill;

constexpr const char* kConfig = "/etc/kavro/platform.json";
constexpr const char* kCapture = "/tmp/stderr";
constexpr const char* kLogSocket = "/dev/log";

void configure(bool toSyslog, bool toStderr) {
    spill(kConfig, std::string("{\"log\": {\"syslog\": ") + (toSyslog ? "true" : "false") +
                       ", \"stderr\": " + (toStderr ? "true" : "false") + "}}");
}

// Standard error into a file, for as long as it lives.
class StderrCapture {
  public:
    explicit StderrCapture(const char* path = kCapture) : saved(dup(STDERR_FILENO)) {
        const int file = open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        EXPECT_GE(dup2(file, STDERR_FILENO), 0);
        close(file);
    }
    ~StderrCapture() {
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    static std::vector<std::string> lines() {
        std::istringstream text(slurp(kCapture));
        std::vector<std::string> found;
        for (std::string line; std::getline(text, line);) {
            found.push_back(line);
        }
        return found;
    }

  private:
    int saved;
};

// The log daemon's end.
class LogDaemon {
  public:
    LogDaemon() : daemon(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::string(kLogSocket).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(daemon, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << errno;
    }
    ~LogDaemon() { close(daemon); }
    LogDaemon(const LogDaemon&) = delete;
    LogDaemon& operator=(const LogDaemon&) = delete;

    // The next message; empty when there is none.
    std::string receive() const {
        std::string message(1 << 20, '\0');
        const ssize_t length = recv(daemon, message.data(), message.size(), MSG_DONTWAIT);
        message.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return message;
    }

  private:
    int daemon;
};

// Whether the line is a point in time and, behind it, the rest.
bool isTimed(const std::string& line, const std::string& rest) {
    const std::string shape = "0000-00-00 00:00:00.000 ";
    if (line.size() < shape.size() || line.substr(shape.size()) != rest) {
        return false;
    }
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == '0' ? !digit : line[i] != shape[i]) {
            return false;
        }
    }
    return true;
}

TEST(PrintLog, line_has_time_level_and_text) {
    configure(false, true);
    const StderrCapture capture;
    printLog(1, "code %d of %s\n", -7, "unit");
    printLog(2, "second\n");
    printLog(3, "third\n");
    const auto lines = StderrCapture::lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_TRUE(isTimed(lines[0], "[error] code -7 of unit")) << lines[0];
    EXPECT_TRUE(isTimed(lines[1], "[warning] second")) << lines[1];
    EXPECT_TRUE(isTimed(lines[2], "[info] third")) << lines[2];
}

TEST(PrintLog, one_line_a_call_whatever_breaks_the_text_has) {
    configure(false, true);
    const StderrCapture capture;
    printLog(3, "none");
    printLog(3, "two\n\n");
    printLog(3, "in\nside\n");
    const auto lines = StderrCapture::lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_NE(lines[0].find("] none"), std::string::npos);
    EXPECT_EQ(lines[1].substr(lines[1].size() - 5), "] two");
    EXPECT_NE(lines[2].find("] in\\nside"), std::string::npos);
}

TEST(PrintLog, line_of_any_length_is_whole) {
    configure(false, true);
    const StderrCapture capture;
    const std::string text(3000000, 'x');
    printLog(3, "%s!\n", text.c_str());
    const auto lines = StderrCapture::lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].find("] " + text + "!"), std::string::npos);
}

TEST(PrintLog, lines_of_threads_do_not_mix) {
    configure(false, true);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int saved = dup(STDERR_FILENO);
    ASSERT_GE(dup2(ends[1], STDERR_FILENO), 0);
    std::string received;
    std::thread reader([&] {
        char block[65536];
        for (ssize_t count; (count = read(ends[0], block, sizeof block)) > 0;) {
            received.append(block, static_cast<std::size_t>(count));
        }
    });
    std::vector<std::thread> writers;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        writers.emplace_back([letter] {
            for (int i = 0; i < 50; ++i) {
                printLog(3, "%s\n", std::string(i % 2 == 0 ? 20 : 100000, letter).c_str());
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(ends[1]);
    reader.join();
    close(ends[0]);

    std::istringstream text(received);
    std::map<std::string, int> counts;
    for (std::string line; std::getline(text, line);) {
        const std::size_t start = line.find("[info] ");
        ASSERT_NE(start, std::string::npos);
        ++counts[line.substr(start + 7)];
    }
    ASSERT_EQ(counts.size(), 8U);
    for (const auto& [line, count] : counts) {
        EXPECT_EQ(line.find_first_not_of(line[0]), std::string::npos);
        EXPECT_EQ(count, 25);
    }
}

TEST(PrintLog, syslog_gets_priority_and_text) {
    configure(true, false);
    const LogDaemon daemon;
    printLog(1, "first %d\n", 1);
    printLog(2, "second\n");
    printLog(3, "third");
    for (const auto& [priority, text] :
         {std::pair{"<11>", "first 1"}, {"<12>", "second"}, {"<14>", "third"}}) {
        const std::string message = daemon.receive();
        EXPECT_EQ(message.substr(0, 4), priority);
        EXPECT_EQ(message.substr(message.size() - std::string(text).size() - 2), std::string(": ") + text);
    }
    EXPECT_EQ(daemon.receive(), "");
}

TEST(PrintLog, missing_configuration_logs_to_syslog_only) {
    ASSERT_EQ(unlink(kConfig), 0);
    const LogDaemon daemon;
    const StderrCapture capture;
    printLog(3, "text\n");
    EXPECT_NE(daemon.receive().find("text"), std::string::npos);
    EXPECT_TRUE(StderrCapture::lines().empty());
}

TEST(PrintLog, text_beyond_a_datagram_reaches_syslog_in_pieces) {
    configure(true, false);
    const LogDaemon daemon;
    std::string sent = "start";
    sent += std::string(150000, 'x') + "end";
    printLog(3, "%s\n", sent.c_str());
    std::string received;
    for (std::string message; !(message = daemon.receive()).empty();) {
        received += message.substr(message.find(": ") + 2);
    }
    EXPECT_TRUE(received == sent);
}

TEST(PrintLog, no_target_is_silent) {
    configure(false, false);
    const LogDaemon daemon;
    const StderrCapture capture;
    printLog(1, "text\n");
    EXPECT_EQ(daemon.receive(), "");
    EXPECT_TRUE(StderrCapture::lines().empty());
}

TEST(PrintLog, configuration_is_read_once) {
    configure(false, true);
    const StderrCapture capture;
    printLog(3, "before\n");
    configure(false, false);
    printLog(3, "after\n");
    EXPECT_EQ(StderrCapture::lines().size(), 2U);
}

TEST(PrintLog, missing_daemon_does_no_harm_and_errno_is_kept) {
    configure(true, true);
    const StderrCapture capture;
    errno = EXDEV;
    printLog(1, "error %m\n");
    EXPECT_EQ(errno, EXDEV);
    ASSERT_EQ(StderrCapture::lines().size(), 1U);
    EXPECT_NE(StderrCapture::lines()[0].find("Invalid cross-device link"), std::string::npos);
}

TEST(PrintLog, standard_error_that_nobody_reads_is_no_end_of_the_process) {
    configure(false, true);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int saved = dup(STDERR_FILENO);
    ASSERT_GE(dup2(ends[1], STDERR_FILENO), 0);
    close(ends[0]);
    close(ends[1]);
    printLog(3, "text\n");
    dup2(saved, STDERR_FILENO);
    close(saved);
    SUCCEED();
}

TEST(PrintLog, null_format_does_no_harm) {
    configure(false, true);
    const StderrCapture capture;
    const char* volatile nothing = nullptr;
    printLog(3, nothing, 0);
    EXPECT_TRUE(StderrCapture::lines().empty());
}

TEST(PrintLog, cancel_does_not_act_in_it) {
    configure(true, true);
    const StderrCapture capture;
    std::thread thread([] {
        pthread_cancel(pthread_self());
        printLog(3, "text\n");
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    thread.join();
    EXPECT_EQ(StderrCapture::lines().size(), 1U);
}

}  // namespace
