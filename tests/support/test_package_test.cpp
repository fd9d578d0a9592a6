// The packages of the tests are checked by the tools that a device uses: tar, openssl and md5sum.
#include "tests/support/test_package.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/support/device.h"
#include "tests/support/temp_dir.h"

namespace {

using testsupport::TestPackage;

class TestPackageFile : public testing::Test {
  protected:
    bool shell(const std::string& command) const {
        const std::string line = "cd " + directory + " && " + command;
        return system(line.c_str()) == 0;
    }
    // Cuts the trailer off, as a device does, and unpacks.
    bool unpack(const TestPackage& built) const {
        return truncate(package.c_str(), static_cast<off_t>(built.payloadBytes())) == 0 &&
               shell("mkdir tree && tar -xf a.pkg -C tree");
    }
    bool verifies(const std::string& component) const {
        return shell("openssl dgst -sha256 -verify key -signature tree/" + component + ".sign tree/" +
                     component + " > verdict 2>&1");
    }
    void writeKey(const TestPackage& built) const {
        testsupport::writeFile(directory + "/key", built.trailer().key);
    }

    kavro_test::TempDir work{"/tmp"};
    const std::string directory = work.path();
    const std::string package = work / "a.pkg";
};

TEST_F(TestPackageFile, has_exactly_the_size_of_a_package_without_occupying_it) {
    TestPackage().writeTo(package);
    EXPECT_EQ(testsupport::sizeOf(package), 134217728);
    struct stat status {};
    ASSERT_EQ(stat(package.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
}

TEST_F(TestPackageFile, unpacks_to_seven_components_whose_signatures_verify) {
    TestPackage built;
    built.writeTo(package);
    writeKey(built);
    ASSERT_TRUE(unpack(built));
    EXPECT_EQ(testsupport::namesIn(directory + "/tree").size(), 14U);
    for (const std::string& component : testsupport::componentNames()) {
        EXPECT_TRUE(verifies(component)) << component;
    }
}

TEST_F(TestPackageFile, carries_the_digest_of_its_payload) {
    TestPackage built;
    built.writeTo(package);
    ASSERT_EQ(truncate(package.c_str(), static_cast<off_t>(built.payloadBytes())), 0);
    EXPECT_TRUE(shell("echo '" + built.trailer().md5 + "  a.pkg' | md5sum --quiet -c -"));
}

TEST_F(TestPackageFile, a_flipped_byte_leaves_another_digest) {
    TestPackage built;
    built.flipPayloadByte(-1).writeTo(package);
    ASSERT_EQ(truncate(package.c_str(), static_cast<off_t>(built.payloadBytes())), 0);
    EXPECT_FALSE(shell("echo '" + built.trailer().md5 + "  a.pkg' | md5sum --status -c -"));
}

TEST_F(TestPackageFile, only_the_damaged_signatures_fail) {
    TestPackage built;
    built.corruptSignature("ext4").signWithOtherKey("Image").writeTo(package);
    writeKey(built);
    ASSERT_TRUE(unpack(built));
    for (const std::string& component : testsupport::componentNames()) {
        EXPECT_EQ(verifies(component), component != "ext4" && component != "Image") << component;
    }
}

TEST_F(TestPackageFile, leaves_out_and_adds_files_as_told) {
    TestPackage built;
    built.omit("ext4")
        .omit("Image.sign")
        .addFile("notes.txt", "text")
        .addFile("more/deep", "x")
        .writeTo(package);
    ASSERT_TRUE(unpack(built));
    EXPECT_FALSE(testsupport::exists(directory + "/tree/ext4"));
    EXPECT_TRUE(testsupport::exists(directory + "/tree/ext4.sign"));
    EXPECT_FALSE(testsupport::exists(directory + "/tree/Image.sign"));
    EXPECT_EQ(testsupport::readFile(directory + "/tree/notes.txt"), "text");
    EXPECT_EQ(testsupport::readFile(directory + "/tree/more/deep"), "x");
}

TEST_F(TestPackageFile, ends_in_the_trailer_with_its_fields_in_order) {
    TestPackage built;
    built.setVersions(1, 105, 8, 2)
        .editTrailer([](testsupport::Trailer& trailer) { trailer.stamp = "19991231235959"; })
        .writeTo(package);
    const std::string trailer = testsupport::readTail(package, testsupport::kTrailerBytes);
    const std::string key = testsupport::SigningKey::shared().publicKey();
    EXPECT_EQ(trailer.substr(0, 8), testsupport::hexText(built.payloadBytes()));
    EXPECT_EQ(trailer.substr(8, 32), built.trailer().md5);
    EXPECT_EQ(trailer.substr(40, 8), testsupport::hexText(key.size()));
    EXPECT_EQ(trailer.substr(48, key.size()), key);
    EXPECT_EQ(trailer.substr(48 + key.size(), 14), "19991231235959");
    EXPECT_EQ(trailer.substr(102 + key.size(), 12), "001105008002");
    EXPECT_EQ(trailer.substr(114 + key.size(), 12), "00000004main");
    EXPECT_EQ(trailer.substr(126 + key.size(), 16), std::string("00000007builder\0", 16));
}

TEST_F(TestPackageFile, an_empty_payload_unpacks_to_nothing) {
    TestPackage built;
    built.emptyPayload().writeTo(package);
    ASSERT_TRUE(unpack(built));
    EXPECT_TRUE(testsupport::namesIn(directory + "/tree").empty());
}

TEST_F(TestPackageFile, the_microcontroller_application_is_made_of_valid_records) {
    const std::string text = testsupport::mcuApplication(7);
    // S0 with its own checksum, worked out by hand: 07 + 't' 'e' 's' 't' = 0x1C7, complement 0x38.
    EXPECT_EQ(text.substr(0, text.find('\r')), "S00700007465737438");
    EXPECT_EQ(text.substr(20, 12), "S32500008000");
    EXPECT_EQ(text.substr(32, 32), "4B4156524F4D43550700000000000000");
}

}  // namespace
