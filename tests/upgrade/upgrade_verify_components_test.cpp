// Whether an unpacked package may be flashed: what counts as complete, and which signature is checked when.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/shell_recorder.h"
#include "tests/support/test_package.h"
#include "tests/upgrade/failing_access.h"
#include "tests/upgrade/package_services.h"
#include "upgrade/upgrade_proc_pkg.h"
#include "upgrade/upgrade_verify_components.h"

namespace {

using package_services::errorShape;
using package_services::logShape;
using testsupport::componentNames;
using testsupport::SigningKey;
using testsupport::TestPackage;

using Lines = std::vector<std::string>;

constexpr const char* kPubkey = "/tmp/pubkey";
constexpr const char* kDir = "/raw/upgrade";

std::string verifyError(const std::string& message) {
    return errorShape("upgrade/upgrade_verify_components", "UPGRADE_verify_signature", message);
}

std::string summary(int count, int result) {
    return verifyError("comp_valid_num = " + std::to_string(count) + ", ret = " + std::to_string(result) +
                       "\n");
}

std::string missing(const std::string& path) {
    return verifyError("filePath '" + path + "' not exist!\n");
}

std::string badSignature(const std::string& component) {
    return verifyError("verify_signature '" + component + "' fail!\n");
}

std::string opensslCommand(const std::string& component) {
    const std::string file = std::string(kDir) + "/" + component;
    return "openssl dgst -sha256 -verify /tmp/pubkey -signature " + file + ".sign " + file;
}

// The commands for the components up to this one.
Lines commandsThrough(const std::string& last) {
    Lines commands;
    for (const std::string& component : componentNames()) {
        commands.push_back(opensslCommand(component));
        if (component == last) {
            break;
        }
    }
    return commands;
}

// All fourteen names, in the order of a listing.
Lines allNames() {
    Lines names;
    for (const std::string& component : componentNames()) {
        names.push_back(component);
        names.push_back(component + ".sign");
    }
    std::sort(names.begin(), names.end());
    return names;
}

Lines without(Lines names, const std::string& name) {
    names.erase(std::remove(names.begin(), names.end(), name), names.end());
    return names;
}

std::string joined(const Lines& names) {
    std::string text;
    for (const std::string& name : names) {
        text += name + ",";
    }
    return text;
}

class ComponentVerification : public testing::Test {
  protected:
    ComponentVerification() {
        package_services::reset();
        unpackTo(kDir);
        testsupport::writeFile(kPubkey, SigningKey::shared().publicKey());
    }
    ~ComponentVerification() override { package_services::reset(); }

    void unpackTo(const std::string& dir) const {
        for (const auto& [name, bytes] : package.files()) {
            testsupport::writeFile(std::string(dir).append("/").append(name), bytes);
        }
    }
    static std::string fileOf(const std::string& name) { return std::string(kDir) + "/" + name; }

    static int verify(const std::string& components) {
        fake::resetCommands();
        fake::log().clear();
        return UPGRADE_verify_signature(kDir, components, kPubkey);
    }
    static int verify() { return verify(joined(allNames())); }

    // Signs the components with another key, by the tools that a packer uses.
    static void signWithNewKey(const std::string& genpkeyArguments) {
        package_services::shell(
            "openssl genpkey " + genpkeyArguments +
            " -out /tmp/private 2>/dev/null && openssl pkey -in /tmp/private -pubout -out "
            "/tmp/pubkey");
        for (const std::string& component : componentNames()) {
            package_services::shell("openssl dgst -sha256 -sign /tmp/private -out " + fileOf(component) +
                                    ".sign " + fileOf(component));
        }
    }

    static void expectRefusedAt(const std::string& component) {
        EXPECT_EQ(logShape(), Lines{badSignature(component)});
        EXPECT_EQ(fake::commands(), commandsThrough(component));
    }
    static void expectRefusedUnchecked(const Lines& lines) {
        EXPECT_EQ(logShape(), lines);
        EXPECT_TRUE(fake::commands().empty());
    }

