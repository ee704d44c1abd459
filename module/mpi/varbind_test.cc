// Tests of varbind.cc: naming, filling, summing and freeing bindings.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "mib/mibdef.h"
#include "mpi/mpi.h"
#include "mpi/oid_testing.h"
#include "platform/vcsupt.h"
#include "testing/test_spy.h"

namespace {

using kelp::testing::arcsOf;
using kelp::testing::TestOid;
using kelp::testspy::spy;
using Arcs = std::vector<uint32_t>;

// Columns as the MIB definition has them; the types come from here.
constexpr SMMibColumnDef kTextColumn{2, SM_MIB_CLASS_STRING, SM_ASN_OCTET_STRING, 1, 255, 1};
constexpr SMMibColumnDef kIntColumn{3, SM_MIB_CLASS_INTEGER, SM_ASN_INTEGER, 0, 0, 5};
constexpr SMMibColumnDef kOidColumn{4, SM_MIB_CLASS_STRING, SM_ASN_OBJECT_ID, 0, 0, 1};

const uint16_t *ucs2(const char16_t *text)
{
    return reinterpret_cast<const uint16_t *>(text);
}

class VarBindTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::testspy::reset(); }
};

TEST_F(VarBindTest, ScalarNameIsTheGroupOidThenColumnAndZero)
{
    SMSnmpValue binding{};
    ASSERT_EQ(MPIVarBindSetScalarName(&binding, kelpMibDefinition[0], 3), 0u);
    EXPECT_EQ(arcsOf(binding.name), (Arcs{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 3, 0}));
    EXPECT_EQ(spy().lastAllocSize, 48u);
    MPIVarBindFreeValue(&binding);
    EXPECT_EQ(spy().frees, 1);
}

TEST_F(VarBindTest, ScalarNameAllocationFailureLeavesNoName)
{
    uint32_t old = 1;
    SMSnmpValue binding{{5, 0, &old}, 0, 0, nullptr};
    spy().failAllocationsAfter = 0;
    EXPECT_EQ(MPIVarBindSetScalarName(&binding, kelpMibDefinition[0], 3), 5u);
    EXPECT_EQ(binding.name.count, 0u);
    EXPECT_EQ(binding.name.arcs, nullptr);
    EXPECT_EQ(MPIVarBindSetScalarName(nullptr, kelpMibDefinition[0], 3), 5u);
    EXPECT_EQ(MPIVarBindSetScalarName(&binding, nullptr, 3), 5u);
}

TEST_F(VarBindTest, IntSetterTakesTheTypeFromTheColumn)
{
    char buffer[4];
    SMSnmpValue binding{{}, SM_ASN_OCTET_STRING, 9, buffer};
    EXPECT_EQ(MPIVarBindSetValueInt(&binding, &kIntColumn, 0xFFFFFFFFu), 0u);
    EXPECT_EQ(binding.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(binding.value, 0xFFFFFFFFu);
    EXPECT_EQ(binding.buffer, buffer);
    EXPECT_EQ(MPIVarBindSetValueInt(&binding, nullptr, 1), 5u);
}

TEST_F(VarBindTest, OctStrOfLengthZeroSetsTypeAndLengthWithoutTouchingTheBuffer)
{
    char buffer[8] = "keep";
    SMSnmpValue binding{{}, 0, 8, buffer};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, nullptr, 0, 1), 0u);
    EXPECT_EQ(binding.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(binding.value, 0u);
    EXPECT_EQ(binding.buffer, buffer);
    EXPECT_STREQ(buffer, "keep");
    EXPECT_EQ(spy().allocations, 0);
}

TEST_F(VarBindTest, OctStrCopiesIntoTheCallersBuffer)
{
    char buffer[16];
    std::memset(buffer, '#', sizeof buffer);
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, "Vorn", 4, 0), 0u);
    EXPECT_EQ(binding.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(binding.value, 4u);
    EXPECT_EQ(std::string(buffer, 5), "Vorn#");
    EXPECT_EQ(spy().allocations, 0);
}

TEST_F(VarBindTest, OctStrLongerThanTheCapacityAsksForMore)
{
    char buffer[4] = "abc";
    SMSnmpValue binding{{}, 0, 2, buffer};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, "hello", 5, 0), 1u);
    EXPECT_EQ(binding.value, 5u);
    EXPECT_EQ(binding.type, 0u);
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(VarBindTest, OctStrWithoutDataOrBufferIsGenErr)
{
    char buffer[8];
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, nullptr, 3, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, nullptr, 3, 1), 5u);
    EXPECT_EQ(binding.buffer, buffer);
    EXPECT_EQ(spy().allocations, 0);
    SMSnmpValue noBuffer{{}, 0, 8, nullptr};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&noBuffer, &kTextColumn, "abc", 3, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOctStr(nullptr, &kTextColumn, "abc", 3, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, nullptr, "abc", 3, 0), 5u);
}

