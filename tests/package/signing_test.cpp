// Who signs a package: a key in a file, encrypted or not, or a command that has access to one elsewhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "package/check.h"
#include "package/pack.h"
#include "tests/support/device.h"
#include "tests/support/package_parts.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using kavro::ErrorCode;
using kavro::Result;
using kavro::package::PackSummary;
using testing::HasSubstr;
using testsupport::namesIn;
using testsupport::ProgramResult;
using testsupport::readFile;
using testsupport::runProgram;
using testsupport::writeFile;

class Signing : public testing::Test {
  protected:
    Signing() {
        testsupport::makeComponents(request.componentDir);
        testsupport::makeEcKey(key);
        writePublicKey();
    }

    void writePublicKey() const {
        writeFile(publicKey, runProgram({"openssl", "pkey", "-in", key, "-pubout"}).out);
    }

    // The signature that openssl makes of the digest on its standard input.
    std::string opensslCommand() const {
        return "openssl pkeyutl -sign -inkey '" + key.string() + "' -pkeyopt digest:sha256";
    }

    void expectPacked() const {
        const Result<PackSummary> result = kavro::package::pack(request);
        ASSERT_TRUE(result.ok()) << result.error().text;
        const kavro::package::Check check = kavro::package::check(request.output, publicKey).value();
        EXPECT_TRUE(check.inOrder()) << testing::PrintToString(check.faults);
    }

    void expectRefusal(ErrorCode code, const std::string& part) const {
        const std::vector<std::string> before = namesIn(files.path());
        const Result<PackSummary> result = kavro::package::pack(request);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error().code, code) << result.error().text;
        EXPECT_THAT(result.error().text, HasSubstr(part));
        EXPECT_NE(result.error().next, "");
        EXPECT_EQ(namesIn(files.path()), before);
    }

    void signByCommand(const std::string& command) {
        request.signCommand = command;
        request.publicKey = publicKey;
    }

    const kavro_test::TempDir files;
    const fs::path key = files / "key.pem";
    const fs::path publicKey = files / "public.pem";
    kavro::package::PackRequest request = {
        files / "components", {}, files / "out.pkg", {1, 105, 8, 3}, std::nullopt, "", "", ""};
};

// --- a command ------------------------------------------------------------------------------------------------------

TEST_F(Signing, by_a_command_with_an_ec_key_is_in_order) {
    signByCommand(opensslCommand());
    expectPacked();
}

TEST_F(Signing, by_a_command_with_an_rsa_key_is_in_order) {
    testsupport::makeRsaKey(key);
    writePublicKey();
    signByCommand(opensslCommand());
    expectPacked();
}

TEST_F(Signing, by_a_command_is_checked_by_the_private_keys_public_half) {
    request.key = key;
    request.signCommand = opensslCommand();
    expectPacked();
}

TEST_F(Signing, by_a_command_that_reads_the_component_itself_is_in_order) {
    signByCommand("openssl dgst -sha256 -sign '" + key.string() + "' \"$KAVRO_SIGN_FILE\"");
    expectPacked();
}

TEST_F(Signing, a_command_gets_digest_name_and_digits_of_each_component) {
    signByCommand("cat >'" + files.path() +
                  "/'\"$KAVRO_SIGN_NAME.stdin\"; printf %s \"$KAVRO_SIGN_SHA256\" >'" + files.path() +
                  "/'\"$KAVRO_SIGN_NAME.digits\"; cat '" + files.path() + "/'\"$KAVRO_SIGN_NAME.stdin\" | " +
                  opensslCommand());
    expectPacked();
    for (const char* name : {"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image", "mcu_flash_app.s19",
                             "mcu_flash_drv.s19"}) {
        const std::string digits = runProgram({"sha256sum", request.componentDir / name}).out.substr(0, 64);
        EXPECT_EQ(readFile(files / name + ".digits"), digits) << name;
        EXPECT_EQ(readFile(files / name + ".stdin").size(), 32U) << name;
    }
    EXPECT_EQ(readFile(files / "version_list.acs.stdin").size(), 32U);
}

