// What was done to the device stays recorded, whoever records it at the same time.
#include "agent/history.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/device.h"

namespace {

bool storageFails = false;
std::vector<std::string> flushed;  // paths, by the first thread

std::string nameOf(int file) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file)).string();
}

}  // namespace

// Takes the place of the C library's for the library under test.
extern "C" __attribute__((visibility("default"))) int fsync(int file) {
    if (storageFails) {
        errno = EIO;
        return -1;
    }
    if (gettid() == getpid()) {
        flushed.push_back(nameOf(file));
    }
    return static_cast<int>(syscall(SYS_fsync, file));
}

namespace {

using kavro::ErrorCode;
using kavro::agent::appendHistory;
using kavro::agent::hasFailedTrial;
using kavro::agent::HistoryEntry;
using kavro::agent::kHistoryFile;
using kavro::agent::kMostHistoryBytes;
using kavro::agent::kMostHistoryTextBytes;
using kavro::agent::readHistory;
using testsupport::readFile;
using testsupport::writeFile;
using namespace std::chrono_literals;

constexpr const char* kRelease = "V01.105.008.003";
constexpr std::size_t kLongText = 700;

class History : public testsupport::DeviceTest {};

HistoryEntry entryOf(const std::string& event, const std::string& text = "") {
    HistoryEntry entry;
    entry.event = event;
    entry.outcome = "ok";
    entry.text = text;
    return entry;
}

void append(const HistoryEntry& entry) {
    const auto result = appendHistory(entry);
    ASSERT_TRUE(result.ok()) << result.error().text;
}

std::vector<HistoryEntry> history() {
    const auto result = readHistory();
    EXPECT_TRUE(result.ok()) << result.error().text;
    return result.ok() ? result.value() : std::vector<HistoryEntry>();
}

std::vector<std::string> texts() {
    std::vector<std::string> found;
    for (const HistoryEntry& entry : history()) {
        found.push_back(entry.text);
    }
    return found;
}

using Texts = std::vector<std::string>;

TEST_F(History, of_a_new_device_is_empty) {
    EXPECT_TRUE(history().empty());
    EXPECT_FALSE(testsupport::exists(kHistoryFile));
}

TEST_F(History, is_read_as_it_was_appended) {
    HistoryEntry entry;
    entry.time = "2026-11-22T10:00:00Z";
    entry.event = "install";
    entry.outcome = "flash_failed";
    entry.release = kRelease;
    entry.before = "V01.104.007.002";
    entry.package = "/firmware/camera.pkg";
    entry.keyDigest = std::string(64, 'a');
    entry.by = "root: upgradectl install /firmware/camera.pkg";
    entry.text = "flashing failed";
    append(entry);
    append(entryOf("rollback"));

    const std::vector<HistoryEntry> read = history();
    ASSERT_EQ(read.size(), 2U);
    EXPECT_EQ(read[0].time, entry.time);
    EXPECT_EQ(read[0].event, entry.event);
    EXPECT_EQ(read[0].outcome, entry.outcome);
    EXPECT_EQ(read[0].release, entry.release);
    EXPECT_EQ(read[0].before, entry.before);
    EXPECT_EQ(read[0].package, entry.package);
    EXPECT_EQ(read[0].keyDigest, entry.keyDigest);
    EXPECT_EQ(read[0].by, entry.by);
    EXPECT_EQ(read[0].text, entry.text);
    EXPECT_EQ(read[1].event, "rollback");
    EXPECT_EQ(read[1].release, "");
}

TEST_F(History, is_a_json_object_a_line_without_what_does_not_apply) {
    HistoryEntry entry = entryOf("confirm");
    entry.time = "2026-11-22T10:00:00Z";
    entry.by = "root: camera";
    entry.keyDigest = "abc";
    append(entry);
    EXPECT_EQ(readFile(kHistoryFile),
              R"({"by":"root: camera","event":"confirm","key_sha256":"abc","outcome":"ok",)"
              R"("time":"2026-11-22T10:00:00Z"})"
              "\n");
}

TEST_F(History, tells_the_time_of_an_append_in_utc) {
    setenv("TZ", "Asia/Tokyo", 1);
    const std::time_t before = std::time(nullptr);
    append(entryOf("confirm"));
    const std::string time = history().at(0).time;
    std::tm utc = {};
    const char* end = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    ASSERT_TRUE(end != nullptr && *end == '\0') << time;
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), std::time(nullptr));
}

