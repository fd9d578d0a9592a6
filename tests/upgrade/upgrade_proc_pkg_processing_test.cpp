// Turning a package file into a directory of components: the four steps, what each leaves behind when it
// fails, and archives and paths that try to get out.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/common/libc_spies.h"
#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "tests/support/test_package.h"
#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/package_services.h"
#include "upgrade/upgrade_proc_pkg.h"

namespace {

using package_services::errorShape;
using package_services::infoShape;
using package_services::logShape;
using package_services::stepErrorShape;
using testsupport::kTrailerBytes;
using testsupport::TestPackage;
using testsupport::Trailer;

using Lines = std::vector<std::string>;

constexpr const char* kUnit = "upgrade/upgrade_proc_pkg";
constexpr const char* kPubkey = "/tmp/pubkey";
constexpr const char* kPackage = "/firmware/upgrade.pkg";
constexpr const char* kUnpackDir = "/raw/upgrade";

const std::string kReadStep = infoShape("read_info_form_pkg\n");
const std::string kTruncateStep = infoShape("truncate_upgrade_pkg\n");
const std::string kDigestStep = infoShape("chkFileMd5\n");
const std::string kUnpackStep = infoShape("unpack_upgrade_package\n");
const std::string kFailed = stepErrorShape(kUnit, "UPGRADE_proc_upgrade_pkg");
const std::string kUnpackFailed = stepErrorShape(kUnit, "unpack_upgrade_package");

std::string versionLine(const std::string& version) {
    return infoShape("UPGRADE_proc_upgrade_pkg: get version " + version + "\n");
}

// Small packages: the size of the file is nothing that the processing looks at.
constexpr unsigned long kFileBytes = 1UL << 18U;

class PackageProcessing : public testing::Test {
  protected:
    PackageProcessing() {
        package_services::reset();
        package.setTotalSize(kFileBytes);
        out.version.hw = 71;
        out.version.mpu = 72;
        out.version.mcu = 73;
        out.version.bld = 74;
        out.pubkey_file = "/not/set";
    }
    ~PackageProcessing() override {
        spy::onFlush({});
        package_services::reset();
    }

    int process(const std::string& path, const std::string& dir) {
        return UPGRADE_proc_upgrade_pkg(out, {path, dir}, false);
    }
    int process() { return process(kPackage, kUnpackDir); }
    int writeAndProcess() {
        package.writeTo(kPackage);
        return process();
    }

    // A package whose payload is that archive.
    void usePayload(const std::string& path) { package.setPayload(testsupport::readFile(path)); }
    // A payload that tar makes in an empty directory; the arguments are those behind `tar -cf FILE`.
    void useArchive(const std::string& preparation, const std::string& arguments) {
        package_services::shell("mkdir -p /tmp/tree && cd /tmp/tree && " + preparation +
                                " && tar -cf /tmp/payload " + arguments);
        usePayload("/tmp/payload");
    }

    // Something that happens when a step begins.
    void whenLogged(const std::string& text, std::function<void()> action) {
        fake::log().onLine([text, action](const fake::LogLine& line) {
            if (line.text == text) {
                action();
            }
        });
    }

    void expectOutputUntouched() const {
        EXPECT_EQ(out.version.hw, 71);
        EXPECT_EQ(out.version.mpu, 72);
        EXPECT_EQ(out.version.mcu, 73);
        EXPECT_EQ(out.version.bld, 74);
        EXPECT_EQ(out.pubkey_file, "/not/set");
    }

