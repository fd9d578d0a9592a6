#include "package/pack.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <ostream>

#include "tests/support/device.h"
#include "tests/support/package_parts.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_package.h"

namespace {

namespace fs = std::filesystem;
using TemporaryDirectory = kavro_test::TempDir;
using kavro::ErrorCode;
using kavro::package::PackRequest;
using testsupport::deviceTree;
using testsupport::kernelImage;
using testsupport::makeComponents;
using testsupport::makeEcKey;
using testsupport::makeRsaKey;
using testsupport::mcuApplication;
using testsupport::namesIn;
using testsupport::ProgramResult;
using testsupport::readFile;
using testsupport::rootFileSystem;
using testsupport::runProgram;
using testsupport::srecords;
using testsupport::writeFile;

constexpr std::uintmax_t kPackageBytes = 134217728;
constexpr long kTrailerBytes = 4096;

// What a device reads from a trailer, written after the format's description alone.
struct Trailer {
    explicit Trailer(const fs::path& package) {
        const std::string tail =
            runProgram({"tail", "-c", std::to_string(kTrailerBytes), package.string()}).out;
        payloadBytes = std::stoul(tail.substr(0, 8), nullptr, 16);
        md5 = tail.substr(8, 32);
        const std::size_t keyBytes = std::stoul(tail.substr(40, 8), nullptr, 16);
        publicKey = tail.substr(48, keyBytes);
        stamp = tail.substr(48 + keyBytes, 14);
        ident = tail.substr(62 + keyBytes, 40);
        version = tail.substr(102 + keyBytes, 12);
        const std::size_t branchBytes = std::stoul(tail.substr(114 + keyBytes, 8), nullptr, 16);
        branch = tail.substr(122 + keyBytes, branchBytes);
        const std::size_t userAt = 122 + keyBytes + branchBytes;
        user = tail.substr(userAt + 8, std::stoul(tail.substr(userAt, 8), nullptr, 16));
    }

    unsigned long payloadBytes;
    std::string md5, publicKey, stamp, ident, version, branch, user;
};

class Pack : public testing::Test {
  protected:
    Pack() {
        makeComponents(request.componentDir);
        makeEcKey(request.key);
    }

    kavro::package::PackSummary pack() const {
        const kavro::Result<kavro::package::PackSummary> result = kavro::package::pack(request);
        EXPECT_TRUE(result.ok()) << result.error().text;
        return result.ok() ? result.value() : kavro::package::PackSummary();
    }

    void expectRefusal(ErrorCode code, const std::string& part, const std::string& partOfNext = "") const {
        const std::vector<std::string> before = namesIn(files.path());
        const kavro::Result<kavro::package::PackSummary> result = kavro::package::pack(request);
        ASSERT_FALSE(result.ok());
        const kavro::Error& error = result.error();
        EXPECT_EQ(error.code, code) << error.text;
        EXPECT_NE(error.text.find(part), std::string::npos) << error.text;
        EXPECT_NE(error.next, "");
        EXPECT_NE(error.next.find(partOfNext), std::string::npos) << error.next;
        EXPECT_EQ(namesIn(files.path()), before);
    }

    fs::path component(const std::string& name) const { return request.componentDir / name; }

    // The payload as a file of its own, and its members unpacked from it.
    fs::path extract() const {
        fs::path directory = files / "unpacked";
        fs::create_directory(directory);
        const std::string length = std::to_string(Trailer(request.output).payloadBytes);
        const ProgramResult cut = runProgram({"head", "-c", length, request.output.string()});
        writeFile(files / "payload.tar", cut.out);
        const ProgramResult tar = runProgram({"tar", "-xf", files / "payload.tar", "-C", directory.string()});
        EXPECT_EQ(tar.exitCode, 0) << tar.err;
        return directory;
    }

    void expectSignaturesVerify() const {
        const fs::path directory = extract();
        writeFile(files / "public.pem", Trailer(request.output).publicKey);
        for (const char* name : {"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image",
                                 "mcu_flash_app.s19", "mcu_flash_drv.s19", "version_list.acs"}) {
            const ProgramResult verified =
                runProgram({"openssl", "dgst", "-sha256", "-verify", files / "public.pem", "-signature",
                            (directory / name).string() + ".sign", (directory / name).string()});
            EXPECT_EQ(verified.exitCode, 0) << name << ": " << verified.out << verified.err;
        }
    }