TEST_F(VarBindTest, OctStrAllocatesABufferOfTheLengthOnRequest)
{
    char old[2];
    SMSnmpValue binding{{}, 0, 0, old};
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, "abcdef", 6, 1), 0u);
    EXPECT_NE(binding.buffer, old);
    EXPECT_EQ(spy().lastAllocSize, 6u);
    EXPECT_EQ(binding.value, 6u);
    EXPECT_EQ(std::string(static_cast<char *>(binding.buffer), 6), "abcdef");
    const void *owned = binding.buffer;
    MPIVarBindFreeValue(&binding);
    EXPECT_EQ(spy().lastFreed, owned);
}

TEST_F(VarBindTest, OctStrAllocationFailureIsGenErr)
{
    SMSnmpValue binding{};
    spy().failAllocationsAfter = 0;
    EXPECT_EQ(MPIVarBindSetValueOctStr(&binding, &kTextColumn, "abc", 3, 1), 5u);
    EXPECT_EQ(binding.buffer, nullptr);
}

TEST_F(VarBindTest, OidSetterStoresTheArcsAndTheirCount)
{
    TestOid oid{1, 3, 6, 1};
    SMSnmpValue binding{};
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, oid.get(), 1), 0u);
    EXPECT_EQ(binding.type, static_cast<uint32_t>(SM_ASN_OBJECT_ID));
    EXPECT_EQ(binding.value, 4u);
    EXPECT_EQ(spy().lastAllocSize, 16u);
    EXPECT_EQ(
        Arcs(static_cast<uint32_t *>(binding.buffer), static_cast<uint32_t *>(binding.buffer) + 4),
        (Arcs{1, 3, 6, 1}));
    MPIVarBindFreeValue(&binding);
    EXPECT_EQ(spy().frees, 1);
}

TEST_F(VarBindTest, OidSetterAsksForTheByteLengthWhenTheBufferIsSmall)
{
    TestOid oid{1, 3, 6};
    uint32_t buffer[2];
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, oid.get(), 0), 1u);
    EXPECT_EQ(binding.value, 12u);
}

TEST_F(VarBindTest, OidSetterRefusesAnOidWithoutArcs)
{
    uint32_t buffer[4];
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    SMSnmpOID empty{};
    uint32_t arc = 1;
    SMSnmpOID noCount{0, 0, &arc};
    SMSnmpOID noPointer{2, 0, nullptr};
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, nullptr, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, &empty, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, &noCount, 0), 5u);
    EXPECT_EQ(MPIVarBindSetValueOID(&binding, &kOidColumn, &noPointer, 0), 5u);
}

