// Reading binding records: one case per type row, and the bounds that keep a
// bad record from being read past its buffer.
#include "value.h"

#include <vector>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

SMSnmpValue record(uint32_t type, uint32_t value, void *buffer)
{
    SMSnmpValue r{};
    r.type = type;
    r.value = value;
    r.buffer = buffer;
    return r;
}

TEST(ReadValue, EveryTypeOfTheRecordsReadsAsItsShape)
{
    char text[] = "abcd";
    uint32_t arcs[] = {1, 3, 6, 1};
    struct Case {
        SMSnmpValue in;
        ValueShape shape;
        int64_t integer;
        std::string bytes;
        std::vector<uint32_t> arcs;
    };
    const Case cases[] = {
        {record(2, 0xFFFFFFFE, nullptr), ValueShape::kSigned32, -2, "", {}},
        {record(2, 0x7FFFFFFF, nullptr), ValueShape::kSigned32, 0x7FFFFFFF, "", {}},
        {record(4, 3, text), ValueShape::kBytes, 0, "abc", {}},
        {record(4, 0, nullptr), ValueShape::kBytes, 0, "", {}},
        {record(6, 4, arcs), ValueShape::kArcs, 0, "", {1, 3, 6, 1}},
        {record(0x40, 4, text), ValueShape::kBytes, 0, "abcd", {}},
        {record(0x41, 0xFFFFFFFF, nullptr), ValueShape::kUnsigned32, 0xFFFFFFFF, "", {}},
        {record(0x42, 7, nullptr), ValueShape::kUnsigned32, 7, "", {}},
        {record(0x43, 100, nullptr), ValueShape::kUnsigned32, 100, "", {}},
        {record(0x44, 2, text), ValueShape::kBytes, 0, "ab", {}},
    };
    for (const Case &c : cases) {
        Value value;
        ASSERT_EQ(readValue(c.in, 1024, &value), ValueRead::kValue) << c.in.type;
        EXPECT_EQ(value.type, c.in.type);
        EXPECT_EQ(value.shape, c.shape) << c.in.type;
        EXPECT_EQ(value.integer, c.integer) << c.in.type;
        EXPECT_EQ(value.bytes, c.bytes) << c.in.type;
        EXPECT_EQ(value.arcs, c.arcs) << c.in.type;
        EXPECT_NE(valueTypeName(c.in.type), nullptr);
    }
}

TEST(ReadValue, TypeZeroIsEmptyAndUnusableRecordsAreRefused)
{
    char text[8] = "abc";
    uint32_t arcs[2] = {1, 3};
    Value value;
    EXPECT_EQ(readValue(record(0, 5, text), 8, &value), ValueRead::kEmpty);
    const SMSnmpValue bad[] = {
        record(0x30, 0, nullptr), // unknown type
        record(4, 9, text),       // longer than readable
        record(4, 1, nullptr),    // bytes without a buffer
        record(0x40, 3, text),    // IpAddress of 3 bytes
        record(6, 3, arcs),       // arcs beyond readable (8 bytes)
        record(6, 200, arcs),     // more arcs than any name has
        record(6, 1, nullptr),    // arcs without a buffer
    };
    for (const SMSnmpValue &r : bad) {
        EXPECT_EQ(readValue(r, 8, &value), ValueRead::kBad) << r.type << " " << r.value;
    }
    EXPECT_EQ(valueTypeName(0x30), nullptr);
}

TEST(CompareNames, OrdersArcByArcWithPrefixesFirst)
{
    const std::vector<uint64_t> a{1, 3, 6};
    const std::vector<uint32_t> b{1, 3, 6, 1};
    const std::vector<uint32_t> c{1, 3, 7};
    const std::vector<uint64_t> wide{1, 3, 1ull << 32};
    using Wide = std::span<const uint64_t>;
    using Narrow = std::span<const uint32_t>;
    EXPECT_LT(compareNames(Wide(a), Narrow(b)), 0);
    EXPECT_GT(compareNames(Narrow(b), Wide(a)), 0);
    EXPECT_LT(compareNames(Narrow(b), Narrow(c)), 0);
    EXPECT_EQ(compareNames(Wide(a), Wide(a)), 0);
    EXPECT_GT(compareNames(Wide(wide), Narrow(c)), 0);
}

} // namespace
} // namespace kelp::agent
