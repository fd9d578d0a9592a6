// Files read block by block, ahead of whoever works on them.
#include "base/block_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "base/raw_file.h"
#include "tests/support/temp_dir.h"

namespace {

using kavro::BlockReader;

constexpr auto kBlock = static_cast<long long>(BlockReader::kBlockBytes);

BlockReader::Read from(const kavro::RawFile& file) {
    return [&file](char* buffer, std::size_t size, long long offset) {
        return file.readAt(buffer, size, offset);
    };
}

class Blocks : public testing::Test {
  protected:
    // Opens a file with that many bytes.
    void make(long long bytes) {
        content = kavro_test::patterned(static_cast<std::size_t>(bytes));
        kavro_test::spill(path, content);
        ASSERT_TRUE(file.open(path, O_RDONLY));
    }

    // What the blocks hold, one after the other. They must come without a gap.
    static std::string readAll(BlockReader& reader) {
        std::string all;
        while (const BlockReader::Block* const block = reader.next()) {
            EXPECT_EQ(block->offset, static_cast<long long>(all.size()));
            EXPECT_EQ(block->count, static_cast<long>(block->size));
            EXPECT_EQ(block->error, 0);
            all.append(block->data, block->size);
        }
        EXPECT_EQ(reader.next(), nullptr);
        return all;
    }

    const kavro_test::TempDir directory;
    const std::string path = directory / "file";
    std::string content;
    kavro::RawFile file;
};

TEST_F(Blocks, give_the_file_in_order_whatever_its_size) {
    for (const long long bytes : {1LL, kBlock - 1, kBlock, kBlock + 1, 2 * kBlock, 7 * kBlock + 12345}) {
        SCOPED_TRACE(bytes);
        make(bytes);
        BlockReader reader(from(file), bytes);
        EXPECT_TRUE(readAll(reader) == content);
    }
}

TEST_F(Blocks, end_where_they_are_asked_to) {
    make(3 * kBlock);
    BlockReader reader(from(file), kBlock + 5);
    EXPECT_TRUE(readAll(reader) == content.substr(0, static_cast<std::size_t>(kBlock + 5)));
    BlockReader nothing(from(file), 0);
    EXPECT_EQ(nothing.next(), nullptr);
}

TEST_F(Blocks, tell_of_a_file_that_ends_early) {
    make(kBlock + 100);
    BlockReader reader(from(file), 4 * kBlock);
    ASSERT_NE(reader.next(), nullptr);
    const BlockReader::Block* const second = reader.next();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->count, 100);
    EXPECT_EQ(second->size, BlockReader::kBlockBytes);
    const BlockReader::Block* const third = reader.next();
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->count, 0);
}

TEST_F(Blocks, tell_the_error_of_a_file_that_cannot_be_read) {
    ASSERT_TRUE(file.open(directory.path(), O_RDONLY));
    BlockReader reader(from(file), 3 * kBlock);
    const BlockReader::Block* const block = reader.next();
    ASSERT_NE(block, nullptr);
    EXPECT_LT(block->count, 0);
    EXPECT_EQ(block->error, EISDIR);
}

TEST_F(Blocks, need_not_be_read_to_the_end) {
    make(6 * kBlock);
    for (int taken = 0; taken < 5; ++taken) {
        BlockReader reader(from(file), 6 * kBlock);
        for (int block = 0; block < taken; ++block) {
            EXPECT_NE(reader.next(), nullptr);
        }
    }
}

TEST_F(Blocks, are_aligned_for_direct_transfers) {
    make(2 * kBlock);
    BlockReader reader(from(file), 2 * kBlock);
    while (const BlockReader::Block* const block = reader.next()) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block->data) % 4096, 0U);
    }
}

// A transfer past the cache wants whole sectors; what is left at the end goes through the cache.
TEST_F(Blocks, of_any_size_are_written_and_read_directly) {
    make(2 * kBlock + 777);
    const std::string copyPath = directory / "copy";
    kavro_test::spill(copyPath, std::string(static_cast<std::size_t>(3 * kBlock), 'x'));
    kavro::RawFile copy;
    ASSERT_TRUE(copy.openDirect(copyPath, O_RDWR));
    BlockReader reader(from(file), 2 * kBlock + 777);
    while (const BlockReader::Block* const block = reader.next()) {
        ASSERT_TRUE(copy.writeAt(block->data, block->size, block->offset)) << errno;
    }
    ASSERT_TRUE(copy.flush());
    const std::string written = kavro_test::slurp(copyPath);
    EXPECT_EQ(written.size(), static_cast<std::size_t>(3 * kBlock));
    EXPECT_TRUE(written.compare(0, content.size(), content) == 0);
    EXPECT_EQ(written.find_first_not_of('x', content.size()), std::string::npos);

    kavro::RawFile again;
    ASSERT_TRUE(again.openDirect(copyPath, O_RDONLY));
    BlockReader back(from(again), 2 * kBlock + 777);
    EXPECT_TRUE(readAll(back) == content);
}

}  // namespace