TEST_F(Signing, a_command_with_quotes_and_lines_is_taken_as_it_is) {
    signByCommand("true 'a b' \"c\"\n\n" + opensslCommand() + " # \\");
    expectPacked();
}

TEST_F(Signing, by_a_command_with_another_key_is_refused) {
    signByCommand(opensslCommand());
    testsupport::makeEcKey(key);
    expectRefusal(
        ErrorCode::kRefused,
        "the command gave a signature of 'bld_release.bin' that does not verify with the public key (EC, 256 "
        "bits, sha256 ");
}

TEST_F(Signing, by_a_command_that_gives_something_else_is_refused) {
    signByCommand("echo no signature");
    expectRefusal(ErrorCode::kRefused, "'bld_release.bin' that does not verify");
}

struct BadCommand {
    const char* name;
    const char* command;
    const char* fault;
};

void PrintTo(const BadCommand& bad, std::ostream* out) {
    *out << bad.name;
}

class FailingCommand : public Signing, public testing::WithParamInterface<BadCommand> {};

TEST_P(FailingCommand, is_an_error_that_names_the_component) {
    signByCommand(GetParam().command);
    expectRefusal(ErrorCode::kOther,
                  std::string("the command that signs 'bld_release.bin' ") + GetParam().fault);
}

const std::vector<BadCommand> kBadCommands = {
    {"with_a_failure", "exit 1", "has failed"},
    {"with_a_failure_behind_a_signature", "cat; exit 3", "has failed"},
    {"that_is_killed", "kill -KILL $$", "has failed"},
    {"that_is_no_command", "no_such_command_anywhere", "has failed"},
    {"that_is_stopped", "kill -STOP $$", "was stopped: it cannot ask at the terminal"},
    {"that_says_nothing", "true", "gave no signature"},
    {"that_says_too_much", "head -c 2049 /dev/zero", "gave more than the 2048 bytes"},
};

INSTANTIATE_TEST_SUITE_P(Signing, FailingCommand, testing::ValuesIn(kBadCommands),
                         [](const testing::TestParamInfo<BadCommand>& test) {
                             return std::string(test.param.name);
                         });

TEST_F(Signing, a_command_that_takes_its_time_can_be_given_up) {
    signByCommand("sleep 60");
    int left = 20;
    const Result<PackSummary> result = kavro::package::pack(request, [&left] { return --left > 0; });
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, ErrorCode::kGivenUp);
}

// --- what contradicts itself ----------------------------------------------------------------------------------------

TEST_F(Signing, without_anything_to_sign_with_is_refused) {
    expectRefusal(ErrorCode::kUsage, "there is nothing to sign with");
}

TEST_F(Signing, with_a_public_key_alone_is_refused) {
    request.publicKey = publicKey;
    expectRefusal(ErrorCode::kUsage, "a public key alone signs nothing");
}

TEST_F(Signing, by_a_command_without_a_key_is_refused) {
    request.signCommand = opensslCommand();
    expectRefusal(ErrorCode::kUsage, "needs one key");
}

TEST_F(Signing, by_a_command_with_two_keys_is_refused) {
    signByCommand(opensslCommand());
    request.key = key;
    expectRefusal(ErrorCode::kUsage, "needs one key");
}

TEST_F(Signing, with_a_passphrase_for_no_key_is_refused) {
    signByCommand(opensslCommand());
    request.passphraseFile = publicKey;
    expectRefusal(ErrorCode::kUsage, "a passphrase is for a private key");
}

TEST_F(Signing, with_a_public_key_that_is_none_is_refused) {
    signByCommand(opensslCommand());
    request.publicKey = key;
    expectRefusal(ErrorCode::kRefused, "key.pem' holds a private key");
    request.publicKey = files / "nowhere.pem";
    expectRefusal(ErrorCode::kRefused, "the public key '" + (files / "nowhere.pem") + "' cannot be read");
}

