// Errors as values, and on their way through a library.
#include <gtest/gtest.h>

#include <new>

#include "base/failure.h"

namespace {

using kavro::Error;
using kavro::ErrorCode;
using kavro::Failure;
using kavro::Result;

const Error kRefusal = {ErrorCode::kRefused, "the text", "the next step", {"a detail"}, {Error{}}};

TEST(Errors, numbers_and_names_are_those_that_scripts_know) {
    const std::pair<int, const char*> known[] = {{1, "other"},        {2, "usage"},    {3, "refused"},
                                                 {4, "flash_failed"}, {5, "given_up"}, {77, "other"}};
    for (const auto& [number, name] : known) {
        EXPECT_STREQ(kavro::nameOf(static_cast<ErrorCode>(number)), name);
    }
}

TEST(Results, hold_a_value_or_an_error) {
    const Result<std::string> good = std::string("value");
    ASSERT_TRUE(good.ok());
    EXPECT_EQ(good.value(), "value");
    const Result<std::string> bad = kRefusal;
    ASSERT_FALSE(bad.ok());
    EXPECT_EQ(bad.error().text, "the text");
    EXPECT_DEATH((void)bad.value(), "");
    EXPECT_DEATH((void)good.error(), "");
    EXPECT_TRUE(Result<void>().ok());
    EXPECT_EQ(Result<void>(kRefusal).error().next, "the next step");
}

TEST(Results, of_what_throws_are_its_error) {
    const Result<int> refused = kavro::resultOf([]() -> int { throw Failure(kRefusal); });
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code, ErrorCode::kRefused);
    EXPECT_EQ(refused.error().details.front(), "a detail");
    EXPECT_EQ(refused.error().further.size(), 1U);

    const Result<void> exhausted = kavro::resultOf([] { throw std::bad_alloc(); });
    ASSERT_FALSE(exhausted.ok());
    EXPECT_EQ(exhausted.error().code, ErrorCode::kOther);
    EXPECT_NE(exhausted.error().next, "");
}

TEST(Results, give_up_their_value_or_throw_their_error) {
    EXPECT_EQ(kavro::valueOf(kavro::resultOf([] { return 5; })), 5);
    EXPECT_NO_THROW(kavro::valueOf(Result<void>()));
    try {
        kavro::valueOf(Result<int>(kRefusal));
        FAIL() << "a value";
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "the text");
        EXPECT_EQ(failure.error().next, "the next step");
    }
}

}  // namespace
