// The enclosure's service tag (column 8) and its express service code
// (column 34) through getEncl: the code in base 36, blanks, characters that
// stop the conversion, tags of every length a value can have, and the log.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store/xmlvalue.h"
#include "tables/encl_testing.h"
#include "testing/debug_capture.h"

namespace {

using namespace encltest;

constexpr uint32_t kTag = 8;
constexpr uint32_t kCode = 34;

struct TagCase {
    std::string tag;
    std::string shown; // column 8
    std::string code;  // column 34
};

class EnclTagTest : public EnclTest {
  protected:
    void expectTag(const TagCase &c)
    {
        SetUp();
        serveEnclosure({{"ServiceTag", c.tag}});
        const std::string what = "tag \"" + c.tag + "\"";
        const Answer shown = get(kTag);
        EXPECT_EQ(shown.result, 0) << what;
        EXPECT_EQ(shown.type, kStr) << what;
        EXPECT_EQ(shown.text, c.shown) << what;
        const Answer code = get(kCode);
        EXPECT_EQ(code.result, 0) << what;
        EXPECT_EQ(code.type, kStr) << what;
        EXPECT_EQ(code.text, c.code) << what;
    }
};

// The value of `tag` in base 36 with wrapping 64-bit arithmetic: the code
// of a tag of letters and digits whose every term fits in 64 bits exactly.
uint64_t base36(const std::string &tag)
{
    uint64_t value = 0;
    for (char c : tag) {
        const uint64_t digit =
            c <= '9' ? static_cast<uint64_t>(c - '0') : static_cast<uint64_t>(c - 'A' + 10);
        value = value * 36 + digit;
    }
    return value;
}

TEST_F(EnclTagTest, TheCodeIsTheTagInBase36)
{
    const TagCase cases[] = {
        {"AB", "AB", "371"}, // 10 * 36 + 11
        {"ab", "ab", "371"}, // letters count by their upper case
        {"7XYZ123", "7XYZ123", "17291601435"},
        {"7KQ3LM2", "7KQ3LM2", "16490637866"},
        {"00", "00", "0"},
        {"10", "10", "36"},
        {"ZZ", "ZZ", "1295"},
    };
    for (const TagCase &c : cases) {
        expectTag(c);
    }
}

TEST_F(EnclTagTest, TagsShorterThanTwoCharactersHaveNoTagAndCodeZero)
{
    for (const char *tag : {"A", "7", "-", " ", ""}) {
        expectTag({tag, "", "0"});
    }
}

TEST_F(EnclTagTest, AnEnclosureWithoutATagHasNoTagAndCodeZero)
{
    serveEnclosure({});
    expectText(kTag, "");
    expectText(kCode, "0");
}

TEST_F(EnclTagTest, BlanksAreCutFromTheTagAndEndTheCode)
{
    const TagCase cases[] = {
        {"AB1 ", "AB1", "13357"}, // the code of AB1
        {"AB1\t", "AB1", "13357"},
        {"AB1   ", "AB1", "13357"},
        // A blank inside ends the code early, while the powers still count
        // every letter and digit: A (10) * 36^(3 - 0 - 1), then the blank.
        {"A B1", "A B", "12960"},
        // The tag keeps as many characters as it has letters and digits.
        {" AB", " A", "0"},
        {std::string(kXmlValueSize - 1, ' '), "", "0"},
    };
    for (const TagCase &c : cases) {
        expectTag(c);
    }
}

TEST_F(EnclTagTest, AnyOtherCharacterLeavesTheTagAsReadInBothColumns)
{
    for (const std::string &tag :
         {std::string("AB-12"), std::string("9KT-B31"), std::string("--"), std::string("AB.1"),
          std::string("A_B"), std::string("AB1 -"), std::string("\xC3\x84") + "B1",
          std::string(kXmlValueSize - 1, '-'), std::string(kXmlValueSize - 2, 'A') + "-"}) {
        expectTag({tag, tag, tag});
    }
}

TEST_F(EnclTagTest, TheLongestTagsStayInTheirBuffers)
{
    const size_t longest = kXmlValueSize - 1;
    // Leading zeros add nothing, however many there are.
    expectTag({std::string(longest - 2, '0') + "AB", std::string(longest - 2, '0') + "AB", "371"});
    // Every term of a long tag is computed in double precision and kept
    // modulo 2^64 with the sum; 36^158 in a double is a multiple of 2^64.
    expectTag({"1" + std::string(longest - 1, '0'), "1" + std::string(longest - 1, '0'), "0"});
    const std::string all(longest, 'Z');
    SetUp();
    serveEnclosure({{"ServiceTag", all}});
    expectText(kTag, all);
    const Answer code = get(kCode);
    EXPECT_EQ(code.result, 0);
    EXPECT_FALSE(code.text.empty());
    EXPECT_EQ(code.text.find_first_not_of("0123456789"), std::string::npos) << code.text;
    EXPECT_LE(code.text.size(), 20u);
}

TEST_F(EnclTagTest, CodesPast64BitsWrap)
{
    // 36^12 is the largest power below 2^64; every term of these tags is
    // exact in a double, so the code is the wrapped base-36 value.
    for (const std::string tag :
         {"Z000000000000", "ZZZZZZZZZZZZZ", "1000000000000", "ZZZZZZZZZZZZ"}) {
        expectTag({tag, tag, std::to_string(base36(tag))});
    }
    EXPECT_EQ(base36("ZZZZZZZZZZZZZ"), 4561031516192243711u); // 36^13 - 1 modulo 2^64
}

TEST_F(EnclTagTest, TheCodeLogsEachCharacterItReads)
{
    serveEnclosure({{"ServiceTag", "AB"}});
    DebugCapture capture;
    expectText(kTag, "AB");
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getEncl: Service Tag is AB - 2\n"
                              "getEncl: Querying ENCL_EXPRESS_SERVICE_CODE_OID\n"
                              "getEncl: Service Tag(Encl) is AB length:2\n"
                              "getEncl: service tag character is A\n"
                              "getEncl: service tag character is B\n"
                              "getEncl: ENCL_EXPRESS_SERVICE_CODE is 371"
                              "getEncl: After change EST AB length 2 Service Tag is AB - 2 "
                              "actual count - 2 final is : 371\n"
                              "getEncl: Exit\n");
}

