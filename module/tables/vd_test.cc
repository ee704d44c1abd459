// The virtual disk table through getVD: every column, the SSC state read on
// every call and the columns it overrides, the state, size, layout, stripe
// and protocol translations, the mask columns, the columns that answer 99
// for a missing attribute, their log lines, and the rows and names it
// refuses.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "datastore/model_store.h"

#include "store/build.h"
#include "store/tablelist.h"
#include "store/xmlvalue.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;

constexpr const char *kDiskNexus = "0\\128\\0";

class VDTest : public TableTest {
  protected:
    VDTest() : TableTest({getVD, 140, 1, &vdList, "vdisks"}) {}

    // Controller 1 with virtual disk 100 of `attributes`.
    void serveDisk(const Attributes &attributes)
    {
        serveTable(item(1, "adapters", "0", {}) + item(100, "vdisks", kDiskNexus, attributes, 1));
    }

    // The lines one call on column `column` printed.
    std::string logOf(uint32_t column)
    {
        DebugCapture capture;
        get(column);
        return capture.text();
    }
};

// What every call prints around its column's own lines.
std::string framed(const std::string &lines)
{
    return "getVD: curr ID = 1\ngetVD: Retrieving VD_ECACHE_OID\n" + lines + "getVD: exit\n";
}

Attributes fullDisk(const char *ssc)
{
    return {{"Name", "OS"},
            {"DeviceName", "/dev/sda"},
            {"ObjState", "4"},
            {"Length", "600127308776"},
            {"WritePolicy", "2"},
            {"ReadPolicy", "4"},
            {"CachePolicy", "1"},
            {"Layout", "4"},
            {"StripeSize", "128"},
            {"LogicalDriveNum", "7"},
            {"TreeStatus", "2"},
            {"ObjStatus", "3"},
            {"BusProtocol", "8"},
            {"AttributesMask", mask({30, 31})},
            {"VDBadBlocksDetected", "5"},
            {"IsSSC", ssc},
            {"DiskCachePolicy", "2"},
            {"PartOfCachePool", "1"},
            {"VdPIEnabled", "1"}};
}

// `attributes` with `name` set to `value`, or without it when value is null.
Attributes changed(Attributes attributes, const std::string &name, const char *value)
{
    std::erase_if(attributes, [&](const auto &attribute) { return attribute.first == name; });
    if (value != nullptr) {
        attributes.emplace_back(name, value);
    }
    return attributes;
}

// ---- Plain columns --------------------------------------------------------------

TEST_F(VDTest, EveryColumnAnswersItsAttribute)
{
    serveDisk(fullDisk("0"));
    const std::pair<uint32_t, uint32_t> numbers[] = {
        {1, 1},  {4, 3},  {6, 572326}, {7, 1000}, {10, 2}, {11, 3}, {12, 1},
        {13, 3}, {14, 0}, {15, 65536}, {17, 7},   {19, 3}, {20, 4}, {22, 1},
        {23, 5}, {24, 1}, {25, 0},     {26, 2},   {27, 1}, {28, 1}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
    expectText(2, "OS");
    expectText(3, "/dev/sda");
    expectText(21, kDiskNexus);
}

TEST_F(VDTest, APlainCallLogsItsIdTheSscReadAndItsExit)
{
    serveDisk(fullDisk("0"));
    EXPECT_EQ(logOf(2), framed(""));
    EXPECT_EQ(logOf(1), framed(""));
}

TEST_F(VDTest, ColumnsTheTableDoesNotServeAreNoSuchName)
{
    serveDisk(fullDisk("0"));
    EXPECT_EQ(absentColumns(0, 30), (std::vector<uint32_t>{0, 5, 8, 9, 16, 18, 29, 30}));
    for (uint32_t column :
         std::initializer_list<uint32_t>{0, 5, 8, 9, 16, 18, 29, 1000, 0xFFFFFFFF}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.type, kUnsetType) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
        EXPECT_FALSE(a.nullBuffer) << "column " << column;
    }
    // The disk's SSC flag is read before the column is looked up.
    EXPECT_EQ(logOf(5), framed(""));
    EXPECT_EQ(logOf(29), framed(""));
}