    TestPackage package;
    UPGADE_PKG_OUT_T out;
};

const char* const kAllFiles =
    "Image,Image.sign,bld_release.bin,bld_release.bin.sign,cv22_kavro_qz7.dtb,cv22_kavro_qz7.dtb.sign,ext4,"
    "ext4.sign,mcu_flash_app.s19,mcu_flash_app.s19.sign,mcu_flash_drv.s19,mcu_flash_drv.s19.sign,"
    "version_list.acs,version_list.acs.sign,";

// --- success

TEST_F(PackageProcessing, whole_package_is_read_cut_checked_and_unpacked) {
    package.setVersions(1, 105, 8, 3);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(logShape(),
              (Lines{kReadStep, kTruncateStep, kDigestStep, kUnpackStep, versionLine("1.105.8.3")}));
    EXPECT_EQ(out.version.hw, 1);
    EXPECT_EQ(out.version.mpu, 105);
    EXPECT_EQ(out.version.mcu, 8);
    EXPECT_EQ(out.version.bld, 3);
    EXPECT_EQ(out.pubkey_file, kPubkey);
    EXPECT_EQ(out.components, kAllFiles);
    EXPECT_EQ(testsupport::readFile(kPubkey), package.trailer().key);
    EXPECT_EQ(testsupport::sizeOf(kPackage), static_cast<long>(package.payloadBytes()));
    for (const std::string& name : testsupport::componentNames()) {
        EXPECT_EQ(testsupport::readFile(std::string(kUnpackDir) + "/" + name), package.files().at(name));
    }
}

TEST_F(PackageProcessing, package_of_128_mib_is_processed) {
    package.setTotalSize(testsupport::kPackageBytes);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.components, kAllFiles);
    EXPECT_EQ(testsupport::sizeOf(kPackage), static_cast<long>(package.payloadBytes()));
}

TEST_F(PackageProcessing, rollback_makes_no_difference) {
    package.writeTo(kPackage);
    EXPECT_EQ(UPGRADE_proc_upgrade_pkg(out, {kPackage, kUnpackDir}, true), 0);
    EXPECT_EQ(logShape(),
              (Lines{kReadStep, kTruncateStep, kDigestStep, kUnpackStep, versionLine("1.2.3.4")}));
    EXPECT_EQ(out.components, kAllFiles);
    EXPECT_EQ(out.pubkey_file, kPubkey);
}

TEST_F(PackageProcessing, one_command_is_run_with_ordinary_paths_as_they_stand) {
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(fake::commands(), Lines{"tar -xvf /firmware/upgrade.pkg -C /raw/upgrade"});
}

TEST_F(PackageProcessing, listing_of_image_and_its_signature_ends_with_a_comma) {
    useArchive("touch Image Image.sign", "Image Image.sign");
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.components, "Image,Image.sign,");
}

TEST_F(PackageProcessing, components_are_appended_to) {
    useArchive("touch Image", "Image");
    out.components = "before,";
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.components, "before,Image,");
}

TEST_F(PackageProcessing, payload_shorter_than_the_room_is_cut_with_the_gap) {
    package.setTotalSize(kFileBytes).writeTo(kPackage);
    const std::string payload = testsupport::readFile(kPackage).substr(0, package.payloadBytes());
    ASSERT_LT(payload.size() + kTrailerBytes, kFileBytes);
    EXPECT_EQ(process(), 0);
    EXPECT_EQ(testsupport::readFile(kPackage), payload);
}

TEST_F(PackageProcessing, package_without_a_gap_is_cut_to_its_payload) {
    useArchive("touch Image", "Image");
    const unsigned long payloadBytes = testsupport::readFile("/tmp/payload").size();
    package.setTotalSize(payloadBytes + kTrailerBytes);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(testsupport::readFile(kPackage), testsupport::readFile("/tmp/payload"));
}

TEST_F(PackageProcessing, payload_that_unpacks_to_nothing_gives_empty_components) {
    package.emptyPayload();
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.components, "");
    EXPECT_EQ(out.pubkey_file, kPubkey);
    EXPECT_TRUE(testsupport::namesIn(kUnpackDir).empty());
    EXPECT_TRUE(testsupport::exists(kUnpackDir));
}

TEST_F(PackageProcessing, payload_of_directories_alone_gives_empty_components) {
    useArchive("mkdir Image", "Image");
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.components, "");
}

TEST_F(PackageProcessing, digest_in_upper_case_is_accepted) {
    package.editTrailer([](Trailer& fields) {
        for (char& digit : fields.md5) {
            digit = static_cast<char>(toupper(digit));
        }
    });
    EXPECT_EQ(writeAndProcess(), 0);
}

TEST_F(PackageProcessing, missing_branch_is_no_failure) {
    package.editTrailer([](Trailer& fields) { fields.branchLength = "zzzzzzzz"; });
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(logShape(), (Lines{kReadStep, infoShape("convert branchNr failed;\n"), kTruncateStep,
                                 kDigestStep, kUnpackStep, versionLine("1.2.3.4")}));
}

