// Names over the wire: GetNext from names before, between, inside and past
// the plug-in's groups answers the next name of the agent's own walk, and
// Get of a name that is no instance is noSuchObject or noSuchInstance,
// never genErr; checked with net-snmp's tools against a kelpagent serving
// the sample model.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

using Name = std::vector<uint64_t>;
constexpr uint64_t kMax = 4294967295u;

Name parseName(const std::string &dotted)
{
    Name name;
    std::istringstream in(dotted);
    std::string arc;
    while (std::getline(in, arc, '.')) {
        if (!arc.empty()) {
            name.push_back(std::stoull(arc));
        }
    }
    return name;
}

std::string dotted(const Name &name)
{
    std::string out;
    for (uint64_t arc : name) {
        out += "." + std::to_string(arc);
    }
    return out;
}

bool before(const Name &a, const Name &b)
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
}

// One answered varbind as the tools print it: ".1.3... = TYPE: value".
struct Line {
    Name name;
    std::string text;
};

std::vector<Line> lines(const std::string &out)
{
    std::vector<Line> result;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        const size_t eq = line.find(" = ");
        if (!line.empty() && line[0] == '.' && eq != std::string::npos) {
            result.push_back({parseName(line.substr(0, eq)), line});
        } else if (!result.empty()) {
            result.back().text += "\n" + line; // a value that holds a line feed
        }
    }
    return result;
}

Name below(std::initializer_list<uint64_t> tail)
{
    Name name = parseName(kRoot);
    name.insert(name.end(), tail);
    return name;
}

class AgentResolve : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
        const RunResult walked = agent.snmp("snmpwalk", {kRoot});
        ASSERT_EQ(walked.status, 0) << walked.err;
        walk = lines(walked.out);
        ASSERT_GT(walk.size(), 500u);
    }

    // The line the walk holds after `name`, or null past the tree.
    const Line *successor(const Name &name) const
    {
        const auto it =
            std::upper_bound(walk.begin(), walk.end(), name,
                             [](const Name &n, const Line &l) { return before(n, l.name); });
        return it == walk.end() ? nullptr : &*it;
    }

    // GetNext of `names` in PDUs of up to 20 varbinds, each answer checked
    // against the walk. Past the tree the agent answers its next group.
    void expectWalksAnswers(const std::vector<Name> &names)
    {
        for (size_t start = 0; start < names.size(); start += 20) {
            std::vector<std::string> args;
            for (size_t i = start; i < std::min(names.size(), start + 20); i++) {
                args.push_back(dotted(names[i]));
            }
            const RunResult next = agent.snmp("snmpgetnext", args);
            ASSERT_EQ(next.status, 0) << next.err;
            const std::vector<Line> answers = lines(next.out);
            ASSERT_EQ(answers.size(), args.size()) << next.out;
            for (size_t i = 0; i < answers.size(); i++) {
                const Line *expected = successor(names[start + i]);
                if (expected != nullptr) {
                    EXPECT_EQ(answers[i].text, expected->text) << "GetNext " << args[i];
                } else {
                    EXPECT_FALSE(before(below({}), answers[i].name) &&
                                 before(answers[i].name, below({kMax + 1})))
                        << "GetNext " << args[i] << " answered " << answers[i].text;
                }
            }
        }
    }

    AgentUnderTest agent;
    std::vector<Line> walk;
};

TEST_F(AgentResolve, NamesBeforeBetweenInsideAndPastTheGroupsGetTheNextWalkedName)
{
    expectWalksAnswers({
        below({}),
        below({0}),
        below({1}),
        below({6}),
        below({100, 0}),
        below({101}),
        below({110, 2}),
        below({110, 7, 0}),
        below({110, 15, 0}),
        below({130}),
        below({130, 1, 2}),
        below({130, 4, 0, 1, 22}),
        below({130, 4, 1, 0}),
        below({130, 7, 2}),
        below({130, 1, 1, 2, kMax}),
        below({130, 19}),
        below({140}),
        below({140, 0}),
        below({140, 3, 1, kMax}),
        below({140, 3, 1, 6}),
        below({140, 6, 1, 99}),
        below({140, 7}),
        below({200}),
    });
}

TEST_F(AgentResolve, EveryWalkedNameWithOneArcChangedGetsTheNextWalkedName)
{
    std::mt19937 random(61234);
    std::vector<Name> names;
    for (int i = 0; i < 300; i++) {
        Name name = walk[random() % walk.size()].name;
        const size_t at = 10 + random() % (name.size() - 10);
        switch (random() % 4) {
        case 0:
            name[at]++;
            break;
        case 1:
            name[at] = name[at] > 0 ? name[at] - 1 : 0;
            break;
        case 2:
            name[at] = 0;
            break;
        default:
            name[at] = kMax;
            break;
        }
        if (random() % 3 == 0) {
            name.resize(at + 1);
        }
        names.push_back(name);
    }
    expectWalksAnswers(names);
}

