#include "package/check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <ostream>

#include "package/pack.h"
#include "tests/support/device.h"
#include "tests/support/package_parts.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_package.h"

namespace {

namespace fs = std::filesystem;
using TemporaryDirectory = kavro_test::TempDir;
using kavro::ErrorCode;
using kavro::package::Check;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::makeComponents;
using testsupport::makeEcKey;
using testsupport::makeRsaKey;
using testsupport::ProgramResult;
using testsupport::readFile;
using testsupport::runProgram;
using testsupport::SigningKey;
using testsupport::TestPackage;
using testsupport::Trailer;
using testsupport::writeFile;

// Every fault of a package, those of its components included.
std::vector<std::string> allFaults(const Check& check) {
    std::vector<std::string> faults = check.faults;
    for (const kavro::package::ComponentCheck& component : check.components) {
        if (!component.fault.empty()) {
            faults.push_back(component.fault);
        }
    }
    return faults;
}

class PackageChecking : public testing::Test {
  protected:
    Check check() {
        package.writeTo(file);
        return kavro::package::check(file).value();
    }

    // The payload becomes what the tar commands of a script leave in "$out"; they run where the 14 files of a valid
    // package lie.
    void archiveBy(const std::string& script) {
        for (const auto& [name, bytes] : package.files()) {
            writeFile(fs::path(files / "tree") / name, bytes);
        }
        const ProgramResult result = runProgram(
            {"bash", "-euc", "cd \"$1\"; out=$2; " + script, "bash", files / "tree", files / "payload"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        package.setPayload(readFile(files / "payload"));
    }

    // What a device does with the package, by the tools that it does it with.
    bool deviceTakesIt() const {
        const char* const script = R"(
            mkdir "$2/device" && cd "$2/device" || exit 2
            trailer() { tail -c 4096 "$1" | tail -c +$(($2 + 1)) | head -c "$3"; }
            head -c $((16#$(trailer "$1" 0 8))) "$1" >../cut
            trailer "$1" 48 $((16#$(trailer "$1" 40 8))) >../key
            tar -xf ../cut || exit 1
            for file in bld_release.bin cv22_kavro_qz7.dtb ext4 Image mcu_flash_app.s19 mcu_flash_drv.s19 \
                version_list.acs; do
                openssl dgst -sha256 -verify ../key -signature "$file.sign" "$file" || exit 1
            done)";
        return runProgram({"bash", "-c", script, "bash", file, files.path()}).exitCode == 0;
    }

    void expectOneFault(const std::string& part) {
        EXPECT_THAT(allFaults(check()), ElementsAre(HasSubstr(part)));
    }

    const TemporaryDirectory files;
    const std::string file = files / "release.pkg";
    TestPackage package;
};

// --- what is in order -----------------------------------------------------------------------------------------------

TEST_F(PackageChecking, a_valid_package_is_in_order_and_every_field_is_read) {
    package.setVersions(1, 105, 8, 3);
    const Check result = check();
    EXPECT_THAT(allFaults(result), IsEmpty());
    EXPECT_TRUE(result.inOrder());
    EXPECT_TRUE(deviceTakesIt());
    EXPECT_EQ(result.trailer.payloadBytes, package.payloadBytes());
    EXPECT_EQ(result.trailer.md5, package.trailer().md5);
    EXPECT_EQ(result.trailer.publicKey, SigningKey::shared().publicKey());
    EXPECT_EQ(result.trailer.stamp, "20260101120000");
    EXPECT_EQ(result.trailer.ident, "0123456789abcdef0123456789abcdef01234567");
    EXPECT_EQ(kavro::package::formatVersion(result.trailer.version), "V01.105.008.003");
    EXPECT_EQ(result.trailer.branch, "main");
    EXPECT_EQ(result.trailer.user, "builder");
    EXPECT_EQ(result.keyDescription, "EC, 256 bits");
}

TEST_F(PackageChecking, components_come_in_their_order_with_size_and_digest) {
    const Check result = check();
    ASSERT_THAT(result.components, SizeIs(7));
    for (std::size_t index = 0; index < result.components.size(); ++index) {
        const kavro::package::ComponentCheck& component = result.components[index];
        const std::string bytes = package.files().at(testsupport::componentNames()[index]);
        writeFile(files / "component", bytes);
        EXPECT_EQ(component.name, testsupport::componentNames()[index]);
        EXPECT_EQ(component.bytes, bytes.size());
        EXPECT_EQ(component.sha256, runProgram({"sha256sum", files / "component"}).out.substr(0, 64));
    }
}

TEST_F(PackageChecking, digest_of_the_key_is_that_of_its_der_form) {
    const Check result = check();
    writeFile(files / "public.pem", SigningKey::shared().publicKey());
    const ProgramResult der =
        runProgram({"bash", "-o", "pipefail", "-c", "openssl pkey -pubin -in \"$0\" -outform DER | sha256sum",
                    files / "public.pem"});
    EXPECT_EQ(result.keyDigest, der.out.substr(0, 64));
}

TEST_F(PackageChecking, entries_are_told_in_the_archives_order) {
    package.addFile("notes.txt", "for people");
    package.writeTo(file);
    std::vector<std::string> names;
    (void)kavro::package::check(file, std::nullopt, [&](const kavro::package::Entry& entry) {
        EXPECT_EQ(entry.type, "file");
        names.push_back(entry.name);
    });
    EXPECT_THAT(names, SizeIs(15));
    EXPECT_THAT(names, Contains("notes.txt"));
    EXPECT_EQ(names.front(), "Image");
}

TEST_F(PackageChecking, an_upper_case_md5_is_in_order) {
    package.editTrailer([](Trailer& trailer) {
        for (char& digit : trailer.md5) {
            digit = static_cast<char>(toupper(digit));
        }
    });
    EXPECT_TRUE(check().inOrder());
}

TEST_F(PackageChecking, packages_of_the_tool_itself_are_in_order_with_either_kind_of_key) {
    makeComponents(files / "components");
    using MakeKey = void (*)(const fs::path&);
    const MakeKey makeKeys[] = {makeEcKey, [](const fs::path& path) { makeRsaKey(path); }};
    for (const MakeKey makeKey : makeKeys) {
        makeKey(files / "key.pem");
        kavro::package::PackRequest request;
        request.componentDir = files / "components";
        request.key = files / "key.pem";
        request.output = file;
        request.version = {1, 105, 8, 3};
        ASSERT_TRUE(kavro::package::pack(request).ok());
        EXPECT_THAT(allFaults(kavro::package::check(file).value()), IsEmpty());
    }
}

struct Archive {
    const char* name;
    const char* script;
    const char* fault;
};

void PrintTo(const Archive& archive, std::ostream* out) {
    *out << archive.name;
}

std::string nameOfCase(const testing::TestParamInfo<Archive>& test) {
    return test.param.name;
}

class GoodArchive : public PackageChecking, public testing::WithParamInterface<Archive> {};

TEST_P(GoodArchive, is_taken_as_a_device_takes_it) {
    archiveBy(GetParam().script);
    EXPECT_THAT(allFaults(check()), IsEmpty());
    EXPECT_TRUE(deviceTakesIt());
}

INSTANTIATE_TEST_SUITE_P(
    PackageChecking, GoodArchive,
    testing::Values(
        Archive{"of_a_directory", "tar -cf $out .", ""},
        Archive{"of_pax_format", "tar --format=pax -cf $out *", ""},
        Archive{"of_ustar_format", "tar --format=ustar -cf $out *", ""},
        Archive{"of_v7_format", "tar --format=v7 -cf $out *", ""},
        Archive{"with_a_long_name_besides", "touch $(printf '%0200d' 0); tar -cf $out *", ""},
        Archive{"with_signatures_first", "tar -cf $out *.sign; rm *.sign; tar -rf $out *", ""},
        Archive{"without_an_end_mark", "tar -b1 -cf $out *; truncate -s -1024 $out", ""},
        Archive{"of_pax_format_with_a_name_beyond_ascii", "touch größe; tar --format=pax -cf $out *", ""},
        Archive{"with_a_file_twice_that_is_no_component", "touch x; tar -cf $out *; tar -rf $out x", ""}),
    nameOfCase);

// --- the archive's faults -------------------------------------------------------------------------------------------

class BadArchive : public PackageChecking, public testing::WithParamInterface<Archive> {};

TEST_P(BadArchive, is_a_fault_that_says_why) {
    archiveBy(GetParam().script);
    const Check result = check();
    EXPECT_THAT(allFaults(result), Contains(HasSubstr(GetParam().fault)));
    EXPECT_FALSE(result.inOrder());
}

INSTANTIATE_TEST_SUITE_P(
    PackageChecking, BadArchive,
    testing::Values(
        Archive{"component_twice", "tar -cf $out *; tar -rf $out ext4",
                "holds 'ext4', which it has more than once"},
        Archive{"component_twice_by_another_name", "tar -cf $out *; tar -rf $out ./ext4",
                "holds './ext4', which it has more than once"},
        Archive{"signature_twice", "tar -cf $out *; tar -rf $out Image.sign",
                "holds 'Image.sign', which it has more than once"},
        Archive{"component_as_symbolic_link", "mv ext4 x; ln -s x ext4; tar -cf $out *",
                "holds 'ext4', which is no regular file (symbolic link)"},
        Archive{"component_as_hard_link", "ln -f Image zz; rm ext4; ln Image ext4; tar -cf $out *",
                "holds 'ext4', which is no regular file (hard link)"},
        Archive{"component_as_directory", "rm ext4; mkdir ext4; tar -cf $out *",
                "holds 'ext4/', which is no regular file (directory)"},
        Archive{"signature_as_fifo", "rm Image.sign; mkfifo Image.sign; tar -cf $out *",
                "holds 'Image.sign', which is no regular file (fifo)"},
        Archive{"link_besides", "ln -s /etc/passwd x; tar -cf $out *",
                "holds 'x', which is no regular file (symbolic link)"},
        Archive{"device_besides", "tar -cf $out *; tar -rf $out -C /dev null",
                "holds 'null', which is no regular file (device)"},
        Archive{"directory_besides", "mkdir x; tar -cf $out *",
                "holds 'x/', which is no regular file (directory)"},
        Archive{"component_below_a_directory", "mkdir x; mv ext4 x; tar -cf $out *.* Image x/ext4",
                "'ext4' is missing"},
        Archive{"name_that_leads_up", "tar -cPf $out * --transform 's,^ext4$,../ext4,'",
                "holds '../ext4', which does not lie at the archive's top level"},
        Archive{"absolute_name", "tar -cPf $out * --transform 's,^ext4$,/ext4,'",
                "holds '/ext4', which does not lie at the archive's top level"},
        Archive{"name_with_a_comma", "touch a,b; tar -cf $out *",
                "holds 'a,b', and a device takes a name with a comma for two"},
        Archive{"name_that_cannot_be_stored", "tar -cf $out * --transform \"s,^ext4$,$(printf '%0256d' 0),\"",
                "which is a longer name than a device can store"},
        Archive{"name_with_control_characters", "mkdir x; touch x/$'\\e[2J'; tar -cf $out *",
                "holds 'x/\\x1b[2J', which"},
        Archive{"owner_that_no_device_knows", "tar --pax-option=uid:=9999999999 -cf $out *",
                "whose owner is no number that a device knows"},
        Archive{"number_that_is_none",
                "tar --format=v7 -cf $out *; printf '0000x' | dd of=$out bs=1 seek=136 conv=notrunc",
                "the payload cannot be read as a plain tar archive"},
        Archive{"attributes_of_all_entries",
                "tar --format=pax --pax-option=globexthdr.name=g,comment=x -cf $out *",
                "an entry has the type 'g', which no entry of a package may have"},
        Archive{"file_with_holes", "truncate -s 1M hole; tar -Scf $out *", "an entry has the type 'S'"},
        Archive{"file_with_holes_of_pax_format", "truncate -s 1M hole; tar --format=pax -Scf $out *",
                "an entry has the attribute 'GNU.sparse.major'"},
        Archive{"sparse_file_of_gigabytes", "truncate -s 9G hole; tar --format=pax -Scf $out *",
                "holds 'hole', which claims to be larger than a package"},
        Archive{"compressed_archive", "tar -czf $out *; truncate -s %512 $out",
                "the payload cannot be read as a plain tar archive"},
        Archive{"no_archive", "head -c 10240 /dev/urandom >$out",
                "the payload cannot be read as a plain tar archive"},
        Archive{"archive_cut_in_a_file", "tar -cf $out *; truncate -s 2048 $out",
                "the payload cannot be read as a plain tar archive"},
        Archive{"archive_cut_in_a_block", "tar -cf $out *; truncate -s -10 $out",
                "is no whole number of tar blocks"},
        Archive{"second_archive_behind_the_first", "tar -cf $out *.* ext4; tar -c Image Image.sign >>$out",
                "'Image' is missing"}),
    nameOfCase);

TEST_F(PackageChecking, an_empty_archive_lacks_all_components) {
    package.emptyPayload();
    const std::vector<std::string> faults = allFaults(check());
    EXPECT_THAT(faults, SizeIs(7));
    EXPECT_THAT(faults, Each(HasSubstr("is missing from the archive")));
}

TEST_F(PackageChecking, a_payload_of_no_bytes_is_no_archive) {
    package.setPayload("");
    EXPECT_THAT(allFaults(check()), Contains(HasSubstr("cannot be read as a plain tar archive")));
}

TEST_F(PackageChecking, thousands_of_faulty_entries_are_not_told_one_by_one) {
    archiveBy("mkdir x; touch x/{1..1000}; tar -cf $out x; tar -rf $out *.* Image ext4");
    const Check result = check();
    EXPECT_THAT(result.faults, SizeIs(9));
    EXPECT_EQ(result.faults.back(), "the archive has 993 more such entries");
}

class EachComponent : public PackageChecking, public testing::WithParamInterface<std::string> {};

TEST_P(EachComponent, is_missed) {
    package.omit(GetParam());
    expectOneFault("'" + GetParam() + "' is missing from the archive");
}

TEST_P(EachComponent, is_missed_without_its_signature) {
    package.omit(GetParam() + ".sign");
    expectOneFault("'" + GetParam() + ".sign' is missing from the archive");
}

TEST_P(EachComponent, with_a_damaged_signature_is_a_fault) {
    package.corruptSignature(GetParam());
    expectOneFault("'" + GetParam() + "' has a signature that does not verify");
}

INSTANTIATE_TEST_SUITE_P(PackageChecking, EachComponent, testing::ValuesIn(testsupport::componentNames()),
                         [](const testing::TestParamInfo<std::string>& test) {
                             return "component_" + std::to_string(test.index);
                         });

TEST_F(PackageChecking, a_signature_by_another_key_is_a_fault) {
    package.signWithOtherKey("ext4");
    expectOneFault("'ext4' has a signature that does not verify");
}

TEST_F(PackageChecking, an_empty_component_is_a_fault) {
    package.setComponent("ext4", "");
    expectOneFault("'ext4' is empty");
}

TEST_F(PackageChecking, a_signature_of_megabytes_is_a_fault) {
    package.omit("ext4.sign").addFile("ext4.sign", "");
    archiveBy("truncate -s 4M ext4.sign; tar -cf $out *");
    expectOneFault("holds 'ext4.sign', which is too large for a signature");
}

TEST_F(PackageChecking, a_flipped_bit_of_a_component_shows_in_md5_and_signature) {
    package.setComponent("Image", std::string(4096, 'K'));
    package.flipPayloadByte(600);  // the first entry is Image
    EXPECT_THAT(allFaults(check()), ElementsAre(HasSubstr("the payload has the md5 "),
                                                HasSubstr("'Image' has a signature that does not verify")));
}

TEST_F(PackageChecking, a_flipped_bit_behind_the_archives_end_shows_in_the_md5) {
    package.flipPayloadByte(-1);
    expectOneFault("the payload has the md5 ");
}

// --- the release list -----------------------------------------------------------------------------------------------

TEST_F(PackageChecking, a_release_list_is_read) {
    package.setVersions(1, 105, 8, 3);
    const Check result = check();
    ASSERT_TRUE(result.release.has_value());
    EXPECT_EQ(kavro::package::formatVersion(result.release->version), "V01.105.008.003");
    EXPECT_EQ(result.parts.back().name, "release");
}

TEST_F(PackageChecking, a_release_list_of_another_version_is_a_fault_without_a_trusted_key_too) {
    package.editTrailer([](Trailer& trailer) { trailer.version = "001002003005"; });
    expectOneFault("the release list is that of V01.002.003.004, the trailer states V01.002.003.005");
}

TEST_F(PackageChecking, a_release_list_of_another_component_is_a_fault_without_a_trusted_key_too) {
    package.setComponent("version_list.acs", package.files().at("version_list.acs"));
    package.setComponent("bld_release.bin", "another one");
    expectOneFault("'bld_release.bin' is not that of this release: it has 11 bytes with the sha256 ");
}

TEST_F(PackageChecking, a_release_list_with_a_wrong_line_is_a_fault) {
    package.setComponent("version_list.acs", package.files().at("version_list.acs") + "colour blue\n");
    expectOneFault("line 12 of the release list is 'colour blue', where 'note' belongs");
}

TEST_F(PackageChecking, a_release_list_of_megabytes_is_a_fault) {
    package.setComponent("version_list.acs",
                         package.files().at("version_list.acs") + std::string(2 << 20, 'x'));
    expectOneFault("the release list has more than 16384 bytes");
}

// --- the trailer's faults -------------------------------------------------------------------------------------------

struct Damage {
    const char* name;
    std::function<void(Trailer&)> edit;
    const char* fault;
};

void PrintTo(const Damage& damage, std::ostream* out) {
    *out << damage.name;
}

class DamagedTrailer : public PackageChecking, public testing::WithParamInterface<Damage> {};

TEST_P(DamagedTrailer, is_a_fault_that_says_where) {
    package.editTrailer(GetParam().edit);
    const Check result = check();
    EXPECT_THAT(result.faults, Contains(HasSubstr(GetParam().fault)));
    EXPECT_FALSE(result.inOrder());
    EXPECT_THAT(result.components, SizeIs(7));
}

const std::vector<Damage> kDamages = {
    Damage{"payload_length_is_no_number", [](Trailer& trailer) { trailer.payloadLength = "0000 100"; },
           "the length of the payload in the trailer is '0000 100', which is no hexadecimal number"},
    Damage{"payload_length_is_too_large", [](Trailer& trailer) { trailer.payloadLength = "07FFF001"; },
           "the trailer states a payload of 134213633 bytes, a package holds 134213632 at most"},
    Damage{"md5_is_no_number", [](Trailer& trailer) { trailer.md5.back() = '\t'; },
           "which is no hexadecimal number"},
    Damage{"md5_of_something_else", [](Trailer& trailer) { trailer.md5 = std::string(32, '0'); },
           "the trailer states 00000000000000000000000000000000"},
    Damage{"key_length_is_no_number", [](Trailer& trailer) { trailer.keyLength = "0x0000B2"; },
           "the length of the public key in the trailer is '0x0000B2', which is no hexadecimal number"},
    Damage{"key_length_is_beyond_the_trailer", [](Trailer& trailer) { trailer.keyLength = "FFFFFFFF"; },
           "the trailer is too short for its public key of 4294967295 bytes"},
    Damage{"key_leaves_no_room_for_the_versions", [](Trailer& trailer) { trailer.keyLength = "00000FD0"; },
           "the trailer is too short for its stamp"},
    Damage{"key_is_no_key", [](Trailer& trailer) { trailer.key.assign(trailer.key.size(), 'x'); },
           "the trailer holds no public key in PEM format"},
    Damage{"key_is_cut", [](Trailer& trailer) { trailer.keyLength = "00000060"; },
           "the trailer holds no public key in PEM format"},
    Damage{"key_is_empty",
           [](Trailer& trailer) {
               trailer.key = "";
               trailer.keyLength = "00000000";
           },
           "the trailer holds no public key in PEM format"},
    Damage{"key_is_behind_other_text",
           [](Trailer& trailer) {
               trailer.key = "a key:\n" + trailer.key;
               trailer.keyLength = testsupport::hexText(trailer.key.size());
           },
           "the trailer holds no public key in PEM format"},
    Damage{"key_is_the_private_one",
           [](Trailer& trailer) {
               trailer.key = SigningKey::shared().privateKey();
               trailer.keyLength = testsupport::hexText(trailer.key.size());
           },
           "the trailer holds a private key"},
    Damage{
        "key_is_neither_rsa_nor_ec",
        [](Trailer& trailer) {
            trailer.key =
                runProgram({"bash", "-c", "openssl genpkey -algorithm ed25519 | openssl pkey -pubout"}).out;
            trailer.keyLength = testsupport::hexText(trailer.key.size());
        },
        "the trailer holds a key that is neither RSA nor EC"},
    Damage{"version_is_no_number", [](Trailer& trailer) { trailer.version = "001 -2003004"; },
           "a version in the trailer is ' -2', which is no number of three digits"},
    Damage{"branch_length_is_no_number", [](Trailer& trailer) { trailer.branchLength = "-0000004"; },
           "the length of the branch text in the trailer is '-0000004'"},
    Damage{"branch_is_beyond_the_trailer", [](Trailer& trailer) { trailer.branchLength = "00001000"; },
           "the trailer is too short for its branch text of 4096 bytes"},
    Damage{"branch_length_leads_backwards", [](Trailer& trailer) { trailer.branchLength = "FFFFFFFF"; },
           "the trailer is too short for its branch text of 4294967295 bytes"},
    Damage{"user_length_is_no_number",
           [](Trailer& trailer) { trailer.userLength = std::string("\x1b[2J\0\0\0\0", 8); },
           "the length of the user text in the trailer is '\\x1b[2J\\x00\\x00\\x00\\x00'"},
    Damage{"user_is_beyond_the_trailer", [](Trailer& trailer) { trailer.userLength = "00000FFF"; },
           "the trailer is too short for its user text of 4095 bytes"},
    Damage{"rest_is_not_empty", [](Trailer& trailer) { trailer.fill = 'x'; },
           "the unused end of the trailer"},
};

INSTANTIATE_TEST_SUITE_P(PackageChecking, DamagedTrailer, testing::ValuesIn(kDamages),
                         [](const testing::TestParamInfo<Damage>& test) {
                             return std::string(test.param.name);
                         });

TEST_F(PackageChecking, what_stands_behind_a_damaged_field_is_still_read) {
    package.editTrailer([](Trailer& trailer) { trailer.payloadLength = "........"; });
    const Check result = check();
    EXPECT_EQ(result.trailer.branch, "main");
    EXPECT_EQ(result.keyDescription, "EC, 256 bits");
}

TEST_F(PackageChecking, the_md5_of_a_package_without_a_usable_key_is_still_checked) {
    package.editTrailer([](Trailer& trailer) { trailer.key.assign(trailer.key.size(), 'x'); });
    const Check result = check();
    EXPECT_THAT(result.faults, ElementsAre("the trailer holds no public key in PEM format"));
    EXPECT_EQ(result.components[0].fault, "'bld_release.bin' cannot be checked without a key");
}

// --- the trusted key ------------------------------------------------------------------------------------------------

class TrustedKey : public PackageChecking {
  protected:
    TrustedKey() { package.writeTo(file); }

    void expectRefusedKey(ErrorCode code, const std::string& part) {
        const kavro::Result<Check> result = kavro::package::check(file, trusted);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error().code, code);
        EXPECT_THAT(result.error().text, HasSubstr("'" + trusted.string() + "' " + part));
        EXPECT_NE(result.error().next, "");
    }

    const fs::path trusted = files / "trusted.pem";
};

TEST_F(TrustedKey, is_the_one_that_signed) {
    writeFile(trusted, SigningKey::shared().publicKey());
    EXPECT_TRUE(kavro::package::check(file, trusted).value().inOrder());
}

TEST_F(TrustedKey, is_compared_by_its_value_and_not_by_its_text) {
    writeFile(trusted, "the key of release builds\n" + SigningKey::shared().publicKey() + "\n\n");
    EXPECT_TRUE(kavro::package::check(file, trusted).value().inOrder());
}

TEST_F(TrustedKey, of_somebody_else_makes_a_fault_of_a_package_that_is_otherwise_in_order) {
    writeFile(trusted, SigningKey().publicKey());
    EXPECT_THAT(allFaults(kavro::package::check(file, trusted).value()),
                ElementsAre(HasSubstr("does not carry the trusted key (EC, 256 bits, sha256 ")));
}

TEST_F(TrustedKey, of_another_kind_is_another_key) {
    makeRsaKey(files / "rsa.pem");
    writeFile(trusted, runProgram({"openssl", "pkey", "-in", files / "rsa.pem", "-pubout"}).out);
    EXPECT_THAT(allFaults(kavro::package::check(file, trusted).value()),
                ElementsAre(HasSubstr("(RSA, 2048 bits, sha256 ")));
}

// --- what only the trusted key's package must be --------------------------------------------------------------------------

// A package that a device takes, and of which no maker's package is: a warning, and with a trusted key a fault.
class UnlikePacked : public TrustedKey {
  protected:
    void expectWarningOrFault(const std::string& part) {
        const Check open = check();
        EXPECT_TRUE(open.inOrder()) << testing::PrintToString(allFaults(open));
        EXPECT_THAT(open.warnings, Contains(HasSubstr(part)));
        EXPECT_TRUE(deviceTakesIt());
        writeFile(trusted, SigningKey::shared().publicKey());
        const Check strict = kavro::package::check(file, trusted).value();
        EXPECT_THAT(allFaults(strict), Contains(HasSubstr(part)));
        EXPECT_THAT(strict.warnings, IsEmpty());
    }
};

TEST_F(UnlikePacked, a_packed_one_has_no_warnings) {
    EXPECT_THAT(check().warnings, IsEmpty());
}

TEST_F(UnlikePacked, a_list_of_another_form) {
    package.setComponent("version_list.acs", "hw 1\nmpu 2\n");
    expectWarningOrFault("'version_list.acs' is no release list");
    EXPECT_FALSE(check().release.has_value());
}

TEST_F(UnlikePacked, a_list_of_a_later_format) {
    package.setComponent("version_list.acs", "release_list 2\n");
    expectWarningOrFault("'version_list.acs' is a release list in a format that is not known here");
}

TEST_F(UnlikePacked, a_kernel_that_is_none) {
    package.setComponent("Image", "no kernel");
    expectWarningOrFault("'Image' is no arm64 kernel image");
}

TEST_F(UnlikePacked, a_device_tree_that_is_none) {
    package.setComponent("cv22_kavro_qz7.dtb", "no device tree");
    expectWarningOrFault("'cv22_kavro_qz7.dtb' is no device tree blob");
}

TEST_F(UnlikePacked, a_root_file_system_that_is_none) {
    package.setComponent("ext4", "no file system");
    expectWarningOrFault("'ext4' is no ext4 file system");
}

TEST_F(UnlikePacked, an_application_of_another_version) {
    package.setComponent("mcu_flash_app.s19", testsupport::mcuApplication(9));
    expectWarningOrFault("'mcu_flash_app.s19' carries version 9, the package 3");
}

TEST_F(UnlikePacked, a_flash_driver_that_is_none) {
    package.setComponent("mcu_flash_drv.s19", "S\n");
    expectWarningOrFault("'mcu_flash_drv.s19' is no flash driver of the microcontroller: line 1");
}

TEST_F(UnlikePacked, a_file_besides) {
    package.addFile("notes.txt", "for people");
    expectWarningOrFault("the archive holds 'notes.txt', which is neither a component nor a signature");
}

TEST_F(UnlikePacked, names_with_a_directory_in_front) {
    archiveBy("tar --mode=0644 -cf $out ./*");
    expectWarningOrFault("the archive holds './Image', whose name has a directory in front");
}

TEST_F(UnlikePacked, the_directory_that_it_was_made_of) {
    archiveBy("tar -cf $out .");
    expectWarningOrFault("the archive holds './', the directory that it was made of");
}

TEST_F(UnlikePacked, a_file_with_another_mode) {
    archiveBy("tar --owner=0 --group=0 --mode=04755 -cf $out *");
    expectWarningOrFault("the archive holds 'Image', which has the mode 4755 instead of 0644");
}

TEST_F(UnlikePacked, a_file_of_another_owner) {
    archiveBy("tar --owner=1000 --group=0 --mode=0644 --numeric-owner -cf $out *");
    expectWarningOrFault("the archive holds 'Image', which does not belong to root");
}

TEST_F(UnlikePacked, a_file_of_another_group) {
    archiveBy("tar --owner=0 --group=5 --mode=0644 --numeric-owner -cf $out *");
    expectWarningOrFault("the archive holds 'Image', which does not belong to root");
}

TEST_F(UnlikePacked, a_file_of_another_owner_by_name) {
    archiveBy("tar --owner=daemon:0 --group=0 --mode=0644 -cf $out *");
    expectWarningOrFault("the archive holds 'Image', which does not belong to root");
}

TEST_F(UnlikePacked, hundreds_of_such_entries_are_not_told_one_by_one) {
    for (int number = 0; number < 100; ++number) {
        package.addFile("x" + std::to_string(number), "");
    }
    const Check result = check();
    EXPECT_TRUE(result.inOrder());
    ASSERT_THAT(result.warnings, SizeIs(9));
    EXPECT_EQ(result.warnings.back(), "the archive has 92 more such entries");
}

// --- the trusted key's file -----------------------------------------------------------------------------------------

TEST_F(TrustedKey, that_is_private_is_a_wrong_command_line) {
    writeFile(trusted, SigningKey::shared().privateKey());
    expectRefusedKey(ErrorCode::kUsage, "holds a private key");
}

TEST_F(TrustedKey, that_is_no_key_is_a_wrong_command_line) {
    writeFile(trusted, "no key");
    expectRefusedKey(ErrorCode::kUsage, "holds no public key");
}

TEST_F(TrustedKey, that_is_empty_is_a_wrong_command_line) {
    writeFile(trusted, "");
    expectRefusedKey(ErrorCode::kUsage, "holds no public key");
}

TEST_F(TrustedKey, that_is_absent_cannot_be_read) {
    expectRefusedKey(ErrorCode::kUsage, "cannot be read: No such file or directory");
}

TEST_F(TrustedKey, that_is_a_directory_cannot_be_read) {
    fs::create_directory(trusted);
    expectRefusedKey(ErrorCode::kUsage, "cannot be read: Is a directory");
}

// --- what is no package ---------------------------------------------------------------------------------------------

class NoPackage : public PackageChecking {
  protected:
    void expectRefusal(const std::string& part) {
        const kavro::Result<Check> result = kavro::package::check(file);
        ASSERT_FALSE(result.ok());
        EXPECT_EQ(result.error().code, ErrorCode::kRefused);
        EXPECT_THAT(result.error().text, HasSubstr("'" + file + "' " + part));
        EXPECT_NE(result.error().next, "");
        EXPECT_EQ(kavro::package::readTrailer(file).error().text, result.error().text);
        EXPECT_EQ(kavro::package::readVersion(file), "");
    }
};

TEST_F(NoPackage, is_a_file_of_another_size) {
    package.setTotalSize(testsupport::kPackageBytes - 1).writeTo(file);
    expectRefusal("has 134217727 bytes, a package has exactly 134217728");
}

TEST_F(NoPackage, is_an_empty_file) {
    writeFile(file, "");
    expectRefusal("has 0 bytes");
}

TEST_F(NoPackage, is_a_missing_file) {
    expectRefusal("cannot be read: No such file or directory");
}

TEST_F(NoPackage, is_a_directory) {
    fs::create_directory(file);
    expectRefusal("is no regular file");
}

TEST_F(NoPackage, is_a_fifo_that_nobody_writes_to) {
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    expectRefusal("is no regular file");
}

TEST_F(NoPackage, of_random_bytes_is_read_as_far_as_that_goes) {
    const ProgramResult made = runProgram(
        {"bash", "-euc", "truncate -s 134213632 \"$1\"; head -c 4096 /dev/urandom >>\"$1\"", "bash", file});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    EXPECT_FALSE(kavro::package::check(file).value().inOrder());
}

}  // namespace