TEST_F(EnclTagTest, TheCodeColumnLogsNoChange)
{
    serveEnclosure({{"ServiceTag", "A1 "}});
    DebugCapture capture;
    expectText(kCode, "361");
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getEncl: Service Tag is A1  - 3\n"
                              "getEncl: Querying ENCL_EXPRESS_SERVICE_CODE_OID\n"
                              "getEncl: Service Tag(Encl) is A1  length:3\n"
                              "getEncl: service tag character is A\n"
                              "getEncl: service tag character is 1\n"
                              "getEncl: service tag character is  \n"
                              "getEncl: ENCL_EXPRESS_SERVICE_CODE is 361"
                              "getEncl: Exit\n");
}

TEST_F(EnclTagTest, AStoppingCharacterIsLoggedAndNothingComputed)
{
    serveEnclosure({{"ServiceTag", "AB-1"}});
    DebugCapture capture;
    expectText(kCode, "AB-1");
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getEncl: Service Tag is AB-1 - 4\n"
                              "getEncl: Querying ENCL_EXPRESS_SERVICE_CODE_OID\n"
                              "getEncl: Service Tag has non alphanumeric character - exit\n"
                              "getEncl: Exit\n");
}

TEST_F(EnclTagTest, AShortTagLogsItsEmptyResult)
{
    serveEnclosure({{"ServiceTag", "A"}});
    DebugCapture capture;
    expectText(kTag, "");
    EXPECT_EQ(capture.text(), "getEncl(): Entry\n"
                              "getEncl: Service Tag is A - 1\n"
                              "getEncl: Querying ENCL_EXPRESS_SERVICE_CODE_OID\n"
                              "getEncl: ENCL_EXPRESS_SERVICE_CODE is 0"
                              "getEncl: After change EST  length 0 Service Tag is  - 1 "
                              "actual count - 0 final is : 0\n"
                              "getEncl: Exit\n");
}

TEST_F(EnclTagTest, TheTagIsReadOverWhateverTheBufferHeld)
{
    // The reply buffer starts full of 'Z' (the fixture's): nothing of it may
    // show in either column, and column 8 clears what it cuts off.
    serveEnclosure({{"ServiceTag", "AB1 "}});
    const Answer shown = get(kTag);
    EXPECT_EQ(shown.text, "AB1");
    EXPECT_EQ(std::string(buffer.data(), 5), std::string("AB1\0\0", 5));
    const Answer code = get(kCode);
    EXPECT_EQ(code.text, "13357");
    EXPECT_EQ(std::string(buffer.data(), 30), std::string("13357") + std::string(25, '\0'));
}

} // namespace