TEST_F(AgentResolve, NamesThatAreNoInstancesAreNoSuchAndNeverGenErr)
{
    const std::vector<std::string> names = {
        dotted(below({})),
        dotted(below({1})),
        dotted(below({1, 99})),
        dotted(below({2, 7, 7, 7})),
        dotted(below({100, 1})),
        dotted(below({110, 3, 5})),
        dotted(below({130, 1, 1, 2, 1, 9})),
        dotted(below({140, 7, 1, 1, 1})),
        dotted(below({130, 1})),
        dotted(below({140, 3, 1})),
    };
    const RunResult get = agent.snmp("snmpget", names);
    ASSERT_EQ(get.status, 0) << get.err;
    const std::vector<Line> answers = lines(get.out);
    ASSERT_EQ(answers.size(), names.size()) << get.out;
    for (const Line &answer : answers) {
        EXPECT_TRUE(answer.text.find("No Such Object") != std::string::npos ||
                    answer.text.find("No Such Instance") != std::string::npos)
            << answer.text;
    }
    const RunResult v1 = agent.snmp("snmpget", {dotted(below({})), dotted(below({1}))}, "1");
    EXPECT_NE(v1.err.find("noSuchName"), std::string::npos) << v1.out << v1.err;
}

TEST_F(AgentResolve, EveryWalkedNameAnswersItsValueAndEveryWalkAgrees)
{
    for (size_t start = 0; start < walk.size(); start += 40) {
        std::vector<std::string> args;
        std::string expected;
        for (size_t i = start; i < std::min(walk.size(), start + 40); i++) {
            args.push_back(dotted(walk[i].name));
            expected += walk[i].text + "\n";
        }
        const RunResult get = agent.snmp("snmpget", args);
        ASSERT_EQ(get.status, 0) << get.err;
        EXPECT_EQ(get.out, expected);
    }
    std::string whole;
    for (const Line &line : walk) {
        whole += line.text + "\n";
    }
    EXPECT_EQ(agent.snmp("snmpbulkwalk", {kRoot}).out, whole);
    EXPECT_EQ(agent.snmp("snmpbulkwalk", {"-Cr7", kRoot}).out, whole);
    EXPECT_EQ(agent.snmp("snmpwalk", {kRoot}, "1").out, whole);
}

// A fan pulled leaves a hole in the fan table, rows keeping their index;
// the first fan's hole must not hide the others from a walk, which Get
// still answers.
TEST_F(AgentResolve, ATableWhoseFirstRowWentStillWalksItsOtherRows)
{
    const std::string fans = std::string(kRoot) + ".130.7";
    const RunResult before = agent.snmp("snmpwalk", {fans});
    ASSERT_NE(before.out.find(fans + ".1.2.2 = STRING"), std::string::npos) << before.out;
    ASSERT_EQ(agent.kelpctl({"remove", "30"}).status, 0); // the fan in row 1
    RunResult get;
    ASSERT_TRUE(waitFor(
        [&] {
            get = agent.snmp("snmpget", {fans + ".1.2.1", fans + ".1.2.2"});
            return get.out.find("No Such Instance") != std::string::npos;
        },
        20s))
        << get.out << get.err;
    ASSERT_NE(get.out.find(fans + ".1.2.2 = STRING: \"Fan 1\""), std::string::npos) << get.out;

    // Every line of the walk before, but row 1's.
    std::string expected;
    for (const Line &line : lines(before.out)) {
        if (line.name.back() != 1)
            expected += line.text + "\n";
    }
    EXPECT_EQ(agent.snmp("snmpwalk", {fans}).out, expected);
    EXPECT_EQ(agent.snmp("snmpbulkwalk", {"-Cr7", fans}).out, expected);
    EXPECT_EQ(agent.snmp("snmpwalk", {fans}, "1").out, expected);
    // From the table before it, and from its own last row, the walk goes on
    // into the fan table, then out of it.
    const RunResult next =
        agent.snmp("snmpgetnext", {std::string(kRoot) + ".130.6.1.7.3", fans + ".1.1.3"});
    EXPECT_NE(next.out.find(fans + ".1.1.2 = "), std::string::npos) << next.out;
    EXPECT_NE(next.out.find(fans + ".1.2.2 = "), std::string::npos) << next.out;
}

