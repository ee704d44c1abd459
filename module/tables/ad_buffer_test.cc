// The reply's buffer through getAD: the read-only state and the write
// endurance, answered in buffers of the getter's own that pass to the
// caller, the numbers that keep or drop the caller's buffer, and text
// columns without one.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/vcsupt.h"
#include "tables/ad_testing.h"
#include "tables/cells.h"
#include "testing/debug_capture.h"
#include "testing/test_spy.h"

namespace {

using namespace adtest;
using kelp::testspy::spy;

constexpr const char *kEntry = "getAD(): Entry\n";
constexpr const char *kExit = "getAD: Exit\n";

class AdBufferTest : public AdTest {
  protected:
    void SetUp() override
    {
        AdTest::SetUp();
        kelp::testspy::reset();
    }
    void TearDown() override
    {
        kelp::testspy::reset();
        AdTest::TearDown();
    }

    // Column `column` of row 1, answered in a buffer of the getter's own of
    // at least 1024 bytes, which the fixture freed; the caller's buffer
    // untouched.
    Answer expectOwnText(uint32_t column, const std::string &text, int32_t result = 0)
    {
        kelp::testspy::reset();
        const Answer a = get(column);
        EXPECT_EQ(a.result, result) << "column " << column;
        EXPECT_EQ(a.type, kStr) << "column " << column;
        EXPECT_EQ(a.text, text) << "column " << column;
        EXPECT_TRUE(a.ownBuffer) << "column " << column;
        EXPECT_EQ(spy().allocations, 1) << "column " << column;
        EXPECT_GE(spy().lastAllocSize, 1024u) << "column " << column;
        EXPECT_EQ(spy().frees, 1) << "column " << column;
        EXPECT_EQ(buffer[0], 'Z') << "the caller's buffer is not written";
        return a;
    }
};

// ---- Read-only state (column 48) ----------------------------------------------

TEST_F(AdBufferTest, AWriteStatusOf100OrMoreIsReadOnly)
{
    const std::pair<const char *, const char *> cases[] = {
        {"0", "No"}, {"99", "No"}, {"100", "Yes"}, {"101", "Yes"}, {"4294967295", "Yes"}};
    for (const auto &[status, expected] : cases) {
        SetUp();
        serveDisk({{"PCIeSSDDeviceWriteStatus", status}});
        expectOwnText(48, expected);
    }
}

TEST_F(AdBufferTest, AMissingWriteStatusStillAnswersNoInItsOwnBufferButFails)
{
    serveDisk({});
    DebugCapture capture;
    expectOwnText(48, "No", 2);
    EXPECT_EQ(capture.text(),
              std::string(kEntry) + "getAD: Retrieving AD_PCIESSD_DRV_RO\n" + kExit);
}

// ---- Remaining rated write endurance (column 49) ----------------------------------

TEST_F(AdBufferTest, TheRemainingEnduranceIsWrittenIntoTheCallersBuffer)
{
    serveDisk({{"RemainingRatedWriteEndurance", "97"}, {"NoRatedWriteEndurance", "1"}});
    DebugCapture capture;
    const Answer a = get(49);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kStr);
    EXPECT_EQ(a.text, "97");
    EXPECT_FALSE(a.ownBuffer);
    EXPECT_EQ(spy().allocations, 0);
    EXPECT_EQ(capture.text(), std::string(kEntry) +
                                  "getAD: Retrieving AD_REMAINING_RATED_WR_END\n" +
                                  "getAD: Retrieving RemainingRatedWriteEndurance:97\n " + kExit);
    // Written as a signed decimal, as the rule's format has it.
    SetUp();
    serveDisk({{"RemainingRatedWriteEndurance", "4294967295"}});
    expectText(49, "-1");
}

TEST_F(AdBufferTest, WithoutEnduranceADiskWithoutARatingIsNotAvailable)
{
    serveDisk({{"NoRatedWriteEndurance", "1"}});
    DebugCapture capture;
    expectOwnText(49, "Not Available");
    EXPECT_EQ(capture.text(), std::string(kEntry) +
                                  "getAD: Retrieving AD_REMAINING_RATED_WR_END\n" +
                                  "getAD: Retrieving NoRatedWriteEndurance:1\n " + kExit);
}

