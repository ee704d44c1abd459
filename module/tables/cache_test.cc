// The partition, Tidal cache, cache disk and cache pool tables through
// getVDPartition, getTidalCache, getTidalCacheDisks and getTidalCachePool:
// every column, the sizes, the states, the lines each table prints, and the
// rows and columns they refuse.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "datastore/model_store.h"

#include "store/build.h"
#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;

// One object of the table's type (id 50, nexus "3\0") on its own.
class CacheTableTest : public TableTest {
  protected:
    explicit CacheTableTest(const TableUnderTest &table) : TableTest(table), type_(table.listType)
    {
    }

    void serveObject(const Attributes &attributes)
    {
        serveTable(item(50, type_, "3\\0", attributes));
    }

    std::string logOf(uint32_t column, uint32_t row = 1)
    {
        DebugCapture capture;
        get(column, row);
        return capture.text();
    }

    // A row outside the list, an object gone from the store and a column the
    // table does not have: 2 with the reply untouched.
    void expectRefused(uint32_t lastColumn)
    {
        for (uint32_t row : std::initializer_list<uint32_t>{0, 2, 0xFFFFFFFF}) {
            const Answer a = get(1, row);
            EXPECT_EQ(a.result, 2) << "row " << row;
            EXPECT_EQ(a.value, kUntouched) << "row " << row;
        }
        for (uint32_t column : std::initializer_list<uint32_t>{0, lastColumn + 1, 0xFFFFFFFF}) {
            const Answer a = get(column);
            EXPECT_EQ(a.result, 2) << "column " << column;
            EXPECT_EQ(a.type, kUnsetType) << "column " << column;
            EXPECT_EQ(a.value, kUntouched) << "column " << column;
        }
        ASSERT_TRUE(kelp::ds::removeObject(50, nullptr));
        for (uint32_t column = 0; column <= lastColumn + 1; column++) {
            const Answer a = get(column);
            EXPECT_EQ(a.result, 2) << "gone, column " << column;
            EXPECT_EQ(a.value, kUntouched) << "gone, column " << column;
        }
    }

  private:
    std::string type_;
};

class PartitionTest : public CacheTableTest {
  protected:
    PartitionTest() : CacheTableTest({getVDPartition, 140, 2, &vdPartList, "VDPartitionNode"}) {}
};

class TidalCacheTest : public CacheTableTest {
  protected:
    TidalCacheTest() : CacheTableTest({getTidalCache, 140, 4, &cacheList, "Tidal Cache"}) {}
};

class CacheDiskTest : public CacheTableTest {
  protected:
    CacheDiskTest() : CacheTableTest({getTidalCacheDisks, 140, 5, &cacheDiskList, "CacheLunNode"})
    {
    }
};

class CachePoolTest : public CacheTableTest {
  protected:
    CachePoolTest()
        : CacheTableTest({getTidalCachePool, 140, 6, &cachePoolList, "Tidal Cache Pool"})
    {
    }
};

// ---- Partitions -------------------------------------------------------------------

TEST_F(PartitionTest, EveryColumnAnswersItsAttribute)
{
    serveObject({{"PartitionPath", "/dev/sda1"},
                 {"ObjState", "8"},
                 {"PartitionSize", "536870912"},
                 {"PartitionState", "Mounted"}});
    expectNumber(1, 1);
    expectText(2, "/dev/sda1");
    expectNumber(3, 4);
    expectNumber(4, 512);
    expectText(5, "Mounted");
    expectText(6, "3\\0");
    EXPECT_EQ(absentColumns(0, 7), (std::vector<uint32_t>{0, 7}));
}