TEST_F(VDTest, MissingAttributesFailTheirColumnsOrAnswerNotApplicable)
{
    serveDisk({});
    for (uint32_t column : std::initializer_list<uint32_t>{2, 3, 4, 6, 7, 10, 11, 13, 14, 15, 17,
                                                           19, 20, 23, 24, 28}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    expectNumber(1, 1);
    expectText(21, kDiskNexus);
    expectNumber(22, 99, 2); // 99 is written, the failure kept
    for (uint32_t column : std::initializer_list<uint32_t>{12, 25, 26, 27}) {
        expectNumber(column, 99);
    }
}

TEST_F(VDTest, OddAttributesAreReadAsTheyStand)
{
    serveDisk({{"Name", ""},
               {"LogicalDriveNum", "4294967297"},
               {"TreeStatus", "4294967295"},
               {"ObjStatus", "abc"},
               {"Length", "abc"},
               {"VdPIEnabled", "x"}});
    expectText(2, "");
    expectNumber(17, 1); // wraps past 32 bits
    expectNumber(19, 0);
    expectNumber(20, 1);
    expectNumber(6, 0);
    expectNumber(7, 0);
    expectNumber(28, 0);
}

// ---- The SSC state ------------------------------------------------------------------

TEST_F(VDTest, AnSscDiskAnswersFixedNumbersWhateverItsPoliciesHold)
{
    for (const char *ssc : {"1", "2"}) {
        SetUp();
        serveDisk(fullDisk(ssc));
        const std::pair<uint32_t, uint32_t> numbers[] = {{10, 9},  {11, 9},  {12, 99}, {26, 99},
                                                         {27, 99}, {13, 25}, {14, 0},  {15, 0}};
        for (const auto &[column, value] : numbers) {
            expectNumber(column, value);
        }
        // Not affected: the flag itself and the statuses.
        expectNumber(25, ssc[0] == '1' ? 1u : 2u);
        expectNumber(19, 3);
        expectNumber(20, 4);
    }
    SetUp();
    serveDisk(changed(fullDisk("1"), "StripeSize", "2048"));
    expectNumber(14, 0);
    expectNumber(15, 0);
}

TEST_F(VDTest, AFlagOfZeroOrNoneLeavesThePoliciesAsStored)
{
    for (const char *ssc : {"0", "abc"}) {
        SetUp();
        serveDisk(fullDisk(ssc));
        expectNumber(10, 2);
        expectNumber(13, 3);
        expectNumber(15, 65536);
        expectNumber(25, 0);
    }
    SetUp();
    serveDisk(changed(fullDisk("0"), "IsSSC", nullptr));
    const std::pair<uint32_t, uint32_t> numbers[] = {{10, 2},     {11, 3}, {12, 1}, {13, 3},
                                                     {15, 65536}, {26, 2}, {27, 1}, {25, 99}};
    for (const auto &[column, value] : numbers) {
        expectNumber(column, value);
    }
}

TEST_F(VDTest, AnSscDiskStillReadsTheAttributeItOverrides)
{
    serveDisk({{"IsSSC", "1"}});
    for (uint32_t column : std::initializer_list<uint32_t>{10, 11, 13, 14, 15}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    for (uint32_t column : std::initializer_list<uint32_t>{12, 26, 27}) {
        expectNumber(column, 99);
    }
}

TEST_F(VDTest, EveryCallReadsTheFlagAfresh)
{
    serveDisk(fullDisk("0"));
    expectNumber(10, 2);
    EXPECT_EQ(cachedObjId, 100u);
    ASSERT_TRUE(kelp::ds::setAttribute(100, "IsSSC", "1", nullptr));
    expectNumber(10, 9);
    ASSERT_TRUE(kelp::ds::setAttribute(100, "IsSSC", "0", nullptr));
    expectNumber(11, 3);
}

// ---- Translations -------------------------------------------------------------------

TEST_F(VDTest, StateIsItsLowestBitButBitTwentyEightAloneIsThirtyFive)
{
    const std::pair<const char *, uint32_t> cases[] = {{"268435456", 35},
                                                       {"32", 6},
                                                       {"1", 1},
                                                       {"268435457", 1},
                                                       {"805306368", 29},
                                                       {"4294967296", 33},
                                                       {"9223372036854775808", 64},
                                                       {"18446744073709551615", 1},
                                                       {"12", 3}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveDisk({{"ObjState", state}});
        expectNumber(4, expected);
    }
}

TEST_F(VDTest, AStateOfZeroSucceedsWithoutANumber)
{
    for (const char *state : {"0", "abc"}) {
        SetUp();
        serveDisk({{"ObjState", state}});
        const Answer a = get(4);
        EXPECT_EQ(a.result, 0) << state;
        EXPECT_EQ(a.type, kInt) << state;
        EXPECT_EQ(a.value, kUntouched) << state;
    }
}

TEST_F(VDTest, LengthIsSplitIntoMebibytesAndTheBytesBeyond)
{
    serveDisk({{"Length", "5369233408"}}); // 5 GiB and 512 KiB
    expectNumber(6, 5120);
    expectNumber(7, 524288);
    SetUp();
    serveDisk({{"Length", "18446744073709551615"}});
    expectNumber(6, 0xFFFFFFFF); // cut to 32 bits
    expectNumber(7, 0xFFFFF);
}

TEST_F(VDTest, PoliciesAnswerTheirLowestBit)
{
    const std::pair<const char *, uint32_t> cases[] = {{"0", 0}, {"1", 1},  {"2", 2},
                                                       {"8", 4}, {"12", 3}, {"2147483648", 32}};
    for (const auto &[stored, expected] : cases) {
        SetUp();
        serveDisk({{"WritePolicy", stored}, {"ReadPolicy", stored}, {"CachePolicy", stored}});
        expectNumber(10, expected);
        expectNumber(11, expected);
        expectNumber(12, expected);
    }
}

TEST_F(VDTest, LayoutsAreMappedAndUnknownCodesPassThrough)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"1", 1},      {"2", 2},      {"4", 3},       {"8", 4},       {"16", 5},
        {"32", 6},     {"64", 7},     {"128", 8},     {"256", 9},     {"512", 10},
        {"1024", 11},  {"2048", 12},  {"4096", 19},   {"8192", 20},   {"16384", 21},
        {"32768", 22}, {"65536", 23}, {"262144", 24}, {"524288", 10}, {"131072", 131072},
        {"6", 6},      {"0", 0},      {"3", 3}};
    for (const auto &[stored, expected] : cases) {
        SetUp();
        serveDisk({{"Layout", stored}});
        expectNumber(13, expected);
    }
}

