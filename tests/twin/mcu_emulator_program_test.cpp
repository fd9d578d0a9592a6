// mcu-emulator from outside: its command line, its socket, its ends. The bytes on the socket are written out, not
// made by the code that the emulator uses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/hex_text.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace {

using testsupport::bytesOf;
using testsupport::exists;
using testsupport::hexOf;
using testsupport::Program;
using testsupport::ProgramResult;
using testsupport::readFile;
using testsupport::runProgram;
using testsupport::writeFile;

constexpr int kPatienceMs = 30000;

// Requests and their answers as they are on the wire; the first byte behind the code byte is the number.
constexpr const char* kPresent0 = "01 02 3E 05 6F C2 84 BE 00";
constexpr const char* kPresent0Answer = "01 02 7E 05 6A 8D FD 4E 00";
constexpr const char* kVersion1 = "09 01 22 F1 89 8F C1 F2 3B 00";
constexpr const char* kVersion1Is8 = "05 01 62 F1 89 01 01 06 08 56 12 42 D9 00";
constexpr const char* kPendingVersion1 = "09 01 7F 22 78 3A 28 39 3F 00";
constexpr const char* kLinkOn1 = "0A 01 31 01 02 01 4A 79 26 F7 00";
constexpr const char* kLinkOn1Answer = "0A 01 71 01 02 01 77 21 32 6C 00";
constexpr const char* kProgramming2 = "08 02 10 02 01 7E 09 58 00";
constexpr const char* kProgramming2Answer = "04 02 50 02 08 32 01 F4 7A A3 99 F8 00";
constexpr const char* kResetMain2 = "0A 02 31 01 02 10 68 23 36 DA 00";
constexpr const char* kResetMain2Answer = "0A 02 71 01 02 10 55 7B 22 41 00";

// A program on the other end of the link.
class Wire {
  public:
    ~Wire() { hangUp(); }

    bool connect(const std::string& path) {
        hangUp();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }

    void hangUp() {
        if (fd >= 0) {
            ::close(fd);
        }
        fd = -1;
    }

    void send(const std::string& hex) const {
        const std::vector<std::uint8_t> bytes = bytesOf(hex);
        ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }

    // The bytes up to and with the next zero; "" when the other end hangs up.
    std::string receive() const {
        std::vector<std::uint8_t> bytes;
        std::uint8_t byte = 0xFF;
        while (byte != 0) {
            pollfd wait{fd, POLLIN, 0};
            if (::poll(&wait, 1, kPatienceMs) != 1 || ::recv(fd, &byte, 1, 0) != 1) {
                return "";
            }
            bytes.push_back(byte);
        }
        return hexOf(bytes);
    }

    std::string ask(const std::string& hex) const {
        send(hex);
        return receive();
    }

  private:
    int fd = -1;
};

class Emulator : public testing::Test {
  protected:
    static ProgramResult emulator(std::vector<std::string> words) {
        words.insert(words.begin(), MCU_EMULATOR);
        return runProgram(words);
    }

    void SetUp() override { ASSERT_EQ(emulator({"format", flash, "--version", "8"}).exitCode, 0); }

