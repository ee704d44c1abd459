// Tests of number.cc: 64-bit numbers to and from decimal text.
#include <gtest/gtest.h>

#include <cstdint>

#include "mpi/mpi.h"
#include "platform/vcsupt.h"
#include "testing/test_spy.h"

namespace {

using kelp::testspy::spy;

class NumberTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::testspy::reset(); }
};

TEST_F(NumberTest, U64ToUtf8WritesUnsignedDecimalIntoA64ByteBlock)
{
    const struct {
        uint64_t value;
        const char *text;
    } cases[] = {
        {0, "0"},
        {17, "17"},
        {UINT64_MAX, "18446744073709551615"},
        {0x8000000000000000u, "9223372036854775808"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        kelp::testspy::reset();
        char *text = u64ToUTF8(&c.value);
        ASSERT_NE(text, nullptr);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(spy().lastAllocSize, 64u);
        EXPECT_EQ(spy().lastToUTF8Type, 8u);
        SMFreeMem(text);
    }
}

TEST_F(NumberTest, U64ToUtf8OfANullPointerAsksForTypeFourAndGivesEmptyText)
{
    char *text = u64ToUTF8(nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(spy().lastToUTF8Type, 4u);
    EXPECT_STREQ(text, "");
    SMFreeMem(text);
}

TEST_F(NumberTest, U64ToUtf8AnswersNullWhenMemoryRunsOut)
{
    const uint64_t value = 5;
    spy().failAllocationsAfter = 0;
    EXPECT_EQ(u64ToUTF8(&value), nullptr);
    EXPECT_EQ(spy().lastToUTF8Type, 0u) << "no translation without a buffer";
}

TEST_F(NumberTest, Utf8ToU64ReadsALeadingMinusAsSigned)
{
    EXPECT_EQ(utf8ToU64("-1"), UINT64_MAX);
    EXPECT_EQ(spy().lastFromUTF8Type, 4u);
    EXPECT_EQ(utf8ToU64("-9223372036854775808"), 0x8000000000000000u);
}

TEST_F(NumberTest, Utf8ToU64ReadsOtherTextsAsUnsigned)
{
    EXPECT_EQ(utf8ToU64("17"), 17u);
    EXPECT_EQ(spy().lastFromUTF8Type, 8u);
    EXPECT_EQ(utf8ToU64("18446744073709551615"), UINT64_MAX);
}

TEST_F(NumberTest, Utf8ToU64OfATextThatIsNoNumberGivesZero)
{
    EXPECT_EQ(utf8ToU64("12abc"), 0u);
    EXPECT_EQ(utf8ToU64(""), 0u);
    EXPECT_EQ(utf8ToU64(nullptr), 0u);
}

} // namespace
