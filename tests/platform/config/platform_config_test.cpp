#include "platform/config/platform_config.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/temp_dir.h"

namespace {

using kavro::PlatformConfig;
using kavro_test::spill;
using kavro_test::TempDir;

PlatformConfig read(const std::string& text) {
    const TempDir directory;
    spill(directory / "platform.json", text);
    return kavro::readPlatformConfig(directory / "platform.json");
}

void expectDefaults(const PlatformConfig& config) {
    EXPECT_TRUE(config.logToSyslog);
    EXPECT_FALSE(config.logToStderr);
    EXPECT_EQ(config.nodeAddress, "");
    EXPECT_TRUE(config.slots.empty());
    EXPECT_EQ(config.bootloaderPartition, "");
    EXPECT_EQ(config.bootEnvironmentConfig, "");
    EXPECT_EQ(config.writtenSlotFile, "");
    EXPECT_EQ(config.runningSlotFile, "");
    EXPECT_EQ(config.mcuLink, "");
    EXPECT_TRUE(config.mcuRepair);
}

// Runs the function on a thread with the stack that job threads have.
void onSmallStack(void* (*function)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 << 10), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, function, argument), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(PlatformConfig, every_member_is_read) {
    const PlatformConfig config = read(R"({
        "log": {"syslog": false, "stderr": true},
        "node": {"address": "ipc:///x"},
        "mpu": {"slots": {"a": {"kernel": "ka", "dtb": "da", "rootfs": "ra"},
                          "b": {"kernel": "kb", "dtb": "db", "rootfs": "rb"}},
                "bootloader": "bl", "boot_environment": "be", "written_slot": "ws", "running_slot": "rs"},
        "mcu": {"link": "li", "repair": false}, "later": [1, 2]})");

    EXPECT_FALSE(config.logToSyslog);
    EXPECT_TRUE(config.logToStderr);
    EXPECT_EQ(config.nodeAddress, "ipc:///x");
    ASSERT_EQ(config.slots.size(), 2U);
    EXPECT_EQ(config.slots.at("a"), (kavro::SlotPartitions{{"ka", "da", "ra"}}));
    EXPECT_EQ(config.slots.at("b"), (kavro::SlotPartitions{{"kb", "db", "rb"}}));
    EXPECT_TRUE(config.wrongMembers.empty());
    EXPECT_EQ(config.bootloaderPartition, "bl");
    EXPECT_EQ(config.bootEnvironmentConfig, "be");
    EXPECT_EQ(config.writtenSlotFile, "ws");
    EXPECT_EQ(config.runningSlotFile, "rs");
    EXPECT_EQ(config.mcuLink, "li");
    EXPECT_FALSE(config.mcuRepair);
}

TEST(PlatformConfig, missing_file_gives_the_defaults) {
    expectDefaults(kavro::readPlatformConfig("/nonexistent/platform.json"));
}

TEST(PlatformConfig, directory_gives_the_defaults) {
    const TempDir directory;
    expectDefaults(kavro::readPlatformConfig(directory.path()));
}

TEST(PlatformConfig, fault_tells_why_a_file_cannot_be_read) {
    const TempDir directory;
    EXPECT_EQ(kavro::readPlatformConfig("/nonexistent/platform.json").fault,
              "cannot be read: No such file or directory");
    EXPECT_EQ(kavro::readPlatformConfig(directory.path()).fault, "cannot be read: Is a directory");
    EXPECT_EQ(read(std::string(2 << 20, ' ')).fault, "cannot be read: File too large");
}

TEST(PlatformConfig, fault_tells_where_text_is_no_json) {
    EXPECT_EQ(read("{ not json").fault, "is no JSON: line 1, column 3: Missing '}' or object member name");
    EXPECT_EQ(read("{\n  \"log\": {}\n  \"mpu\": {}\n}").fault,
              "is no JSON: line 3, column 3: Missing ',' or '}' in object declaration");
    EXPECT_EQ(read("{}\n}").fault, "is no JSON: line 2, column 1: Extra non-whitespace after JSON value.");
    EXPECT_EQ(read("").fault, "is no JSON: line 1, column 1: Syntax error: value, object or array expected.");
    EXPECT_EQ(read(std::string(1000, '[')).fault, "is no JSON: it nests too deeply");
}