    std::vector<std::string> runWords(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words = {MCU_EMULATOR, "run", "--flash", flash, "--listen", link};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    // Until the emulator listens.
    void connect(Wire& other) const {
        for (int waited = 0; waited < kPatienceMs; waited += 5) {
            if (other.connect(link)) {
                return;
            }
            ::usleep(5000);
        }
        FAIL() << "nobody listens on " << link;
    }

    static ProgramResult end(Program& program, int signal = SIGTERM) {
        ::kill(program.pid(), signal);
        return program.wait();
    }

    kavro_test::TempDir directory;
    const std::string flash = directory / "flash.bin";
    const std::string link = directory / "link";
    Wire wire;
};

TEST_F(Emulator, answers_frame_by_frame) {
    Program program(runWords());
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
    EXPECT_EQ(wire.ask(kVersion1), kVersion1Is8);
}

TEST_F(Emulator, takes_frames_in_pieces_in_a_row_and_after_idle_zeros) {
    Program program(runWords());
    connect(wire);
    wire.send("00 00 00 01 02 3E");
    wire.send("05 6F C2 84");
    wire.send(std::string("BE 00 00 00 ") + kVersion1 + " 00");
    EXPECT_EQ(wire.receive(), kPresent0Answer);
    EXPECT_EQ(wire.receive(), kVersion1Is8);
}

TEST_F(Emulator, ignores_damaged_frames_and_garbage) {
    Program program(runWords());
    connect(wire);
    wire.send("01 02 3E 05 6F C2 84 BF 00");
    wire.send("FF FF 11 00 01 00 02 01 00");
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, ignores_a_frame_that_is_too_long) {
    Program program(runWords());
    connect(wire);
    for (int count = 0; count < 100; ++count) {
        wire.send(hexOf(std::vector<std::uint8_t>(1000, 0x55)));
    }
    wire.send("00");
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, keeps_its_state_from_one_connection_to_the_next) {
    Program program(runWords());
    connect(wire);
    EXPECT_EQ(wire.ask(kLinkOn1), kLinkOn1Answer);
    connect(wire);
    EXPECT_EQ(wire.ask(kProgramming2), kProgramming2Answer);
}

TEST_F(Emulator, forgets_half_a_frame_with_its_connection) {
    Program program(runWords());
    connect(wire);
    wire.send("01 02 3E");
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, serves_one_connection_after_the_other) {
    Program program(runWords());
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
    Wire second;
    connect(second);
    second.send(kVersion1);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
    wire.hangUp();
    EXPECT_EQ(second.receive(), kVersion1Is8);
}

TEST_F(Emulator, a_program_that_goes_away_in_the_middle_does_no_harm) {
    Program program(runWords({"--fault", "delay=1:50"}));
    connect(wire);
    wire.send(kPresent0);
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, what_a_program_did_not_wait_for_does_not_reach_the_next_one) {
    Program program(runWords({"--fault", "pending@22=1:3"}));
    connect(wire);
    EXPECT_EQ(wire.ask(kVersion1), kPendingVersion1);
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, a_late_answer_arrives) {
    Program program(runWords({"--fault", "delay=1:200", "--fault", "pending=1:1"}));
    connect(wire);
    EXPECT_EQ(wire.ask(kVersion1), kPendingVersion1);
    EXPECT_EQ(wire.receive(), kVersion1Is8);
}

TEST_F(Emulator, a_reset_of_the_main_processor_leaves_a_file) {
    Program program(runWords());
    connect(wire);
    EXPECT_FALSE(exists(directory / "reset_request"));
    EXPECT_EQ(wire.ask(kResetMain2), kResetMain2Answer);
    EXPECT_TRUE(exists(directory / "reset_request"));
}

TEST_F(Emulator, logs_requests_and_answers) {
    Program program(runWords());
    connect(wire);
    wire.ask(kVersion1);
    const std::string log = end(program).err;
    EXPECT_NE(log.find(" starts the application of version 8\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" request 1 ReadDataByIdentifier: 22 F1 89\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" answer  1 ReadDataByIdentifier: 62 F1 89 00 00 00 08\n"), std::string::npos) << log;
    EXPECT_NE(log.find(" is switched off\n"), std::string::npos) << log;
}

// --- its ends ------------------------------------------------------------------------------------

class Signal : public Emulator, public testing::WithParamInterface<int> {};

TEST_P(Signal, ends_it_in_order) {
    Program program(runWords());
    connect(wire);
    EXPECT_EQ(end(program, GetParam()).exitCode, 0);
    EXPECT_FALSE(exists(link));
}

INSTANTIATE_TEST_SUITE_P(Each, Signal, testing::Values(SIGTERM, SIGINT));

TEST_F(Emulator, ends_even_while_an_answer_waits) {
    Program program(runWords({"--fault", "delay=1:600000"}));
    connect(wire);
    wire.send(kPresent0);
    EXPECT_EQ(end(program).exitCode, 0);
}

TEST_F(Emulator, is_not_ended_by_an_interrupt_that_its_starter_ignores) {
    Program program({"bash", "-c", "trap '' INT; exec \"$@\"", "bash", MCU_EMULATOR, "run", "--flash", flash,
                     "--listen", link});
    connect(wire);
    ::kill(program.pid(), SIGINT);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
    EXPECT_EQ(end(program).exitCode, 0);
}

TEST_F(Emulator, a_loss_of_power_ends_it_with_exit_code_3) {
    Program program(runWords({"--fault", "power-loss=1"}));
    connect(wire);
    EXPECT_EQ(wire.ask(kLinkOn1), kLinkOn1Answer);
    EXPECT_EQ(wire.ask(kProgramming2), kProgramming2Answer);
    // A download of four bytes to RAM, and their block.
    EXPECT_EQ(wire.ask("03 03 34 03 44 20 01 01 01 01 01 06 04 45 D8 9D E9 00"),
              "0A 03 74 20 04 02 CE 58 F0 D7 00");
    EXPECT_EQ(wire.ask("0C 04 36 01 AA BB CC DD D6 E8 90 F2 00"), "");
    EXPECT_EQ(program.wait().exitCode, 3);
    EXPECT_FALSE(exists(link));
}

TEST_F(Emulator, lives_until_nobody_holds_the_lock) {
    writeFile(directory / "lock", "");
    const int lock = ::open((directory / "lock").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(lock, LOCK_SH), 0);
    Program program(runWords({"--until-unlocked", directory / "lock"}));
    connect(wire);
    ::usleep(300000);  // several looks at the lock
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
    ::close(lock);
    EXPECT_EQ(program.wait().exitCode, 0);
    EXPECT_FALSE(exists(link));
}

TEST_F(Emulator, whoever_wants_the_lock_next_waits_for_its_end) {
    writeFile(directory / "lock", "");
    const ProgramResult result = runProgram(runWords({"--until-unlocked", directory / "lock"}));
    EXPECT_EQ(result.exitCode, 0) << "nobody holds the lock";
    EXPECT_FALSE(exists(link));
}

TEST_F(Emulator, a_missing_lock_file_is_an_error) {
    const ProgramResult result = runProgram(runWords({"--until-unlocked", directory / "nowhere"}));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err,
              "mcu-emulator: " + directory / "nowhere" + ": cannot be opened: No such file or directory\n");
}

