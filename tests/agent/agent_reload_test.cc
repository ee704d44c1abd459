// Configuration that would wedge or silence the agent is refused: a blocked
// alert list naming a rescan event is an error at start and refused at
// SIGHUP, with the list in force kept.
#include <signal.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

size_t count(const std::string &text, const std::string &needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        n++;
    }
    return n;
}

RunResult startAndFail(const TempDir &dir, const std::vector<std::string> &extra)
{
    std::vector<std::string> argv{kelpagentPath(),
                                  "--state-dir",
                                  dir / "state",
                                  "--listen",
                                  "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                  "--model",
                                  sourcePath("data/models/sample.xml")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return run(argv, agentEnv(), dir, 20s);
}

TEST(AgentConfig, BlockingARescanEventIsAnErrorAtStart)
{
    for (const char *list : {"2048,3060", "3061", " 3061,2049"}) {
        TempDir dir;
        writeFile(dir / "kelp.ini", std::string("[vcsipe]\nBlockedAlerts=") + list + "\n");
        const RunResult started = startAndFail(dir, {"--ini", dir / "kelp.ini"});
        EXPECT_EQ(started.status, 1) << list << started.err;
        EXPECT_NE(started.err.find("blocks event 306"), std::string::npos) << started.err;
        EXPECT_NE(started.err.find(dir / "kelp.ini"), std::string::npos) << started.err;
    }
}

TEST(AgentConfig, AStateDirTheControlSocketCannotUseNamesTheCause)
{
    TempDir dir;
    // Longer than a Unix socket's path may be.
    const std::string deep = dir / std::string(120, 'd');
    const RunResult started = run({kelpagentPath(), "--state-dir", deep, "--listen",
                                   "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                                   sourcePath("data/models/sample.xml")},
                                  agentEnv(), dir, 20s);
    EXPECT_EQ(started.status, 1) << started.err;
    EXPECT_NE(started.err.find("control socket"), std::string::npos) << started.err;
    EXPECT_NE(started.err.find("bytes"), std::string::npos) << started.err;
    EXPECT_EQ(started.err.find("another kelpagent"), std::string::npos) << started.err;
}

TEST(AgentConfig, ASighupThatWouldBlockARescanEventIsRefusedAndTheOldListKept)
{
    AgentUnderTest agent;
    const std::string ini = agent.dir() / "kelp.ini";
    writeFile(ini, "[vcsipe]\nBlockedAlerts=2048\n");
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {"--ini", ini}, &why)) << why;
    writeFile(ini, "[vcsipe]\nBlockedAlerts=2048,3060\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] { return agent.process()->err().find("SIGHUP: refused") != std::string::npos; }, 10s))
        << agent.process()->err();
    EXPECT_NE(agent.process()->err().find("stay \"2048\""), std::string::npos)
        << agent.process()->err();
    // Rescans still end: the third fan's removal is rebuilt into a hole
    // in the fan table, and the tables answer again.
    ASSERT_EQ(agent.kelpctl({"remove", "32"}).status, 0);
    RunResult get;
    EXPECT_TRUE(waitFor(
        [&] {
            get = agent.snmp("snmpget", {std::string(kRoot) + ".130.7.1.2.3",
                                         std::string(kRoot) + ".130.1.1.2.1"});
            return get.out.find("No Such Instance") != std::string::npos &&
                   get.out.find("STRING") != std::string::npos;
        },
        20s))
        << get.out << get.err;

    // A list without them is taken again at the next SIGHUP.
    writeFile(ini, "[vcsipe]\nBlockedAlerts=2049\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] { return count(agent.process()->err(), "SIGHUP: re-read the ini file") == 2; }, 10s))
        << agent.process()->err();
    EXPECT_EQ(count(agent.process()->err(), "SIGHUP: refused"), 1u);
    writeFile(ini, "[vcsipe]\nBlockedAlerts=3061\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] { return agent.process()->err().find("stay \"2049\"") != std::string::npos; }, 10s))
        << agent.process()->err();
}

} // namespace
} // namespace kelp::test