TEST_F(VDTest, StripeSizesAreSplitBetweenBytesAndMebibytes)
{
    // Stored sectors, column 14 (MiB), column 15 (bytes).
    const std::tuple<const char *, uint32_t, uint32_t> cases[] = {
        {"1", 0, 512},      {"2", 0, 1024},     {"4", 0, 2048},      {"8", 0, 4096},
        {"16", 0, 8192},    {"32", 0, 16384},   {"64", 0, 32768},    {"128", 0, 65536},
        {"256", 0, 131072}, {"512", 0, 262144}, {"1024", 0, 524288}, {"2048", 1, 0},
        {"4096", 2, 0},     {"8192", 4, 0},     {"16384", 8, 0},     {"32768", 16, 0},
        {"3", 0, 0},        {"0", 0, 0},        {"65536", 0, 0}};
    for (const auto &[stored, mebibytes, bytes] : cases) {
        SetUp();
        serveDisk({{"StripeSize", stored}});
        expectNumber(14, mebibytes);
        expectNumber(15, bytes);
    }
}

TEST_F(VDTest, BusProtocolIsMappedAndAMissingOneIsNotApplicableWithTheFailure)
{
    const std::pair<const char *, uint32_t> cases[] = {{"1", 3}, {"2", 4}, {"7", 2}, {"8", 1},
                                                       {"5", 0}, {"0", 0}, {"9", 0}, {"3", 0}};
    for (const auto &[stored, expected] : cases) {
        SetUp();
        serveDisk({{"BusProtocol", stored}});
        expectNumber(22, expected);
    }
    SetUp();
    serveDisk({});
    const Answer a = get(22);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, 99u);
    EXPECT_FALSE(a.nullBuffer);
}

