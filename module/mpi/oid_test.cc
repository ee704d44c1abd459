// Tests of oid.cc: allocation, copy, comparison and parsing of OIDs.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mpi/mpi.h"
#include "mpi/oid_testing.h"
#include "testing/test_spy.h"

namespace {

using kelp::testing::arcsOf;
using kelp::testing::TestOid;
using kelp::testspy::spy;

class OidTest : public ::testing::Test {
  protected:
    void SetUp() override { kelp::testspy::reset(); }
};

using Arcs = std::vector<uint32_t>;

TEST_F(OidTest, AllocGivesAnEmptyRecordFromTheFrameworkAllocator)
{
    SMSnmpOID *oid = MPIOIDAlloc();
    ASSERT_NE(oid, nullptr);
    EXPECT_EQ(oid->count, 0u);
    EXPECT_EQ(oid->arcs, nullptr);
    EXPECT_EQ(spy().lastAllocSize, sizeof(SMSnmpOID));
    MPIOIDFree(oid, 1);
    EXPECT_EQ(spy().frees, 1);
}

TEST_F(OidTest, AllocAnswersNullWhenMemoryRunsOut)
{
    spy().failAllocationsAfter = 0;
    EXPECT_EQ(MPIOIDAlloc(), nullptr);
}

TEST_F(OidTest, CopyGivesTheDestinationItsOwnArcs)
{
    TestOid source{1, 3, 6, 1, 4};
    SMSnmpOID destination{};
    ASSERT_EQ(MPIOIDCopy(source.get(), &destination), 0u);
    EXPECT_EQ(arcsOf(destination), (Arcs{1, 3, 6, 1, 4}));
    EXPECT_NE(destination.arcs, source.get()->arcs);
    EXPECT_EQ(spy().lastAllocSize, 20u);
    MPIOIDFree(&destination, 0);
}

TEST_F(OidTest, CopyOfAnOidWithoutArcsAllocatesNothing)
{
    SMSnmpOID source{};
    SMSnmpOID destination{7, 0, nullptr};
    EXPECT_EQ(MPIOIDCopy(&source, &destination), 0u);
    EXPECT_EQ(destination.count, 0u);
    EXPECT_EQ(destination.arcs, nullptr);
    EXPECT_EQ(spy().allocations, 0);
}

TEST_F(OidTest, CopyFailureKeepsTheCountAndNullsTheArcs)
{
    TestOid source{1, 2, 3};
    uint32_t old = 99;
    SMSnmpOID destination{7, 0, &old};
    spy().failAllocationsAfter = 0;
    EXPECT_EQ(MPIOIDCopy(source.get(), &destination), 5u);
    EXPECT_EQ(destination.count, 7u);
    EXPECT_EQ(destination.arcs, nullptr);
}

TEST_F(OidTest, CopyOfMoreArcsThanA32BitSizeCanHoldFails)
{
    uint32_t one = 1;
    const SMSnmpOID huge{0x40000000u, 0, &one}; // 4 x count does not fit 32 bits
    SMSnmpOID destination{3, 0, nullptr};
    EXPECT_EQ(MPIOIDCopy(&huge, &destination), 5u);
    EXPECT_EQ(destination.count, 3u);
    EXPECT_EQ(destination.arcs, nullptr);
}

TEST_F(OidTest, CopyWithANullArgumentAnswers5)
{
    TestOid source{1};
    SMSnmpOID destination{};
    EXPECT_EQ(MPIOIDCopy(nullptr, &destination), 5u);
    EXPECT_EQ(MPIOIDCopy(source.get(), nullptr), 5u);
}

TEST_F(OidTest, DuplicateGivesANewRecordWithCopiedArcs)
{
    TestOid source{1, 3, 6};
    SMSnmpOID *copy = MPIOIDDuplicate(source.get());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(arcsOf(*copy), (Arcs{1, 3, 6}));
    EXPECT_NE(copy->arcs, source.get()->arcs);
    MPIOIDFree(copy, 1);
    EXPECT_EQ(spy().allocations, 2);
    EXPECT_EQ(spy().frees, 2);
}

TEST_F(OidTest, DuplicateFreesTheRecordWhenTheArcCopyFails)
{
    TestOid source{1, 3, 6};
    spy().failAllocationsAfter = 1; // the record succeeds, its arcs do not
    EXPECT_EQ(MPIOIDDuplicate(source.get()), nullptr);
    EXPECT_EQ(spy().allocations, 1);
    EXPECT_EQ(spy().frees, 1);
    EXPECT_EQ(MPIOIDDuplicate(nullptr), nullptr);
}

TEST_F(OidTest, FreeReleasesTheArcsAndTheRecordOnlyForFlagOne)
{
    struct Case {
        uint32_t flags;
        bool recordFreed;
    };
    for (const Case c : {Case{0, false}, Case{2, false}, Case{1, true}, Case{0x10001, true},
                         Case{0x10000, false}}) {
        SCOPED_TRACE(c.flags);
        kelp::testspy::reset();
        TestOid source{4, 5};
        SMSnmpOID *oid = MPIOIDDuplicate(source.get());
        ASSERT_NE(oid, nullptr);
        const void *arcs = oid->arcs;
        MPIOIDFree(oid, c.flags);
        if (c.recordFreed) {
            EXPECT_EQ(spy().frees, 2);
            EXPECT_EQ(spy().lastFreed, oid);
        } else {
            EXPECT_EQ(spy().frees, 1);
            EXPECT_EQ(spy().lastFreed, arcs);
            EXPECT_EQ(oid->count, 0u);
            EXPECT_EQ(oid->arcs, nullptr);
            MPIOIDFree(oid, 1);
        }
    }
    MPIOIDFree(nullptr, 1);
}

struct CompareCase {
    const char *what;
    Arcs a;
    Arcs b;
    uint32_t n;
    int32_t expected;
};

TEST_F(OidTest, ComparePrefixAnswersTheFirstDifferenceReadAsSigned)
{
    const CompareCase cases[] = {
        {"equal arcs", {1, 3, 6}, {1, 3, 6}, 3, 0},
        {"no arcs compared", {1, 3, 6}, {2, 3, 6}, 0, 0},
        {"first difference wins", {1, 3, 9, 1}, {1, 3, 6, 7}, 4, 3},
        {"a before b", {1, 3, 2}, {1, 3, 6}, 3, -4},
        {"difference past n ignored", {1, 3, 6}, {1, 3, 7}, 2, 0},
        {"wraps: 0 minus 1", {0}, {1}, 1, -1},
        {"wraps: 1 minus 2^32-1 reads positive", {1}, {0xFFFFFFFFu}, 1, 2},
        {"wraps: 2^31 minus 0 reads negative", {0x80000000u}, {0}, 1, INT32_MIN},
        {"n beyond both counts stops at the shorter", {1, 3}, {1, 3, 6}, 10, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TestOid a(c.a), b(c.b);
        EXPECT_EQ(static_cast<int32_t>(MPIOIDComparePrefix(a.get(), b.get(), c.n)), c.expected);
    }
}

TEST_F(OidTest, CompareOfAShorterOidWithTheSamePrefixIsNegative)
{
    TestOid a{1, 3, 6}, b{1, 3, 6, 1};
    EXPECT_LT(static_cast<int32_t>(MPIOIDCompare(a.get(), b.get())), 0);
}

TEST_F(OidTest, CompareOfAGreaterArcBeforeTheEndIsPositive)
{
    TestOid a{1, 3, 7}, b{1, 3, 6, 1};
    EXPECT_GT(static_cast<int32_t>(MPIOIDCompare(a.get(), b.get())), 0);
}

TEST_F(OidTest, CompareOrdersByArcsThenByCount)
{
    const CompareCase cases[] = {
        {"equal", {1, 3, 6}, {1, 3, 6}, 0, 0},
        {"longer after shorter", {1, 3, 6, 1, 2}, {1, 3, 6}, 0, 2},
        {"arc decides before count", {1, 2, 9, 9}, {1, 3}, 0, -1},
        {"empty before anything", {}, {1}, 0, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        TestOid a(c.a), b(c.b);
        EXPECT_EQ(static_cast<int32_t>(MPIOIDCompare(a.get(), b.get())), c.expected);
    }
    TestOid one{1};
    EXPECT_EQ(static_cast<int32_t>(MPIOIDCompare(nullptr, one.get())), -1);
}

// Parses text with capacity 3; the arcs written and the count on success.
struct Parsed {
    uint32_t status;
    uint32_t count;
    Arcs arcs;
};

Parsed parse(const char *text, uint32_t capacity = 3)
{
    Arcs out(capacity + 1, 0xEEEEEEEEu);
    uint32_t count = capacity;
    const uint32_t status = MPIOIDFromString(out.data(), &count, text);
    EXPECT_EQ(out[capacity], 0xEEEEEEEEu) << "wrote past the capacity";
    out.resize(status == 0 ? count : 0);
    return {status, count, out};
}

TEST_F(OidTest, FromStringParsesThreeArcsIntoCapacityThree)
{
    const Parsed p = parse("1.2.3");
    EXPECT_EQ(p.status, 0u);
    EXPECT_EQ(p.count, 3u);
    EXPECT_EQ(p.arcs, (Arcs{1, 2, 3}));
}

TEST_F(OidTest, FromStringRefusesAFourthArcBeyondCapacityThree)
{
    const Parsed p = parse("1.2.3.4");
    EXPECT_EQ(p.status, 3u);
    EXPECT_EQ(p.count, 3u) << "the count stays untouched";
}

TEST_F(OidTest, FromStringRefusesTwoDotsInARow)
{
    EXPECT_EQ(parse("1..2").status, 3u);
}

TEST_F(OidTest, FromStringAcceptsDotsAtBothEnds)
{
    const Parsed p = parse(".1.2.");
    EXPECT_EQ(p.status, 0u);
    EXPECT_EQ(p.count, 2u);
    EXPECT_EQ(p.arcs, (Arcs{1, 2}));
}

TEST_F(OidTest, FromStringRefusesAnArcOfElevenDigits)
{
    EXPECT_EQ(parse("12345678901").status, 3u);
}

TEST_F(OidTest, FromStringRefusesTheEmptyText)
{
    EXPECT_EQ(parse("").status, 3u);
}

TEST_F(OidTest, FromStringRefusesALoneDot)
{
    EXPECT_EQ(parse(".").status, 3u);
}

TEST_F(OidTest, FromStringConvertsArcsAsUnsigned32BitNumbers)
{
    const struct {
        const char *text;
        uint32_t status;
        Arcs arcs;
    } cases[] = {
        {"4294967295", 0, {0xFFFFFFFFu}},
        {"4294967296", 0, {0}},           // wraps as a "%u" conversion does
        {"9999999999", 0, {1410065407u}}, // ten digits, wrapped modulo 2^32
        {"0.00.007", 0, {0, 0, 7}},
        {"1.3.x", 3, {}},
        {"1 .2", 3, {}},
        {"-1", 3, {}},
        {"..1", 3, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const Parsed p = parse(c.text);
        EXPECT_EQ(p.status, c.status);
        EXPECT_EQ(p.arcs, c.arcs);
    }
}

TEST_F(OidTest, FromStringReadsLongTextsWithoutOverrun)
{
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += "1.";
    EXPECT_EQ(parse(text.c_str(), 3).status, 3u);
    const Parsed all = parse(text.c_str(), 1000);
    EXPECT_EQ(all.status, 0u);
    EXPECT_EQ(all.count, 1000u);
    EXPECT_EQ(parse(std::string(5000, '7').c_str()).status, 3u);
}

TEST_F(OidTest, FromStringAnswers5ForNullArgumentsAndNoCapacity)
{
    uint32_t arcs[3];
    uint32_t count = 3;
    EXPECT_EQ(MPIOIDFromString(nullptr, &count, "1"), 5u);
    EXPECT_EQ(MPIOIDFromString(arcs, nullptr, "1"), 5u);
    EXPECT_EQ(MPIOIDFromString(arcs, &count, nullptr), 5u);
    count = 0;
    EXPECT_EQ(MPIOIDFromString(arcs, &count, "1"), 5u);
    EXPECT_EQ(count, 0u);
}

} // namespace
