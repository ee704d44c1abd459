// While a rescan holds the plug-in's tables (event 3061 without its 3060), a
// PDU of storage names is answered within about one lock time-out, not one
// per varbind, and everything else the agent serves (the system group, other
// clients) is answered at once.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr const char *kSysUpTime = "1.3.6.1.2.1.1.3.0";

std::string storage(const std::string &tail)
{
    return std::string(kRoot) + "." + tail;
}

// Asks for the first controller's name until the tool's output or error
// holds `text`, for at most 20 s.
::testing::AssertionResult controllerNameUntil(AgentUnderTest &agent, const std::string &text)
{
    RunResult get;
    if (waitFor(
            [&] {
                get = agent.snmp("snmpget", {"-Cf", storage("130.1.1.2.1")});
                return (get.out + get.err).find(text) != std::string::npos;
            },
            20s)) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no \"" << text << "\" in: " << get.out << get.err;
}

// Whether the agent's log says `text` within 10 s.
::testing::AssertionResult logSays(AgentUnderTest &agent, const std::string &text)
{
    if (waitFor([&] { return agent.process()->err().find(text) != std::string::npos; }, 10s))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no \"" << text << "\" in: " << agent.process()->err();
}

class AgentLocked : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    }

    // Queues a rescan start without its end and waits until a storage Get
    // fails: the refresh thread then holds the tables.
    void holdTables()
    {
        ASSERT_EQ(agent.kelpctl({"event", "3061"}).status, 0);
        ASSERT_TRUE(controllerNameUntil(agent, "genErr"));
    }

    void releaseTables()
    {
        ASSERT_EQ(agent.kelpctl({"event", "3060"}).status, 0);
        EXPECT_TRUE(controllerNameUntil(agent, "STRING"));
    }

    // The run time of one tool (its own start-up included).
    template <typename F> static Clock::duration timed(F body)
    {
        const Clock::time_point start = Clock::now();
        body();
        return Clock::now() - start;
    }

    AgentUnderTest agent;
};

TEST_F(AgentLocked, APduOfTwentyStorageNamesFailsWithinOneLockTimeOut)
{
    holdTables();
    std::vector<std::string> names;
    for (int row = 1; row <= 4; row++) {
        for (int column = 1; column <= 5; column++) {
            names.push_back(
                storage("130.4.1." + std::to_string(column) + "." + std::to_string(row)));
        }
    }
    // -Cf: the tool must not resend the PDU without the varbind that failed.
    names.insert(names.begin(), "-Cf");
    RunResult get;
    const auto took = timed([&] { get = agent.snmp("snmpget", names); });
    EXPECT_NE(get.err.find("genErr"), std::string::npos) << get.out << get.err;
    // One lock time-out is 1 s; one per varbind would be 20 s (and time the
    // tool out).
    EXPECT_LT(took, 3s);
    for (const char *tool : {"snmpgetnext", "snmpbulkget"}) {
        const std::string flag = tool == std::string("snmpgetnext") ? "-Cf" : "-Cr5";
        const auto next = timed([&] {
            get = agent.snmp(tool, {flag, storage("130.4"), storage("130.2")});
        });
        EXPECT_NE(get.err.find("genErr"), std::string::npos) << tool << get.out << get.err;
        EXPECT_LT(next, 3s) << tool;
    }
    releaseTables();
}

// The plug-in would take a second 3061 for a rescan of its own, started once
// the 3060 ends the first, and hold its tables for a 3060 that never comes.
TEST_F(AgentLocked, ASecondRescanStartWhileOneIsOpenIsDroppedNotLeftHoldingTheTables)
{
    holdTables();
    ASSERT_EQ(agent.kelpctl({"event", "3061"}).status, 0);
    // The second 3061 is read (and dropped) before the 3060 comes.
    EXPECT_TRUE(logSays(agent, "dropped a rescan started event"));
    releaseTables();
    // Still answered a few reads of the plug-in's later.
    std::this_thread::sleep_for(500ms);
    EXPECT_TRUE(controllerNameUntil(agent, "STRING"));
}

