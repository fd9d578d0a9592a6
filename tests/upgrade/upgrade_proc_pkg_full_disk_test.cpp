// Processing a package when the file system of the unpack directory, or that of the key, is full: both are a
// few pages of memory here.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_package.h"
#include "tests/upgrade/package_services.h"
#include "upgrade/upgrade_proc_pkg.h"
#include "upgrade/upgrade_verify_components.h"

namespace {

using package_services::infoShape;
using package_services::logShape;
using package_services::stepErrorShape;

constexpr const char* kUnit = "upgrade/upgrade_proc_pkg";
constexpr const char* kPackage = "/firmware/upgrade.pkg";
constexpr const char* kPubkey = "/tmp/pubkey";
constexpr const char* kBig = "ext4";

// More than the file system of /raw holds.
const std::string kTooMuch(400000, 'R');

class FullDisk : public testing::Test {
  protected:
    FullDisk() { package_services::reset(); }
    ~FullDisk() override { package_services::reset(); }

    int process(testsupport::TestPackage& package) {
        package.setTotalSize(1UL << 20U).writeTo(kPackage);
        return UPGRADE_proc_upgrade_pkg(out, {kPackage, "/raw/upgrade"}, false);
    }

    UPGADE_PKG_OUT_T out;
};

TEST_F(FullDisk, fails_the_unpacking) {
    testsupport::TestPackage big;
    EXPECT_EQ(process(big.setComponent(kBig, kTooMuch)), -1);
    EXPECT_EQ(logShape(), (std::vector<std::string>{
                              infoShape("read_info_form_pkg\n"), infoShape("truncate_upgrade_pkg\n"),
                              infoShape("chkFileMd5\n"), infoShape("unpack_upgrade_package\n"),
                              stepErrorShape(kUnit, "UPGRADE_proc_upgrade_pkg")}));
    EXPECT_EQ(out.components, "");
    EXPECT_EQ(out.pubkey_file, "");
    EXPECT_EQ(out.version.mpu, 0);
}

TEST_F(FullDisk, emptied_lets_the_next_package_be_unpacked) {
    testsupport::TestPackage big;
    ASSERT_EQ(process(big.setComponent(kBig, kTooMuch)), -1);
    std::filesystem::remove_all("/raw/upgrade");
    testsupport::TestPackage small;
    EXPECT_EQ(process(small), 0);
    EXPECT_EQ(testsupport::namesIn("/raw/upgrade").size(), 14U);
}

// Fills a file system to the last byte.
void fill(const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    const std::string block(4096, 'f');
    while (file.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
    }
}

TEST_F(FullDisk, that_cannot_take_the_key_does_not_fail_the_processing) {
    testsupport::TestPackage package;
    package.setTotalSize(1UL << 20U).writeTo(kPackage);
    fill("/tmp/filler");
    EXPECT_EQ(UPGRADE_proc_upgrade_pkg(out, {kPackage, "/raw/upgrade"}, false), 0);
    EXPECT_TRUE(fake::loggedError(kUnit, "read_info_form_pkg", "write pubkey file failed;\n"));
    EXPECT_EQ(out.pubkey_file, kPubkey);
    EXPECT_EQ(testsupport::readFile(kPubkey), "") << "half a key";
}

TEST_F(FullDisk, that_cannot_take_the_key_gets_the_package_refused_at_its_first_component) {
    testsupport::TestPackage package;
    package.setTotalSize(1UL << 20U).writeTo(kPackage);
    testsupport::writeFile(kPubkey, testsupport::SigningKey::shared().publicKey());
    fill("/tmp/filler");
    ASSERT_EQ(UPGRADE_proc_upgrade_pkg(out, {kPackage, "/raw/upgrade"}, false), 0);
    ASSERT_TRUE(fake::loggedError(kUnit, "read_info_form_pkg", "write pubkey file failed;\n"));
    EXPECT_EQ(UPGRADE_verify_signature("/raw/upgrade", out.components, out.pubkey_file), -1)
        << "the key of an earlier package was taken for this one's";
    EXPECT_TRUE(fake::loggedError("upgrade/upgrade_verify_components", "UPGRADE_verify_signature",
                                  "verify_signature 'bld_release.bin' fail!\n"));
}

}  // namespace
