// What start-up asks of the partition check. The check itself is defined here.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/utility.h"
#include "tests/support/fake_services.h"
#include "upgrade/upgrade_api.h"

namespace {

struct Check {
    const COMMON_YR::UpgradePartsLimit* table = nullptr;
    std::vector<COMMON_YR::UpgradePartsLimit> rows;
    bool flag = false;
};

std::vector<Check> checks;
int answer = 0;

}  // namespace

int COMMON_YR::checkPartitions(const UpgradePartsLimit* rows, unsigned long count, bool flag) {
    checks.push_back({rows, {rows, rows + count}, flag});
    return answer;
}

namespace {

class Partitions : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        checks.clear();
        answer = 0;
    }
};

TEST_F(Partitions, those_for_packages_and_for_unpacking_are_checked) {
    EXPECT_EQ(UPGRADE_check_partitions(), 0);
    ASSERT_EQ(checks.size(), 1U);
    ASSERT_EQ(checks[0].rows.size(), 2U);
    EXPECT_TRUE(checks[0].flag);
    EXPECT_EQ(checks[0].rows[0].path, "/firmware");
    EXPECT_EQ(checks[0].rows[0].nominalBytes, 469762048);
    EXPECT_EQ(checks[0].rows[0].minimumBytes, 335544320);
    EXPECT_EQ(checks[0].rows[1].path, "/raw");
    EXPECT_EQ(checks[0].rows[1].nominalBytes, 2147483648);
    EXPECT_EQ(checks[0].rows[1].minimumBytes, 1073741824);
}

TEST_F(Partitions, table_is_built_once) {
    UPGRADE_check_partitions();
    UPGRADE_check_partitions();
    ASSERT_EQ(checks.size(), 2U);
    EXPECT_EQ(checks[0].table, checks[1].table);
}

TEST_F(Partitions, result_of_the_check_is_handed_on) {
    for (const int result : {0, 7, -1, -42}) {
        answer = result;
        EXPECT_EQ(UPGRADE_check_partitions(), result);
    }
    EXPECT_TRUE(fake::nothingLogged());
}

TEST_F(Partitions, start_up_asks_the_same_and_fails_with_minus_1) {
    answer = -42;
    std::string fwDir;
    EXPECT_EQ(UPGRADE_init(fwDir), -1);
    ASSERT_EQ(checks.size(), 1U);
    EXPECT_EQ(checks[0].rows.size(), 2U);
}

TEST_F(Partitions, start_up_takes_a_positive_result_for_success) {
    answer = 3;
    std::string fwDir;
    EXPECT_EQ(UPGRADE_init(fwDir), 0);
}

}  // namespace
