// Comparing the walks of an agent and of one started on its saved model
// (see walk_after_save.h).
#include "walk_after_save.h"

#include <gtest/gtest.h>

#include <sstream>

namespace kelp::test {
namespace {

// The first line where two walks part, for a readable failure.
std::string firstDifference(const std::string &want, const std::string &got)
{
    std::istringstream a(want), b(got);
    std::string lineA, lineB;
    for (int line = 1;; line++) {
        const bool moreA = static_cast<bool>(std::getline(a, lineA));
        const bool moreB = static_cast<bool>(std::getline(b, lineB));
        if (!moreA && !moreB)
            return "no line differs";
        if (!moreA || !moreB || lineA != lineB) {
            return "line " + std::to_string(line) + ":\n  first:  " + (moreA ? lineA : "<end>") +
                   "\n  second: " + (moreB ? lineB : "<end>");
        }
    }
}

// The walk with the value of each clock reading blanked out.
std::string withoutClockReadings(const std::string &walk)
{
    std::istringstream in(walk);
    std::string out, line;
    while (std::getline(in, line)) {
        for (const std::string &oid : kClockReadings) {
            if (line.starts_with(oid + " = "))
                line = oid + " = <clock>";
        }
        out += line + "\n";
    }
    return out;
}

} // namespace

std::optional<std::string> tryWalk(AgentUnderTest &agent)
{
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    if (walk.status != 0 || !walk.err.empty())
        return std::nullopt;
    return walk.out;
}

std::string walkOf(AgentUnderTest &agent)
{
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    EXPECT_TRUE(walk.status == 0 && walk.err.empty())
        << "status " << walk.status << ": " << walk.err.substr(0, 500);
    return walk.status == 0 && walk.err.empty() ? walk.out : "";
}

void expectIdenticalWalkAfterSave(const std::vector<std::string> &agentArgs,
                                  const std::function<void(AgentUnderTest &)> &change)
{
    AgentUnderTest first;
    std::string why;
    ASSERT_TRUE(first.startWith(agentArgs, &why)) << why;
    KELP_REQUIRE_MODULE_VALUES(first);
    if (change)
        change(first);
    // Tables rebuilt after a change settle on their own time: the walk to
    // keep is one that the next walk repeats.
    std::optional<std::string> walk = tryWalk(first);
    std::optional<std::string> again;
    ASSERT_TRUE(waitFor(
        [&] {
            again = tryWalk(first);
            std::swap(walk, again);
            return walk && walk == again;
        },
        30s))
        << "the first agent's walk does not settle";
    ASSERT_FALSE(walk->empty());

    const std::string saved = first.dir() / "saved.xml";
    const RunResult save = first.kelpctl({"save", saved});
    ASSERT_EQ(save.status, 0) << save.err;
    ASSERT_EQ(save.out, "ok\n");

    AgentUnderTest second;
    ASSERT_TRUE(second.start(saved, {}, &why)) << why;
    const std::string want = withoutClockReadings(*walk);
    const std::string got = withoutClockReadings(walkOf(second));
    EXPECT_TRUE(got == want) << "the agent on the saved model walks otherwise, first at "
                             << firstDifference(want, got);
    // The first agent still serves what it served before the save.
    const std::string after = withoutClockReadings(walkOf(first));
    EXPECT_TRUE(after == want) << "the first agent changed at " << firstDifference(want, after);
}

} // namespace kelp::test
