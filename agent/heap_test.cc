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

} // namespace
} // namespace kelp::agent