TEST_F(PartitionTest, EachCallPrintsItsEntryAndExitAndColumnOneItsRow)
{
    serveObject({{"PartitionPath", "/dev/sda1"}});
    EXPECT_EQ(logOf(2), "getVDPartition: Entry\ngetVDPartition: Exit\n");
    EXPECT_EQ(logOf(1), "getVDPartition: Entry\n"
                        "getVDPartition: VDPARTITION_NUMBER_OID value = 1\n"
                        "getVDPartition: Exit\n");
    EXPECT_EQ(logOf(7), "getVDPartition: Entry\ngetVDPartition: Exit\n");
    EXPECT_EQ(logOf(1, 2), "getVDPartition: Entry\ngetVDPartition: Exit\n");
    EXPECT_TRUE(get(1).nullBuffer);
}

TEST_F(PartitionTest, SizesAreWholeMebibytes)
{
    const std::pair<const char *, uint32_t> cases[] = {{"1048576", 1},
                                                       {"1048575", 0},
                                                       {"2097151", 1},
                                                       {"18446744073709551615", 0xFFFFFFFF},
                                                       {"abc", 0}};
    for (const auto &[size, expected] : cases) {
        SetUp();
        serveObject({{"PartitionSize", size}});
        expectNumber(4, expected);
    }
}

TEST_F(PartitionTest, StateIsItsLowestBitAndZeroOrNoneLeavesTheNumber)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"1", 1}, {"12", 3}, {"9223372036854775808", 64}, {"18446744073709551615", 1}};
    for (const auto &[state, expected] : cases) {
        SetUp();
        serveObject({{"ObjState", state}});
        expectNumber(3, expected);
    }
    SetUp();
    serveObject({{"ObjState", "0"}});
    const Answer zero = get(3);
    EXPECT_EQ(zero.result, 0);
    EXPECT_EQ(zero.type, kInt);
    EXPECT_EQ(zero.value, kUntouched);
    SetUp();
    serveObject({});
    const Answer none = get(3);
    EXPECT_EQ(none.result, 2);
    EXPECT_EQ(none.value, kUntouched);
}