TEST_F(Signing, over_the_public_key_is_refused) {
    signByCommand(opensslCommand());
    request.output = publicKey;
    expectRefusal(ErrorCode::kUsage, "is also an input");
}

// --- an encrypted key -----------------------------------------------------------------------------------------------

class EncryptedKey : public Signing {
  protected:
    EncryptedKey() {
        const ProgramResult made = runProgram({"openssl", "pkey", "-in", key, "-aes256", "-passout",
                                               "pass:open sesame", "-out", files / "encrypted.pem"});
        EXPECT_EQ(made.exitCode, 0) << made.err;
        request.key = files / "encrypted.pem";
        request.passphraseFile = files / "passphrase";
    }
};

TEST_F(EncryptedKey, signs_with_its_passphrase) {
    for (const char* text : {"open sesame", "open sesame\n", "open sesame\r\n", "open sesame\nmore\n"}) {
        writeFile(*request.passphraseFile, text);
        expectPacked();
    }
}

TEST_F(EncryptedKey, with_another_passphrase_is_refused) {
    for (const std::string& text : {std::string("sesame\n"), std::string(), std::string(5000, 'x')}) {
        writeFile(*request.passphraseFile, text);
        expectRefusal(ErrorCode::kRefused, "encrypted.pem' cannot be decrypted with the passphrase of '" +
                                               request.passphraseFile->string() + "'");
    }
}

TEST_F(EncryptedKey, with_a_passphrase_that_is_nowhere_is_refused) {
    expectRefusal(ErrorCode::kRefused, "passphrase' cannot be read: No such file or directory");
}

TEST_F(EncryptedKey, takes_no_passphrase_where_none_is_needed) {
    request.key = key;
    writeFile(*request.passphraseFile, "anything\n");
    expectPacked();
}

// --- digests for somebody else --------------------------------------------------------------------------------------

TEST_F(Signing, elsewhere_gets_a_digest_of_each_component_and_the_list) {
    request.epoch = 7;
    ASSERT_TRUE(kavro::package::writeDigests(request, files / "digests").ok());
    EXPECT_EQ(namesIn(files / "digests").size(), 8U);
    for (const char* name : {"bld_release.bin", "ext4", "Image"}) {
        const ProgramResult digest =
            runProgram({"openssl", "dgst", "-sha256", "-binary", request.componentDir / name});
        EXPECT_EQ(readFile(files / "digests/" + name + ".sha256"), digest.out) << name;
    }
    const ProgramResult list =
        runProgram({"openssl", "dgst", "-sha256", "-binary", files / "digests/version_list.acs"});
    EXPECT_EQ(readFile(files / "digests/version_list.acs.sha256"), list.out);
    EXPECT_THAT(readFile(files / "digests/version_list.acs"), HasSubstr("\nepoch 7\n"));
    EXPECT_FALSE(fs::exists(request.output));
}

TEST_F(Signing, elsewhere_makes_a_package_of_the_signatures_that_come_back) {
    request.epoch = 7;
    ASSERT_TRUE(kavro::package::writeDigests(request, files / "digests").ok());
    const ProgramResult made = runProgram({"bash", "-euc",
                                           "cd \"$1\"; for file in *.sha256; do " + opensslCommand() +
                                               " -in \"$file\" -out \"${file%.sha256}.sign\"; done",
                                           "bash", files / "digests"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    signByCommand("cat '" + files.path() + "/digests/'\"$KAVRO_SIGN_NAME.sign\"");
    expectPacked();
}

TEST_F(Signing, elsewhere_is_not_asked_for_what_cannot_be_packed) {
    fs::remove(request.componentDir / "Image");
    const Result<void> result = kavro::package::writeDigests(request, files / "digests");
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, ErrorCode::kRefused);
    EXPECT_FALSE(fs::exists(files / "digests"));
}

}  // namespace