TEST_F(PackageProcessing, key_file_is_named_even_when_the_key_could_not_be_written) {
    std::filesystem::create_directory(kPubkey);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(out.pubkey_file, kPubkey);
    EXPECT_EQ(logShape().at(1), errorShape(kUnit, "read_info_form_pkg", "write pubkey file failed;\n"));
}

TEST_F(PackageProcessing, version_is_shown_without_leading_zeros_and_with_its_sign) {
    package.editTrailer([](Trailer& fields) { fields.version = "-01007000999"; });
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(logShape().back(), versionLine("-1.7.0.999"));
}

// --- the unpack directory

unsigned modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

TEST_F(PackageProcessing, missing_directory_is_made_with_mode_0755) {
    umask(0);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(modeOf(kUnpackDir), 0755U);
    EXPECT_EQ(package_services::lastMkdirMode(), 0755U);
}

TEST_F(PackageProcessing, umask_narrows_the_mode_of_the_made_directory) {
    umask(077);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(modeOf(kUnpackDir), 0700U);
    EXPECT_EQ(package_services::lastMkdirMode(), 0755U);
}

TEST_F(PackageProcessing, existing_directory_keeps_its_contents_and_its_mode) {
    testsupport::writeFile("/raw/upgrade/old file", "old");
    ASSERT_EQ(chmod(kUnpackDir, 0711), 0);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(testsupport::readFile("/raw/upgrade/old file"), "old");
    EXPECT_EQ(modeOf(kUnpackDir), 0711U);
    EXPECT_NE(out.components.find(",old file,"), std::string::npos) << out.components;
}

TEST_F(PackageProcessing, existing_file_of_a_component_is_replaced) {
    testsupport::writeFile("/raw/upgrade/Image", "old");
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(testsupport::readFile("/raw/upgrade/Image"), package.files().at("Image"));
}

TEST_F(PackageProcessing, link_to_a_directory_is_used_as_one) {
    std::filesystem::create_directory("/raw/real");
    std::filesystem::create_symlink("real", kUnpackDir);
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(testsupport::namesIn("/raw/real").size(), 14U);
}

// --- step 1

TEST_F(PackageProcessing, missing_package_fails_in_the_first_step) {
    EXPECT_EQ(process("/firmware/none.pkg", kUnpackDir), -1);
    EXPECT_EQ(
        logShape(),
        (Lines{kReadStep, errorShape(kUnit, "read_info_form_pkg", "pkg '/firmware/none.pkg' not exist!\n"),
               kFailed}));
    expectOutputUntouched();
    EXPECT_EQ(out.components, "");
    EXPECT_FALSE(testsupport::exists(kUnpackDir));
}

TEST_F(PackageProcessing, package_about_which_storage_gives_no_answer_counts_as_missing) {
    const Lines truncation = {
        kReadStep, kTruncateStep,
        errorShape(kUnit, "truncate_upgrade_pkg", "file '/firmware/upgrade.pkg' not exist;\n"), kFailed};
    const Lines unpacking = {kReadStep, kTruncateStep, kDigestStep, kUnpackStep, kUnpackFailed, kFailed};
    for (const auto& [step, lines] : {std::pair("truncate_upgrade_pkg\n", truncation),
                                      std::pair("unpack_upgrade_package\n", unpacking)}) {
        package_services::reset();
        std::optional<upgradetest::UnansweredPath> unanswered;
        whenLogged(step, [&] { unanswered.emplace(kPackage); });
        EXPECT_EQ(writeAndProcess(), -1);
        EXPECT_EQ(logShape(), lines);
    }
    expectOutputUntouched();
}

TEST_F(PackageProcessing, directory_about_which_storage_gives_no_answer_cannot_be_made) {
    std::filesystem::create_directory(kUnpackDir);
    const upgradetest::UnansweredPath unanswered(kUnpackDir);
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(),
              (Lines{kReadStep, kTruncateStep, kDigestStep, kUnpackStep, kUnpackFailed, kFailed}));
    EXPECT_TRUE(testsupport::namesIn(kUnpackDir).empty());
}