TEST_F(PartitionTest, MissingAttributesFailTheirColumns)
{
    serveObject({});
    for (uint32_t column : std::initializer_list<uint32_t>{2, 3, 4, 5}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    expectNumber(1, 1);
    expectText(6, "3\\0");
}

TEST_F(PartitionTest, RowsColumnsAndObjectsItDoesNotHaveAreNoSuchName)
{
    serveObject({{"PartitionPath", "/dev/sda1"}});
    expectRefused(6);
}

// ---- The cache ---------------------------------------------------------------------

TEST_F(TidalCacheTest, EveryColumnAnswersItsAttribute)
{
    serveObject({{"Name", "Tidal Cache"},
                 {"CachePoolLicenseState", "Licensed"},
                 {"TidalCacheLicenseRemaining", "692"},
                 {"TidalCacheLicenseEntitlementID", "VRN-TC-0A17F3"},
                 {"TidalCacheLicenseDuration", "3 years"},
                 {"TidalCacheLicenseCapacity", "4 TB"},
                 {"TidalCacheLicenseType", "Subscription"},
                 {"TidalCacheLicenseVendor", "Vorn"},
                 {"TidalCacheLicenseProductID", "TC-100"},
                 {"TidalCacheLicenseDateSold", "2024-03-18"},
                 {"TidalCacheLicenseGeneration", "2"},
                 {"TidalCacheLicenseFeatureID", "TDLC"},
                 {"TidalCacheLicenseFeatureIDDesc", "SSD caching"}});
    expectNumber(1, 1);
    expectNumber(4, 692);
    const std::pair<uint32_t, const char *> texts[] = {
        {2, "Tidal Cache"},  {3, "Licensed"}, {5, "VRN-TC-0A17F3"},
        {6, "3 years"},      {7, "4 TB"},     {8, "692"},
        {9, "Subscription"}, {10, "Vorn"},    {11, "TC-100"},
        {12, "2024-03-18"},  {13, "2"},       {14, "TDLC"},
        {15, "SSD caching"}, {16, "3\\0"}};
    for (const auto &[column, text] : texts) {
        expectText(column, text);
    }
    EXPECT_EQ(absentColumns(0, 17), (std::vector<uint32_t>{0, 17}));
}

TEST_F(TidalCacheTest, TheRemainingLicenceIsANumberInOneColumnAndTextInAnother)
{
    serveObject({{"TidalCacheLicenseRemaining", "12 days"}});
    expectNumber(4, 12);
    expectText(8, "12 days");
}

TEST_F(TidalCacheTest, EachCallPrintsItsEntryAndExitAndColumnOneItsRow)
{
    serveObject({{"Name", "Tidal Cache"}});
    EXPECT_EQ(logOf(2), "getTidalCache: Entry\ngetTidalCache: Exit\n");
    EXPECT_EQ(logOf(1), "getTidalCache: Entry\n"
                        "getTidalCache: TDLCACHE_NUMBER_OID value = 1\n"
                        "getTidalCache: Exit\n");
    EXPECT_EQ(logOf(17), "getTidalCache: Entry\ngetTidalCache: Exit\n");
}

TEST_F(TidalCacheTest, MissingAttributesFailTheirColumns)
{
    serveObject({});
    for (uint32_t column = 2; column <= 15; column++) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
    expectText(16, "3\\0");
}

TEST_F(TidalCacheTest, RowsColumnsAndObjectsItDoesNotHaveAreNoSuchName)
{
    serveObject({{"Name", "Tidal Cache"}});
    expectRefused(16);
}

// ---- Cache disks ----------------------------------------------------------------------

TEST_F(CacheDiskTest, EveryColumnAnswersItsAttribute)
{
    serveObject({{"CacheLunName", "CacheLun0"},
                 {"ObjState", "4"},
                 {"BackendObjType", "773"},
                 {"CacheLunBackendPath", "/dev/sde"},
                 {"PartitionSize", "800165199872"},
                 {"CacheLunOpMode", "2"},
                 {"CacheLunMode", "1"},
                 {"ObjStatus", "2"}});
    expectNumber(1, 1);
    expectText(2, "CacheLun0");
    expectNumber(3, 3);
    expectNumber(4, 773);
    expectText(5, "/dev/sde");
    expectNumber(6, 763097);
    expectNumber(7, 2);
    expectNumber(8, 1);
    expectText(9, "3\\0");
    expectNumber(10, 3);
    EXPECT_EQ(absentColumns(0, 11), (std::vector<uint32_t>{0, 11}));
}

TEST_F(CacheDiskTest, SizesAreWholeMebibytesAndStatusesCountFromOne)
{
    serveObject({{"PartitionSize", "1048576"}, {"ObjStatus", "0"}});
    expectNumber(6, 1);
    expectNumber(10, 1);
}

TEST_F(CacheDiskTest, ItClosesWithTheCacheTablesLine)
{
    serveObject({{"CacheLunName", "CacheLun0"}});
    EXPECT_EQ(logOf(2), "getTidalCacheDisks: Entry\ngetTidalCache: Exit\n");
    EXPECT_EQ(logOf(1), "getTidalCacheDisks: Entry\n"
                        "getTidalCacheDisks: TDLCACHE_NUMBER_OID value = 1\n"
                        "getTidalCache: Exit\n");
    EXPECT_EQ(logOf(11), "getTidalCacheDisks: Entry\ngetTidalCache: Exit\n");
}

TEST_F(CacheDiskTest, AStateOfZeroOrNoneLeavesTheNumber)
{
    serveObject({{"ObjState", "0"}});
    const Answer zero = get(3);
    EXPECT_EQ(zero.result, 0);
    EXPECT_EQ(zero.type, kInt);
    EXPECT_EQ(zero.value, kUntouched);
    SetUp();
    serveObject({{"ObjState", "18446744073709551615"}});
    expectNumber(3, 1);
    SetUp();
    serveObject({});
    for (uint32_t column : std::initializer_list<uint32_t>{2, 3, 4, 5, 6, 7, 8, 10}) {
        const Answer a = get(column);
        EXPECT_EQ(a.result, 2) << "column " << column;
        EXPECT_EQ(a.value, kUntouched) << "column " << column;
    }
}

TEST_F(CacheDiskTest, OddNumbersAreReadAsTheyStand)
{
    serveObject({{"BackendObjType", "abc"},
                 {"CacheLunOpMode", "4294967297"},
                 {"ObjStatus", "4294967295"},
                 {"CacheLunName", ""}});
    expectNumber(4, 0);
    expectNumber(7, 1);
    expectNumber(10, 0);
    expectText(2, "");
}

TEST_F(CacheDiskTest, RowsColumnsAndObjectsItDoesNotHaveAreNoSuchName)
{
    serveObject({{"CacheLunName", "CacheLun0"}});
    expectRefused(10);
}

// ---- Cache pools ------------------------------------------------------------------------

TEST_F(CachePoolTest, EveryColumnAnswersItsAttribute)
{
    serveObject({{"CacheStoreCount", "2"},
                 {"CachePoolUUID", "6c8a-11ee"},
                 {"CachePoolLicenseState", "Licensed"},
                 {"CachePoolSize", "1600330399744"},
                 {"CachePoolISHA", "Yes"},
                 {"ObjStatus", "2"}});
    expectNumber(1, 1);
    expectNumber(2, 2);
    expectText(3, "6c8a-11ee");
    expectText(4, "Licensed");
    expectNumber(5, 1562822656);
    expectText(6, "Yes");
    expectText(7, "3\\0");
    expectNumber(8, 3);
    EXPECT_EQ(absentColumns(0, 9), (std::vector<uint32_t>{0, 9}));
}

TEST_F(CachePoolTest, TheSizeIsScaledByTenBits)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"1048576", 1024}, {"1023", 0}, {"18446744073709551615", 0xFFFFFFFF}, {"abc", 0}};
    for (const auto &[size, expected] : cases) {
        SetUp();
        serveObject({{"CachePoolSize", size}});
        expectNumber(5, expected);
    }
}

