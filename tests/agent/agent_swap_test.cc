// A load whose ids name other objects than the model before (a kelpgen model
// after the sample) with --no-events: a walk of the tables right after the
// load must answer, at every name, the value the old model or the new one
// answers there at rest (or end in a lock time-out, genErr), never another
// object's value under a row.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

constexpr int kScale = 20; // the plug-in reads 20 events a second

// "name = value" for each name a walk of the tables answered, up to an
// error (a genErr ends the walk early).
std::map<std::string, std::string> walk(AgentUnderTest &agent)
{
    const RunResult result =
        agent.snmp("snmpbulkwalk", {"-r", "0", "-t", "3", "-On", std::string(kRoot) + ".130"});
    std::map<std::string, std::string> values;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        const size_t eq = line.find(" = ");
        if (eq != std::string::npos)
            values[line.substr(0, eq)] = line.substr(eq + 3);
    }
    return values;
}

// Waits until the plug-in has read every event and rebuilt.
void settle(AgentUnderTest &agent)
{
    waitFor(
        [&agent] {
            return agent.control({"status"}).find("events queued: 0\n") != std::string::npos;
        },
        10s);
    std::this_thread::sleep_for(std::chrono::milliseconds(3000 / kScale + 100));
}

TEST(AgentSwap, RowsAnswerTheOldOrTheNewObjectRightAfterALoadWithoutEvents)
{
    AgentUnderTest agent;
    const std::string sample = sourcePath("data/models/sample.xml");
    const std::string generated = agent.dir() / "gen-12.xml";
    const RunResult made =
        run({KELPGEN_PATH, "--disks", "12", "--disks-per-controller", "8", "--out", generated}, {},
            agent.dir());
    ASSERT_EQ(made.status, 0) << made.err;
    std::string why;
    ASSERT_TRUE(agent.start(sample, {}, &why, {"KELP_TIME_SCALE=" + std::to_string(kScale)}))
        << why;
    KELP_REQUIRE_MODULE_VALUES(agent);

    // The sample's tables at rest, as the agent started; then the other
    // model swapped in without events and walked at once; then its tables
    // at rest.
    settle(agent);
    const auto before = walk(agent);
    ASSERT_GT(before.size(), 1000u);
    ASSERT_TRUE(agent.control({"load", "--no-events", generated}).ends_with("ok\n"));
    std::vector<std::map<std::string, std::string>> during;
    for (int i = 0; i < 3; i++)
        during.push_back(walk(agent));
    ASSERT_TRUE(agent.control({"load", generated}).ends_with("ok\n"));
    settle(agent);
    const auto after = walk(agent);
    ASSERT_GT(after.size(), 1000u);

    auto holds = [](const std::map<std::string, std::string> &state, const std::string &name,
                    const std::string &value) {
        const auto it = state.find(name);
        return it != state.end() && it->second == value;
    };
    size_t answered = 0;
    for (size_t i = 0; i < during.size(); i++) {
        answered += during[i].size();
        size_t foreign = 0;
        for (const auto &[name, value] : during[i]) {
            if (holds(before, name, value) || holds(after, name, value))
                continue;
            if (++foreign <= 5) {
                ADD_FAILURE() << "walk " << i << ": " << name << " = " << value
                              << " is held there by neither model";
            }
        }
        EXPECT_EQ(foreign, 0u) << "walk " << i;
    }
    EXPECT_GT(answered, 0);
    EXPECT_TRUE(genErrsWereTheLocks(readFile(agent.dir() / "agent.err")));
}

// A stop that comes while `kelpctl load` runs lets the load end under the
// rescan lock, while the plug-in still reads events, and answers it; a load
// sent once the stop has begun is refused, or finds the socket gone. Never
// a swap without the lock, nor a client left without an answer.
TEST(AgentSwap, AStopDuringALoadLetsItEndUnderTheLockAndAnswersIt)
{
    for (const auto wait : {150ms, 0ms}) {
        SCOPED_TRACE("stop " + std::to_string(wait.count()) + " ms after the load was sent");
        AgentUnderTest agent;
        const std::string generated = agent.dir() / "gen-4096.xml";
        const RunResult made = run(
            {KELPGEN_PATH, "--disks", "4096", "--disks-per-controller", "8", "--out", generated},
            {}, agent.dir(), 60s);
        ASSERT_EQ(made.status, 0) << made.err;
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
        Process load(
            {kelpctlPath(), "--control", agent.stateDir() + "/control.sock", "load", generated}, {},
            agent.dir() / "load.out", agent.dir() / "load.err");
        std::this_thread::sleep_for(wait);
        EXPECT_EQ(agent.stop(), 0);
        const std::optional<int> loaded = load.wait(30s);
        ASSERT_TRUE(loaded.has_value());
        const std::string answer = load.out() + load.err();
        const std::string log = agent.process()->err();
        EXPECT_EQ(log.find("without the rescan lock"), std::string::npos) << log;
        EXPECT_EQ(answer.find("without a complete answer"), std::string::npos) << answer;
        if (*loaded == 0) {
            EXPECT_NE(log.find("kelpctl load: now serving the model"), std::string::npos) << log;
        } else {
            EXPECT_TRUE(answer.find("the agent is stopping: the command did not run") !=
                            std::string::npos ||
                        answer.find("cannot reach the control socket") != std::string::npos)
                << answer;
        }
    }
}

} // namespace
} // namespace kelp::test
