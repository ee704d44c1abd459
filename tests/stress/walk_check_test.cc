#include "walk_check.h"

#include <gtest/gtest.h>

namespace kelp::stress {
namespace {

const Name kRoot = {1, 3, 9};

Binding bind(std::vector<uint32_t> arcs, std::string value)
{
    Name name = kRoot;
    name.insert(name.end(), arcs.begin(), arcs.end());
    return {name, value};
}

// Two states: row 1 holds "a" then "A"; row 2 exists in the first only; a
// time at {9, 0} changes on its own.
Reference twoStates()
{
    Reference reference(kRoot);
    const StateWalk old = {bind({2, 1}, "sa"), bind({2, 2}, "sb"), bind({3, 1}, "i1"),
                           bind({9, 0}, "t1")};
    const StateWalk now = {bind({2, 1}, "sA"), bind({3, 1}, "i1"), bind({9, 0}, "t7")};
    EXPECT_TRUE(reference.addState(old));
    EXPECT_TRUE(reference.addState(now));
    EXPECT_TRUE(
        reference.addRepeat(now, {bind({2, 1}, "sA"), bind({3, 1}, "i1"), bind({9, 0}, "t8")}));
    return reference;
}

TEST(WalkCheck, FindsEveryKindOfFaultAndNothingInACorrectWalk)
{
    const Reference reference = twoStates();
    EXPECT_EQ(reference.alwaysServed(), 3u);
    EXPECT_EQ(reference.volatileNames(), 1u);
    const struct {
        const char *what;
        std::vector<Binding> walk;
        WalkEnd end;
        const char *fault; // nullptr: none
    } cases[] = {
        {"old state",
         {bind({2, 1}, "sa"), bind({2, 2}, "sb"), bind({3, 1}, "i1"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         nullptr},
        {"new state",
         {bind({2, 1}, "sA"), bind({3, 1}, "i1"), bind({9, 0}, "t9")},
         WalkEnd::kPastTree,
         nullptr},
        {"old row, then the change",
         {bind({2, 1}, "sa"), bind({3, 1}, "i1"), bind({9, 0}, "t2")},
         WalkEnd::kPastTree,
         nullptr},
        {"lock time-out part way", {bind({2, 1}, "sa")}, WalkEnd::kLockTimeOut, nullptr},
        {"name repeated",
         {bind({2, 1}, "sa"), bind({2, 1}, "sa"), bind({3, 1}, "i1"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         "follows"},
        {"names decrease",
         {bind({2, 1}, "sa"), bind({3, 1}, "i1"), bind({2, 2}, "sb"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         "follows"},
        {"ends early",
         {bind({2, 1}, "sa"), bind({3, 1}, "i1")},
         WalkEnd::kPastTree,
         "skipped 1.3.9.9.0"},
        {"table skipped",
         {bind({2, 1}, "sa"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         "skipped 1.3.9.3.1"},
        {"another row's value",
         {bind({2, 1}, "sb"), bind({3, 1}, "i1"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         "value no state holds"},
        {"volatile of another type",
         {bind({2, 1}, "sa"), bind({3, 1}, "i1"), bind({9, 0}, "s1")},
         WalkEnd::kPastTree,
         "value no state holds"},
        {"name no state serves",
         {bind({2, 1}, "sa"), bind({2, 3}, "sb"), bind({3, 1}, "i1"), bind({9, 0}, "t1")},
         WalkEnd::kPastTree,
         "served by no state (type 0x73, 1 bytes: b), after 1.3.9.2.1"},
        {"outside the tree",
         {bind({2, 1}, "sa"), {{1, 3, 10}, "i1"}},
         WalkEnd::kLockTimeOut,
         "outside the tree"},
    };
    for (const auto &c : cases) {
        const std::vector<std::string> faults = reference.checkWalk(c.walk, c.end);
        if (c.fault == nullptr) {
            EXPECT_TRUE(faults.empty()) << c.what << ": " << faults.front();
        } else {
            ASSERT_FALSE(faults.empty()) << c.what;
            EXPECT_NE(faults.front().find(c.fault), std::string::npos)
                << c.what << ": " << faults.front();
        }
    }
}

TEST(WalkCheck, AGetMayFindNoInstanceOnlyWhereSomeStateHasNone)
{
    const Reference reference = twoStates();
    EXPECT_EQ(reference.checkAbsent(bind({2, 2}, "").name), "");
    EXPECT_NE(reference.checkAbsent(bind({2, 1}, "").name), "");
    EXPECT_EQ(reference.checkValue(bind({2, 2}, "sb")), "");
    EXPECT_NE(reference.checkValue(bind({2, 2}, "sa")), "");
}

// A table whose first row is a hole: the plug-in's walk passes over it, a
// Get (or a GetNext from within the table) answers its second row.
TEST(WalkCheck, AHiddenRowIsServedButAWalkMayPassItOver)
{
    Reference reference(kRoot);
    ASSERT_TRUE(reference.addState({bind({2, 1}, "sa"), bind({3, 1}, "i1")}));
    ASSERT_TRUE(reference.addState({bind({3, 1}, "i1")}, {bind({2, 2}, "sn")}));
    EXPECT_EQ(reference.hiddenNames(), 1u);
    EXPECT_EQ(reference.alwaysServed(), 1u);
    EXPECT_EQ(reference.checkValue(bind({2, 2}, "sn")), "");
    EXPECT_NE(reference.checkValue(bind({2, 2}, "sa")), "");
    EXPECT_TRUE(reference
                    .checkWalk({bind({2, 1}, "sa"), bind({2, 2}, "sn"), bind({3, 1}, "i1")},
                               WalkEnd::kPastTree)
                    .empty());
    EXPECT_TRUE(reference.checkWalk({bind({3, 1}, "i1")}, WalkEnd::kPastTree).empty());

    // Served by every state, but walked by one only: no walk must show it.
    Reference always(kRoot);
    ASSERT_TRUE(always.addState({bind({2, 2}, "sn"), bind({3, 1}, "i1")}));
    ASSERT_TRUE(always.addState({bind({3, 1}, "i1")}, {bind({2, 2}, "sn")}));
    EXPECT_EQ(always.alwaysServed(), 2u);
    EXPECT_TRUE(always.checkWalk({bind({3, 1}, "i1")}, WalkEnd::kPastTree).empty());
    EXPECT_NE(always.checkAbsent(bind({2, 2}, "").name).find("served by every state"),
              std::string::npos);

    // Walked by every state: a walk past it must show it.
    Reference walked(kRoot);
    ASSERT_TRUE(walked.addState({bind({2, 2}, "sn"), bind({3, 1}, "i1")}));
    const std::vector<std::string> faults =
        walked.checkWalk({bind({3, 1}, "i1")}, WalkEnd::kPastTree);
    ASSERT_EQ(faults.size(), 1u);
    EXPECT_NE(faults.front().find("skipped"), std::string::npos);
}

TEST(WalkCheck, ARowPastEveryStatesRowsIsServedOnlyInATableThatAppendsRows)
{
    Reference reference(kRoot);
    // Tables 5.1 and 5.2 with rows 1 and 2 in column 1.
    ASSERT_TRUE(reference.addState({bind({5, 1, 1, 1, 1}, "i1"), bind({5, 1, 1, 1, 2}, "i2"),
                                    bind({5, 2, 1, 1, 1}, "i1"), bind({5, 2, 1, 1, 2}, "i2")}));
    reference.addAppendingTable(5, 1);
    EXPECT_EQ(reference.checkValue(bind({5, 1, 1, 1, 39}, "i39")), "");
    EXPECT_EQ(reference.checkValue(bind({5, 1, 1, 2, 3}, "x")), "");
    // Within the states' rows a name must still be served, with its value.
    EXPECT_NE(reference.checkValue(bind({5, 1, 1, 2, 2}, "x")).find("served by no state"),
              std::string::npos);
    EXPECT_NE(reference.checkValue(bind({5, 1, 1, 1, 2}, "i7")).find("value no state holds"),
              std::string::npos);
    // A table that renumbers its rows appends none.
    EXPECT_NE(reference.checkValue(bind({5, 2, 1, 1, 39}, "i39")).find("served by no state"),
              std::string::npos);
    // Nor is a name of another shape a row.
    EXPECT_NE(reference.checkValue(bind({5, 1, 1, 1, 39, 1}, "i39")).find("served by no state"),
              std::string::npos);
}

TEST(WalkCheck, AnUncheckedTableTakesAnyNameAndValue)
{
    Reference reference(kRoot);
    ASSERT_TRUE(reference.addState({bind({5, 1, 1, 1, 1}, "i1"), bind({5, 2, 1, 1, 1}, "i1")}));
    reference.addUncheckedTable(5, 1);
    EXPECT_EQ(reference.checkValue(bind({5, 1, 1, 1, 1}, "i9")), "");
    EXPECT_EQ(reference.checkValue(bind({5, 1, 1, 4, 1}, "sOS")), "");
    EXPECT_NE(reference.checkValue(bind({5, 2, 1, 1, 1}, "i9")), "");
}

TEST(WalkCheck, RefusesReferencesThatAreNoWalks)
{
    Reference reference(kRoot);
    EXPECT_FALSE(reference.addState({bind({3, 1}, "x"), bind({2, 1}, "y")}));
    EXPECT_FALSE(reference.addState({{{1, 3}, "x"}}));
    EXPECT_TRUE(reference.addState({}));
    EXPECT_FALSE(reference.addRepeat({bind({2, 1}, "x")}, {bind({2, 2}, "x")}));
    EXPECT_FALSE(reference.addRepeat({bind({2, 1}, "x")}, {}));
    // Hidden bindings must increase too, and name nothing the walk shows.
    EXPECT_FALSE(reference.addState({bind({2, 1}, "x")}, {bind({3, 1}, "y"), bind({2, 2}, "z")}));
    EXPECT_FALSE(reference.addState({bind({2, 1}, "x")}, {bind({2, 1}, "x")}));
    EXPECT_TRUE(reference.addState({bind({2, 1}, "x")}, {bind({2, 2}, "y")}));
}

} // namespace
} // namespace kelp::stress