TEST(PlatformConfig, fault_tells_of_json_that_is_no_object) {
    for (const char* text : {"[]", "7", "null"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(read(text).fault, "is no JSON object");
    }
}

TEST(PlatformConfig, object_has_no_fault_whatever_it_holds) {
    EXPECT_EQ(read("{}").fault, "");
    EXPECT_EQ(read(R"({"log": [], "mpu": 4})").fault, "");
}

TEST(PlatformConfig, text_that_is_no_object_gives_the_defaults) {
    for (const char* text : {"", " ", "[]", "[1, {\"log\": {}}]", "7", "-1.5e300", "\"log\"", "null", "true",
                             "{", "{\"log\": {\"stderr\": true}", "{\"log\"", "\xFF\xFE", "{]}"}) {
        SCOPED_TRACE(text);
        expectDefaults(read(text));
    }
}

TEST(PlatformConfig, members_of_the_wrong_type_give_their_defaults) {
    expectDefaults(read(R"({"log": {"syslog": "no", "stderr": 1}, "node": {"address": 5},
        "mpu": {"slots": [1, 2], "bootloader": {}, "boot_environment": [], "written_slot": 1,
                "running_slot": null},
        "mcu": {"link": 3}})"));
    expectDefaults(read(R"({"log": [], "node": "x", "mpu": 4, "mcu": true})"));
}

TEST(PlatformConfig, members_of_the_wrong_type_are_named) {
    const PlatformConfig config = read(R"({"log": {"syslog": "no", "file_bytes": 1.5}, "node": [],
        "mpu": {"slots": {"a": 1, "b": {"kernel": 7, "dtb": "db", "rootfs": null}}, "bootloader": false}})");
    EXPECT_EQ(
        config.wrongMembers,
        (std::vector<std::string>{"log.syslog must be true or false", "log.file_bytes must be an integer",
                                  "node must be an object", "mpu.slots.a must be an object",
                                  "mpu.slots.b.kernel must be a string", "mpu.bootloader must be a string"}));
    EXPECT_EQ(kavro::wrongMemberOf(config, "mpu"), "mpu.slots.a must be an object");
    EXPECT_EQ(kavro::wrongMemberOf(config, "node"), "node must be an object");
    EXPECT_EQ(kavro::wrongMemberOf(config, "mcu"), "");
    EXPECT_EQ(kavro::wrongMemberOf(config, "mp"), "");
}

TEST(PlatformConfig, one_wrong_member_does_not_spoil_its_neighbours) {
    const PlatformConfig config = read(R"({"log": {"syslog": 0, "stderr": true},
        "mpu": {"slots": {"a": 1, "b": {"kernel": 7, "dtb": "db"}}}})");
    EXPECT_TRUE(config.logToSyslog);
    EXPECT_TRUE(config.logToStderr);
    EXPECT_EQ(config.slots.at("a"), kavro::SlotPartitions());
    EXPECT_EQ(config.slots.at("b"), (kavro::SlotPartitions{{"", "db", ""}}));
}

TEST(PlatformConfig, deeply_nested_text_gives_the_defaults_on_a_small_stack) {
    const TempDir directory;
    const std::string path = directory / "platform.json";
    const auto readDefaults = [](void* name) -> void* {
        expectDefaults(kavro::readPlatformConfig(*static_cast<std::string*>(name)));
        return nullptr;
    };
    std::string objects;
    for (int i = 0; i < 100000; ++i) {
        objects += "{\"log\":";
    }
    for (const std::string& text :
         {std::string(100000, '['), objects, std::string(100000, '[') + std::string(100000, ']')}) {
        spill(path, text);
        onSmallStack(readDefaults, const_cast<std::string*>(&path));
    }
}

TEST(PlatformConfig, file_beyond_any_sensible_size_gives_the_defaults) {
    expectDefaults(read("{\"node\": {\"address\": \"" + std::string(2 << 20, 'x') + "\"}}"));
}

TEST(PlatformConfig, cancel_does_not_act_while_reading) {
    const auto readCancelled = [](void* outcome) -> void* {
        pthread_cancel(pthread_self());
        (void)kavro::readPlatformConfig("/nonexistent/platform.json");
        *static_cast<bool*>(outcome) = true;
        return nullptr;
    };
    bool returned = false;
    onSmallStack(readCancelled, &returned);
    EXPECT_TRUE(returned);
}

}  // namespace
