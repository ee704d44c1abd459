#include "heap.h"

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

TEST(Heap, OneHeapOnlyUnderALimitOfAddressSpaceTheTunablesLeaveOpen)
{
    EXPECT_FALSE(shareOneHeap(RLIM_INFINITY, nullptr));
    EXPECT_FALSE(shareOneHeap(RLIM_INFINITY, "glibc.malloc.arena_max=4"));
    EXPECT_TRUE(shareOneHeap(512u << 20, nullptr));
    EXPECT_TRUE(shareOneHeap(512u << 20, ""));
    EXPECT_TRUE(shareOneHeap(512u << 20, "glibc.malloc.trim_threshold=1048576"));
    EXPECT_FALSE(shareOneHeap(512u << 20, "glibc.malloc.arena_max=4"));
    EXPECT_FALSE(
        shareOneHeap(512u << 20, "glibc.malloc.trim_threshold=1048576:glibc.malloc.arena_max=2"));
}

TEST(Heap, SmallerThreadStacksOnlyUnderALimitOfAddressSpace)
{
    constexpr size_t kEight = size_t{8} << 20;
    EXPECT_EQ(limitedThreadStack(RLIM_INFINITY, kEight), 0u);
    EXPECT_EQ(limitedThreadStack(512u << 20, kEight), kLimitedThreadStack);
    EXPECT_EQ(limitedThreadStack(512u << 20, kLimitedThreadStack + 4096), kLimitedThreadStack);
    // Stacks that are small already stay as they are.
    EXPECT_EQ(limitedThreadStack(512u << 20, kLimitedThreadStack), 0u);
    EXPECT_EQ(limitedThreadStack(512u << 20, size_t{256} << 10), 0u);
    EXPECT_EQ(limitedThreadStack(512u << 20, 0), 0u);
}

} // namespace
} // namespace kelp::agent