TEST_F(History, tells_user_and_command_line_of_who_appended) {
    append(entryOf("confirm"));
    std::string command = readFile("/proc/self/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    command.pop_back();
    // cppcheck-suppress getpwuidCalled  // this process has no other thread
    const passwd* const user = getpwuid(getuid());
    const std::string name = user != nullptr ? user->pw_name : "uid " + std::to_string(getuid());
    EXPECT_EQ(history().at(0).by, name + ": " + command);
}

TEST_F(History, of_an_entry_without_an_event_is_not_written) {
    const auto result = appendHistory(HistoryEntry());
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, ErrorCode::kUsage);
    EXPECT_FALSE(testsupport::exists(kHistoryFile));
}

// --- texts ------------------------------------------------------------------------------------------------------------

TEST_F(History, keeps_line_breaks_and_control_characters_of_a_text_within_its_line) {
    const std::string text = std::string("one\ntwo\r\x1b[2J\x7f \"\\ \xc3\xa4 ") + '\0' + "end";
    append(entryOf("repair", text));
    append(entryOf("repair", "next"));
    EXPECT_EQ(texts(), (Texts{text, "next"}));
    const std::string file = readFile(kHistoryFile);
    EXPECT_EQ(std::count(file.begin(), file.end(), '\n'), 2);
    EXPECT_TRUE(std::all_of(file.begin(), file.end(), [](unsigned char byte) {
        return byte == '\n' || (byte >= ' ' && byte < 0x80);
    })) << file;
}

TEST_F(History, tells_what_is_no_utf8_as_the_character_for_that) {
    append(entryOf("repair", "a\xff|"));
    EXPECT_EQ(texts(), Texts{"a\xef\xbf\xbd|"});
}

TEST_F(History, cuts_a_long_text_between_two_characters) {
    std::string longText;
    while (longText.size() < 2 * kMostHistoryTextBytes) {
        longText += "\xf0\x9f\x8e\xa5";
    }
    for (const std::string front : {"", "a", "aa", "aaa"}) {
        append(entryOf("repair", front + longText));
        const std::string kept = history().back().text;
        EXPECT_LE(kept.size(), kMostHistoryTextBytes);
        EXPECT_GE(kept.size(), kMostHistoryTextBytes - 3);
        EXPECT_EQ(kept, (front + longText).substr(0, kept.size() - 3) + "...");
    }
}

TEST_F(History, takes_the_longest_texts_that_there_are) {
    HistoryEntry entry;
    for (std::string* text : {&entry.time, &entry.event, &entry.outcome, &entry.release, &entry.before,
                              &entry.package, &entry.keyDigest, &entry.by, &entry.text}) {
        *text = std::string(4 * kMostHistoryTextBytes, '\x1b');
    }
    append(entryOf("confirm"));
    append(entry);
    append(entry);
    EXPECT_EQ(history().back().text, std::string(kMostHistoryTextBytes - 3, '\x1b') + "...");
    EXPECT_LE(readFile(kHistoryFile).size(), kMostHistoryBytes);
}

// --- what others have done to the file --------------------------------------------------------------------------------

TEST_F(History, leaves_out_a_line_that_was_cut_off_and_begins_a_new_one_behind_it) {
    append(entryOf("install", "first"));
    writeFile(kHistoryFile, readFile(kHistoryFile) + R"({"event":"install","tex)");
    EXPECT_EQ(texts(), Texts{"first"});
    append(entryOf("install", "second"));
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
}

TEST_F(History, counts_a_last_line_that_lacks_nothing_but_its_end) {
    append(entryOf("install", "first"));
    std::string file = readFile(kHistoryFile);
    file.pop_back();
    writeFile(kHistoryFile, file);
    EXPECT_EQ(texts(), Texts{"first"});
    append(entryOf("install", "second"));
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
}

