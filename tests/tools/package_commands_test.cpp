// inspect and verify as they are called.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>

#include "tests/support/device.h"
#include "tests/support/package_parts.h"
#include "tests/support/test_package.h"
#include "tests/tools/tool_support.h"

namespace {

using namespace tool_test;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using testsupport::SigningKey;
using testsupport::TestPackage;
using testsupport::Trailer;
using testsupport::writeFile;

constexpr int kRefused = 3;

Json::Value parsed(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << errors << text;
    return root;
}

class PackageCommands : public testing::Test {
  protected:
    ProgramResult run(const std::vector<std::string>& words) {
        package.writeTo(file);
        std::vector<std::string> all = words;
        all.push_back(file);
        return upgradectl(all);
    }

    void expectRefusalInWords(const ProgramResult& result) const {
        EXPECT_EQ(result.exitCode, kRefused);
        EXPECT_THAT(result.err,
                    StartsWith("upgradectl: the package '" + file + "' is not in order\n  next: "));
    }

    const TemporaryDirectory files;
    const std::string file = files / "release.pkg";
    TestPackage package;
};

TEST_F(PackageCommands, inspect_shows_trailer_and_archive) {
    package.setVersions(1, 105, 8, 3);
    const ProgramResult result = run({"inspect"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    for (const std::string& line :
         {"package   " + file,
          "payload   " + std::to_string(package.payloadBytes()) + " bytes, md5 " + package.trailer().md5,
          "gap       " + std::to_string(134213632 - package.payloadBytes()) + " bytes",
          std::string("key       EC, 256 bits, sha256 "), std::string("stamp     20260101120000"),
          std::string("ident     0123456789abcdef0123456789abcdef01234567"),
          std::string("version   V01.105.008.003 (hw 1, mpu 105, mcu 8, bld 3)"),
          std::string("branch    main"), std::string("user      builder"), std::string("  ext4.sign")}) {
        EXPECT_THAT(result.out, HasSubstr(line));
    }
    EXPECT_THAT(result.out, Not(HasSubstr("fault")));
}

TEST_F(PackageCommands, inspect_as_json_has_every_member) {
    package.setVersions(1, 105, 8, 3);
    const Json::Value root = parsed(run({"inspect", "--json"}).out);
    EXPECT_EQ(root["package"], file);
    EXPECT_EQ(root["in_order"], true);
    EXPECT_EQ(root["payload_bytes"].asUInt(), package.payloadBytes());
    EXPECT_EQ(root["gap_bytes"].asUInt(), 134213632 - package.payloadBytes());
    EXPECT_EQ(root["md5"], package.trailer().md5);
    EXPECT_EQ(root["key"]["pem"], SigningKey::shared().publicKey());
    EXPECT_EQ(root["key"]["description"], "EC, 256 bits");
    EXPECT_EQ(root["key"]["sha256"].asString().size(), 64U);
    EXPECT_EQ(root["stamp"], "20260101120000");
    EXPECT_EQ(root["ident"], "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(root["versions"]["hw"], 1);
    EXPECT_EQ(root["versions"]["mpu"], 105);
    EXPECT_EQ(root["versions"]["mcu"], 8);
    EXPECT_EQ(root["versions"]["bld"], 3);
    EXPECT_EQ(root["branch"], "main");
    EXPECT_EQ(root["user"], "builder");
    ASSERT_EQ(root["files"].size(), 14U);
    EXPECT_EQ(root["files"][0]["name"], "Image");
    EXPECT_EQ(root["files"][0]["type"], "file");
    EXPECT_EQ(root["files"][0]["bytes"].asUInt(), package.files().at("Image").size());
    EXPECT_EQ(root["files"][0]["sha256"].asString().size(), 64U);
    EXPECT_FALSE(root["files"][1].isMember("sha256"));
}

TEST_F(PackageCommands, inspect_shows_a_damaged_package_and_says_what_is_wrong) {
    package.corruptSignature("ext4").editTrailer([](Trailer& trailer) { trailer.payloadLength[0] = 'x'; });
    const ProgramResult result = run({"inspect"});
    expectRefusalInWords(result);
    EXPECT_THAT(result.out, AllOf(HasSubstr("branch    main\n"),
                                  HasSubstr("fault     the length of the payload in the trailer is 'x")));
}

TEST_F(PackageCommands, inspect_never_prints_control_characters_of_a_package) {
    package.addFile("\x1b[2J\xff", "").editTrailer([](Trailer& trailer) {
        trailer.branch = "\x1b]2;\x07";
        trailer.user = "\nuser\r";
        trailer.stamp = "\x1b[31m         ";
        trailer.ident = std::string("\0ident", 6) + std::string(34, '\0');
        trailer.branchLength = testsupport::hexText(trailer.branch.size());
        trailer.userLength = testsupport::hexText(trailer.user.size());
    });
    const ProgramResult plain = run({"inspect"});
    EXPECT_THAT(plain.out, AllOf(HasSubstr("branch    \\x1b]2;\\x07\n"),
                                 HasSubstr("user      \\x0auser\\x0d\n"), HasSubstr("stamp     \\x1b[31m"),
                                 HasSubstr("ident     \\x00ident\n"), HasSubstr("  \\x1b[2J\\xff\n")));
    const ProgramResult json = run({"inspect", "--json"});
    EXPECT_EQ(parsed(json.out)["user"], "\nuser\r");
    for (const std::string& text : {plain.out, plain.err, json.out, json.err}) {
        EXPECT_EQ(text.find_first_of("\x1b\x07\r\xff"), std::string::npos) << text;
    }
}

TEST_F(PackageCommands, verify_tells_each_check_on_a_line) {
    const ProgramResult result = run({"verify"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out,
              "trailer             ok\n"
              "key                 ok\n"
              "md5                 ok\n"
              "archive             ok\n"
              "release             ok\n"
              "bld_release.bin     ok\n"
              "cv22_kavro_qz7.dtb  ok\n"
              "ext4                ok\n"
              "Image               ok\n"
              "mcu_flash_app.s19   ok\n"
              "mcu_flash_drv.s19   ok\n"
              "version_list.acs    ok\n");
}

TEST_F(PackageCommands, verify_refuses_a_damaged_package_and_says_why) {
    package.corruptSignature("ext4").omit("Image");
    const ProgramResult result = run({"verify"});
    expectRefusalInWords(result);
    EXPECT_THAT(result.out,
                AllOf(HasSubstr("\next4                'ext4' has a signature that does not verify"),
                      HasSubstr("\nImage               'Image' is missing"),
                      HasSubstr("\nmd5                 ok\n")));
}

TEST_F(PackageCommands, verify_as_json_lists_the_checks) {
    package.corruptSignature("ext4");
    const ProgramResult result = run({"verify", "--json"});
    expectRefusalInWords(result);
    const Json::Value root = parsed(result.out);
    EXPECT_EQ(root["package"], file);
    EXPECT_EQ(root["in_order"], false);
    ASSERT_EQ(root["checks"].size(), 12U);
    for (const Json::Value& check : root["checks"]) {
        const bool good = check["name"] != "ext4";
        EXPECT_EQ(check["ok"], good) << check;
        EXPECT_EQ(check["faults"].size(), good ? 0U : 1U) << check;
    }
}

TEST_F(PackageCommands, a_warning_is_told_by_both_and_changes_no_exit_code) {
    package.setComponent("version_list.acs", "for people\n");
    const std::string warning =
        "'version_list.acs' is no release list: nothing binds the components to each other";
    const ProgramResult verified = run({"verify"});
    EXPECT_EQ(verified.exitCode, 0);
    EXPECT_THAT(verified.out,
                AllOf(HasSubstr("\nversion_list.acs    ok\nwarning             " + warning + "\n"),
                      Not(HasSubstr("release             "))));
    const ProgramResult inspected = run({"inspect"});
    EXPECT_EQ(inspected.exitCode, 0);
    EXPECT_THAT(inspected.out, HasSubstr("\n\nwarning   " + warning + "\n"));
    for (const char* command : {"verify", "inspect"}) {
        const Json::Value root = parsed(run({command, "--json"}).out);
        EXPECT_EQ(root["in_order"], true);
        ASSERT_EQ(root["warnings"].size(), 1U);
        EXPECT_EQ(root["warnings"][0], warning);
        EXPECT_TRUE(root["release"].isNull());
    }
}

TEST_F(PackageCommands, epoch_and_notes_of_the_release_are_in_the_json) {
    std::string list = package.files().at("version_list.acs");
    const Json::Value plain = parsed(run({"verify", "--json"}).out);
    EXPECT_TRUE(plain["release"].isMember("epoch") && plain["release"]["epoch"].isNull());
    EXPECT_EQ(plain["release"]["notes"].size(), 0U);
    EXPECT_EQ(plain["warnings"].size(), 0U);
    list.insert(list.find("component "), "epoch 4294967295\n");
    package.setComponent("version_list.acs", list + "note by the build\n");
    const Json::Value root = parsed(run({"verify", "--json"}).out);
    EXPECT_EQ(root["release"]["epoch"].asUInt(), 4294967295U);
    EXPECT_EQ(root["release"]["notes"][0], "by the build");
}

TEST_F(PackageCommands, pack_takes_the_epoch_in_its_range_only) {
    for (const char* epoch : {"-1", "4294967296", "x", "", "1.5"}) {
        const ProgramResult result = upgradectl({"pack", "--key", files / "key.pem", "--version", "1.105.8.3",
                                                 "--output", file, "--epoch", epoch, files.path()});
        EXPECT_EQ(result.exitCode, 2) << epoch;
        EXPECT_THAT(result.err, HasSubstr("--epoch")) << epoch;
    }
    testsupport::makeComponents(files / "components");
    testsupport::makeEcKey(files / "key.pem");
    const ProgramResult packed = upgradectl({"pack", "--key", files / "key.pem", "--version", "1.105.8.3",
                                             "--output", file, "--epoch", "7", files / "components"});
    EXPECT_EQ(packed.exitCode, 0) << packed.err;
    EXPECT_EQ(parsed(upgradectl({"verify", "--json", file}).out)["release"]["epoch"].asUInt(), 7U);
}

TEST_F(PackageCommands, pack_signs_by_a_command_and_in_two_steps) {
    testsupport::makeComponents(files / "components");
    testsupport::makeEcKey(files / "key.pem");
    writeFile(files / "public.pem", runProgram({"openssl", "pkey", "-in", files / "key.pem", "-pubout"}).out);
    const std::vector<std::string> common = {"pack", "--version", "1.105.8.3", files / "components"};
    const auto pack = [&common](std::vector<std::string> more) {
        more.insert(more.begin(), common.begin(), common.end());
        return upgradectl(more);
    };
    const std::string sign =
        "openssl pkeyutl -sign -inkey '" + (files / "key.pem") + "' -pkeyopt digest:sha256";
    const ProgramResult signedOne =
        pack({"--sign-command", sign, "--public-key", files / "public.pem", "--output", file});
    EXPECT_EQ(signedOne.exitCode, 0) << signedOne.err;
    EXPECT_THAT(signedOne.out, HasSubstr("signed    EC, 256 bits\n"));
    EXPECT_EQ(upgradectl({"verify", "--trusted-key", files / "public.pem", file}).exitCode, 0);

    const ProgramResult digests = pack({"--digests", files / "digests"});
    EXPECT_EQ(digests.exitCode, 0) << digests.err;
    EXPECT_EQ(digests.out, "digests   " + (files / "digests") + "\nversion   V01.105.008.003\n");
    EXPECT_EQ(testsupport::namesIn(files / "digests").size(), 8U);

    EXPECT_EQ(
        pack({"--sign-command", "false", "--public-key", files / "public.pem", "--output", file}).exitCode,
        1);
    EXPECT_EQ(
        pack({"--sign-command", "echo x", "--public-key", files / "public.pem", "--output", file}).exitCode,
        3);
    EXPECT_EQ(pack({"--sign-command", sign, "--output", file}).exitCode, 2);
    EXPECT_EQ(pack({"--output", file}).exitCode, 2);
    const ProgramResult nowhere = pack({"--key", files / "key.pem"});
    EXPECT_EQ(nowhere.exitCode, 2);
    EXPECT_THAT(nowhere.err, HasSubstr("there is no package to write"));
}

TEST_F(PackageCommands, pack_decrypts_the_key_by_a_passphrase_file) {
    testsupport::makeComponents(files / "components");
    testsupport::makeEcKey(files / "key.pem");
    ASSERT_EQ(runProgram({"openssl", "pkey", "-in", files / "key.pem", "-aes256", "-passout", "pass:secret",
                          "-out", files / "encrypted.pem"})
                  .exitCode,
              0);
    writeFile(files / "passphrase", "secret\n");
    const std::vector<std::string> words = {"pack",     "--version", "1.105.8.3", files / "components",
                                            "--output", file,        "--key",     files / "encrypted.pem"};
    const ProgramResult without = upgradectl(words);
    EXPECT_EQ(without.exitCode, 3);
    EXPECT_THAT(without.err, HasSubstr("is encrypted\n  next: give --passphrase-file"));
    std::vector<std::string> more = words;
    more.insert(more.end(), {"--passphrase-file", files / "passphrase"});
    EXPECT_EQ(upgradectl(more).exitCode, 0);
}

TEST_F(PackageCommands, verify_takes_the_trusted_key_and_no_other) {
    writeFile(files / "trusted.pem", SigningKey::shared().publicKey());
    const ProgramResult good = run({"verify", "--trusted-key", files / "trusted.pem"});
    EXPECT_EQ(good.exitCode, 0) << good.err;
    EXPECT_THAT(good.out, HasSubstr("trusted key         ok\n"));

    writeFile(files / "trusted.pem", SigningKey().publicKey());
    const ProgramResult bad = run({"verify", "--trusted-key", files / "trusted.pem"});
    EXPECT_EQ(bad.exitCode, kRefused);
    EXPECT_EQ(bad.err,
              "upgradectl: the package '" + file +
                  "' is signed with another key\n  next: use a package of the maker that you trust, or give "
                  "the key of this one's maker\n");
    EXPECT_THAT(bad.out, HasSubstr("trusted key         the package does not carry the trusted key"));
}

TEST_F(PackageCommands, verify_with_another_key_tells_of_damage_first) {
    writeFile(files / "trusted.pem", SigningKey().publicKey());
    package.corruptSignature("ext4");
    expectRefusalInWords(run({"verify", "--trusted-key", files / "trusted.pem"}));
}

TEST_F(PackageCommands, what_is_printed_comes_before_the_failure_in_one_file) {
    package.corruptSignature("ext4").writeTo(file);
    const ProgramResult result = runProgram({"sh", "-c", "exec \"$0\" verify \"$1\" 2>&1", UPGRADECTL, file});
    EXPECT_EQ(result.exitCode, kRefused);
    EXPECT_LT(result.out.find("trailer             ok"), result.out.find("upgradectl: ")) << result.out;
}

TEST_F(PackageCommands, an_empty_name_of_the_trusted_key_is_not_taken_for_none) {
    EXPECT_EQ(run({"verify", "--trusted-key", ""}).exitCode, 2);
}

TEST_F(PackageCommands, a_trusted_key_that_cannot_be_read_is_a_wrong_command_line) {
    const ProgramResult result = run({"verify", "--trusted-key", files / "nowhere.pem"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.err, HasSubstr("nowhere.pem' cannot be read"));
}

TEST_F(PackageCommands, a_private_key_as_the_trusted_one_is_a_wrong_command_line) {
    writeFile(files / "trusted.pem", SigningKey::shared().privateKey());
    const ProgramResult result = run({"verify", "--trusted-key", files / "trusted.pem"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_THAT(result.err, HasSubstr("holds a private key"));
}

TEST_F(PackageCommands, what_is_no_package_is_refused_with_nothing_printed) {
    package.setTotalSize(5000);
    for (const char* command : {"inspect", "verify"}) {
        const ProgramResult result = run({command, "--json"});
        EXPECT_EQ(result.exitCode, kRefused);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, HasSubstr("has 5000 bytes, a package has exactly 134217728\n  next: "));
    }
}

}  // namespace
