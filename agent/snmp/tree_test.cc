// The served tree: which names are instances, and from which name the
// plug-in is asked for the successor of any name.
#include "snmp/tree.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <vector>

#include "value.h"

namespace kelp::agent {
namespace {

using Name = std::vector<uint64_t>;
using Arcs = std::vector<uint32_t>;

constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();

Name below(std::initializer_list<uint64_t> tail)
{
    Name name(std::begin(kMibRoot), std::end(kMibRoot));
    name.insert(name.end(), tail);
    return name;
}

Arcs arcsBelow(std::initializer_list<uint32_t> tail)
{
    Arcs name(std::begin(kMibRoot), std::end(kMibRoot));
    name.insert(name.end(), tail);
    return name;
}

TEST(ServedTree, TablesAndScalarsAreInNameOrder)
{
    for (size_t i = 1; i < std::size(kServedScalars); i++) {
        const auto &a = kServedScalars[i - 1];
        const auto &b = kServedScalars[i];
        EXPECT_LT(compareNames(std::span<const uint32_t>(a.arcs, a.count),
                               std::span<const uint32_t>(b.arcs, b.count)),
                  0)
            << i;
        EXPECT_EQ(b.arcs[b.count - 1], 0u) << "every scalar instance ends in .0";
    }
    EXPECT_EQ(std::size(kServedTables), 24u);
    for (size_t i = 1; i < std::size(kServedTables); i++) {
        const ServedTable &a = kServedTables[i - 1];
        const ServedTable &b = kServedTables[i];
        EXPECT_TRUE(a.group < b.group || (a.group == b.group && a.table < b.table)) << i;
    }
    for (const ServedTable &t : kServedTables) {
        EXPECT_GE(t.columns, 1u);
        EXPECT_LE(t.startColumns, t.columns);
        EXPECT_GE(t.startColumns, 1u);
    }
}

struct KindCase {
    Name name;
    NameKind kind;
};

TEST(ServedTree, OnlyInstancesAreInstances)
{
    const KindCase cases[] = {
        {below({1, 0}), NameKind::kInstance},
        {below({5, 0}), NameKind::kInstance},
        {below({100, 3, 0}), NameKind::kInstance},
        {below({110, 15, 0}), NameKind::kInstance},
        {below({130, 1, 1, 2, 1}), NameKind::kInstance},
        {below({130, 1, 1, 73, kMax}), NameKind::kInstance},
        {below({140, 3, 1, 5, 1}), NameKind::kInstance},
        {below({130, 1, 1, 7, 1}), NameKind::kInstance},
        {below({140, 6, 1, 8, 0}), NameKind::kInstance},
        // Served objects, but no instance of theirs.
        {below({1}), NameKind::kUnderObject},
        {below({1, 99}), NameKind::kUnderObject},
        {below({2, 7, 7, 7}), NameKind::kUnderObject},
        {below({100, 1}), NameKind::kUnderObject},
        {below({110, 3, 5}), NameKind::kUnderObject},
        {below({110, 3, 0, 0}), NameKind::kUnderObject},
        {below({130, 1, 1, 2}), NameKind::kUnderObject},
        {below({130, 1, 1, 2, 1, 9}), NameKind::kUnderObject},
        {below({130, 1, 1, 2, kMax + 1}), NameKind::kUnderObject},
        // No object at all.
        {below({}), NameKind::kNoObject},
        {below({0}), NameKind::kNoObject},
        {below({6, 0}), NameKind::kNoObject},
        {below({100}), NameKind::kNoObject},
        {below({100, 4, 0}), NameKind::kNoObject},
        {below({110, 7, 0}), NameKind::kNoObject},
        {below({110, 1, 0}), NameKind::kNoObject},
        {below({130}), NameKind::kNoObject},
        {below({130, 1}), NameKind::kNoObject},
        {below({130, 1, 1}), NameKind::kNoObject},
        {below({130, 1, 2, 1, 1}), NameKind::kNoObject},
        {below({130, 1, 1, 0, 1}), NameKind::kNoObject},
        {below({130, 1, 1, 74, 1}), NameKind::kNoObject},
        // Column numbers inside a table's range that the MIB leaves out.
        {below({130, 1, 1, 6, 1}), NameKind::kNoObject},
        {below({130, 1, 1, 6}), NameKind::kNoObject},
        {below({130, 1, 1, 36, 1}), NameKind::kNoObject},
        {below({130, 2, 1, 4, 1}), NameKind::kNoObject},
        {below({140, 1, 1, 18, 1}), NameKind::kNoObject},
        {below({140, 3, 1, 6, 1}), NameKind::kNoObject},
        {below({140, 3, 1, 7, 1}), NameKind::kNoObject},
        {below({130, 19, 1, 1, 1}), NameKind::kNoObject},
        {below({140, 7, 1, 1, 1}), NameKind::kNoObject},
        {below({200, 1, 0}), NameKind::kNoObject},
        {Name{1, 3, 6, 1, 2, 1, 1, 1, 0}, NameKind::kNoObject},
        {Name{}, NameKind::kNoObject},
    };
    for (const KindCase &c : cases) {
        EXPECT_EQ(classifyName(c.name), c.kind) << ::testing::PrintToString(c.name);
    }
}

struct CursorCase {
    Name name;
    std::optional<Arcs> cursor;
};

TEST(ServedTree, EveryNameIsAskedFromWhereThePluginAnswersItsSuccessor)
{
    const CursorCase cases[] = {
        // Before the tree, its root, and the scalars: from the scalar
        // instance at or before the name.
        {Name{1, 3, 6, 1}, arcsBelow({})},
        {Name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 19, 5}, arcsBelow({})},
        {below({}), arcsBelow({})},
        {below({0}), arcsBelow({})},
        {below({1}), arcsBelow({})},
        {below({1, 0}), arcsBelow({1, 0})},
        {below({1, 0, 5}), arcsBelow({1, 0})},
        {below({2}), arcsBelow({1, 0})},
        {below({6}), arcsBelow({5, 0})},
        {below({101}), arcsBelow({100, 3, 0})},
        {below({100, 0}), arcsBelow({5, 0})},
        {below({110, 2}), arcsBelow({100, 3, 0})},
        {below({110, 7, 0}), arcsBelow({110, 6, 0})},
        {below({110, 15, 0}), arcsBelow({110, 15, 0})},
        {below({120}), arcsBelow({110, 15, 0})},
        // Tables: before a table, its root; inside it, the cell itself.
        {below({130}), arcsBelow({130, 1})},
        {below({130, 0, 5}), arcsBelow({130, 1})},
        {below({130, 1}), arcsBelow({130, 1})},
        {below({130, 1, 0}), arcsBelow({130, 1})},
        {below({130, 4, 0, 1, 22}), arcsBelow({130, 4})},
        {below({130, 1, 1}), arcsBelow({130, 1})},
        {below({130, 1, 1, 0}), arcsBelow({130, 1})},
        {below({130, 1, 1, 0, 7}), arcsBelow({130, 1})},
        {below({130, 1, 1, 2}), arcsBelow({130, 1, 1, 2})},
        {below({130, 1, 1, 2, 3}), arcsBelow({130, 1, 1, 2, 3})},
        {below({130, 1, 1, 2, 3, 9, 9}), arcsBelow({130, 1, 1, 2, 3})},
        {below({130, 1, 1, 2, kMax}), arcsBelow({130, 1, 1, 3})},
        {below({130, 1, 1, 2, kMax + 7}), arcsBelow({130, 1, 1, 3})},
        {below({130, 1, 1, 73, kMax}), arcsBelow({130, 2})},
        // Past a table's columns or entry: the next table.
        {below({130, 1, 1, 74}), arcsBelow({130, 2})},
        {below({130, 1, 2}), arcsBelow({130, 2})},
        {below({130, 1, kMax + 1}), arcsBelow({130, 2})},
        {below({130, 18, 1, 29}), arcsBelow({140, 1})},
        {below({130, 19}), arcsBelow({140, 1})},
        {below({135}), arcsBelow({140, 1})},
        {below({140, 0}), arcsBelow({140, 1})},
        {below({140, 3, 1, 4294967295ull}), arcsBelow({140, 4})},
        {below({140, 3, 2}), arcsBelow({140, 4})},
        // The one column the plug-in does not start from: the last row of
        // the column before it.
        {below({140, 3, 1, 7}), arcsBelow({140, 3, 1, 6, 4294967295u})},
        {below({140, 3, 1, 7, 5}), arcsBelow({140, 3, 1, 6, 4294967295u})},
        {below({140, 3, 1, 6, kMax}), arcsBelow({140, 3, 1, 6, 4294967295u})},
        {below({140, 3, 1, 7, kMax}), arcsBelow({140, 4})},
        // After the last table: nothing.
        {below({140, 6, 1, 9}), std::nullopt},
        {below({140, 7}), std::nullopt},
        {below({200, 1, 0}), std::nullopt},
        {below({kMax + 1}), std::nullopt},
        {Name{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 21}, std::nullopt},
        {Name{2}, std::nullopt},
    };
    for (const CursorCase &c : cases) {
        EXPECT_EQ(cursorAfter(c.name), c.cursor) << ::testing::PrintToString(c.name);
    }
}

TEST(ServedTree, AfterANameWithNothingFollowingComesTheNextTablesRoot)
{
    EXPECT_EQ(nextTableRoot(arcsBelow({110, 15, 0})), arcsBelow({130, 1}));
    EXPECT_EQ(nextTableRoot(arcsBelow({130, 1})), arcsBelow({130, 2}));
    EXPECT_EQ(nextTableRoot(arcsBelow({130, 1, 1, 5, 5})), arcsBelow({130, 2}));
    EXPECT_EQ(nextTableRoot(arcsBelow({130, 18, 1, 28, 1})), arcsBelow({140, 1}));
    EXPECT_EQ(nextTableRoot(arcsBelow({140, 3, 1, 7, 2})), arcsBelow({140, 4}));
    EXPECT_EQ(nextTableRoot(arcsBelow({140, 6})), std::nullopt);
    EXPECT_EQ(nextTableRoot(arcsBelow({140, 6, 1, 8, 3})), std::nullopt);
}

TEST(ServedTree, InsideRootMeansUnderTheRootOrTheRootItself)
{
    EXPECT_TRUE(insideRoot(arcsBelow({})));
    EXPECT_TRUE(insideRoot(arcsBelow({130, 1})));
    EXPECT_FALSE(insideRoot(Arcs{1, 3, 6, 1, 4, 1, 61234, 20571, 1}));
    EXPECT_FALSE(insideRoot(Arcs{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 21, 1}));
}

} // namespace
} // namespace kelp::agent