TEST_F(History, skips_lines_that_are_no_entry) {
    append(entryOf("install", "first"));
    writeFile(kHistoryFile, readFile(kHistoryFile) + "garbage\n\n[]\n\"install\"\nnull\n{}\n" +
                                R"({"text":"no event"})" + "\n" + R"({"event":7,"text":"a number"})" + "\n" +
                                R"({"event":"install","text":["a list"]})" + "\n" +
                                R"({"event":"install","text":"with a comment"} // text)" + "\n" +
                                R"({"event":"install","text":"twice"}{})" + "\n" + std::string(500, '\0') +
                                "\n" + std::string(30000, '[') + "\n");
    append(entryOf("install", "second"));
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
}

TEST_F(History, reads_entries_with_members_that_it_does_not_know) {
    writeFile(kHistoryFile, R"({"event":"install","text":"later","seconds":3,"more":{"list":[1,2]}})"
                            "\n");
    EXPECT_EQ(texts(), Texts{"later"});
}

TEST_F(History, keeps_what_the_stages_took) {
    HistoryEntry entry = entryOf("install");
    entry.stageSeconds = {0, 1.25, 0.004};
    append(entry);
    EXPECT_EQ(readHistory().value().back().stageSeconds, entry.stageSeconds);
}

TEST_F(History, takes_no_times_from_what_is_no_list_of_them) {
    for (const char* list :
         {"7", "\"7\"", "[1,\"2\"]", "[-1]", "{}", "[1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17]"}) {
        writeFile(kHistoryFile, std::string(R"({"event":"install","text":"it","stages":)") + list + "}\n");
        ASSERT_EQ(texts(), Texts{"it"}) << list;
        EXPECT_TRUE(readHistory().value().front().stageSeconds.empty()) << list;
    }
}

TEST_F(History, that_others_have_made_too_long_is_read_at_its_end_and_shortened) {
    writeFile(kHistoryFile,
              std::string(3 * kMostHistoryBytes, 'x') + "\n" + R"({"event":"install","text":"kept"})" + "\n");
    EXPECT_EQ(texts(), Texts{"kept"});
    append(entryOf("install", "new"));
    EXPECT_LE(readFile(kHistoryFile).size(), kMostHistoryBytes);
    EXPECT_EQ(texts().back(), "new");
}

TEST_F(History, that_others_have_made_too_long_does_not_begin_with_the_rest_of_a_line) {
    std::string file = R"({"event":"install","text":"the rest of a line"})"
                       "\n";
    file += std::string(kMostHistoryBytes - file.size() - 1, 'x') + "\n";
    writeFile(kHistoryFile, "the beginning of it" + file);
    EXPECT_EQ(texts(), Texts());
}

TEST_F(History, that_cannot_be_read_is_an_error) {
    std::filesystem::create_directory(kHistoryFile);
    const auto read = readHistory();
    ASSERT_FALSE(read.ok());
    EXPECT_EQ(read.error().code, ErrorCode::kOther);
    EXPECT_EQ(read.error().text, "'/config/upgrade_history.jsonl' is no regular file");
    const auto appended = appendHistory(entryOf("install"));
    ASSERT_FALSE(appended.ok());
    EXPECT_EQ(appended.error().code, ErrorCode::kOther);
    EXPECT_EQ(appended.error().text, "'/config/upgrade_history.jsonl' cannot be opened (Is a directory)");
}

TEST_F(History, is_not_written_through_a_link) {
    std::filesystem::create_symlink("/tmp/elsewhere", kHistoryFile);
    const auto appended = appendHistory(entryOf("install"));
    ASSERT_FALSE(appended.ok());
    EXPECT_EQ(appended.error().code, ErrorCode::kOther);
    EXPECT_EQ(appended.error().text,
              "'/config/upgrade_history.jsonl' cannot be opened (Too many levels of symbolic links)");
    EXPECT_FALSE(testsupport::exists("/tmp/elsewhere"));
}

// --- storage ----------------------------------------------------------------------------------------------------------

TEST_F(History, is_on_storage_when_an_append_returns) {
    flushed.clear();
    append(entryOf("install"));
    EXPECT_EQ(flushed, (Texts{kHistoryFile, "/config"}));
}