// --- what it shares with others ------------------------------------------------------------------

TEST_F(Emulator, a_second_one_on_the_same_flash_ends_with_exit_code_4) {
    Program program(runWords());
    connect(wire);
    const ProgramResult second = emulator({"run", "--flash", flash, "--listen", directory / "other"});
    EXPECT_EQ(second.exitCode, 4);
    EXPECT_EQ(second.err, "mcu-emulator: " + flash + ": is in use by another emulator\n");
    EXPECT_EQ(emulator({"format", flash}).exitCode, 4);
    EXPECT_EQ(emulator({"version", flash}).out, "8\n");
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, a_socket_in_use_is_left_to_its_program) {
    Program program(runWords());
    connect(wire);
    ASSERT_EQ(emulator({"format", directory / "other.bin"}).exitCode, 0);
    const ProgramResult second = emulator({"run", "--flash", directory / "other.bin", "--listen", link});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_EQ(second.err, "mcu-emulator: " + link + ": is in use by another program\n");
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, a_socket_that_was_left_behind_is_replaced) {
    {
        Program killed(runWords());
        connect(wire);
        end(killed, SIGKILL);
    }
    ASSERT_TRUE(exists(link));
    Program program(runWords());
    connect(wire);
    EXPECT_EQ(wire.ask(kPresent0), kPresent0Answer);
}

TEST_F(Emulator, a_file_in_the_place_of_the_socket_stays) {
    writeFile(link, "precious");
    const ProgramResult result = runProgram(runWords());
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mcu-emulator: " + link + ": is no socket and stays as it is\n");
    EXPECT_EQ(readFile(link), "precious");
}