TEST_F(VarBindTest, Ucs2SetterWritesUtf8AndTheLengthWithoutTerminator)
{
    char buffer[16];
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    EXPECT_EQ(MPIVarBindSetValueUCS2Str(&binding, &kTextColumn, ucs2(u"Vorn \u00e9")), 0u);
    EXPECT_EQ(binding.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
    EXPECT_EQ(binding.value, 7u);
    EXPECT_STREQ(buffer, "Vorn \xc3\xa9");
}

TEST_F(VarBindTest, Ucs2SetterDoublesTheCapacityWhenTheBufferIsTooSmall)
{
    const char16_t *text = u"twenty characters!!!";
    std::vector<char> small(16);
    SMSnmpValue binding{{}, 0, 16, small.data()};
    ASSERT_EQ(MPIVarBindSetValueUCS2Str(&binding, &kTextColumn, ucs2(text)), 1u);
    EXPECT_EQ(binding.value, 32u);
    EXPECT_EQ(binding.type, 0u);
    std::vector<char> larger(binding.value);
    binding.buffer = larger.data();
    ASSERT_EQ(MPIVarBindSetValueUCS2Str(&binding, &kTextColumn, ucs2(text)), 0u);
    EXPECT_EQ(binding.value, 20u);
    EXPECT_STREQ(larger.data(), "twenty characters!!!");
}

TEST_F(VarBindTest, Ucs2SetterReportsOtherFailuresAsGenErr)
{
    char buffer[16];
    SMSnmpValue binding{{}, 0, sizeof buffer, buffer};
    const char16_t unpaired[] = {u'a', 0xD800, u'b', 0};
    EXPECT_EQ(MPIVarBindSetValueUCS2Str(&binding, &kTextColumn, ucs2(unpaired)), 5u);
    EXPECT_EQ(binding.value, 16u);
    EXPECT_EQ(MPIVarBindSetValueUCS2Str(&binding, &kTextColumn, nullptr), 5u);
    SMSnmpValue noBuffer{{}, 0, 16, nullptr};
    EXPECT_EQ(MPIVarBindSetValueUCS2Str(&noBuffer, &kTextColumn, ucs2(u"a")), 5u);
}

TEST_F(VarBindTest, FreeValueFreesTheBufferOnlyForTypesThatOwnOne)
{
    const struct {
        uint32_t type;
        bool ownsBuffer;
    } cases[] = {
        {SM_ASN_OCTET_STRING, true}, {SM_ASN_OBJECT_ID, true},  {SM_ASN_IPADDRESS, true},
        {SM_ASN_OPAQUE, true},       {SM_ASN_INTEGER, false},   {SM_ASN_COUNTER32, false},
        {SM_ASN_GAUGE32, false},     {SM_ASN_TIMETICKS, false}, {0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        kelp::testspy::reset();
        SMSnmpValue binding{};
        ASSERT_EQ(MPIVarBindSetScalarName(&binding, kelpMibDefinition[0], 1), 0u);
        void *buffer = SMAllocMem(8);
        binding.type = c.type;
        binding.value = 8;
        binding.buffer = buffer;
        EXPECT_EQ(MPIVarBindFreeValue(&binding), 0u);
        EXPECT_EQ(spy().frees, c.ownsBuffer ? 2 : 1);
        EXPECT_EQ(binding.name.count, 0u);
        EXPECT_EQ(binding.name.arcs, nullptr);
        EXPECT_EQ(binding.type, 0u);
        EXPECT_EQ(binding.value, 0u);
        EXPECT_EQ(binding.buffer, nullptr);
        if (!c.ownsBuffer)
            SMFreeMem(buffer);
    }
    EXPECT_EQ(MPIVarBindFreeValue(nullptr), 5u);
}

TEST_F(VarBindTest, ChecksumSumsTheValueByType)
{
    unsigned char bytes[] = {0x01, 0xFF, 0x10};
    uint32_t arcs[] = {0x01020304u, 0x000000FFu};
    const struct {
        const char *what;
        SMSnmpValue binding;
        uint32_t status;
        uint32_t sum;
    } cases[] = {
        {"integer", {{}, SM_ASN_INTEGER, 1234, nullptr}, 0, 1234},
        {"counter", {{}, SM_ASN_COUNTER32, 7, nullptr}, 0, 7},
        {"gauge", {{}, SM_ASN_GAUGE32, 8, nullptr}, 0, 8},
        {"ticks", {{}, SM_ASN_TIMETICKS, 9, nullptr}, 0, 9},
        {"integer 0 reports 1", {{}, SM_ASN_INTEGER, 0, nullptr}, 0, 1},
        {"bytes unsigned", {{}, SM_ASN_OCTET_STRING, 3, bytes}, 0, 0x110},
        {"ip address", {{}, SM_ASN_IPADDRESS, 2, bytes}, 0, 0x100},
        {"opaque", {{}, SM_ASN_OPAQUE, 1, bytes}, 0, 1},
        {"empty string reports 1", {{}, SM_ASN_OCTET_STRING, 0, nullptr}, 0, 1},
        {"oid arc bytes", {{}, SM_ASN_OBJECT_ID, 2, arcs}, 0, 1 + 2 + 3 + 4 + 0xFF},
        {"unknown type", {{}, 0x30, 1, nullptr}, 3, 0xAAAA},
        {"no buffer", {{}, SM_ASN_OCTET_STRING, 3, nullptr}, 5, 0xAAAA},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        uint32_t sum = 0xAAAA;
        EXPECT_EQ(MPIVarBindValueChecksum(&c.binding, &sum), c.status);
        EXPECT_EQ(sum, c.sum);
    }
    SMSnmpValue integer{{}, SM_ASN_INTEGER, 1, nullptr};
    EXPECT_EQ(MPIVarBindValueChecksum(&integer, nullptr), 5u);
    uint32_t sum = 0;
    EXPECT_EQ(MPIVarBindValueChecksum(nullptr, &sum), 5u);
}

} // namespace
