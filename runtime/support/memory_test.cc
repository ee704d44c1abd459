// SMAllocMem / SMFreeMem.
#include <gtest/gtest.h>

#include <cstring>

#include "vcsupt.h"

namespace {

TEST(MemoryTest, AllocatedBlockIsUsableAndFreed)
{
    auto *p = static_cast<char *>(SMAllocMem(1024));
    ASSERT_NE(p, nullptr);
    std::memset(p, 'a', 1024);
    SMFreeMem(p);
}

TEST(MemoryTest, ZeroBytesStillAnswersABlockAndNullFreeIsIgnored)
{
    void *p = SMAllocMem(0);
    EXPECT_NE(p, nullptr);
    SMFreeMem(p);
    SMFreeMem(nullptr);
}

} // namespace