TEST_F(AdBufferTest, WithoutEnduranceOrWithARatingItIsNotApplicable)
{
    const std::pair<Attributes, std::string> cases[] = {
        {{{"NoRatedWriteEndurance", "0"}}, "0"},
        {{{"NoRatedWriteEndurance", "2"}}, "2"},
        {{}, "0"},
    };
    for (const auto &[attributes, logged] : cases) {
        SetUp();
        serveDisk(attributes);
        DebugCapture capture;
        expectOwnText(49, "Not Applicable");
        EXPECT_EQ(capture.text(), std::string(kEntry) +
                                      "getAD: Retrieving AD_REMAINING_RATED_WR_END\n" +
                                      "getAD: Retrieving NoRatedWriteEndurance:" + logged + "\n " +
                                      "getAD: Retrieving no properties available\n " + kExit);
    }
}

// ---- Allocation failure ---------------------------------------------------------------

TEST_F(AdBufferTest, WhenNoBufferCanBeHadTheColumnFailsAndTheCallersBufferStays)
{
    const std::pair<uint32_t, Attributes> cases[] = {
        {48, {{"PCIeSSDDeviceWriteStatus", "100"}}},
        {48, {}},
        {49, {{"NoRatedWriteEndurance", "1"}}},
        {49, {}},
    };
    for (const auto &[column, attributes] : cases) {
        SetUp();
        serveDisk(attributes);
        spy().failAllocationsAfter = 0;
        const Answer a = get(column);
        spy().failAllocationsAfter = -1;
        EXPECT_EQ(a.result, 5) << "column " << column;
        EXPECT_FALSE(a.ownBuffer || a.nullBuffer) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
}

// ---- Numbers and the caller's buffer ----------------------------------------------------
// Only column 1, column 16 and integer reads into the reply (as the value
// extraction does them) leave the reply without its buffer; every other
// number is answered with the caller's buffer still in place.

TEST_F(AdBufferTest, OnlyReadsIntoTheReplyAndTheNamedColumnsDropTheBuffer)
{
    serveDisk({{"ObjState", "4"},
               {"Channel", "1"},
               {"Length", "1048576"},
               {"BusProtocol", "8"},
               {"AttributesMask", mask({17, 18})},
               {"TreeStatus", "2"},
               {"MediaType", "1"},
               {"PDPowerState", "1"},
               {"PdSectorSize", "512"}});
    const std::pair<uint32_t, bool> columns[] = {
        {1, true},   {4, true},   {10, true},  {11, true}, {12, true}, {16, true},
        {21, true},  {23, true},  {35, true},  {42, true}, {50, true}, {22, false},
        {31, false}, {36, false}, {40, false}, {41, false}};
    for (const auto &[column, dropped] : columns) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 0) << "column " << column;
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_EQ(a.nullBuffer, dropped) << "column " << column;
    }
}

TEST_F(AdBufferTest, NumbersAnsweredWithoutAReadKeepTheCallersBuffer)
{
    serveDisk({{"PDPowerState", "1"}, {"MediaType", "2"}});
    // A solid-state disk's power state was read into the reply (no buffer);
    // a disk without one never read it.
    EXPECT_TRUE(get(42).nullBuffer);
    SetUp();
    serveDisk({});
    for (uint32_t column : {35u, 36u, 40u, 41u, 42u}) {
        const Answer a = get(column);
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_FALSE(a.nullBuffer) << "column " << column;
    }
}

TEST_F(AdBufferTest, ATextColumnWithoutAReplyBufferIsNoSuchName)
{
    serveTable(
        item(20, "enclosures", "0\\0\\0", {{"EnclosureID", "2"}}) +
        disk(
            1, "0\\0\\0\\3",
            {{"Vendor", "V"}, {"AttributesMask", mask({})}, {"RemainingRatedWriteEndurance", "97"}},
            20));
    std::vector<uint32_t> arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 4, 1, 2, 1};
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    for (uint32_t column : {2u, 3u, 9u, 26u, 49u}) {
        arcs[13] = column;
        SMSnmpValue reply{};
        EXPECT_EQ(getAD(&request, &reply, 12), 2) << "column " << column;
        EXPECT_EQ(reply.buffer, nullptr) << "column " << column;
    }
}

} // namespace