TEST_F(VDTest, ProtectionInformationIsEnabledOrNot)
{
    const std::pair<const char *, uint32_t> cases[] = {{"0", 0}, {"1", 1}, {"7", 1}};
    for (const auto &[stored, expected] : cases) {
        SetUp();
        serveDisk({{"VdPIEnabled", stored}});
        expectNumber(28, expected);
    }
    EXPECT_EQ(logOf(28), framed("getCtrl: Retrieving VD_PI_ENABLE\n"
                                "getCtrl: Retrieving VD_PI_ENABLE succeeded - 1\n"));
    SetUp();
    serveDisk({});
    EXPECT_EQ(get(28).result, 2);
    EXPECT_EQ(logOf(28), framed("getCtrl: Retrieving VD_PI_ENABLE\n"
                                "getCtrl: Retrieving VD_PI_ENABLE failed\n"));
}

// ---- The capability mask --------------------------------------------------------------

TEST_F(VDTest, BadBlocksAreReadOnlyWhereTheControllerDetectsThem)
{
    serveDisk({{"AttributesMask", mask({31})}, {"VDBadBlocksDetected", "5"}});
    expectNumber(23, 2);
    EXPECT_EQ(logOf(23), framed("getVD: Retrieving VDBADBLOCKSDETECTED\n"
                                "getVD: Retrieving VDBADBLOCKSDETECTED - controller doesnot "
                                "supports Badblocks detection\n"));
    SetUp();
    serveDisk({{"AttributesMask", mask({30})}, {"VDBadBlocksDetected", "5"}});
    expectNumber(23, 5);
    EXPECT_EQ(logOf(23), framed("getVD: Retrieving VDBADBLOCKSDETECTED\n"
                                "getVD: Retrieving VDBADBLOCKSDETECTED - controller supports "
                                "Badblocks detection\n"
                                "getVD: VDBADBLOCKSDETECTED value returned is 5\n"));
}

TEST_F(VDTest, ADetectingControllerWithoutACountAnswersZero)
{
    serveDisk({{"AttributesMask", mask({30})}});
    expectNumber(23, 0);
    EXPECT_EQ(logOf(23), framed("getVD: Retrieving VDBADBLOCKSDETECTED\n"
                                "getVD: Retrieving VDBADBLOCKSDETECTED - controller supports "
                                "Badblocks detection\n"
                                "getVD: VDBADBLOCKSDETECTED value returned is 0\n"));
}

TEST_F(VDTest, BadBlocksWithoutAClearFlagSucceedWithoutANumber)
{
    for (const std::string &flags : {withChar(mask({}), 30, 'x'), std::string("0101")}) {
        SetUp();
        serveDisk({{"AttributesMask", flags}, {"VDBadBlocksDetected", "5"}});
        const Answer a = get(23);
        EXPECT_EQ(a.result, 0) << flags;
        EXPECT_EQ(a.type, kInt) << flags;
        EXPECT_EQ(a.value, kUntouched) << flags;
        EXPECT_EQ(logOf(23), framed("getVD: Retrieving VDBADBLOCKSDETECTED\n")) << flags;
    }
    SetUp();
    serveDisk({{"VDBadBlocksDetected", "5"}});
    const Answer a = get(23);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, kUntouched);
}