TEST_F(PackageProcessing, unreadable_trailer_leaves_the_package_whole) {
    const std::vector<std::pair<std::function<void(Trailer&)>, std::string>> damages{
        {[](Trailer& fields) { fields.payloadLength = "xxxxxxxx"; },
         "_xatoi err, _pkg_file_len 0x0 should be 0x0 ~ 0x3f000\n"},
        {[](Trailer& fields) { fields.payloadLength = "0003F001"; },
         "_xatoi err, _pkg_file_len 0x3f001 should be 0x0 ~ 0x3f000\n"},
        {[](Trailer& fields) { fields.keyLength = "FFFFFFFF"; }, "pubkey_len -1 invalid\n"},
        {[](Trailer& fields) { fields.version = "v1.2.3.4    "; }, "convert version failed;\n"}};
    for (const auto& [damage, message] : damages) {
        package_services::reset();
        TestPackage damaged;
        damaged.setTotalSize(kFileBytes).editTrailer(damage).writeTo(kPackage);
        EXPECT_EQ(process(), -1);
        EXPECT_EQ(logShape(), (Lines{kReadStep, errorShape(kUnit, "read_info_form_pkg", message), kFailed}));
        EXPECT_EQ(testsupport::sizeOf(kPackage), static_cast<long>(kFileBytes));
        EXPECT_FALSE(testsupport::exists(kUnpackDir));
        expectOutputUntouched();
    }
}

TEST_F(PackageProcessing, package_already_cut_has_no_trailer_left) {
    ASSERT_EQ(writeAndProcess(), 0);
    package_services::reset();
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape().front(), kReadStep);
    EXPECT_EQ(logShape().back(), kFailed);
    EXPECT_EQ(logShape().size(), 3U);
}

// --- step 2

TEST_F(PackageProcessing, package_that_vanishes_before_the_cut_is_named) {
    package.writeTo(kPackage);
    whenLogged("truncate_upgrade_pkg\n", [] { std::filesystem::remove(kPackage); });
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(),
              (Lines{kReadStep, kTruncateStep,
                     errorShape(kUnit, "truncate_upgrade_pkg", "file '/firmware/upgrade.pkg' not exist;\n"),
                     kFailed}));
    expectOutputUntouched();
}

TEST_F(PackageProcessing, cut_package_is_on_storage_before_its_digest_is_taken) {
    Lines before;
    long flushed = 0;
    spy::onFlush([&](const std::string& path) {
        if (path == spy::kEverything) {
            before = logShape();
            flushed = testsupport::sizeOf(kPackage);
        }
    });
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(flushed, static_cast<long>(package.payloadBytes()));
    EXPECT_EQ(before, (Lines{kReadStep, kTruncateStep}));
}

TEST_F(PackageProcessing, refused_cut_is_named_with_the_length_as_a_signed_number) {
    for (const auto& [length, shown] : {std::pair("80000000", "-2147483648"), std::pair("FFFFFFFF", "-1")}) {
        package_services::reset();
        TestPackage huge;
        huge.setTotalSize(0x100001000UL)
            .editTrailer([&length = length](Trailer& fields) { fields.payloadLength = length; })
            .writeTo(kPackage);
        EXPECT_EQ(process(), -1);
        EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep,
                                     errorShape(kUnit, "truncate_upgrade_pkg",
                                                std::string("truncate '/firmware/upgrade.pkg' to ") + shown +
                                                    " bytes failed;\n"),
                                     kFailed}));
        EXPECT_EQ(testsupport::sizeOf(kPackage), 0x100001000L);
        expectOutputUntouched();
    }
}

TEST_F(PackageProcessing, package_that_became_a_directory_cannot_be_cut) {
    package.writeTo(kPackage);
    whenLogged("truncate_upgrade_pkg\n", [] {
        std::filesystem::remove(kPackage);
        std::filesystem::create_directory(kPackage);
    });
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep,
                                 errorShape(kUnit, "truncate_upgrade_pkg",
                                            "truncate '/firmware/upgrade.pkg' to " +
                                                std::to_string(package.payloadBytes()) + " bytes failed;\n"),
                                 kFailed}));
}

// --- step 3

TEST_F(PackageProcessing, flipped_byte_fails_after_the_cut) {
    for (const long offset : {0L, 5000L, -1L}) {
        package_services::reset();
        std::filesystem::remove(kPubkey);
        TestPackage damaged;
        damaged.setTotalSize(kFileBytes).flipPayloadByte(offset).writeTo(kPackage);
        EXPECT_EQ(process(), -1);
        EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep, kDigestStep, kFailed}));
        EXPECT_EQ(testsupport::sizeOf(kPackage), static_cast<long>(damaged.payloadBytes()));
        EXPECT_EQ(testsupport::readFile(kPubkey), damaged.trailer().key);
        EXPECT_FALSE(testsupport::exists(kUnpackDir));
        EXPECT_TRUE(fake::commands().empty());
        expectOutputUntouched();
        EXPECT_EQ(out.components, "");
    }
}

