// The instrumentation object layer before its objects exist.
#include <gtest/gtest.h>

#include <cstdlib>

#include "vcsgen.h"

namespace {

TEST(InstrTest, NoChildrenAndNoObjectsYet)
{
    SMILObjID root = 2;
    EXPECT_EQ(SMILListChildOIDByType(&root, SMIL_OBJTYPE_BASE_BOARD), nullptr);
    EXPECT_EQ(SMILListChildOIDByType(&root, SMIL_OBJTYPE_CHASSIS_PROPS2), nullptr);
    EXPECT_EQ(SMILGetObjByOID(&root), nullptr);
}

TEST(InstrTest, FreeGenericReleasesHeapBlocksAndIgnoresNull)
{
    SMILFreeGeneric(std::malloc(sizeof(SMILObjIDList)));
    SMILFreeGeneric(nullptr);
}

} // namespace
