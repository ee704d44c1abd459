// Number and text translation: 64-bit values to and from decimal text, and
// UCS-2 to UTF-8.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "vcsupt.h"

namespace {

struct ParseCase {
    const char *text;
    uint32_t type;
    uint32_t status;
    uint64_t bits; // the value's 64 bits when status is 0
};

const ParseCase kParseCases[] = {
    {"17", SM_XLT_TYPE_U64, 0, 17},
    {"-1", SM_XLT_TYPE_S64, 0, UINT64_MAX},
    {"0", SM_XLT_TYPE_S64, 0, 0},
    {"-9223372036854775808", SM_XLT_TYPE_S64, 0, 0x8000000000000000ull},
    {"9223372036854775807", SM_XLT_TYPE_S64, 0, 0x7FFFFFFFFFFFFFFFull},
    {"18446744073709551615", SM_XLT_TYPE_U64, 0, UINT64_MAX},
    {"9223372036854775808", SM_XLT_TYPE_S64, 5, 0},  // overflow
    {"-9223372036854775809", SM_XLT_TYPE_S64, 5, 0}, // overflow
    {"18446744073709551616", SM_XLT_TYPE_U64, 5, 0}, // overflow
    {"-1", SM_XLT_TYPE_U64, 5, 0},                   // no sign for unsigned
    {"", SM_XLT_TYPE_U64, 5, 0},
    {"-", SM_XLT_TYPE_S64, 5, 0},
    {"12a", SM_XLT_TYPE_U64, 5, 0},
    {" 12", SM_XLT_TYPE_U64, 5, 0},
    {"12 ", SM_XLT_TYPE_U64, 5, 0},
    {"+12", SM_XLT_TYPE_S64, 5, 0},
    {"0x10", SM_XLT_TYPE_U64, 5, 0},
    {"17", 2, 5, 0}, // unknown type code
};

TEST(XltTest, TextToValueParsesWholeDecimalTextsOnly)
{
    for (const auto &c : kParseCases) {
        uint64_t value = 0xDEADBEEFDEADBEEFull;
        uint32_t size = 8;
        EXPECT_EQ(SMXLTUTF8ToTypeValue(c.text, &value, &size, c.type), c.status)
            << '"' << c.text << "\" type " << c.type;
        if (c.status == 0) {
            EXPECT_EQ(value, c.bits) << c.text;
            EXPECT_EQ(size, 8u);
        } else {
            EXPECT_EQ(value, 0xDEADBEEFDEADBEEFull) << "value touched for \"" << c.text << '"';
        }
    }
}

TEST(XltTest, TextToValueRefusesASmallValueAreaAndNulls)
{
    uint64_t value = 0;
    uint32_t size = 4;
    EXPECT_EQ(SMXLTUTF8ToTypeValue("1", &value, &size, SM_XLT_TYPE_U64), 16u);
    EXPECT_EQ(size, 8u);
    EXPECT_EQ(SMXLTUTF8ToTypeValue(nullptr, &value, &size, SM_XLT_TYPE_U64), 5u);
    EXPECT_EQ(SMXLTUTF8ToTypeValue("1", nullptr, &size, SM_XLT_TYPE_U64), 5u);
    EXPECT_EQ(SMXLTUTF8ToTypeValue("1", &value, nullptr, SM_XLT_TYPE_U64), 5u);
}

TEST(XltTest, ValueToTextWritesDecimalForBothTypes)
{
    struct Case {
        uint64_t bits;
        uint32_t type;
        const char *text;
    } cases[] = {
        {UINT64_MAX, SM_XLT_TYPE_U64, "18446744073709551615"},
        {UINT64_MAX, SM_XLT_TYPE_S64, "-1"},
        {0, SM_XLT_TYPE_U64, "0"},
        {1ull << 40, SM_XLT_TYPE_U64, "1099511627776"},
        {0x8000000000000000ull, SM_XLT_TYPE_S64, "-9223372036854775808"},
    };
    for (const auto &c : cases) {
        char out[64];
        uint32_t size = sizeof out;
        ASSERT_EQ(SMXLTTypeValueToUTF8(&c.bits, 8, out, &size, c.type), 0u) << c.text;
        EXPECT_STREQ(out, c.text);
        EXPECT_EQ(size, std::strlen(c.text) + 1);
    }
}

TEST(XltTest, ValueToTextAnswers16WithTheSizeNeededForAShortBuffer)
{
    uint64_t v = 123456;
    char out[6];
    std::memset(out, 'z', sizeof out);
    uint32_t size = sizeof out;
    EXPECT_EQ(SMXLTTypeValueToUTF8(&v, 8, out, &size, SM_XLT_TYPE_U64), 16u);
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(out[0], 'z'); // nothing written
    char big[7];
    size = sizeof big;
    EXPECT_EQ(SMXLTTypeValueToUTF8(&v, 8, big, &size, SM_XLT_TYPE_U64), 0u);
    EXPECT_STREQ(big, "123456");
}

TEST(XltTest, ValueToTextRefusesBadArguments)
{
    uint64_t v = 1;
    char out[32];
    uint32_t size = sizeof out;
    EXPECT_EQ(SMXLTTypeValueToUTF8(&v, 4, out, &size, SM_XLT_TYPE_U64), 5u);
    EXPECT_EQ(SMXLTTypeValueToUTF8(&v, 8, out, &size, 3), 5u);
    EXPECT_EQ(SMXLTTypeValueToUTF8(nullptr, 8, out, &size, SM_XLT_TYPE_U64), 5u);
    EXPECT_EQ(SMXLTTypeValueToUTF8(&v, 8, out, nullptr, SM_XLT_TYPE_U64), 5u);
}

TEST(Ucs2Test, ConvertsToUtf8IncludingSurrogatePairs)
{
    const uint16_t text[] = {'S', 'T', 0x00E9, 0x20AC, 0xD83D, 0xDE00, 0};
    char out[32];
    uint32_t size = sizeof out;
    ASSERT_EQ(SMUCS2StrToUTF8Str(out, &size, text), 0u);
    EXPECT_STREQ(out, "ST\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(size, 12u);
}

TEST(Ucs2Test, EmptyTextIsJustTheNul)
{
    const uint16_t text[] = {0};
    char out[4] = "zzz";
    uint32_t size = sizeof out;
    ASSERT_EQ(SMUCS2StrToUTF8Str(out, &size, text), 0u);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(size, 1u);
}

TEST(Ucs2Test, ShortBufferAnswers16WithTheSizeNeeded)
{
    const uint16_t text[] = {'7', 'X', 'Y', 'Z', '1', '2', '3', 0};
    char out[7];
    uint32_t size = sizeof out;
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, &size, text), 16u);
    EXPECT_EQ(size, 8u);
    char fits[8];
    size = sizeof fits;
    EXPECT_EQ(SMUCS2StrToUTF8Str(fits, &size, text), 0u);
    EXPECT_STREQ(fits, "7XYZ123");
}

TEST(Ucs2Test, UnpairedSurrogatesAndNullsAnswer5)
{
    const uint16_t lone_high[] = {'a', 0xD800, 'b', 0};
    const uint16_t lone_low[] = {0xDC00, 0};
    const uint16_t high_at_end[] = {0xD800, 0};
    char out[16];
    uint32_t size = sizeof out;
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, &size, lone_high), 5u);
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, &size, lone_low), 5u);
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, &size, high_at_end), 5u);
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, nullptr, lone_low), 5u);
    EXPECT_EQ(SMUCS2StrToUTF8Str(out, &size, nullptr), 5u);
}

} // namespace