TEST_F(History, is_on_storage_when_an_append_has_replaced_it) {
    Texts replaced;
    while (replaced.empty() || replaced.front() == kHistoryFile) {
        flushed.clear();
        append(entryOf("install", std::string(kLongText, 'x')));
        replaced = flushed;
        ASSERT_LE(readFile(kHistoryFile).size(), kMostHistoryBytes);
    }
    EXPECT_EQ(replaced, (Texts{std::string(kHistoryFile) + ".part", "/config"}));
}

TEST_F(History, whose_line_cannot_be_flushed_is_as_it_was) {
    append(entryOf("install", "first"));
    const std::string before = readFile(kHistoryFile);
    storageFails = true;
    const auto appended = appendHistory(entryOf("install", "second"));
    storageFails = false;
    ASSERT_FALSE(appended.ok());
    EXPECT_EQ(appended.error().text,
              "'/config/upgrade_history.jsonl' cannot be written (Input/output error)");
    EXPECT_EQ(readFile(kHistoryFile), before);
}

TEST_F(History, keeps_the_newest_entries_within_its_bound) {
    constexpr int kEntries = 400;
    std::size_t shortest = kMostHistoryBytes;
    for (int number = 0; number < kEntries; ++number) {
        append(entryOf("install", std::to_string(number) + " " + std::string(kLongText, 'x')));
        const std::size_t bytes = readFile(kHistoryFile).size();
        ASSERT_LE(bytes, kMostHistoryBytes);
        shortest = number > kEntries / 2 ? std::min(shortest, bytes) : shortest;
    }
    EXPECT_GT(shortest, kMostHistoryBytes / 3);
    int number = kEntries;
    const Texts kept = texts();
    for (auto text = kept.rbegin(); text != kept.rend(); ++text) {
        EXPECT_EQ(text->substr(0, text->find(' ')), std::to_string(--number));
    }
}