TEST_F(PackageProcessing, digest_that_is_none_fails) {
    for (const std::string& digest : {std::string(32, ' '), std::string(32, '\0'), std::string(32, 'g')}) {
        package_services::reset();
        TestPackage damaged;
        damaged.setTotalSize(kFileBytes).editTrailer([&](Trailer& fields) { fields.md5 = digest; });
        damaged.writeTo(kPackage);
        EXPECT_EQ(process(), -1);
        EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep, kDigestStep, kFailed}));
    }
}

TEST_F(PackageProcessing, digest_with_one_wrong_digit_fails) {
    package.editTrailer([](Trailer& fields) { fields.md5.back() = fields.md5.back() == '0' ? '1' : '0'; });
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep, kDigestStep, kFailed}));
}

TEST_F(PackageProcessing, digest_covers_the_payload_alone) {
    package.editTrailer([](Trailer& fields) {
        fields.payloadLength = testsupport::hexText(std::stoul(fields.payloadLength, nullptr, 16) - 512);
    });
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep, kDigestStep, kFailed}));
}

TEST_F(PackageProcessing, package_that_vanishes_before_the_check_fails_in_it) {
    package.writeTo(kPackage);
    whenLogged("chkFileMd5\n", [] { std::filesystem::remove(kPackage); });
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(), (Lines{kReadStep, kTruncateStep, kDigestStep, kFailed}));
}

// --- step 4

const Lines kUnpackFailure{kReadStep, kTruncateStep, kDigestStep, kUnpackStep, kUnpackFailed, kFailed};
const Lines kTarFailure{kReadStep, kTruncateStep, kDigestStep, kUnpackStep, kFailed};

TEST_F(PackageProcessing, package_that_vanishes_before_the_unpacking_fails_in_it) {
    package.writeTo(kPackage);
    whenLogged("unpack_upgrade_package\n", [] { std::filesystem::remove(kPackage); });
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(), kUnpackFailure);
    EXPECT_FALSE(testsupport::exists(kUnpackDir));
    expectOutputUntouched();
}

TEST_F(PackageProcessing, directory_without_a_parent_cannot_be_made) {
    package.writeTo(kPackage);
    EXPECT_EQ(process(kPackage, "/raw/no/parent"), -1);
    EXPECT_EQ(logShape(), kUnpackFailure);
    EXPECT_FALSE(testsupport::exists("/raw/no"));
    EXPECT_TRUE(fake::commands().empty());
    EXPECT_EQ(testsupport::sizeOf(kPackage), static_cast<long>(package.payloadBytes()));
    expectOutputUntouched();
}

TEST_F(PackageProcessing, directory_below_a_file_cannot_be_made) {
    testsupport::writeFile("/raw/file", "");
    package.writeTo(kPackage);
    EXPECT_EQ(process(kPackage, "/raw/file/dir"), -1);
    EXPECT_EQ(logShape(), kUnpackFailure);
}

TEST_F(PackageProcessing, empty_directory_path_cannot_be_made) {
    package.writeTo(kPackage);
    EXPECT_EQ(process(kPackage, ""), -1);
    EXPECT_EQ(logShape(), kUnpackFailure);
}

TEST_F(PackageProcessing, made_directory_that_cannot_be_reached_fails) {
    package.writeTo(kPackage);
    package_services::letMkdirLie(kUnpackDir);
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(), kUnpackFailure);
    EXPECT_TRUE(fake::commands().empty());
    expectOutputUntouched();
}

TEST_F(PackageProcessing, payload_that_is_no_archive_fails_without_a_message_of_its_own) {
    package.setPayload(std::string(20000, 'x'));
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), kTarFailure);
    EXPECT_TRUE(testsupport::exists(kUnpackDir));
    EXPECT_EQ(testsupport::sizeOf(kPackage), 20000);
    EXPECT_EQ(out.components, "");
    expectOutputUntouched();
}