TEST_F(VDTest, SecuredIsMaskPositionThirtyOne)
{
    const std::pair<std::string, uint32_t> cases[] = {{mask({31}), 1},
                                                      {mask({30}), 0},
                                                      {withChar(mask({}), 31, 'x'), 99},
                                                      {std::string("0101"), 99}};
    for (const auto &[flags, expected] : cases) {
        SetUp();
        serveDisk({{"AttributesMask", flags}});
        expectNumber(24, expected);
        EXPECT_EQ(logOf(24), framed("getVD: Retrieving VD_SECURED_OID\n"
                                    "getVD: VD_SECURED_OID value returned is " +
                                    std::to_string(expected) + "\n"));
    }
}

TEST_F(VDTest, SecuredWithoutAMaskFailsAndLogsTheNumberAsItWas)
{
    serveDisk({});
    const Answer a = get(24);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
    EXPECT_EQ(logOf(24), framed("getVD: Retrieving VD_SECURED_OID\n"
                                "getVD: VD_SECURED_OID value returned is " +
                                std::to_string(kUntouched) + "\n"));
}

TEST_F(VDTest, ALongMaskIsReadWhole)
{
    std::string longest(kXmlValueSize - 1, '1');
    longest[30] = '0';
    serveDisk({{"AttributesMask", longest}});
    expectNumber(23, 2);
    expectNumber(24, 1);
}

// ---- Columns that answer 99, and their lines ---------------------------------------

TEST_F(VDTest, TheSscFlagIsAnsweredAsStoredWithItsLines)
{
    serveDisk({{"IsSSC", "3"}});
    expectNumber(25, 3);
    EXPECT_EQ(logOf(25),
              framed("getVD: Retrieving VD_ECACHE_OID\ngetVD: Retrieving VD_ECACHE_OID\n"));
    SetUp();
    serveDisk({});
    expectNumber(25, 99);
    EXPECT_EQ(logOf(25), framed("getVD: Retrieving VD_ECACHE_OID\n"));
}

TEST_F(VDTest, DiskCachePolicyKeepsTheKnownPolicies)
{
    const std::pair<const char *, uint32_t> cases[] = {{"1", 1},  {"2", 2},  {"4", 4},
                                                       {"0", 99}, {"3", 99}, {"8", 99}};
    for (const auto &[stored, expected] : cases) {
        SetUp();
        serveDisk({{"DiskCachePolicy", stored}});
        expectNumber(26, expected);
    }
    EXPECT_EQ(logOf(26), framed("getVD: Retrieving VD_DISKPOLICY_OID\n"
                                "getVD: Retrieving VD_DISKPOLICY_OID\n"));
    SetUp();
    serveDisk({});
    expectNumber(26, 99);
    EXPECT_EQ(logOf(26), framed("getVD: Retrieving VD_DISKPOLICY_OID\n"
                                "getVD: Retrieving VD_DISKPOLICY_OID failed \n"
                                "getVD: Retrieving VD_DISKPOLICY_OID\n"));
}

TEST_F(VDTest, CachePoolMembershipClosesWithTheDiskPolicyLine)
{
    serveDisk({{"PartOfCachePool", "3"}});
    expectNumber(27, 3);
    EXPECT_EQ(logOf(27), framed("getVD: Retrieving VD_TIDALCACHE_STATE_OID\n"
                                "getVD: Retrieving VD_DISKPOLICY_OID\n"));
    SetUp();
    serveDisk({});
    expectNumber(27, 99);
    EXPECT_EQ(logOf(27), framed("getVD: Retrieving VD_TIDALCACHE_STATE_OID\n"));
}

TEST_F(VDTest, ReadsIntoTheReplyDropTheBufferAndWrittenNumbersKeepIt)
{
    serveDisk(fullDisk("0"));
    for (uint32_t column : std::initializer_list<uint32_t>{1, 4, 6, 7, 10, 11, 12, 13, 14, 15, 17,
                                                           19, 20, 22, 23, 25, 26, 27, 28}) {
        EXPECT_TRUE(get(column).nullBuffer) << "column " << column;
    }
    EXPECT_FALSE(get(24).nullBuffer);
    SetUp();
    serveDisk({{"AttributesMask", mask({})}});
    for (uint32_t column : std::initializer_list<uint32_t>{12, 22, 23, 24, 25, 26, 27}) {
        const Answer a = get(column);
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_FALSE(a.nullBuffer) << "column " << column;
    }
}