    TestPackage package;
};

// --- success

TEST_F(ComponentVerification, signed_set_of_fourteen_files_passes_without_a_log_line) {
    EXPECT_EQ(verify(), 0);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ComponentVerification, components_are_checked_in_the_tables_order) {
    EXPECT_EQ(verify(), 0);
    EXPECT_EQ(fake::commands(),
              (Lines{opensslCommand("bld_release.bin"), opensslCommand("cv22_kavro_qz7.dtb"),
                     opensslCommand("ext4"), opensslCommand("Image"), opensslCommand("mcu_flash_app.s19"),
                     opensslCommand("mcu_flash_drv.s19"), opensslCommand("version_list.acs")}));
}

TEST_F(ComponentVerification, order_of_the_listing_makes_no_difference) {
    Lines names = allNames();
    std::reverse(names.begin(), names.end());
    EXPECT_EQ(verify(joined(names)), 0);
    EXPECT_EQ(fake::commands(), commandsThrough("version_list.acs"));
}

TEST_F(ComponentVerification, trailing_comma_makes_no_difference) {
    std::string components = joined(allNames());
    ASSERT_EQ(components.back(), ',');
    components.pop_back();
    EXPECT_EQ(verify(components), 0);
}

TEST_F(ComponentVerification, empty_pieces_neither_count_nor_fail) {
    EXPECT_EQ(verify(",," + joined(allNames()) + ",,"), 0);
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(ComponentVerification, unrelated_file_neither_counts_nor_fails) {
    testsupport::writeFile(fileOf("readme.txt"), "extra");
    EXPECT_EQ(verify("readme.txt," + joined(allNames())), 0);
    EXPECT_EQ(fake::commands(), commandsThrough("version_list.acs"));
}

TEST_F(ComponentVerification, many_unrelated_files_neither_count_nor_fail) {
    std::string components = joined(allNames());
    for (int i = 0; i < 500; ++i) {
        const std::string name = "extra" + std::to_string(i);
        testsupport::writeFile(fileOf(name), "");
        components += name + ",";
    }
    EXPECT_EQ(verify(components), 0);
}

TEST_F(ComponentVerification, directories_in_front_of_the_names_make_no_difference) {
    std::string components;
    unsigned row = 0;
    for (const std::string& name : allNames()) {
        static const char* const fronts[] = {"/raw/upgrade/", "a/b/c/", "./", "../", "/", "//x//", ""};
        components += fronts[row++ % std::size(fronts)] + name + ",";
    }
    EXPECT_EQ(verify(components), 0);
    EXPECT_EQ(fake::commands(), commandsThrough("version_list.acs"));
}

TEST_F(ComponentVerification, path_that_is_tested_is_made_from_the_directory) {
    std::filesystem::create_directory("/raw/elsewhere");
    testsupport::writeFile("/raw/elsewhere/extra", "");
    EXPECT_EQ(verify("/raw/elsewhere/extra," + joined(allNames())), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/extra"), summary(0, -1)});
}

TEST_F(ComponentVerification, file_about_which_storage_gives_no_answer_counts_as_missing) {
    const upgradetest::UnansweredPath unanswered(fileOf("Image.sign"));
    EXPECT_EQ(verify(), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/Image.sign"), summary(2, -1)});
}

TEST_F(ComponentVerification, files_and_key_are_left_as_they_are) {
    std::map<std::string, std::string> before;
    for (const std::string& name : testsupport::namesIn(kDir)) {
        before[name] = testsupport::readFile(fileOf(name));
    }
    EXPECT_EQ(verify(), 0);
    for (const auto& [name, bytes] : before) {
        EXPECT_EQ(testsupport::readFile(fileOf(name)), bytes) << name;
    }
    EXPECT_EQ(testsupport::namesIn(kDir), allNames());
    EXPECT_EQ(testsupport::readFile(kPubkey), SigningKey::shared().publicKey());
}

TEST_F(ComponentVerification, rsa_keys_are_supported) {
    for (const char* bits : {"2048", "4096"}) {
        signWithNewKey(std::string("-algorithm RSA -pkeyopt rsa_keygen_bits:") + bits);
        EXPECT_EQ(verify(), 0) << bits;
    }
}

TEST_F(ComponentVerification, elliptic_curve_keys_are_supported) {
    for (const char* curve : {"P-256", "P-384", "P-521"}) {
        signWithNewKey(std::string("-algorithm EC -pkeyopt ec_paramgen_curve:") + curve);
        EXPECT_EQ(verify(), 0) << curve;
    }
}

TEST_F(ComponentVerification, empty_component_is_verified_like_any_other) {
    testsupport::writeFile(fileOf("Image"), "");
    testsupport::writeFile(fileOf("Image.sign"), SigningKey::shared().sign(""));
    EXPECT_EQ(verify(), 0);
}

TEST_F(ComponentVerification, processed_package_passes) {
    package.setTotalSize(1UL << 20U).writeTo("/firmware/upgrade.pkg");
    std::filesystem::remove_all(kDir);
    std::filesystem::remove(kPubkey);
    UPGADE_PKG_OUT_T out;
    ASSERT_EQ(UPGRADE_proc_upgrade_pkg(out, {"/firmware/upgrade.pkg", kDir}, false), 0);
    EXPECT_EQ(UPGRADE_verify_signature(kDir, out.components, out.pubkey_file), 0);
}

TEST_F(ComponentVerification, package_with_the_biggest_key_passes) {
    constexpr unsigned long kBiggestKey = testsupport::kTrailerBytes - 114;
    package.setTotalSize(1UL << 20U)
        .editTrailer([](testsupport::Trailer& fields) {
            fields.key.resize(kBiggestKey, '\n');
            fields.keyLength = testsupport::hexText(kBiggestKey);
        })
        .writeTo("/firmware/upgrade.pkg");
    UPGADE_PKG_OUT_T out;
    ASSERT_EQ(UPGRADE_proc_upgrade_pkg(out, {"/firmware/upgrade.pkg", kDir}, false), 0);
    EXPECT_EQ(testsupport::sizeOf(kPubkey), static_cast<long>(kBiggestKey));
    EXPECT_EQ(UPGRADE_verify_signature(kDir, out.components, out.pubkey_file), 0);
}

// --- an incomplete set

TEST_F(ComponentVerification, empty_list_is_refused) {
    EXPECT_EQ(verify(""), -1);
    expectRefusedUnchecked({summary(0, 0)});
}

TEST_F(ComponentVerification, list_of_commas_is_refused) {
    EXPECT_EQ(verify(",,,"), -1);
    expectRefusedUnchecked({summary(0, 0)});
}

TEST_F(ComponentVerification, listing_without_the_last_signature_counts_13) {
    EXPECT_EQ(verify(joined(without(allNames(), "version_list.acs.sign"))), -1);
    expectRefusedUnchecked({summary(13, 0)});
}

TEST_F(ComponentVerification, listing_without_any_one_of_the_names_counts_13) {
    for (const std::string& name : allNames()) {
        EXPECT_EQ(verify(joined(without(allNames(), name))), -1) << name;
        expectRefusedUnchecked({summary(13, 0)});
    }
}

TEST_F(ComponentVerification, single_name_counts_1) {
    for (const std::string& name : allNames()) {
        EXPECT_EQ(verify(name), -1) << name;
        expectRefusedUnchecked({summary(1, 0)});
    }
}

TEST_F(ComponentVerification, names_that_are_only_similar_do_not_count) {
    for (const char* name :
         {".sign", "image", "IMAGE", "Image.sign.sign", "Image.SIGN", "Image.", "Imag", "Image ", " Image",
          "Image.sig", "ext", "ext4.img", "bld_release", "version_list.acs~"}) {
        testsupport::writeFile(fileOf(name), "");
        EXPECT_EQ(verify(name), -1) << name;
        expectRefusedUnchecked({summary(0, 0)});
    }
}

TEST_F(ComponentVerification, name_listed_twice_counts_twice) {
    EXPECT_EQ(verify("Image," + joined(allNames())), -1);
    expectRefusedUnchecked({summary(15, 0)});
}

TEST_F(ComponentVerification, duplicate_in_place_of_a_component_is_caught_by_its_signature_check) {
    std::filesystem::remove(fileOf("mcu_flash_drv.s19"));
    EXPECT_EQ(verify("Image," + joined(without(allNames(), "mcu_flash_drv.s19"))), -1);
    expectRefusedAt("mcu_flash_drv.s19");
}

TEST_F(ComponentVerification, duplicate_in_place_of_a_signature_is_caught_by_its_check) {
    std::filesystem::remove(fileOf("ext4.sign"));
    EXPECT_EQ(verify("Image," + joined(without(allNames(), "ext4.sign"))), -1);
    expectRefusedAt("ext4");
}

TEST_F(ComponentVerification, duplicate_in_place_of_a_name_that_is_there_passes) {
    EXPECT_EQ(verify("Image," + joined(without(allNames(), "ext4"))), 0);
}

TEST_F(ComponentVerification, listed_file_that_is_missing_is_named_with_the_count_so_far) {
    const Lines names = allNames();
    for (unsigned long row = 0; row < names.size(); ++row) {
        std::filesystem::rename(fileOf(names[row]), "/raw/aside");
        EXPECT_EQ(verify(), -1) << names[row];
        expectRefusedUnchecked({missing(fileOf(names[row])), summary(static_cast<int>(row) + 1, -1)});
        std::filesystem::rename("/raw/aside", fileOf(names[row]));
    }
}

TEST_F(ComponentVerification, missing_file_that_is_no_component_does_not_count) {
    EXPECT_EQ(verify("Image,Image.sign,gone.txt,ext4,"), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/gone.txt"), summary(2, -1)});
}

TEST_F(ComponentVerification, missing_file_at_the_end_of_a_whole_listing_is_refused) {
    EXPECT_EQ(verify(joined(allNames()) + "gone.txt"), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/gone.txt"), summary(14, -1)});
}

TEST_F(ComponentVerification, dangling_link_is_a_missing_file) {
    std::filesystem::remove(fileOf("Image"));
    std::filesystem::create_symlink("nowhere", fileOf("Image"));
    EXPECT_EQ(verify("Image,"), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/Image"), summary(1, -1)});
}

TEST_F(ComponentVerification, missing_directory_is_seen_at_the_first_file) {
    EXPECT_EQ(UPGRADE_verify_signature("/raw/none", joined(allNames()), kPubkey), -1);
    expectRefusedUnchecked({missing("/raw/none/Image"), summary(1, -1)});
}

TEST_F(ComponentVerification, empty_directory_path_is_the_root) {
    EXPECT_EQ(UPGRADE_verify_signature("", joined(allNames()), kPubkey), -1);
    expectRefusedUnchecked({missing("/Image"), summary(1, -1)});
}

TEST_F(ComponentVerification, comma_in_a_file_name_makes_two_names) {
    testsupport::writeFile(fileOf("a,b"), "");
    EXPECT_EQ(verify("a,b," + joined(allNames())), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/a"), summary(0, -1)});
}

// --- a signature that does not verify

TEST_F(ComponentVerification, bad_signature_on_ext4_stops_at_row_3) {
    package.corruptSignature("ext4");
    unpackTo(kDir);
    EXPECT_EQ(verify(), -1);
    EXPECT_EQ(logShape(), Lines{badSignature("ext4")});
    EXPECT_EQ(fake::commands(), (Lines{opensslCommand("bld_release.bin"),
                                       opensslCommand("cv22_kavro_qz7.dtb"), opensslCommand("ext4")}));
}

TEST_F(ComponentVerification, bad_signature_stops_at_its_row) {
    for (const std::string& component : componentNames()) {
        TestPackage damaged;
        damaged.corruptSignature(component);
        testsupport::writeFile(fileOf(component + ".sign"), damaged.files().at(component + ".sign"));
        EXPECT_EQ(verify(), -1) << component;
        expectRefusedAt(component);
        testsupport::writeFile(fileOf(component + ".sign"), package.files().at(component + ".sign"));
    }
    EXPECT_EQ(verify(), 0);
}

TEST_F(ComponentVerification, changed_component_stops_at_its_row) {
    for (const std::string& component : componentNames()) {
        const std::string bytes = testsupport::readFile(fileOf(component));
        for (const std::string& changed : {bytes + '\0', bytes.substr(1), std::string()}) {
            testsupport::writeFile(fileOf(component), changed);
            EXPECT_EQ(verify(), -1) << component;
            expectRefusedAt(component);
        }
        testsupport::writeFile(fileOf(component), bytes);
    }
    EXPECT_EQ(verify(), 0);
}

TEST_F(ComponentVerification, first_of_several_bad_signatures_stops) {
    package.corruptSignature("version_list.acs")
        .corruptSignature("Image")
        .corruptSignature("mcu_flash_app.s19");
    unpackTo(kDir);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("Image");
}

TEST_F(ComponentVerification, signature_of_another_key_is_refused) {
    package.signWithOtherKey("mcu_flash_app.s19");
    unpackTo(kDir);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("mcu_flash_app.s19");
}

TEST_F(ComponentVerification, signature_of_another_component_is_refused) {
    std::filesystem::copy_file(fileOf("Image.sign"), fileOf("ext4.sign"),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("ext4");
}

TEST_F(ComponentVerification, signature_that_is_none_is_refused) {
    for (const std::string& bytes :
         {std::string(), std::string("text"), std::string(72, '\0'), std::string(70, '0')}) {
        testsupport::writeFile(fileOf("Image.sign"), bytes);
        EXPECT_EQ(verify(), -1);
        expectRefusedAt("Image");
    }
}

TEST_F(ComponentVerification, directory_in_place_of_a_component_or_signature_is_refused) {
    for (const char* name : {"ext4", "ext4.sign"}) {
        std::filesystem::rename(fileOf(name), "/raw/aside");
        std::filesystem::create_directory(fileOf(name));
        EXPECT_EQ(verify(), -1) << name;
        expectRefusedAt("ext4");
        std::filesystem::remove(fileOf(name));
        std::filesystem::rename("/raw/aside", fileOf(name));
    }
}

TEST_F(ComponentVerification, rsa_signature_of_another_digest_is_refused) {
    signWithNewKey("-algorithm RSA -pkeyopt rsa_keygen_bits:2048");
    package_services::shell("openssl dgst -sha512 -sign /tmp/private -out " + fileOf("Image.sign") + " " +
                            fileOf("Image"));
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("Image");
}

TEST_F(ComponentVerification, corrupted_rsa_signature_is_refused) {
    signWithNewKey("-algorithm RSA -pkeyopt rsa_keygen_bits:2048");
    std::string signature = testsupport::readFile(fileOf("ext4.sign"));
    signature[100] = static_cast<char>(signature[100] ^ 1);
    testsupport::writeFile(fileOf("ext4.sign"), signature);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("ext4");
}

TEST_F(ComponentVerification, wrong_key_is_refused_at_the_first_component) {
    testsupport::writeFile(kPubkey, SigningKey().publicKey());
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, missing_key_is_refused_at_the_first_component) {
    std::filesystem::remove(kPubkey);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, key_that_is_none_is_refused_at_the_first_component) {
    const std::string pem = SigningKey::shared().publicKey();
    for (const std::string& key : {std::string(), std::string("no key"), pem.substr(0, 60), pem.substr(30)}) {
        testsupport::writeFile(kPubkey, key);
        EXPECT_EQ(verify(), -1) << key;
        expectRefusedAt("bld_release.bin");
    }
    std::filesystem::remove(kPubkey);
    std::filesystem::create_directory(kPubkey);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, key_that_could_not_be_written_is_refused_at_the_first_component) {
    std::filesystem::remove_all(kDir);
    std::filesystem::remove(kPubkey);
    std::filesystem::create_directory(kPubkey);
    package.setTotalSize(1UL << 20U).writeTo("/firmware/upgrade.pkg");
    UPGADE_PKG_OUT_T out;
    ASSERT_EQ(UPGRADE_proc_upgrade_pkg(out, {"/firmware/upgrade.pkg", kDir}, false), 0);
    EXPECT_EQ(verify(out.components), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, empty_key_path_is_refused_at_the_first_component) {
    EXPECT_EQ(UPGRADE_verify_signature(kDir, joined(allNames()), ""), -1);
    EXPECT_EQ(logShape(), Lines{badSignature("bld_release.bin")});
    EXPECT_EQ(fake::commands().size(), 1U);
}

TEST_F(ComponentVerification, missing_openssl_is_refused_at_the_first_component) {
    setenv("PATH", "/nowhere", 1);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, exit_status_alone_decides) {
    package_services::shell(
        "mkdir /tmp/bin && printf '#!/bin/sh\\necho Verified OK\\nexit 1\\n' > /tmp/bin/openssl && "
        "chmod +x /tmp/bin/openssl");
    setenv("PATH", "/tmp/bin:/usr/bin:/bin", 1);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
    setenv("PATH", "/usr/bin:/bin", 1);
    package_services::shell("printf '#!/bin/sh\\necho Verification failure\\nexit 0\\n' > /tmp/bin/openssl");
    setenv("PATH", "/tmp/bin:/usr/bin:/bin", 1);
    EXPECT_EQ(verify(), 0);
}

TEST_F(ComponentVerification, openssl_that_dies_by_a_signal_is_a_failure) {
    package_services::shell(
        "mkdir /tmp/bin && printf '#!/bin/sh\\nkill -9 $$\\n' > /tmp/bin/openssl && chmod +x "
        "/tmp/bin/openssl");
    setenv("PATH", "/tmp/bin:/usr/bin:/bin", 1);
    EXPECT_EQ(verify(), -1);
    expectRefusedAt("bld_release.bin");
}

TEST_F(ComponentVerification, right_set_passes_after_a_refused_one) {
    EXPECT_EQ(verify(""), -1);
    std::filesystem::remove(kPubkey);
    EXPECT_EQ(verify(), -1);
    testsupport::writeFile(kPubkey, SigningKey::shared().publicKey());
    EXPECT_EQ(verify(), 0);
}

// --- awkward paths

bool shellRan() {
    for (const char* directory : {"/", "/raw/", "/tmp/", ""}) {
        if (testsupport::exists(std::string(directory) + "shell_ran")) {
            return true;
        }
    }
    return false;
}

TEST_F(ComponentVerification, awkward_directory_paths_are_plain_file_names) {
    const std::string components = joined(allNames());
    for (const std::string& path : package_services::awkwardPaths("/raw")) {
        unpackTo(path);
        EXPECT_EQ(UPGRADE_verify_signature(path, components, kPubkey), 0) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(ComponentVerification, awkward_key_paths_are_plain_file_names) {
    for (const std::string& path : package_services::awkwardPaths("/tmp")) {
        testsupport::writeFile(path, SigningKey::shared().publicKey());
        EXPECT_EQ(UPGRADE_verify_signature(kDir, joined(allNames()), path), 0) << path;
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(ComponentVerification, relative_paths_are_no_options_and_no_hosts) {
    ASSERT_EQ(chdir("/raw"), 0);
    for (const std::string& path : package_services::awkwardRelativePaths()) {
        unpackTo("/raw/" + path);
        EXPECT_EQ(UPGRADE_verify_signature(path, joined(allNames()), kPubkey), 0) << path;
        std::filesystem::remove_all("/raw/" + path);
        testsupport::writeFile("/raw/" + path, SigningKey::shared().publicKey());
        EXPECT_EQ(UPGRADE_verify_signature(kDir, joined(allNames()), path), 0) << path;
        std::filesystem::remove_all("/raw/" + path);
        EXPECT_FALSE(shellRan()) << path;
    }
}

TEST_F(ComponentVerification, paths_of_4000_characters_are_verified) {
    const std::string dir = package_services::longPath("/raw", 4000);
    const std::string key = package_services::longPath("/tmp", 4000);
    unpackTo(dir);
    testsupport::writeFile(key, SigningKey::shared().publicKey());
    EXPECT_EQ(UPGRADE_verify_signature(dir, joined(allNames()), key), 0);
    EXPECT_EQ(fake::commands().size(), 7U);
}

TEST_F(ComponentVerification, names_in_the_listing_never_reach_the_shell) {
    EXPECT_EQ(verify("$(touch shell_ran),`touch shell_ran`,;touch shell_ran;," + joined(allNames())), -1);
    expectRefusedUnchecked({missing("/raw/upgrade/$(touch shell_ran)"), summary(0, -1)});
    EXPECT_FALSE(shellRan());
}

// --- cancellation

class CancelledVerification : public ComponentVerification {
  protected:
    void takeStock() {
        duration = package_services::durationOf([] { ASSERT_EQ(verify(), 0); });
        stock.emplace();
    }

    std::chrono::microseconds duration{};  // of an undisturbed run
    std::optional<package_services::Stock> stock;
};

TEST_F(CancelledVerification, cancel_at_any_moment_leaves_nothing_behind) {
    takeStock();
    int cancelled = 0;
    constexpr unsigned kMoments = 120;
    for (unsigned moment = 0; moment < kMoments && !HasFailure(); ++moment) {
        SCOPED_TRACE(moment);
        package_services::CancellableThread thread([] { verify(); });
        usleep(moment * static_cast<unsigned>(duration.count()) / kMoments);
        thread.cancel();
        cancelled += thread.join() ? 1 : 0;
        stock->expectNothingLeft();
    }
    EXPECT_GT(cancelled, 10);
    EXPECT_EQ(verify(), 0);
}

TEST_F(CancelledVerification, cancel_at_a_log_line_leaves_nothing_behind) {
    takeStock();
    for (const char* components : {"", "Image", "gone"}) {
        fake::log().onLine([](const fake::LogLine&) { pthread_cancel(pthread_self()); });
        package_services::CancellableThread thread([&] { verify(components); });
        thread.join();
        fake::log().onLine({});
        stock->expectNothingLeft();
    }
    EXPECT_EQ(verify(), 0);
}

TEST_F(CancelledVerification, cancel_during_openssl_ends_it_and_what_it_started) {
    takeStock();
    package_services::letCommandHang("openssl");
    package_services::CancellableThread thread([] { verify(); });
    package_services::awaitHangingCommand();
    thread.cancel();
    EXPECT_TRUE(thread.join());
    stock->expectNothingLeft();
}

TEST_F(CancelledVerification, no_line_is_logged_while_a_cancel_could_act) {
    for (const char* components : {"", "Image", "gone"}) {
        EXPECT_EQ(UPGRADE_verify_signature(kDir, components, kPubkey), -1);
    }
    EXPECT_EQ(UPGRADE_verify_signature(kDir, joined(allNames()), "/tmp/none"), -1);
    const std::vector<fake::LogLine> lines = fake::log().lines();
    EXPECT_EQ(lines.size(), 5U);
    for (const fake::LogLine& line : lines) {
        EXPECT_FALSE(line.cancelEnabled) << line;
    }
}

TEST_F(CancelledVerification, verifying_leaves_no_descriptor_open) {
    takeStock();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(verify(), 0);
    }
    stock->expectNothingLeft();
}

}  // namespace