TEST_F(Emulator, a_path_too_long_for_a_socket_is_an_error) {
    const std::string path = directory / std::string(104, 'x');
    const ProgramResult result = emulator({"run", "--flash", flash, "--listen", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mcu-emulator: " + path + ": is no path for a socket: 1 to 103 characters\n");
}

TEST_F(Emulator, paths_may_be_relative) {
    Program program({"bash", "-c", "cd \"$1\" && exec \"$2\" run --flash flash.bin --listen link", "bash",
                     directory.path(), MCU_EMULATOR});
    connect(wire);
    EXPECT_EQ(wire.ask(kResetMain2), kResetMain2Answer);
    EXPECT_TRUE(exists(directory / "reset_request"));
}

// --- format and version --------------------------------------------------------------------------

TEST_F(Emulator, without_an_application_there_is_no_version) {
    ASSERT_EQ(emulator({"format", flash}).exitCode, 0);
    const ProgramResult result = emulator({"version", flash});
    EXPECT_EQ(result.out, "none\n");
    EXPECT_EQ(result.exitCode, 1);
}

TEST_F(Emulator, the_version_is_that_of_the_formatted_application) {
    for (const char* version : {"0", "8", "2147483647"}) {
        ASSERT_EQ(emulator({"format", flash, "--version", version}).exitCode, 0);
        const ProgramResult result = emulator({"version", flash});
        EXPECT_EQ(result.out, std::string(version) + "\n");
        EXPECT_EQ(result.exitCode, 0);
    }
}

TEST_F(Emulator, an_application_comes_from_an_s_record_file) {
    writeFile(directory / "app.s19",
              "S01400006D63755F666C6173685F6170702E7331398E\nS11380004B4156524F4D43550800000000000000FC\n"
              "S1078010010203045E\nS90380007C\n");
    ASSERT_EQ(emulator({"format", flash, "--application", directory / "app.s19"}).exitCode, 0);
    EXPECT_EQ(emulator({"version", flash}).out, "8\n");
    EXPECT_EQ(readFile(flash).substr(0x8010, 5), "\x01\x02\x03\x04\xFF");
}

TEST_F(Emulator, a_bad_application_leaves_the_flash_as_it_is) {
    writeFile(directory / "app.s19", "S1078010010203045E\nS90380007C\n");
    const ProgramResult result = emulator({"format", flash, "--application", directory / "app.s19"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err,
              "mcu-emulator: " + directory / "app.s19" + ": no valid application header at 0x00008000\n");
    EXPECT_EQ(emulator({"version", flash}).out, "8\n");
}

TEST_F(Emulator, a_file_that_is_no_flash_memory_is_an_error) {
    writeFile(flash, "short");
    const std::string error =
        "mcu-emulator: " + flash + ": is no flash memory of 524288 bytes; 'mcu-emulator format' makes one\n";
    for (const ProgramResult& result : {emulator({"version", flash}), runProgram(runWords())}) {
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, error);
        EXPECT_EQ(result.out, "");
    }
}

// --- the command line ----------------------------------------------------------------------------

struct Misuse {
    const char* name;
    std::vector<std::string> words;
    const char* error;
};

void PrintTo(const Misuse& misuse, std::ostream* out) {
    *out << misuse.name;
}

class WrongCommandLine : public testing::TestWithParam<Misuse> {};

TEST_P(WrongCommandLine, ends_with_exit_code_2_and_says_what_is_wrong) {
    std::vector<std::string> words = GetParam().words;
    words.insert(words.begin(), MCU_EMULATOR);
    const ProgramResult result = runProgram(words);
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.err, std::string("mcu-emulator: ") + GetParam().error + " (see 'mcu-emulator help')\n");
    EXPECT_EQ(result.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Each, WrongCommandLine,
    testing::Values(Misuse{"no_command", {}, "unknown command ''"},
                    Misuse{"command", {"start"}, "unknown command 'start'"},
                    Misuse{"run_without_flash", {"run", "--listen", "x"}, "run needs --flash FILE"},
                    Misuse{"run_without_socket", {"run", "--flash", "x"}, "run needs --listen PATH"},
                    Misuse{"option", {"run", "--nothing", "x"}, "run does not know '--nothing'"},
                    Misuse{"option_of_another_command",
                           {"format", "x", "--listen", "y"},
                           "format does not know '--listen'"},
                    Misuse{"option_without_value", {"run", "--flash"}, "--flash needs a value"},
                    Misuse{"empty_value", {"run", "--flash", ""}, "--flash needs a value"},
                    Misuse{"fault",
                           {"run", "--flash", "x", "--listen", "y", "--fault", "lose"},
                           "the fault 'lose' is not KIND[@SERVICE]=FIRST[..[LAST]][:VALUE]: '=' is missing"},
                    Misuse{"format_without_file", {"format"}, "format needs FILE"},
                    Misuse{"format_with_an_option_first", {"format", "--version", "3"}, "format needs FILE"},
                    Misuse{"version_is_no_number",
                           {"format", "x", "--version", "8x"},
                           "--version takes a number from 0 to 2147483647, not '8x'"},
                    Misuse{"version_is_negative",
                           {"format", "x", "--version", "-1"},
                           "--version takes a number from 0 to 2147483647, not '-1'"},
                    Misuse{"version_is_too_large",
                           {"format", "x", "--version", "2147483648"},
                           "--version takes a number from 0 to 2147483647, not '2147483648'"},
                    Misuse{"version_and_application",
                           {"format", "x", "--version", "8", "--application", "y"},
                           "format takes --version or --application, not both"},
                    Misuse{"version_without_file", {"version"}, "version needs FILE"},
                    Misuse{"version_of_two_files", {"version", "x", "y"}, "version does not know 'y'"}),
    [](const auto& misuse) { return std::string(misuse.param.name); });

TEST(Help, tells_the_commands_and_every_kind_of_fault) {
    const ProgramResult result = runProgram({MCU_EMULATOR, "help"});
    EXPECT_EQ(result.exitCode, 0);
    for (const char* word :
         {"mcu-emulator run ", "mcu-emulator format ", "mcu-emulator version ", "  drop ", "  lose ",
          "  damage ", "  delay ", "  busy ", "  pending ", "  refuse ", "  power-loss ", "  corrupt "}) {
        EXPECT_NE(result.out.find(word), std::string::npos) << word;
    }
}

}  // namespace