// ---- Rows -----------------------------------------------------------------------------

TEST_F(VDTest, RowsOutsideTheListAreNoSuchName)
{
    serveDisk(fullDisk("0"));
    for (uint32_t row : std::initializer_list<uint32_t>{0, 2, 0xFFFFFFFF}) {
        for (uint32_t column : std::initializer_list<uint32_t>{1, 2, 5}) {
            const Answer a = get(column, row);
            EXPECT_EQ(a.result, 2) << "row " << row << " column " << column;
            EXPECT_EQ(a.value, kUntouched) << "row " << row << " column " << column;
        }
    }
}

TEST_F(VDTest, ADiskGoneFromTheStoreIsNoSuchNameWithoutReadingItsFlag)
{
    serveDisk(fullDisk("0"));
    ASSERT_TRUE(kelp::ds::removeObject(100, nullptr));
    for (uint32_t column = 0; column <= 29; column++) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.type, kUnsetType) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    EXPECT_EQ(logOf(1), "getVD: curr ID = 1\ngetVD: exit\n");
}

TEST_F(VDTest, ShortNamesAreNoSuchName)
{
    serveDisk(fullDisk("0"));
    std::vector<uint32_t> arcs = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 140, 1};
    {
        DebugCapture capture;
        EXPECT_EQ(getName(arcs).result, 2);
        EXPECT_EQ(capture.text(), "getVD: exit\n"); // no entry arc to show
    }
    arcs.push_back(1);
    EXPECT_EQ(getName(arcs).result, 2);
    arcs.push_back(2);
    EXPECT_EQ(getName(arcs).result, 2);
    arcs.insert(arcs.end(), {1, 9, 9});
    const Answer a = getName(arcs);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.text, "OS"); // arcs after the row are ignored
}

TEST_F(VDTest, SpansOfASpannedDiskAreNotRows)
{
    // The builder lists only virtual disks without a parent virtual disk.
    serveTable(item(1, "adapters", "0", {}) +
               item(100, "vdisks", "0\\128\\1\\0", {{"Name", "Span"}, {"ParentVDID", "101"}}, 1) +
               item(101, "vdisks", "0\\128\\1", {{"Name", "Data"}}, 1) +
               item(102, "vdisks", "0\\128\\2", {{"Name", "Archive"}}, 1));
    ASSERT_EQ(vdList.length, 2u);
    expectText(2, "Data");
    const Answer second = get(2, 2);
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.text, "Archive");
    EXPECT_EQ(get(2, 3).result, 2);
}

TEST_F(VDTest, AnEmptyTableHasNoRows)
{
    serveTable(item(1, "adapters", "0", {}));
    EXPECT_EQ(get(1).result, 2);
}

// ---- The shipped sample model ---------------------------------------------------

TEST_F(VDTest, TheSampleModelListsItsDisksWithoutTheSpans)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(vdList.length, 6u);
    const Answer spanned = get(2, 2);
    EXPECT_EQ(spanned.text, "Data");
    EXPECT_EQ(get(21, 3).text, "0\\128\\2");
    // The degraded RAID 5 and the SSD cache with its overrides.
    EXPECT_EQ(get(4, 3).value, 6u);
    EXPECT_EQ(get(4, 6).value, 35u);
    EXPECT_EQ(get(10, 6).value, 9u);
    EXPECT_EQ(get(13, 6).value, 25u);
    EXPECT_EQ(get(12, 6).value, 99u);
    EXPECT_EQ(get(13, 5).value, 2u); // RAID 0
    EXPECT_EQ(get(14, 5).value, 1u); // 2048 sectors: 1 MiB
    EXPECT_EQ(get(15, 1).value, 65536u);
}

} // namespace