    const TemporaryDirectory files;
    PackRequest request = {
        files / "components", files / "key.pem", files / "out.pkg", {1, 105, 8, 3}, std::nullopt, "", "", ""};
};

TEST_F(Pack, package_has_exactly_its_size_and_a_gap_that_takes_no_room) {
    pack();
    struct stat status = {};
    ASSERT_EQ(stat(request.output.c_str(), &status), 0);
    EXPECT_EQ(static_cast<std::uintmax_t>(status.st_size), kPackageBytes);
    EXPECT_LT(status.st_blocks * 512, 4 * 1024 * 1024);
}

TEST_F(Pack, every_field_of_the_trailer_is_what_was_asked_for) {
    request.stamp = "20261121085700";
    request.ident = "0123456789abcdef0123456789abcdef01234567";
    request.branch = "release/camera";
    request.user = "builder@example";
    const kavro::package::PackSummary summary = pack();

    const Trailer trailer(request.output);
    EXPECT_EQ(trailer.payloadBytes, summary.payloadBytes);
    EXPECT_EQ(trailer.md5, summary.md5);
    EXPECT_EQ(trailer.stamp, "20261121085700");
    EXPECT_EQ(trailer.ident, "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(trailer.version, "001105008003");
    EXPECT_EQ(trailer.branch, "release/camera");
    EXPECT_EQ(trailer.user, "builder@example");
}

TEST_F(Pack, public_key_of_the_trailer_belongs_to_the_private_key) {
    pack();
    const ProgramResult openssl = runProgram({"openssl", "pkey", "-in", request.key.string(), "-pubout"});
    EXPECT_EQ(Trailer(request.output).publicKey, openssl.out);
}

TEST_F(Pack, md5_and_length_of_the_trailer_are_those_of_the_archive) {
    pack();
    const Trailer trailer(request.output);
    extract();
    EXPECT_EQ(fs::file_size(files / "payload.tar"), trailer.payloadBytes);
    const ProgramResult md5sum = runProgram({"md5sum", files / "payload.tar"});
    EXPECT_EQ(md5sum.out.substr(0, 32), trailer.md5);
}

TEST_F(Pack, archive_holds_the_components_and_their_signatures) {
    pack();
    const fs::path directory = extract();
    EXPECT_EQ(
        namesIn(directory),
        (std::vector<std::string>{"Image", "Image.sign", "bld_release.bin", "bld_release.bin.sign",
                                  "cv22_kavro_qz7.dtb", "cv22_kavro_qz7.dtb.sign", "ext4", "ext4.sign",
                                  "mcu_flash_app.s19", "mcu_flash_app.s19.sign", "mcu_flash_drv.s19",
                                  "mcu_flash_drv.s19.sign", "version_list.acs", "version_list.acs.sign"}));
    for (const char* name : {"bld_release.bin", "ext4", "Image", "mcu_flash_app.s19"}) {
        EXPECT_EQ(readFile(directory / name), readFile(component(name))) << name;
    }
}

TEST_F(Pack, signatures_by_an_ec_key_verify) {
    pack();
    expectSignaturesVerify();
}

TEST_F(Pack, signatures_by_an_rsa_key_of_2048_bits_verify) {
    makeRsaKey(request.key);
    EXPECT_EQ(pack().keyDescription, "RSA, 2048 bits");
    expectSignaturesVerify();
}

TEST_F(Pack, signatures_by_an_rsa_key_of_4096_bits_verify) {
    makeRsaKey(request.key, 4096);
    pack();
    expectSignaturesVerify();
}

TEST_F(Pack, a_changed_component_does_not_verify) {
    pack();
    const fs::path directory = extract();
    writeFile(files / "public.pem", Trailer(request.output).publicKey);
    writeFile(directory / "Image", "another kernel");
    EXPECT_NE(runProgram({"openssl", "dgst", "-sha256", "-verify", files / "public.pem", "-signature",
                          (directory / "Image.sign").string(), (directory / "Image").string()})
                  .exitCode,
              0);
}

// --- the release list -----------------------------------------------------------------------------------------------

class PackedList : public Pack {
  protected:
    // What the format's description says of these components, made by other means.
    std::string expectedList(const std::string& epoch = "") const {
        std::string list =
            "release_list 1\nhardware 1\nmain_processor 105\nmicrocontroller 8\nboot_loader 3\n" + epoch;
        for (const char* name : {"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image",
                                 "mcu_flash_app.s19", "mcu_flash_drv.s19"}) {
            const std::string digest = runProgram({"sha256sum", component(name).string()}).out.substr(0, 64);
            list += std::string("component ") + name + " " + std::to_string(fs::file_size(component(name))) +
                    " " + digest + "\n";
        }
        return list;
    }

    std::string packedList() const {
        pack();
        return readFile(extract() / "version_list.acs");
    }

    void giveList(const std::string& text) const { writeFile(component("version_list.acs"), text); }

    void expectForcedAsItIs(const std::string& list, const std::string& fault) {
        giveList(list);
        expectRefusal(ErrorCode::kRefused, fault, "remove it: pack writes one");
        request.force = true;
        const kavro::package::PackSummary summary = pack();
        ASSERT_EQ(summary.warnings.size(), 1U);
        EXPECT_NE(summary.warnings.front().find(fault), std::string::npos) << summary.warnings.front();
        EXPECT_EQ(readFile(extract() / "version_list.acs"), list);
    }
};

TEST_F(PackedList, names_the_versions_and_each_component_with_length_and_digest) {
    EXPECT_EQ(packedList(), expectedList());
    EXPECT_FALSE(fs::exists(component("version_list.acs")));
}

TEST_F(PackedList, carries_the_security_epoch) {
    request.epoch = 4294967295;
    EXPECT_EQ(packedList(), expectedList("epoch 4294967295\n"));
}

TEST_F(PackedList, carries_an_epoch_of_0) {
    request.epoch = 0;
    EXPECT_EQ(packedList(), expectedList("epoch 0\n"));
}

TEST_F(PackedList, takes_the_lines_of_a_builds_own_text_over_as_notes) {
    giveList("branch main\r\n\nhardware 1\nuname größe");
    EXPECT_EQ(packedList(), expectedList() + "note branch main\nnote uname größe\n");
    EXPECT_EQ(readFile(component("version_list.acs")), "branch main\r\n\nhardware 1\nuname größe");
}

TEST_F(PackedList, is_a_given_release_list_that_is_right_with_its_epoch_and_notes) {
    giveList(expectedList("epoch 7\n") + "note by the build\n");
    EXPECT_EQ(packedList(), expectedList("epoch 7\n") + "note by the build\n");
}

TEST_F(PackedList, of_another_version_is_refused) {
    const std::string list = expectedList();
    request.version.bld = 4;
    expectForcedAsItIs(list, "'boot_loader 3' is in line 5, where the components call for 'boot_loader 4'");
}

TEST_F(PackedList, of_another_component_is_refused) {
    const std::string list = expectedList();
    writeFile(component("bld_release.bin"), "another one");
    expectForcedAsItIs(list, "is in line 6, where the components call for 'component bld_release.bin 11 ");
}

TEST_F(PackedList, of_another_epoch_is_refused) {
    request.epoch = 8;
    expectForcedAsItIs(expectedList("epoch 7\n"),
                       "'epoch 7' is in line 6, where the components call for 'epoch 8'");
}

TEST_F(PackedList, that_is_cut_short_is_refused) {
    const std::string list = expectedList();
    expectForcedAsItIs(list.substr(0, list.rfind("component")),
                       "the release list ends where 'component mcu_flash_drv.s19' belongs");
}

TEST_F(PackedList, of_another_format_is_refused) {
    expectForcedAsItIs("release_list 2\n", "the text is no release list of the format 1");
}

TEST_F(PackedList, refuses_a_builds_text_with_control_characters) {
    expectForcedAsItIs("a\x1b[2J\n", "the line 'a\\x1b[2J' cannot be a note");
}

TEST_F(PackedList, refuses_a_builds_text_of_a_long_line) {
    expectForcedAsItIs(std::string(201, 'x'), "cannot be a note");
}

TEST_F(PackedList, refuses_a_builds_text_of_many_lines) {
    std::string text;
    for (int line = 0; line < 65; ++line) {
        text += "line\n";
    }
    expectForcedAsItIs(text, "it has more than 64 lines");
}

TEST_F(PackedList, refuses_a_builds_text_of_many_bytes) {
    expectForcedAsItIs(std::string(16385, '\n'), "it has more than 16384 bytes");
}

TEST_F(Pack, a_branch_of_200_bytes_is_stored_whole_and_the_user_behind_it) {
    request.branch = std::string(200, 'b');
    request.user = "builder";
    pack();
    EXPECT_EQ(Trailer(request.output).branch, request.branch);
    EXPECT_EQ(Trailer(request.output).user, "builder");
}

TEST_F(Pack, two_packs_with_an_rsa_key_are_equal_byte_for_byte) {
    makeRsaKey(request.key);
    setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
    pack();
    const fs::path first = request.output;
    // Other times, modes and order of the same files.
    request.componentDir = files / "again";
    fs::create_directory(request.componentDir);
    for (const char* name : {"mcu_flash_drv.s19", "mcu_flash_app.s19", "Image", "ext4", "cv22_kavro_qz7.dtb",
                             "bld_release.bin"}) {
        writeFile(component(name), readFile(fs::path(files / "components") / name));
        fs::permissions(component(name), fs::perms::owner_all);
    }
    request.output = files / "second.pkg";
    pack();
    unsetenv("SOURCE_DATE_EPOCH");
    EXPECT_EQ(runProgram({"cmp", first.string(), request.output.string()}).exitCode, 0);
    EXPECT_EQ(Trailer(first).stamp, "20231114221320");
}

TEST_F(Pack, default_stamp_is_fourteen_digits_of_the_present) {
    const std::string before = runProgram({"date", "-u", "+%Y%m%d%H%M%S"}).out.substr(0, 14);
    pack();
    const std::string after = runProgram({"date", "-u", "+%Y%m%d%H%M%S"}).out.substr(0, 14);
    const std::string stamp = Trailer(request.output).stamp;
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
}

TEST_F(Pack, source_date_epoch_that_is_no_number_is_refused) {
    setenv("SOURCE_DATE_EPOCH", "yesterday", 1);
    expectRefusal(ErrorCode::kUsage, "SOURCE_DATE_EPOCH 'yesterday'");
    unsetenv("SOURCE_DATE_EPOCH");
}

TEST_F(Pack, tar_options_of_the_environment_change_nothing) {
    setenv("TAR_OPTIONS", "--gzip", 1);
    pack();
    unsetenv("TAR_OPTIONS");
    EXPECT_EQ(namesIn(extract()).size(), 14U);
}

TEST_F(Pack, paths_with_blanks_quotes_commands_and_newlines_are_taken_as_they_are) {
    const std::string awkward = "a b'c\"d$(touch pwned)`id`;*?\\\n-e:f";
    fs::create_directory(files / awkward);
    request.componentDir = fs::path(files / awkward) / "comp onents\n";
    makeComponents(request.componentDir);
    fs::rename(request.key, fs::path(files / awkward) / "my key.pem");
    request.key = fs::path(files / awkward) / "my key.pem";
    request.output = fs::path(files / awkward) / "out 'put'.pkg\n";
    pack();
    EXPECT_EQ(fs::file_size(request.output), kPackageBytes);
    EXPECT_EQ(namesIn(extract()).size(), 14U);
    EXPECT_FALSE(fs::exists("pwned"));
}

TEST_F(Pack, temporary_directory_with_blanks_and_quotes_is_left_empty) {
    const fs::path awkward = files / "tmp 'dir' $(x)";
    fs::create_directory(awkward);
    setenv("TMPDIR", awkward.c_str(), 1);
    pack();
    unsetenv("TMPDIR");
    EXPECT_EQ(fs::file_size(request.output), kPackageBytes);
    EXPECT_TRUE(fs::is_empty(awkward));
}

TEST_F(Pack, a_temporary_directory_that_is_missing_is_refused_by_its_name) {
    const fs::path missing = files / "missing";
    setenv("TMPDIR", missing.c_str(), 1);
    expectRefusal(ErrorCode::kOther, "no temporary directory can be made in '" + missing.string() + "'",
                  "TMPDIR");
    unsetenv("TMPDIR");
}

// Nobody can make a directory there, not even root.
TEST_F(Pack, a_temporary_directory_that_takes_nothing_is_refused_by_its_name) {
    setenv("TMPDIR", "/proc", 1);
    expectRefusal(ErrorCode::kOther, "no temporary directory can be made in '/proc'", "TMPDIR");
    unsetenv("TMPDIR");
}

TEST_F(Pack, without_tar_nothing_is_left_behind) {
    setenv("PATH", "/nowhere", 1);
    expectRefusal(ErrorCode::kOther, "tar could not write the archive", "check that GNU tar is installed");
    setenv("PATH", "/usr/bin:/bin", 1);
}

TEST_F(Pack, relative_paths_are_taken_from_the_working_directory) {
    fs::current_path(files.path());
    request.componentDir = "components";
    request.key = "key.pem";
    request.output = "out.pkg";
    pack();
    EXPECT_EQ(fs::file_size(files / "out.pkg"), kPackageBytes);
    fs::current_path("/");
}

TEST_F(Pack, linked_components_are_packed_as_files) {
    fs::rename(component("Image"), files / "kernel");
    fs::create_symlink(files / "kernel", component("Image"));
    fs::remove(component("bld_release.bin"));
    fs::create_hard_link(component("ext4"), component("bld_release.bin"));
    pack();
    const fs::path directory = extract();
    EXPECT_FALSE(fs::is_symlink(directory / "Image"));
    EXPECT_EQ(readFile(directory / "Image"), readFile(files / "kernel"));
    EXPECT_EQ(fs::hard_link_count(directory / "ext4"), 1U);
    EXPECT_EQ(readFile(directory / "bld_release.bin"), readFile(component("ext4")));
}

class MissingComponent : public Pack, public testing::WithParamInterface<const char*> {};

TEST_P(MissingComponent, is_refused_by_its_name) {
    fs::remove(component(GetParam()));
    expectRefusal(ErrorCode::kRefused, "'" + component(GetParam()).string() + "' is missing");
}

INSTANTIATE_TEST_SUITE_P(Pack, MissingComponent,
                         testing::Values("bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image",
                                         "mcu_flash_app.s19", "mcu_flash_drv.s19"));

class EmptyComponent : public Pack, public testing::WithParamInterface<const char*> {};

TEST_P(EmptyComponent, is_refused_by_its_name) {
    writeFile(component(GetParam()), "");
    expectRefusal(ErrorCode::kRefused, "'" + component(GetParam()).string() + "' is empty");
}

INSTANTIATE_TEST_SUITE_P(Pack, EmptyComponent,
                         testing::Values("bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image",
                                         "mcu_flash_app.s19", "mcu_flash_drv.s19", "version_list.acs"));

TEST_F(Pack, directory_as_component_is_refused) {
    fs::remove(component("ext4"));
    fs::create_directory(component("ext4"));
    expectRefusal(ErrorCode::kRefused, "'" + component("ext4").string() + "' is no regular file");
}

TEST_F(Pack, fifo_as_component_is_refused) {
    fs::remove(component("Image"));
    ASSERT_EQ(mkfifo(component("Image").c_str(), 0600), 0);
    expectRefusal(ErrorCode::kRefused, "'" + component("Image").string() + "' is no regular file");
}

TEST_F(Pack, link_to_nothing_as_component_is_refused) {
    fs::remove(component("Image"));
    fs::create_symlink("nowhere", component("Image"));
    expectRefusal(ErrorCode::kRefused, "'" + component("Image").string() + "' is a link to nothing");
}

TEST_F(Pack, link_to_nothing_as_version_list_is_refused) {
    fs::create_symlink("nowhere", component("version_list.acs"));
    expectRefusal(ErrorCode::kRefused, "version_list.acs' is a link to nothing");
}

TEST_F(Pack, missing_component_directory_is_refused) {
    request.componentDir = files / "nowhere";
    expectRefusal(ErrorCode::kRefused, "nowhere' is no directory");
}

// --- what the components must be like -------------------------------------------------------------------------------

struct WrongComponent {
    const char* name;
    const char* component;
    std::string bytes;
    const char* fault;
    const char* next;
};

void PrintTo(const WrongComponent& wrong, std::ostream* out) {
    *out << wrong.name;
}

std::string replaced(std::string bytes, std::size_t offset, const std::string& by) {
    return bytes.replace(offset, by.size(), by);
}

std::string withWrongChecksum(std::string records) {
    const std::size_t digit = records.find("\r\n", records.find("S3")) - 1;
    records[digit] = records[digit] == '0' ? '1' : '0';
    return records;
}

const std::vector<WrongComponent> kWrongComponents = {
    {"kernel_without_its_magic", "Image", std::string(70000, 'k'),
     "Image' is no arm64 kernel image: 'ARM\\x64' is not at offset 56", "arch/arm64/boot/Image"},
    {"kernel_shorter_than_its_header", "Image", "MZ", "Image' is no arm64 kernel image", ""},
    {"kernel_larger_than_its_memory", "Image", kernelImage(4096) + "x",
     "Image' has 4097 bytes, but its header asks for a memory of 4096 bytes only", ""},
    {"device_tree_as_source", "cv22_kavro_qz7.dtb", "/dts-v1/; / { };",
     "cv22_kavro_qz7.dtb' is no device tree blob: it does not begin with D0 0D FE ED", "dtc"},
    {"device_tree_cut_off", "cv22_kavro_qz7.dtb", deviceTree(200).substr(0, 199),
     "cv22_kavro_qz7.dtb' states a device tree of 200 bytes, the file has 199 bytes", ""},
    {"device_tree_without_its_header", "cv22_kavro_qz7.dtb", deviceTree(39),
     "cv22_kavro_qz7.dtb' states a device tree of 39 bytes, its header alone has 40 bytes", ""},
    {"file_system_of_another_kind", "ext4", "hsqs" + std::string(300000, '\0'),
     "ext4' is no ext4 file system: 53 EF is not at offset 1080", "mke2fs"},
    {"file_system_shorter_than_its_superblock", "ext4", "x", "ext4' is no ext4 file system", ""},
    {"file_system_cut_off", "ext4", rootFileSystem(16384).substr(0, 16383),
     "ext4' states a file system of 16 blocks of 1024 bytes, the file has 16383 bytes", ""},
    {"file_system_with_more_blocks_than_32_bits_count", "ext4",
     replaced(replaced(rootFileSystem(16384), 1024 + 96, "\x80"), 1024 + 336, "\x01"),
     "ext4' states a file system of 4294967312 blocks of 1024 bytes", ""},
    {"file_system_with_large_blocks", "ext4", replaced(rootFileSystem(16384), 1024 + 24, "\x02"),
     "ext4' states a file system of 16 blocks of 4096 bytes", ""},
    {"file_system_with_a_damaged_superblock", "ext4", replaced(rootFileSystem(16384), 1024 + 24, "\x07"),
     "ext4' has a damaged superblock: 16 blocks of 2^17 bytes", ""},
    {"mcu_application_of_another_version", "mcu_flash_app.s19", mcuApplication(9),
     "mcu_flash_app.s19' carries version 9, the package 8", "give --version with"},
    {"mcu_application_that_is_no_s_record_file", "mcu_flash_app.s19", "not S-records\n",
     "mcu_flash_app.s19' is no application of the microcontroller: line 1: the record does not begin with "
     "'S'",
     ""},
    {"mcu_application_with_a_wrong_checksum", "mcu_flash_app.s19", withWrongChecksum(mcuApplication(8)),
     "mcu_flash_app.s19' is no application of the microcontroller: line 2: the checksum is wrong", ""},
    {"mcu_application_without_its_header", "mcu_flash_app.s19",
     srecords(0x8000, "code without a header in front"),
     "mcu_flash_app.s19' is no application of the microcontroller: no valid application header at 0x00008000",
     ""},
    {"mcu_application_at_a_wrong_address", "mcu_flash_app.s19", srecords(0, "KAVROMCU"),
     "mcu_flash_app.s19' is no application of the microcontroller: line 2: data at 0x00000000..0x00000007 is "
     "outside",
     "--change-addresses 0x8000,"},
    {"mcu_flash_driver_that_is_no_s_record_file", "mcu_flash_drv.s19", "S",
     "mcu_flash_drv.s19' is no flash driver of the microcontroller: line 1: the record is cut short", ""},
    {"mcu_flash_driver_outside_of_ram", "mcu_flash_drv.s19", mcuApplication(8),
     "mcu_flash_drv.s19' is no flash driver of the microcontroller: line 2: data at 0x00008000..0x0000801F "
     "is outside",
     "--change-addresses 0x20000000,"},
};

class WrongFormat : public Pack, public testing::WithParamInterface<WrongComponent> {};

TEST_P(WrongFormat, is_refused_with_what_is_wrong_and_packed_by_force_with_a_warning) {
    writeFile(component(GetParam().component), GetParam().bytes);
    expectRefusal(ErrorCode::kRefused, GetParam().fault, GetParam().next);
    expectRefusal(ErrorCode::kRefused, GetParam().fault, "--force");
    request.force = true;
    const kavro::package::PackSummary summary = pack();
    ASSERT_EQ(summary.warnings.size(), 1U);
    EXPECT_NE(summary.warnings.front().find(GetParam().fault), std::string::npos) << summary.warnings.front();
    EXPECT_EQ(readFile(extract() / GetParam().component), GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Pack, WrongFormat, testing::ValuesIn(kWrongComponents),
                         [](const testing::TestParamInfo<WrongComponent>& test) {
                             return std::string(test.param.name);
                         });

TEST_F(Pack, a_kernel_that_does_not_state_its_memory_is_packed) {
    writeFile(component("Image"), replaced(kernelImage(4096), 16, std::string(8, '\0')));
    EXPECT_TRUE(pack().warnings.empty());
}

TEST_F(Pack, a_file_system_and_a_device_tree_with_room_behind_them_are_packed) {
    writeFile(component("ext4"), rootFileSystem(16384) + std::string(5000, '\0'));
    writeFile(component("cv22_kavro_qz7.dtb"), deviceTree(200) + std::string(50, '\0'));
    EXPECT_TRUE(pack().warnings.empty());
}

TEST_F(Pack, all_faults_of_all_components_are_told_at_once) {
    fs::remove(component("bld_release.bin"));
    writeFile(component("cv22_kavro_qz7.dtb"), "");
    writeFile(component("ext4"), "no file system");
    writeFile(component("Image"), "no kernel");
    const kavro::Result<kavro::package::PackSummary> result = kavro::package::pack(request);
    ASSERT_FALSE(result.ok());
    const kavro::Error& error = result.error();
    EXPECT_NE(error.text.find("bld_release.bin' is missing"), std::string::npos);
    ASSERT_EQ(error.further.size(), 3U);
    const std::vector<std::string> parts = {"dtb' is empty", "ext4' is no ext4", "Image' is no arm64 kernel"};
    for (std::size_t index = 0; index < parts.size(); ++index) {
        const kavro::Error& other = error.further[index];
        EXPECT_NE(other.text.find(parts[index]), std::string::npos) << other.text;
        EXPECT_NE(other.next, "");
    }
}

TEST_F(Pack, a_missing_or_an_empty_component_is_refused_by_force_too) {
    request.force = true;
    writeFile(component("Image"), "");
    expectRefusal(ErrorCode::kRefused, "Image' is empty");
    fs::remove(component("Image"));
    expectRefusal(ErrorCode::kRefused, "Image' is missing");
}

TEST_F(Pack, components_larger_than_a_package_are_refused_by_force_too) {
    request.force = true;
    fs::resize_file(component("ext4"), kPackageBytes);
    expectRefusal(ErrorCode::kRefused, "the components come to");
}

TEST_F(Pack, components_larger_than_a_package_are_refused) {
    fs::resize_file(component("ext4"), kPackageBytes);
    expectRefusal(ErrorCode::kRefused, "the components come to");
}

TEST_F(Pack, components_that_fit_only_without_signatures_and_headers_are_refused) {
    // The sum of the sizes is within the limit, the archive is not.
    const std::uintmax_t others = 5000 + 200 + 70000 + fs::file_size(component("mcu_flash_app.s19")) +
                                  fs::file_size(component("mcu_flash_drv.s19"));
    fs::resize_file(component("ext4"), kPackageBytes - kTrailerBytes - others);
    expectRefusal(ErrorCode::kRefused, "the components come to");
}

TEST_F(Pack, missing_key_is_refused) {
    request.key = files / "nokey.pem";
    expectRefusal(ErrorCode::kRefused,
                  "the key '" + request.key.string() + "' cannot be read: No such file or directory");
}

TEST_F(Pack, directory_as_key_is_refused) {
    request.key = files.path();
    expectRefusal(ErrorCode::kRefused, files.path());
}

TEST_F(Pack, text_that_is_no_key_is_refused) {
    writeFile(request.key, "no key\n");
    expectRefusal(ErrorCode::kRefused, "key.pem' holds no private key");
}

TEST_F(Pack, public_key_in_place_of_the_private_one_is_refused) {
    writeFile(request.key, runProgram({"openssl", "pkey", "-in", request.key.string(), "-pubout"}).out);
    expectRefusal(ErrorCode::kRefused, "key.pem' holds no private key");
}

TEST_F(Pack, encrypted_key_is_refused_without_asking_for_its_password) {
    const fs::path encrypted = files / "encrypted.pem";
    ASSERT_EQ(runProgram({"openssl", "pkey", "-in", request.key.string(), "-aes256", "-passout",
                          "pass:secret", "-out", encrypted.string()})
                  .exitCode,
              0);
    request.key = encrypted;
    expectRefusal(ErrorCode::kRefused, "encrypted.pem' is encrypted");
}

TEST_F(Pack, key_that_cannot_sign_a_sha256_digest_is_refused) {
    ASSERT_EQ(
        runProgram({"openssl", "genpkey", "-algorithm", "ED25519", "-out", request.key.string()}).exitCode,
        0);
    expectRefusal(ErrorCode::kRefused, "key.pem' is neither an RSA nor an EC key");
}

TEST_F(Pack, key_and_texts_beyond_the_trailer_are_refused) {
    request.branch = std::string(3900, 'b');
    expectRefusal(ErrorCode::kRefused, "do not fit into the trailer");
}

TEST_F(Pack, output_in_a_missing_directory_is_refused) {
    request.output = files / "nowhere/out.pkg";
    expectRefusal(ErrorCode::kOther, "nowhere/out.pkg' cannot be created");
}

TEST_F(Pack, directory_as_output_is_refused) {
    request.output = files / "components";
    expectRefusal(ErrorCode::kOther, "components' exists and is no regular file");
}

TEST_F(Pack, fifo_as_output_is_refused) {
    ASSERT_EQ(mkfifo(request.output.c_str(), 0600), 0);
    expectRefusal(ErrorCode::kOther, "out.pkg' exists and is no regular file");
}

TEST_F(Pack, output_over_a_component_is_refused) {
    request.output = component("Image");
    expectRefusal(ErrorCode::kUsage, "is also an input");
    EXPECT_EQ(fs::file_size(component("Image")), 70000U);
}

TEST_F(Pack, output_over_the_builds_list_is_refused) {
    writeFile(component("version_list.acs"), "the build's own list\n");
    request.output = component("version_list.acs");
    expectRefusal(ErrorCode::kUsage, "is also an input");
}

TEST_F(Pack, output_over_the_key_is_refused) {
    request.output = request.key;
    expectRefusal(ErrorCode::kUsage, "is also an input");
}

TEST_F(Pack, an_older_package_is_replaced) {
    writeFile(request.output, "an older package");
    pack();
    EXPECT_EQ(fs::file_size(request.output), kPackageBytes);
}

TEST_F(Pack, a_refused_pack_leaves_an_older_package_alone) {
    writeFile(request.output, "an older package");
    fs::remove(component("Image"));
    expectRefusal(ErrorCode::kRefused, "is missing");
    EXPECT_EQ(readFile(request.output), "an older package");
}

TEST_F(Pack, a_linked_output_stays_a_link) {
    writeFile(files / "real.pkg", "");
    fs::create_symlink("real.pkg", request.output);
    pack();
    EXPECT_TRUE(fs::is_symlink(request.output));
    EXPECT_EQ(fs::file_size(files / "real.pkg"), kPackageBytes);
}

TEST_F(Pack, given_up_at_any_step_leaves_nothing_behind) {
    const std::vector<std::string> before = namesIn(files.path());
    int asked = 0;
    const auto count = [&asked] { return ++asked > 0; };
    ASSERT_TRUE(kavro::package::pack(request, count).ok());
    fs::remove(request.output);
    ASSERT_GT(asked, 3);
    for (int last = asked; last > 0; --last) {
        int left = last;
        const auto result = kavro::package::pack(request, [&left] { return --left > 0; });
        ASSERT_FALSE(result.ok()) << last;
        EXPECT_EQ(result.error().code, ErrorCode::kGivenUp);
        EXPECT_EQ(namesIn(files.path()), before) << last;
    }
}

}  // namespace
