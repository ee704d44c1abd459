// The data-store queries before the store exists: every query answers "not
// available" and nothing leaks.
#include <gtest/gtest.h>

#include <cstdlib>

#include "vscil.h"

namespace {

TEST(QueriesTest, EveryQueryAnswersNullWithStatus7)
{
    uint32_t status = 0;
    EXPECT_EQ(DataStoreReady(&status), nullptr);
    EXPECT_EQ(status, 7u);
    status = 0;
    EXPECT_EQ(GetObjectList(&status, "adapters"), nullptr);
    EXPECT_EQ(status, 7u);
    status = 0;
    EXPECT_EQ(GetSingleObject(&status, 0, 1), nullptr);
    EXPECT_EQ(status, 7u);
    status = 0;
    EXPECT_EQ(GetAssociated(&status, "arraydisks", 40), nullptr);
    EXPECT_EQ(status, 7u);
    status = 0;
    EXPECT_EQ(GetAssociatedPhyDevCount(&status, "arraydisks", 40), nullptr);
    EXPECT_EQ(status, 7u);
}

TEST(QueriesTest, NullStatusIsAccepted)
{
    EXPECT_EQ(DataStoreReady(nullptr), nullptr);
    EXPECT_EQ(GetObjectList(nullptr, "adapters"), nullptr);
    EXPECT_EQ(GetSingleObject(nullptr, 0, 1), nullptr);
    EXPECT_EQ(GetAssociated(nullptr, "vdisks", 1), nullptr);
    EXPECT_EQ(GetAssociatedPhyDevCount(nullptr, "vdisks", 1), nullptr);
}

TEST(QueriesTest, ThermalShutdownIs0AndFreeMemReleasesHeapBlocks)
{
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 0u);
    freeMem(static_cast<char *>(std::malloc(16)));
    freeMem(nullptr);
}

} // namespace
