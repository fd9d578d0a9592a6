// Copies and writes on /firmware, which is a disk of 1 MiB here.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>

#include "common/utility.h"
#include "tests/support/temp_dir.h"

namespace {

using COMMON_YR::cpFile;
using kavro_test::patterned;
using kavro_test::slurp;
using kavro_test::spill;

using Names = std::vector<std::string>;

constexpr std::size_t kKib = 1024;
const std::string kDisk = "/firmware/";

long write(const std::string& path, std::string content) {
    return COMMON_YR::writeFile(path.c_str(), content.data(), content.size(), false);
}

class FullDisk : public testing::Test {
  protected:
    void SetUp() override {
        struct statvfs disk = {};
        ASSERT_EQ(statvfs(kDisk.c_str(), &disk), 0);
        ASSERT_EQ(disk.f_blocks * disk.f_frsize, 1024 * kKib);
    }

    std::string sourceOf(std::size_t size) const {
        spill(directory / "source", patterned(size));
        return directory / "source";
    }
    static Names onDisk() {
        Names names;
        EXPECT_EQ(COMMON_YR::getFiles(kDisk.c_str(), names, false), 0);
        return names;
    }

    const kavro_test::TempDir directory;
};

TEST_F(FullDisk, copy_without_room_fails_and_leaves_nothing) {
    EXPECT_LT(cpFile(sourceOf(1100 * kKib), kDisk + "file"), 0);
    EXPECT_EQ(onDisk(), Names{});
    EXPECT_EQ(cpFile(sourceOf(1000 * kKib), kDisk + "file"), 0);
}

TEST_F(FullDisk, copy_with_room_beside_the_old_file_replaces_it) {
    spill(kDisk + "file", patterned(400 * kKib));
    const std::string source = sourceOf(600 * kKib);
    EXPECT_EQ(cpFile(source, kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), slurp(source));
    EXPECT_EQ(onDisk(), Names{"file"});
}

TEST_F(FullDisk, old_file_is_given_up_when_there_is_room_only_without_it) {
    spill(kDisk + "file", patterned(700 * kKib));
    const std::string source = sourceOf(900 * kKib);
    EXPECT_EQ(cpFile(source, kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), slurp(source));
    EXPECT_EQ(onDisk(), Names{"file"});
}

TEST_F(FullDisk, old_file_is_given_up_for_one_of_its_own_size) {
    spill(kDisk + "file", std::string(1000 * kKib, 'x'));
    const std::string source = sourceOf(1000 * kKib);
    EXPECT_EQ(cpFile(source, kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), slurp(source));
}

TEST_F(FullDisk, old_file_stays_when_giving_it_up_would_not_help) {
    const std::string old = patterned(300 * kKib);
    spill(kDisk + "file", old);
    spill(kDisk + "other", patterned(400 * kKib));
    EXPECT_LT(cpFile(sourceOf(700 * kKib), kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), old);
    EXPECT_EQ(onDisk(), (Names{"file", "other"}));
}

TEST_F(FullDisk, old_file_with_a_second_name_frees_nothing_and_stays) {
    const std::string old = patterned(700 * kKib);
    spill(kDisk + "file", old);
    ASSERT_EQ(link((kDisk + "file").c_str(), (kDisk + "second").c_str()), 0);
    EXPECT_LT(cpFile(sourceOf(700 * kKib), kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), old);
    EXPECT_EQ(onDisk(), (Names{"file", "second"}));
}

TEST_F(FullDisk, leftover_of_a_copy_makes_room_for_the_next) {
    spill(kDisk + "file.part", patterned(900 * kKib));
    const std::string source = sourceOf(900 * kKib);
    EXPECT_EQ(cpFile(source, kDisk + "file"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), slurp(source));
    EXPECT_EQ(onDisk(), Names{"file"});
}

TEST_F(FullDisk, sparse_copy_needs_room_for_its_data_only) {
    spill(kDisk + "file", patterned(400 * kKib));
    const std::string source = sourceOf(100 * kKib);
    ASSERT_EQ(truncate(source.c_str(), 50000 * kKib), 0);
    EXPECT_EQ(cpFile(source, kDisk + "file"), 0);
    EXPECT_EQ(std::filesystem::file_size(kDisk + "file"), 50000 * kKib);
}

TEST_F(FullDisk, write_without_room_leaves_the_old_content) {
    spill(kDisk + "file", "old");
    spill(kDisk + "other", patterned(1000 * kKib));
    EXPECT_LT(write(kDisk + "file", patterned(100 * kKib)), 0);
    EXPECT_LT(write(kDisk + "new", patterned(100 * kKib)), 0);
    EXPECT_EQ(slurp(kDisk + "file"), "old");
    EXPECT_EQ(onDisk(), (Names{"file", "other"}));
    ASSERT_EQ(COMMON_YR::rmFile(kDisk + "other"), 0);
    EXPECT_EQ(write(kDisk + "file", patterned(100 * kKib)), 100 * kKib);
}

TEST_F(FullDisk, write_on_a_disk_without_a_free_byte_fails) {
    struct statvfs disk = {};
    ASSERT_EQ(statvfs(kDisk.c_str(), &disk), 0);
    spill(kDisk + "file", "old");
    spill(kDisk + "other", std::string(disk.f_bfree * disk.f_frsize - 4 * kKib, 'x'));
    EXPECT_LT(write(kDisk + "file", "new"), 0);
    EXPECT_EQ(slurp(kDisk + "file"), "old");
}

TEST_F(FullDisk, empty_marker_needs_no_room) {
    spill(kDisk + "other", std::string(1000 * kKib, 'x'));
    EXPECT_EQ(COMMON_YR::createFile((kDisk + "marker").c_str(), 0), 0);
}

}  // namespace
