// Tests of miblist.cc: the command-6 list of MIB definitions.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "mib/mibdef.h"
#include "mpi/mpi.h"

namespace {

constexpr unsigned char kFill = 0xAB;

// An out-buffer as the framework hands it in, pre-filled with a marker.
struct OutBuffer {
    alignas(8) std::array<unsigned char, 40> bytes;
    OutBuffer() { bytes.fill(kFill); }
    SMMibList *list() { return reinterpret_cast<SMMibList *>(bytes.data()); }
    uint32_t count() const
    {
        uint32_t count;
        std::memcpy(&count, bytes.data(), sizeof count);
        return count;
    }
    const void *pointerAt(size_t offset) const
    {
        const void *p;
        std::memcpy(&p, bytes.data() + offset, sizeof p);
        return p;
    }
};

const SMMibGroupDef *const kOther[] = {nullptr};

TEST(MibListTest, ClearZeroesExactlyTheGivenSize)
{
    OutBuffer out;
    uint32_t used = 99;
    EXPECT_EQ(MPIMibListClear(out.list(), 24, &used), 0u);
    EXPECT_EQ(used, 8u);
    for (size_t i = 0; i < out.bytes.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(out.bytes[i], i < 24 ? 0 : kFill);
    }
}

TEST(MibListTest, ClearOfLessThanEightBytesIsTooBigAndTouchesNothing)
{
    OutBuffer out;
    uint32_t used = 99;
    EXPECT_EQ(MPIMibListClear(out.list(), 7, &used), 1u);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(out.bytes[0], kFill);
    EXPECT_EQ(MPIMibListClear(out.list(), 8, &used), 0u);
    EXPECT_EQ(used, 8u);
    EXPECT_EQ(out.count(), 0u);
    EXPECT_EQ(out.bytes[8], kFill);
}

TEST(MibListTest, AppendPutsThePointerAtByteEightAndCountsIt)
{
    OutBuffer out;
    uint32_t used = 0;
    ASSERT_EQ(MPIMibListClear(out.list(), 16, &used), 0u);
    EXPECT_EQ(MPIMibListAppend(kelpMibDefinition, out.list(), 16, &used), 0u);
    EXPECT_EQ(used, 16u);
    EXPECT_EQ(out.count(), 1u);
    EXPECT_EQ(out.pointerAt(8), static_cast<const void *>(kelpMibDefinition));
}

TEST(MibListTest, AppendBeyondTheSizeIsTooBigAndRestoresTheUsedSize)
{
    OutBuffer out;
    uint32_t used = 0;
    ASSERT_EQ(MPIMibListClear(out.list(), 16, &used), 0u);
    ASSERT_EQ(MPIMibListAppend(kelpMibDefinition, out.list(), 16, &used), 0u);
    EXPECT_EQ(MPIMibListAppend(kOther, out.list(), 16, &used), 1u);
    EXPECT_EQ(used, 16u);
    EXPECT_EQ(out.count(), 1u);
    EXPECT_EQ(out.bytes[16], kFill);
}

TEST(MibListTest, AppendFillsSlotsInOrder)
{
    OutBuffer out;
    uint32_t used = 0;
    ASSERT_EQ(MPIMibListClear(out.list(), 24, &used), 0u);
    ASSERT_EQ(MPIMibListAppend(kelpMibDefinition, out.list(), 24, &used), 0u);
    ASSERT_EQ(MPIMibListAppend(kOther, out.list(), 24, &used), 0u);
    EXPECT_EQ(used, 24u);
    EXPECT_EQ(out.count(), 2u);
    EXPECT_EQ(out.pointerAt(8), static_cast<const void *>(kelpMibDefinition));
    EXPECT_EQ(out.pointerAt(16), static_cast<const void *>(kOther));
}

TEST(MibListTest, AppendNeverWritesPastTheSizeWhateverTheCountSays)
{
    OutBuffer out;
    out.bytes.fill(0);
    out.list()->count = 3; // inconsistent with the used size below
    uint32_t used = 8;
    EXPECT_EQ(MPIMibListAppend(kelpMibDefinition, out.list(), 16, &used), 1u);
    EXPECT_EQ(used, 8u);
    EXPECT_EQ(out.count(), 3u);
    EXPECT_EQ(out.pointerAt(32), nullptr);
}

TEST(MibListTest, NullArgumentsAnswer5)
{
    OutBuffer out;
    uint32_t used = 8;
    EXPECT_EQ(MPIMibListClear(nullptr, 16, &used), 5u);
    EXPECT_EQ(MPIMibListClear(out.list(), 16, nullptr), 5u);
    EXPECT_EQ(MPIMibListAppend(nullptr, out.list(), 16, &used), 5u);
    EXPECT_EQ(MPIMibListAppend(kelpMibDefinition, nullptr, 16, &used), 5u);
    EXPECT_EQ(MPIMibListAppend(kelpMibDefinition, out.list(), 16, nullptr), 5u);
    EXPECT_EQ(out.bytes[0], kFill);
}

} // namespace
