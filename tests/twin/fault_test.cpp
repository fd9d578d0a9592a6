#include "twin/emulator/fault.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace {

using namespace kavro::emulator;

constexpr std::size_t kForEver = SIZE_MAX;
constexpr std::uint8_t kAnyService = 0x3E;
constexpr std::uint8_t kTransfer = 0x36;

struct Good {
    const char* text;
    FaultKind kind;
    int service;  // negative for any
    std::size_t first;
    std::size_t last;
    std::uint32_t value;
};

void PrintTo(const Good& good, std::ostream* out) {
    *out << good.text;
}

class GoodFault : public testing::TestWithParam<Good> {};

TEST_P(GoodFault, is_read) {
    std::string error;
    const std::optional<Fault> fault = parseFault(GetParam().text, error);
    ASSERT_TRUE(fault) << error;
    EXPECT_EQ(fault->kind, GetParam().kind);
    EXPECT_EQ(fault->service ? *fault->service : -1, GetParam().service);
    EXPECT_EQ(fault->first, GetParam().first);
    EXPECT_EQ(fault->last, GetParam().last);
    EXPECT_EQ(fault->value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Each, GoodFault,
                         testing::Values(Good{"drop=1", FaultKind::kDrop, -1, 1, 1, 0},
                                         Good{"drop=2..", FaultKind::kDrop, -1, 2, kForEver, 0},
                                         Good{"lose=2..4", FaultKind::kLose, -1, 2, 4, 0},
                                         Good{"lose@36=1000000", FaultKind::kLose, 0x36, 1000000, 1000000, 0},
                                         Good{"damage@3e=7..7", FaultKind::kDamage, 0x3E, 7, 7, 0},
                                         Good{"delay=1..:250", FaultKind::kDelay, -1, 1, kForEver, 250},
                                         Good{"delay@31=1:60000", FaultKind::kDelay, 0x31, 1, 1, 60000},
                                         Good{"busy@22=1..2", FaultKind::kBusy, 0x22, 1, 2, 0},
                                         Good{"pending@31=3:2", FaultKind::kPending, 0x31, 3, 3, 2},
                                         Good{"refuse@34=1..:7F", FaultKind::kRefuse, 0x34, 1, kForEver,
                                              0x7F},
                                         Good{"power-loss=12", FaultKind::kPowerLoss, -1, 12, 12, 0},
                                         Good{"corrupt=2..3", FaultKind::kCorrupt, -1, 2, 3, 0}));

struct Bad {
    const char* text;
    const char* problem;
};

void PrintTo(const Bad& bad, std::ostream* out) {
    *out << bad.text;
}

class BadFault : public testing::TestWithParam<Bad> {};

TEST_P(BadFault, is_refused_with_what_is_wrong) {
    std::string error;
    EXPECT_FALSE(parseFault(GetParam().text, error));
    EXPECT_EQ(error, std::string("the fault '") + GetParam().text +
                         "' is not KIND[@SERVICE]=FIRST[..[LAST]][:VALUE]: " + GetParam().problem);
}

INSTANTIATE_TEST_SUITE_P(
    Each, BadFault,
    testing::Values(Bad{"", "'=' is missing"}, Bad{"drop", "'=' is missing"},
                    Bad{"=1", "there is no kind ''"}, Bad{"Drop=1", "there is no kind 'Drop'"},
                    Bad{"dropp=1", "there is no kind 'dropp'"},
                    Bad{"drop@=1", "the service behind '@' is two hexadecimal digits, not ''"},
                    Bad{"drop@3=1", "the service behind '@' is two hexadecimal digits, not '3'"},
                    Bad{"drop@3g=1", "the service behind '@' is two hexadecimal digits, not '3g'"},
                    Bad{"drop@036=1", "the service behind '@' is two hexadecimal digits, not '036'"},
                    Bad{"power-loss@36=1", "power-loss counts blocks and takes no service"},
                    Bad{"corrupt@36=1", "corrupt counts blocks and takes no service"},
                    Bad{"drop=", "'' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=0", "'0' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=x", "'x' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=-1", "'-1' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=1000001", "'1000001' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=99999999999999999999999",
                        "'99999999999999999999999' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=3..2", "'3..2' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=..2", "'..2' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=1...2", "'1...2' is no N, N.. or N..M with numbers from 1 to 1000000"},
                    Bad{"drop=1:5", "drop takes no ':VALUE'"}, Bad{"drop=1:", "drop takes no ':VALUE'"},
                    Bad{"delay=1", "delay needs ':NUMBER', from 1 to 1000000"},
                    Bad{"delay=1:0", "delay needs ':NUMBER', from 1 to 1000000"},
                    Bad{"delay=1:1.5", "delay needs ':NUMBER', from 1 to 1000000"},
                    Bad{"pending=1:", "pending needs ':NUMBER', from 1 to 1000000"},
                    Bad{"refuse=1", "refuse needs ':CODE', two hexadecimal digits"},
                    Bad{"refuse=1:222", "refuse needs ':CODE', two hexadecimal digits"}));

// --- counting ------------------------------------------------------------------------------------

FaultPlan planOf(const std::vector<std::string>& texts) {
    std::vector<Fault> faults;
    std::string error;
    for (const std::string& text : texts) {
        const std::optional<Fault> fault = parseFault(text, error);
        EXPECT_TRUE(fault) << error;
        faults.push_back(fault.value_or(Fault{}));
    }
    return FaultPlan(faults);
}

// 'x' for each of so many requests that is dropped, '.' for the others.
std::string drops(FaultPlan& plan, const std::vector<std::uint8_t>& services) {
    std::string pattern;
    for (const std::uint8_t service : services) {
        pattern += plan.nextRequest(service).drop ? 'x' : '.';
    }
    return pattern;
}

TEST(FaultPlan, strikes_from_the_first_request_to_the_last_one) {
    const std::vector<std::uint8_t> five(5, kAnyService);
    FaultPlan one = planOf({"drop=2"});
    FaultPlan some = planOf({"drop=2..4"});
    FaultPlan rest = planOf({"drop=3.."});
    FaultPlan two = planOf({"drop=1", "drop=5"});
    EXPECT_EQ(drops(one, five), ".x...");
    EXPECT_EQ(drops(some, five), ".xxx.");
    EXPECT_EQ(drops(rest, five), "..xxx");
    EXPECT_EQ(drops(two, five), "x...x");
}

TEST(FaultPlan, counts_only_requests_of_its_service) {
    FaultPlan plan = planOf({"drop@36=2"});
    EXPECT_EQ(drops(plan, {kAnyService, kTransfer, kAnyService, kTransfer, kTransfer}), "...x.");
}

TEST(FaultPlan, puts_faults_of_one_request_together) {
    FaultPlan plan =
        planOf({"lose=1", "damage=1", "delay=1:10", "delay=1..:20", "pending=1:3", "refuse=1:31"});
    const Fate fate = plan.nextRequest(kAnyService);
    EXPECT_TRUE(fate.lose);
    EXPECT_TRUE(fate.damage);
    EXPECT_FALSE(fate.drop);
    EXPECT_EQ(fate.delay.count(), 30);
    EXPECT_EQ(fate.pending, 3U);
    EXPECT_EQ(fate.refusal, 0x31);
    const Fate next = plan.nextRequest(kAnyService);
    EXPECT_FALSE(next.lose || next.damage || next.pending > 0 || next.refusal);
    EXPECT_EQ(next.delay.count(), 20);
}

TEST(FaultPlan, a_busy_microcontroller_refuses_with_its_own_code) {
    FaultPlan plan = planOf({"busy=1"});
    EXPECT_EQ(plan.nextRequest(kAnyService).refusal, 0x21);
}

TEST(FaultPlan, a_repeated_request_counts_but_is_not_refused) {
    FaultPlan plan = planOf({"refuse=2:31", "drop=2", "lose@3e=3"});
    EXPECT_FALSE(plan.nextRequest(kAnyService).refusal);
    const Fate repeated = plan.nextRequest(kAnyService, true);
    EXPECT_TRUE(repeated.drop);
    EXPECT_FALSE(repeated.refusal);
    const Fate second = plan.nextRequest(kAnyService);
    EXPECT_EQ(second.refusal, 0x31);
    EXPECT_TRUE(second.lose);
}

TEST(FaultPlan, blocks_are_counted_apart_from_requests) {
    FaultPlan plan = planOf({"corrupt=2", "power-loss=3", "drop=1"});
    EXPECT_EQ(plan.nextBlock(), BlockFault::kNone);
    EXPECT_TRUE(plan.nextRequest(kTransfer).drop);
    EXPECT_EQ(plan.nextBlock(), BlockFault::kCorrupt);
    EXPECT_EQ(plan.nextBlock(), BlockFault::kPowerLoss);
    EXPECT_EQ(plan.nextBlock(), BlockFault::kNone);
}

}  // namespace