// Controllers that all moved (their nexus changed, as when they change
// slots) leave a hole in every row a walk has seen, and come back in rows
// after them: more holes in a row than the agent reads past the last row
// it found must not hide them.
TEST(AgentResolveMoved, ATableWhoseRowsAllMovedPastTheRowsSeenStillWalks)
{
    AgentUnderTest agent;
    constexpr int kControllers = 80;
    const auto model = [&](const std::string &file, int firstNexus) {
        std::string text = "<storage ready=\"1\">\n";
        for (int i = 1; i <= kControllers; i++) {
            text += "<object id=\"" + std::to_string(i) + "\" type=\"adapters\"><Nexus>" +
                    std::to_string(firstNexus + i - 1) + "</Nexus><Name>C" + std::to_string(i) +
                    "</Name></object>\n";
        }
        writeFile(file, text + "</storage>\n");
    };
    const std::string before = agent.dir() / "before.xml";
    const std::string after = agent.dir() / "after.xml";
    model(before, 0);
    model(after, 200);
    std::string why;
    ASSERT_TRUE(agent.start(before, {}, &why)) << why;
    const std::string ids = std::string(kRoot) + ".130.1.1.1";
    ASSERT_EQ(countOf(agent.snmp("snmpwalk", {ids}).out, " = INTEGER: "),
              static_cast<size_t>(kControllers));

    ASSERT_EQ(agent.kelpctl({"load", after}).status, 0);
    const std::string first = ids + "." + std::to_string(kControllers + 1);
    RunResult get;
    ASSERT_TRUE(waitFor(
        [&] {
            get = agent.snmp("snmpget", {first, ids + ".1"});
            return get.out.find(first + " = INTEGER") != std::string::npos;
        },
        20s))
        << get.out << get.err;
    EXPECT_NE(get.out.find(ids + ".1 = No Such Instance"), std::string::npos) << get.out;

    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const RunResult walk = agent.snmp(tool, {ids});
        EXPECT_EQ(countOf(walk.out, " = INTEGER: "), static_cast<size_t>(kControllers))
            << tool << ": " << walk.out;
        EXPECT_TRUE(walk.out.starts_with("." + first + " = INTEGER")) << tool << ": " << walk.out;
    }
    const RunResult next = agent.snmp("snmpgetnext", {ids + ".5"});
    EXPECT_TRUE(next.out.starts_with("." + first + " = INTEGER")) << next.out;
}

// Controllers that went before any manager looked leave holes the agent
// never saw: the rows after them are walked all the same.
TEST(AgentResolveMoved, RowsAfterHolesNoWalkSawAreWalked)
{
    AgentUnderTest agent;
    constexpr int kControllers = 80;
    const auto model = [&](const std::string &file, int first) {
        std::string text = "<storage ready=\"1\">\n";
        for (int i = first; i <= kControllers; i++) {
            text += "<object id=\"" + std::to_string(i) + "\" type=\"adapters\"><Nexus>" +
                    std::to_string(i - 1) + "</Nexus><Name>C" + std::to_string(i) +
                    "</Name></object>\n";
        }
        writeFile(file, text + "</storage>\n");
    };
    const std::string all = agent.dir() / "all.xml";
    const std::string last = agent.dir() / "last.xml";
    model(all, 1);
    model(last, kControllers);
    std::string why;
    ASSERT_TRUE(agent.start(all, {}, &why)) << why;
    // No walk: only the last row is ever asked for, after the others went.
    ASSERT_EQ(agent.kelpctl({"load", last}).status, 0);
    const std::string ids = std::string(kRoot) + ".130.1.1.1";
    const std::string lastRow = ids + "." + std::to_string(kControllers);
    RunResult get;
    ASSERT_TRUE(waitFor(
        [&] {
            get = agent.snmp("snmpget", {ids + ".1"});
            return get.out.find("No Such Instance") != std::string::npos;
        },
        20s))
        << get.out << get.err;
    for (const char *tool : {"snmpwalk", "snmpbulkwalk"}) {
        const RunResult walk = agent.snmp(tool, {ids});
        EXPECT_EQ(walk.out, "." + lastRow + " = INTEGER: " + std::to_string(kControllers) + "\n")
            << tool;
    }
    const RunResult next = agent.snmp("snmpgetnext", {std::string(kRoot) + ".130"});
    EXPECT_TRUE(next.out.starts_with("." + lastRow + " = INTEGER")) << next.out;
}

} // namespace
} // namespace kelp::test