TEST_F(PackageProcessing, archive_cut_in_the_middle_of_a_file_fails) {
    useArchive("head -c 100000 /dev/urandom > Image", "Image");
    package.setPayload(testsupport::readFile("/tmp/payload").substr(0, 60000));
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), kTarFailure);
    EXPECT_EQ(out.components, "");
    expectOutputUntouched();
}

TEST_F(PackageProcessing, file_in_the_place_of_the_directory_fails) {
    testsupport::writeFile(kUnpackDir, "a file");
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), kTarFailure);
    EXPECT_EQ(testsupport::readFile(kUnpackDir), "a file");
    expectOutputUntouched();
}

TEST_F(PackageProcessing, missing_tar_fails) {
    package.writeTo(kPackage);
    setenv("PATH", "/nowhere", 1);
    EXPECT_EQ(process(), -1);
    EXPECT_EQ(logShape(), kTarFailure);
}

TEST_F(PackageProcessing, next_package_succeeds_after_a_failed_one) {
    package.setPayload(std::string(20000, 'x'));
    EXPECT_EQ(writeAndProcess(), -1);
    TestPackage good;
    good.setTotalSize(kFileBytes).writeTo(kPackage);
    EXPECT_EQ(process(), 0);
    EXPECT_EQ(out.components, kAllFiles);
}

// --- awkward paths

// Files that were named by a shell that took a path apart.
bool shellRan() {
    for (const char* directory : {"/", "/firmware/", "/raw/", "/tmp/"}) {
        if (testsupport::exists(std::string(directory) + "shell_ran")) {
            return true;
        }
    }
    return testsupport::exists("shell_ran");
}