TEST_F(CachePoolTest, APoolWithoutASizeAnswersZeroAndFails)
{
    serveObject({});
    const Answer a = get(5);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, 0u);
    for (uint32_t column : std::initializer_list<uint32_t>{2, 3, 4, 6, 8}) {
        const Answer b = get(column);
        EXPECT_EQ(b.result, 2) << "column " << column;
        EXPECT_EQ(b.value, kUntouched) << "column " << column;
    }
}

TEST_F(CachePoolTest, EachCallPrintsItsEntryAndExitAndColumnOneItsRow)
{
    serveObject({{"CacheStoreCount", "2"}});
    EXPECT_EQ(logOf(2), "getTidalCachePool: Entry\ngetTidalCachePool: Exit\n");
    EXPECT_EQ(logOf(1), "getTidalCachePool: Entry\n"
                        "getTidalCachePool: TDLCACHE_NUMBER_OID value = 1\n"
                        "getTidalCachePool: Exit\n");
    EXPECT_EQ(logOf(9), "getTidalCachePool: Entry\ngetTidalCachePool: Exit\n");
}

TEST_F(CachePoolTest, RowsColumnsAndObjectsItDoesNotHaveAreNoSuchName)
{
    serveObject({{"CacheStoreCount", "2"}});
    expectRefused(8);
}

// ---- Every table, in the shipped sample model ---------------------------------------------

TEST_F(PartitionTest, TheSampleModelAnswersWhatItsPartitionsHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(vdPartList.length, 5u);
    expectText(2, "/dev/sda1");
    expectNumber(4, 512);
    expectText(5, "Mounted");
}

TEST_F(TidalCacheTest, TheSampleModelAnswersWhatItsCacheHolds)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(cacheList.length, 1u);
    expectText(2, "Tidal Cache");
    expectNumber(4, 692);
    expectText(16, "3");
}

} // namespace
