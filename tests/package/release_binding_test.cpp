// What holds the parts of a release together for somebody who trusts the maker's key: whoever has not got that key may combine
// what the maker has published, and must not get a package out of it that is in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "package/check.h"
#include "package/pack.h"
#include "tests/support/device.h"
#include "tests/support/package_parts.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_package.h"

namespace {

namespace fs = std::filesystem;
using kavro::package::Check;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::mcuApplication;
using testsupport::ProgramResult;
using testsupport::readFile;
using testsupport::runProgram;
using testsupport::TestPackage;
using testsupport::Trailer;
using testsupport::writeFile;

using Files = std::map<std::string, std::string>;  // of an archive, by name

// Two public releases of one maker, and what can be put together out of them.
class ReleaseBinding : public testing::Test {
  protected:
    ReleaseBinding() {
        testsupport::makeRsaKey(files / "maker.key");
        writeFile(trusted, runProgram({"openssl", "pkey", "-in", files / "maker.key", "-pubout"}).out);
    }

    // The files of a release that the maker has packed; of each version other ones.
    Files release(int number) {
        const fs::path directory = files / ("release" + std::to_string(number));
        testsupport::makeComponents(directory);
        for (const char* name : {"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image"}) {
            std::string bytes = readFile(directory / name);
            bytes.back() = static_cast<char>('0' + number);
            writeFile(directory / name, bytes);
        }
        writeFile(directory / "mcu_flash_app.s19", mcuApplication(number));
        kavro::package::PackRequest request;
        request.componentDir = directory;
        request.key = files / "maker.key";
        request.output = file;
        request.version = versionOf(number);
        EXPECT_TRUE(kavro::package::pack(request).ok());
        EXPECT_TRUE(kavro::package::check(file, trusted).value().inOrder());
        return unpacked();
    }

    static kavro::package::Version versionOf(int number) { return {1, 100 + number, number, number}; }

    Files unpacked() const {
        const fs::path directory = files / "unpacked";
        const ProgramResult result = runProgram(
            {"bash", "-euc",
             "rm -rf \"$2\"; mkdir \"$2\"; length=$((16#$(tail -c 4096 \"$1\" | head -c 8))); head -c "
             "$length \"$1\" | tar -xf - -C \"$2\"",
             "bash", file, directory});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        Files contents;
        for (const std::string& name : testsupport::namesIn(directory)) {
            contents[name] = readFile(directory / name);
        }
        return contents;
    }

    // The faults of a package of these files, under these versions, with the maker's public key: without any private one.
    std::vector<std::string> faultsOf(const Files& contents, int number) {
        const kavro::package::Version version = versionOf(number);
        return faultsOf(contents,
                        testsupport::versionText(version.hw, version.mpu, version.mcu, version.bld));
    }

    std::vector<std::string> faultsOf(const Files& contents, const std::string& version) {
        const fs::path tree = files / "tree";
        fs::remove_all(tree);
        for (const auto& [name, bytes] : contents) {
            writeFile(tree / name, bytes);
        }
        const ProgramResult result = runProgram(
            {"bash", "-euc", "cd \"$1\"; tar --owner=0 --group=0 --numeric-owner --mode=0644 -cf \"$2\" *",
             "bash", tree, files / "payload"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        TestPackage package;
        package.setPayload(readFile(files / "payload")).editTrailer([&](Trailer& trailer) {
            trailer.key = readFile(trusted);
            trailer.keyLength = testsupport::hexText(trailer.key.size());
            trailer.version = version;
        });
        package.writeTo(file);
        const Check check = kavro::package::check(file, trusted).value();
        std::vector<std::string> faults = check.faults;
        for (const kavro::package::ComponentCheck& component : check.components) {
            if (!component.fault.empty()) {
                faults.push_back(component.fault);
            }
        }
        return faults;
    }

    // Gives a component the bytes and the signature of another one.
    static void put(Files& into, const std::string& name, const Files& from, const std::string& other) {
        into[name] = from.at(other);
        into[name + ".sign"] = from.at(other + ".sign");
    }

    const kavro_test::TempDir files;
    const std::string file = files / "release.pkg";
    const fs::path trusted = files / "maker.pem";
};

TEST_F(ReleaseBinding, the_files_of_one_release_are_in_order) {
    EXPECT_THAT(faultsOf(release(3), 3), IsEmpty());
}

TEST_F(ReleaseBinding, a_component_of_another_release_is_refused) {
    const Files older = release(3);
    const Files newer = release(4);
    for (const char* name : {"bld_release.bin", "cv22_kavro_qz7.dtb", "ext4", "Image", "mcu_flash_app.s19"}) {
        Files mixed = newer;
        put(mixed, name, older, name);
        EXPECT_THAT(faultsOf(mixed, 4), Contains(HasSubstr(std::string("'") + name + "'"))) << name;
    }
}

TEST_F(ReleaseBinding, the_list_of_another_release_is_refused) {
    const Files older = release(3);
    Files mixed = release(4);
    put(mixed, "version_list.acs", older, "version_list.acs");
    EXPECT_THAT(faultsOf(mixed, 4), Contains(HasSubstr("V01.104.004.004")));
}

TEST_F(ReleaseBinding, an_old_release_under_a_new_version_is_refused) {
    EXPECT_THAT(faultsOf(release(3), "001999999999"), Contains(HasSubstr("V01.999.999.999")));
}

TEST_F(ReleaseBinding, a_release_for_other_hardware_is_refused) {
    EXPECT_THAT(faultsOf(release(3), "002103003003"), Contains(HasSubstr("V02.103.003.003")));
}

TEST_F(ReleaseBinding, a_component_under_the_name_of_another_one_is_refused) {
    const Files made = release(3);
    const char* const kPlaces[][2] = {{"bld_release.bin", "version_list.acs"},
                                      {"ext4", "Image"},
                                      {"Image", "ext4"},
                                      {"mcu_flash_drv.s19", "mcu_flash_app.s19"},
                                      {"version_list.acs", "bld_release.bin"}};
    for (const auto& [name, other] : kPlaces) {
        Files swapped = made;
        put(swapped, name, made, other);
        EXPECT_THAT(faultsOf(swapped, 3), Contains(HasSubstr(std::string("'") + name + "'")))
            << name << " from " << other;
    }
}

TEST_F(ReleaseBinding, a_file_that_nobody_has_signed_is_refused) {
    Files more = release(3);
    more["notes.txt"] = "not the maker's";
    EXPECT_THAT(faultsOf(more, 3), Contains(HasSubstr("'notes.txt'")));
}

}  // namespace