TEST_F(PackageProcessing, awkward_package_paths_are_plain_file_names) {
    for (const std::string& path : package_services::awkwardPaths("/firmware")) {
        out.components.clear();
        package.writeTo(path);
        EXPECT_EQ(process(path, kUnpackDir), 0) << path;
        EXPECT_EQ(out.components, kAllFiles) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(PackageProcessing, awkward_directory_paths_are_plain_file_names) {
    for (const std::string& path : package_services::awkwardPaths("/raw")) {
        out.components.clear();
        package.writeTo(kPackage);
        EXPECT_EQ(process(kPackage, path), 0) << path;
        EXPECT_EQ(out.components, kAllFiles) << path;
        EXPECT_EQ(testsupport::namesIn(path).size(), 14U) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(PackageProcessing, relative_package_paths_are_no_options_and_no_hosts) {
    ASSERT_EQ(chdir("/firmware"), 0);
    for (const std::string& path : package_services::awkwardRelativePaths()) {
        out.components.clear();
        package.writeTo("/firmware/" + path);
        EXPECT_EQ(process(path, kUnpackDir), 0) << path;
        EXPECT_EQ(out.components, kAllFiles) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(PackageProcessing, relative_directory_paths_are_no_options_and_no_hosts) {
    ASSERT_EQ(chdir("/raw"), 0);
    for (const std::string& path : package_services::awkwardRelativePaths()) {
        out.components.clear();
        package.writeTo(kPackage);
        std::filesystem::create_directories(std::filesystem::path("/raw/" + path).parent_path());
        EXPECT_EQ(process(kPackage, path), 0) << path;
        EXPECT_EQ(testsupport::namesIn("/raw/" + path).size(), 14U) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(PackageProcessing, paths_of_4000_characters_are_processed) {
    const std::string path = package_services::longPath("/firmware", 4000);
    const std::string dir = package_services::longPath("/raw", 4000);
    ASSERT_EQ(path.size(), 4000U);
    ASSERT_EQ(dir.size(), 4000U);
    package.writeTo(path);
    EXPECT_EQ(process(path, dir), 0);
    EXPECT_EQ(out.components, kAllFiles);
    EXPECT_EQ(testsupport::namesIn(dir).size(), 14U);
}

// --- archives that try to get out

// Whatever the result is, nothing may appear outside of the unpack directory.
class HostileArchive : public PackageProcessing {
  protected:
    HostileArchive() {
        testsupport::writeFile("/raw/outside/kept", "kept");
        testsupport::writeFile("/config/kept", "kept");
    }
    // Otherwise the case shows nothing.
    static void expectTarRan() { EXPECT_EQ(fake::commands().size(), 1U) << fake::log(); }
    void expectNothingOutside() const {
        EXPECT_EQ(testsupport::namesIn("/raw"), (Lines{"outside", "upgrade"}));
        EXPECT_EQ(testsupport::namesIn("/raw/outside"), Lines{"kept"});
        EXPECT_EQ(testsupport::readFile("/raw/outside/kept"), "kept");
        EXPECT_EQ(testsupport::readFile("/config/kept"), "kept");
        EXPECT_FALSE(testsupport::exists("/config/evil"));
        EXPECT_FALSE(testsupport::exists("/evil"));
    }
};

TEST_F(HostileArchive, name_with_dots_writes_nothing_outside) {
    useArchive("mkdir -p a && echo evil > evil && echo evil > a/kept",
               "-P --transform 's,^evil,../evil,;s,^a/kept,../outside/kept,' evil a/kept");
    EXPECT_EQ(writeAndProcess(), -1);
    EXPECT_EQ(logShape(), kTarFailure);
    expectNothingOutside();
}

TEST_F(HostileArchive, dots_in_the_middle_of_a_name_write_nothing_outside) {
    useArchive("echo evil > evil", "-P --transform 's,^evil,a/../../outside/evil,' evil");
    EXPECT_EQ(writeAndProcess(), -1);
    expectNothingOutside();
}

TEST_F(HostileArchive, absolute_name_stays_inside_the_directory) {
    useArchive("echo evil > evil", "-P --transform 's,^evil,/config/evil,' evil");
    EXPECT_EQ(writeAndProcess(), 0);
    expectNothingOutside();
    EXPECT_EQ(testsupport::readFile("/raw/upgrade/config/evil"), "evil\n");
    EXPECT_EQ(out.components, "");
}

TEST_F(HostileArchive, symbolic_link_to_a_directory_is_not_written_through) {
    useArchive("ln -s /raw/outside link && mkdir real && echo evil > real/evil",
               "link --transform 's,^real,link,' real/evil");
    writeAndProcess();
    expectTarRan();
    expectNothingOutside();
}

TEST_F(HostileArchive, relative_symbolic_link_is_not_written_through) {
    useArchive("ln -s ../outside link && mkdir real && echo evil > real/kept",
               "link --transform 's,^real,link,' real/kept");
    writeAndProcess();
    expectTarRan();
    expectNothingOutside();
}

TEST_F(HostileArchive, symbolic_link_to_a_file_is_not_written_through) {
    useArchive("ln -s /config/kept Image && mkdir new && echo evil > new/Image",
               "Image --transform 's,^new/,,' new/Image");
    writeAndProcess();
    expectTarRan();
    expectNothingOutside();
}

TEST_F(HostileArchive, hard_link_to_a_file_outside_is_not_written_through) {
    package_services::shell(
        "mkdir -p /tmp/tree && cd /tmp/tree && echo first > kept && ln kept Image && mkdir new && "
        "echo evil > new/Image && "
        "tar -P -cf /tmp/all --transform 's,^kept,/config/kept,;s,^new/,,' kept Image new/Image && "
        "tar -P --delete -f /tmp/all /config/kept");
    usePayload("/tmp/all");
    writeAndProcess();
    expectTarRan();
    expectNothingOutside();
}

TEST_F(HostileArchive, link_left_by_an_earlier_archive_is_replaced) {
    std::filesystem::create_directory(kUnpackDir);
    std::filesystem::create_symlink("/config/kept", "/raw/upgrade/Image");
    EXPECT_EQ(writeAndProcess(), 0);
    expectNothingOutside();
    EXPECT_EQ(testsupport::readFile("/raw/upgrade/Image"), package.files().at("Image"));
}

TEST_F(HostileArchive, names_with_line_breaks_and_options_are_files) {
    useArchive("touch -- '--checkpoint=1' '--checkpoint-action=exec=touch shell_ran' \"$(printf 'a\\nb')\"",
               "-- *");
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_FALSE(shellRan());
    EXPECT_EQ(out.components, "--checkpoint-action=exec=touch shell_ran,--checkpoint=1,a\nb,");
}

// --- cancellation

class CancelledProcessing : public PackageProcessing {
  protected:
    // Big enough that the digest and the unpacking take a while.
    void makeBigPackage() {
        useArchive("head -c 1500000 /dev/urandom > Image && cp Image ext4", "Image ext4");
        package.setTotalSize(4UL << 20U).writeTo("/firmware/kept.pkg");
        restorePackage();
        ASSERT_EQ(process(), 0);  // whatever is opened once and for all
        restorePackage();
        duration = package_services::durationOf([&] { ASSERT_EQ(process(), 0); });
        stock.emplace();
    }
    void restorePackage() const {
        std::filesystem::copy_file("/firmware/kept.pkg", kPackage,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    bool cancelledAfter(unsigned microseconds) {
        package_services::CancellableThread thread([] {
            UPGADE_PKG_OUT_T result;
            UPGRADE_proc_upgrade_pkg(result, {kPackage, kUnpackDir}, false);
        });
        usleep(microseconds);
        thread.cancel();
        return thread.join();
    }

    std::chrono::microseconds duration{};  // of an undisturbed run
    std::optional<package_services::Stock> stock;
};

TEST_F(CancelledProcessing, cancel_at_any_moment_leaves_nothing_behind) {
    makeBigPackage();
    int cancelled = 0;
    constexpr unsigned kMoments = 120;
    for (unsigned moment = 0; moment < kMoments && !HasFailure(); ++moment) {
        SCOPED_TRACE(moment);
        restorePackage();
        cancelled += cancelledAfter(moment * static_cast<unsigned>(duration.count()) / kMoments) ? 1 : 0;
        stock->expectNothingLeft();
    }
    EXPECT_GT(cancelled, 10);
    restorePackage();
    EXPECT_EQ(process(), 0);
}

TEST_F(CancelledProcessing, cancel_at_every_log_line_leaves_nothing_behind) {
    makeBigPackage();
    for (const char* text : {"read_info_form_pkg\n", "truncate_upgrade_pkg\n", "chkFileMd5\n",
                             "unpack_upgrade_package\n", "UPGRADE_proc_upgrade_pkg: get version 1.2.3.4\n"}) {
        SCOPED_TRACE(text);
        restorePackage();
        whenLogged(text, [] { pthread_cancel(pthread_self()); });
        package_services::CancellableThread thread([] {
            UPGADE_PKG_OUT_T result;
            UPGRADE_proc_upgrade_pkg(result, {kPackage, kUnpackDir}, false);
        });
        thread.join();
        fake::log().onLine({});
        stock->expectNothingLeft();
        restorePackage();
        EXPECT_EQ(process(), 0);
    }
}

TEST_F(CancelledProcessing, no_line_is_logged_while_a_cancel_could_act) {
    EXPECT_EQ(writeAndProcess(), 0);
    EXPECT_EQ(process("/firmware/none", kUnpackDir), -1);
    package.writeTo(kPackage);
    EXPECT_EQ(process(kPackage, "/raw/no/parent"), -1);
    for (const fake::LogLine& line : fake::log().lines()) {
        EXPECT_FALSE(line.cancelEnabled) << line;
    }
}

TEST_F(CancelledProcessing, cancel_during_tar_ends_it_and_what_it_started) {
    package.writeTo(kPackage);
    stock.emplace();
    package_services::letCommandHang("tar");
    package_services::CancellableThread thread([] {
        UPGADE_PKG_OUT_T result;
        UPGRADE_proc_upgrade_pkg(result, {kPackage, kUnpackDir}, false);
    });
    package_services::awaitHangingCommand();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    stock->expectNothingLeft();
}

TEST_F(CancelledProcessing, held_off_cancel_lets_the_package_be_processed) {
    package.writeTo(kPackage);
    int result = -5;
    package_services::CancellableThread thread([this, &result] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        pthread_cancel(pthread_self());
        result = process();
    });
    EXPECT_FALSE(thread.join());
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out.components, kAllFiles);
}

TEST_F(PackageProcessing, processing_leaves_no_descriptor_open) {
    EXPECT_EQ(writeAndProcess(), 0);
    const Lines descriptors = testsupport::descriptorTargets();
    for (int i = 0; i < 5; ++i) {
        package.writeTo(kPackage);
        EXPECT_EQ(process(), 0);
        EXPECT_EQ(process(), -1);
    }
    EXPECT_EQ(testsupport::descriptorTargets(), descriptors);
}

}  // namespace