TEST_F(History, keeps_its_permissions_when_it_is_shortened) {
    append(entryOf("install"));
    ASSERT_EQ(chmod(kHistoryFile, 0600), 0);
    for (int number = 0; number < 100; ++number) {
        append(entryOf("install", std::string(kLongText, 'x')));
    }
    struct stat status = {};
    ASSERT_EQ(stat(kHistoryFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

// --- several at once --------------------------------------------------------------------------------------------------

// Whether the entries of this writer are there without a gap, up to the newest.
bool isUnbroken(const std::string& writer, int newest) {
    int expected = -1;
    for (const HistoryEntry& entry : history()) {
        if (entry.by != writer) {
            continue;
        }
        const int number = std::atoi(entry.text.c_str());
        if (expected >= 0 && number != expected) {
            return false;
        }
        expected = number + 1;
    }
    return expected == newest + 1;
}

// Appends with an eye on what became of those before. Returns the number of the first that is lost, or -1.
int appendMany(const std::string& writer, int count) {
    for (int number = 0; number < count; ++number) {
        HistoryEntry entry = entryOf("install", std::to_string(number) + " " + std::string(kLongText, 'x'));
        entry.by = writer;
        if (!appendHistory(entry).ok() || !isUnbroken(writer, number)) {
            return number;
        }
    }
    return -1;
}

TEST_F(History, loses_no_line_of_two_processes_while_it_is_shortened) {
    constexpr int kLines = 200;
    const std::vector<std::string> writers = {"one", "other"};
    std::vector<pid_t> children;
    for (const std::string& writer : writers) {
        children.push_back(fork());
        if (children.back() == 0) {
            _exit(appendMany(writer, kLines) == -1 ? 0 : 1);
        }
    }
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    const std::vector<HistoryEntry> kept = history();
    EXPECT_LT(kept.size(), writers.size() * kLines) << "nothing was dropped";
    const std::string file = readFile(kHistoryFile);
    EXPECT_EQ(static_cast<std::size_t>(std::count(file.begin(), file.end(), '\n')), kept.size());
    EXPECT_LE(file.size(), kMostHistoryBytes);
}

TEST_F(History, loses_no_line_of_several_threads_while_it_is_shortened) {
    std::vector<std::thread> threads(4);
    for (std::size_t writer = 0; writer < threads.size(); ++writer) {
        threads[writer] = std::thread([writer] { EXPECT_EQ(appendMany(std::to_string(writer), 50), -1); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The open history, locked as another process does.
class Locked {
  public:
    Locked() : file(open(kHistoryFile, O_RDONLY | O_CLOEXEC)) { EXPECT_EQ(flock(file, LOCK_EX), 0); }
    ~Locked() { close(file); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    int file;
};

void waitUntilOpenedTwice() {
    const auto opened = [] {
        const std::vector<std::string> all = testsupport::descriptorTargets();
        return std::count_if(all.begin(), all.end(), [](const std::string& target) {
            return target.find(kHistoryFile) != std::string::npos;
        });
    };
    for (int tries = 0; opened() < 2; ++tries) {
        ASSERT_LT(tries, 5000);
        std::this_thread::sleep_for(1ms);
    }
}

TEST_F(History, that_is_replaced_while_an_append_waits_gets_its_line) {
    append(entryOf("install", "old"));
    auto lock = std::make_unique<Locked>();
    std::thread appender([] { append(entryOf("install", "new")); });
    waitUntilOpenedTwice();
    writeFile("/config/other", readFile(kHistoryFile));
    std::filesystem::rename("/config/other", kHistoryFile);
    lock.reset();
    appender.join();
    EXPECT_EQ(texts(), (Texts{"old", "new"}));
}

TEST_F(History, is_read_while_another_program_has_it_locked) {
    append(entryOf("install", "first"));
    const Locked lock;
    EXPECT_EQ(texts(), Texts{"first"});
}

TEST_F(History, that_another_program_keeps_locked_is_not_waited_for_without_end) {
    append(entryOf("install", "first"));
    const Locked lock;
    const auto appended = appendHistory(entryOf("install", "second"));
    ASSERT_FALSE(appended.ok());
    EXPECT_EQ(appended.error().code, ErrorCode::kOther);
    EXPECT_EQ(appended.error().text, "'/config/upgrade_history.jsonl' is locked by another program");
    EXPECT_EQ(texts(), Texts{"first"});
}

TEST_F(History, of_a_thread_that_is_cancelled_gets_its_whole_line) {
    append(entryOf("install", "first"));
    const unsigned long before = testsupport::descriptorCount();
    bool goneOn = false;
    std::thread([&goneOn] {
        pthread_cancel(pthread_self());
        append(entryOf("install", "second"));
        pthread_testcancel();
        goneOn = true;
    }).join();
    EXPECT_FALSE(goneOn);
    EXPECT_EQ(texts(), (Texts{"first", "second"}));
    EXPECT_EQ(testsupport::descriptorCount(), before);
}

// --- what it tells ----------------------------------------------------------------------------------------------------

HistoryEntry about(const std::string& release, const std::string& event, const std::string& outcome = "ok") {
    HistoryEntry entry = entryOf(event);
    entry.release = release;
    entry.outcome = outcome;
    return entry;
}

TEST(FailedTrial, is_none_of_a_release_that_never_fell_back) {
    EXPECT_FALSE(hasFailedTrial({}, kRelease));
    EXPECT_FALSE(hasFailedTrial({about(kRelease, "install"), about(kRelease, "activate")}, kRelease));
    EXPECT_FALSE(hasFailedTrial({about("V01.105.008.002", "fallback")}, kRelease));
}

TEST(FailedTrial, stays_when_the_release_is_installed_once_more) {
    EXPECT_TRUE(hasFailedTrial({about(kRelease, "fallback")}, kRelease));
    EXPECT_TRUE(hasFailedTrial({about(kRelease, "fallback"), about(kRelease, "install"),
                                about(kRelease, "activate"), about("V01.105.008.004", "confirm")},
                               kRelease));
}

TEST(FailedTrial, is_forgotten_with_a_confirmation) {
    EXPECT_FALSE(hasFailedTrial({about(kRelease, "fallback"), about(kRelease, "confirm")}, kRelease));
    EXPECT_TRUE(hasFailedTrial({about(kRelease, "fallback"), about(kRelease, "confirm", "other")}, kRelease));
    EXPECT_TRUE(hasFailedTrial({about(kRelease, "confirm"), about(kRelease, "fallback")}, kRelease));
}

}  // namespace