TEST_F(AgentLocked, EveryGenErrAnswerIsCountedInSnmpOutGenErrs)
{
    const auto outGenErrs = [&] {
        const RunResult get = agent.snmp("snmpget", {"-Oqv", "1.3.6.1.2.1.11.24.0"});
        EXPECT_EQ(get.status, 0) << get.err;
        return std::stol(get.out.empty() ? "-1" : get.out);
    };
    holdTables();
    const long before = outGenErrs();
    // The worker answers these genErr once the lock time-out has passed.
    const std::pair<const char *, std::vector<std::string>> requests[] = {
        {"snmpget", {"-Cf", storage("130.1.1.2.1"), storage("130.4.1.2.1")}},
        {"snmpgetnext", {"-Cf", storage("130.4")}},
        {"snmpbulkget", {"-Cr5", storage("130.2")}},
    };
    for (const auto &[tool, args] : requests) {
        const RunResult answer = agent.snmp(tool, args);
        EXPECT_NE(answer.err.find("genErr"), std::string::npos) << tool << answer.out << answer.err;
    }
    EXPECT_EQ(outGenErrs() - before, 3) << "one a response";
    releaseTables();
}

TEST_F(AgentLocked, AGenErrAnswerCarriesTheRequestsVarbindsInEveryVersion)
{
    holdTables();
    // sysName answers at once; the storage scalar fails after the lock's
    // time-out, on the worker. SNMPv1 must say genErr at the storage name,
    // never noSuchName (which tells a manager the object does not exist).
    const std::string vendor = storage("3.0");
    for (const char *version : {"1", "2c"}) {
        const RunResult get = agent.snmp(
            "snmpget", {"-Cf", "1.3.6.1.2.1.1.5.0", vendor, "1.3.6.1.2.1.1.5.0"}, version);
        EXPECT_NE(get.err.find("(genError)"), std::string::npos) << version << get.out << get.err;
        EXPECT_EQ(get.err.find("noSuchName"), std::string::npos) << version << get.err;
        EXPECT_NE(get.err.find("Failed object: ." + vendor), std::string::npos)
            << version << get.err;
        // The request's varbinds come back as they were sent: no values.
        EXPECT_EQ(get.out.find("STRING"), std::string::npos) << version << get.out;
    }
    const RunResult bulk =
        agent.snmp("snmpbulkget", {"-Cn1", "-Cr3", "1.3.6.1.2.1.1.5.0", storage("130.4")});
    EXPECT_NE(bulk.err.find("(genError)"), std::string::npos) << bulk.out << bulk.err;
    EXPECT_EQ(bulk.out.find("STRING"), std::string::npos) << bulk.out;
    releaseTables();
}

TEST_F(AgentLocked, TheSystemGroupIsAnsweredAtOnceWhileStorageRequestsWait)
{
    const auto idle = timed([&] { EXPECT_EQ(agent.snmp("snmpget", {kSysUpTime}).status, 0); });
    holdTables();
    for (int round = 0; round < 3; round++) {
        // A storage request of another client waits for the tables ...
        RunResult waiting;
        std::thread other([&] {
            waiting =
                agent.snmp("snmpget", {"-Cf", storage("130.1.1.2.1"), storage("130.2.1.2.1")});
        });
        std::this_thread::sleep_for(200ms);
        // ... while the system group is answered as fast as when idle.
        RunResult up;
        const auto took = timed([&] { up = agent.snmp("snmpget", {kSysUpTime}); });
        other.join();
        EXPECT_EQ(up.status, 0) << up.err;
        EXPECT_NE(up.out.find("Timeticks"), std::string::npos) << up.out;
        EXPECT_LT(took, idle + 500ms) << "idle: " << idle.count();
        EXPECT_NE(waiting.err.find("genErr"), std::string::npos) << waiting.out << waiting.err;
    }
    releaseTables();
    // The log says why the storage requests failed, and that it was the lock.
    EXPECT_NE(agent.process()->err().find("the storage tables stayed locked"), std::string::npos)
        << agent.process()->err();
    EXPECT_TRUE(genErrsWereTheLocks(agent.process()->err())) << agent.process()->err();
}

TEST(AgentRescanTimeOut, ARescanStartWithoutItsEndHoldsTheTablesOnlyForTheTimeOut)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {"--rescan-timeout", "3"}, &why))
        << why;
    ASSERT_EQ(agent.kelpctl({"event", "3061"}).status, 0);
    ASSERT_TRUE(controllerNameUntil(agent, "genErr"));
    // The runtime hands the plug-in the rescan's end after 3 s: the tables
    // are rebuilt and answer again, without any 3060 from outside.
    EXPECT_TRUE(controllerNameUntil(agent, "STRING"));
    EXPECT_NE(agent.process()->err().find("handing out one of the runtime's own"),
              std::string::npos)
        << agent.process()->err();
    // A 3060 arriving late is dropped: the next rescan is not cut short.
    ASSERT_EQ(agent.kelpctl({"event", "3060"}).status, 0);
    EXPECT_TRUE(logSays(agent, "dropped a late rescan completed event"));
}

} // namespace
} // namespace kelp::test
