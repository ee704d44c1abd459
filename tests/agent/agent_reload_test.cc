// Configuration that would wedge or silence the agent is refused: a blocked
// alert list naming a rescan event, or an alert catalogue that does not load,
// is an error at start, and refused at SIGHUP with the one in force kept. A
// state dir that cannot hold the control socket names the cause.
#include <signal.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
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

std::vector<std::string> withEnv(const std::string &setting)
{
    std::vector<std::string> env = agentEnv();
    env.push_back(setting);
    return env;
}

RunResult startAndFail(const TempDir &dir, const std::vector<std::string> &extra)
{
    std::vector<std::string> argv{kelpagentPath(), "--allow-root",
                                  "--state-dir",   dir / "state",
                                  "--listen",      "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                  "--model",       sourcePath("data/models/sample.xml")};
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
    const RunResult started = run({kelpagentPath(), "--allow-root", "--state-dir", deep, "--listen",
                                   "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                                   sourcePath("data/models/sample.xml")},
                                  agentEnv(), dir, 20s);
    EXPECT_EQ(started.status, 1) << started.err;
    EXPECT_NE(started.err.find("control socket"), std::string::npos) << started.err;
    EXPECT_NE(started.err.find("bytes"), std::string::npos) << started.err;
    EXPECT_EQ(started.err.find("another kelpagent"), std::string::npos) << started.err;
}

TEST(AgentConfig, AMissingOrBrokenAlertCatalogueIsAnErrorAtStartNamingFileAndLine)
{
    TempDir dir;
    const std::string missing = dir / "no-such-alerts.txt";
    RunResult started = run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state",
                             "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                             "--model", sourcePath("data/models/sample.xml")},
                            withEnv("KELP_CATALOGUE=" + missing), dir, 20s);
    EXPECT_EQ(started.status, 1) << started.err;
    EXPECT_NE(started.err.find("alert catalogue"), std::string::npos) << started.err;
    EXPECT_NE(started.err.find(missing), std::string::npos) << started.err;
    // Once, in the agent's log, not again on plain stderr from the runtime.
    EXPECT_EQ(count(started.err, missing), 1u) << started.err;
    EXPECT_EQ(started.err.find("kelp: alert catalogue"), std::string::npos) << started.err;

    const std::string broken = dir / "alerts.txt";
    writeFile(broken, readFile(sourcePath("data/alerts.txt")) + "2048 | not a level\n");
    const size_t lines = count(readFile(broken), "\n");
    started = run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen",
                   "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                   sourcePath("data/models/sample.xml")},
                  withEnv("KELP_CATALOGUE=" + broken), dir, 20s);
    EXPECT_EQ(started.status, 1) << started.err;
    EXPECT_NE(started.err.find(broken + ":" + std::to_string(lines) + ":"), std::string::npos)
        << started.err;
}

TEST(AgentConfig, ACatalogueBrokenAtSighupIsLoggedAndTheServedOneKept)
{
    AgentUnderTest agent;
    TempDir traps;
    TrapReceiver receiver(traps);
    ASSERT_TRUE(receiver.ready());
    const std::string catalogue = agent.dir() / "alerts.txt";
    writeFile(catalogue, readFile(sourcePath("data/alerts.txt")));
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {"--trap-sink", receiver.sink()},
                            &why, {"KELP_CATALOGUE=" + catalogue, "KELP_TIME_SCALE=20"}))
        << why;
    writeFile(catalogue, "this is no catalogue\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: the alert catalogue does not load: " +
                                               catalogue + ":1:") != std::string::npos;
        },
        10s))
        << agent.process()->err();
    // The catalogue loaded at start still gives the message.
    ASSERT_EQ(agent.kelpctl({"event", "2048", "--object", "300", "--parm", "0:0:0"}).status, 0);
    EXPECT_TRUE(waitFor(
        [&] { return receiver.log().find("Physical disk 0:0:0 has failed.") != std::string::npos; },
        20s))
        << receiver.log() << agent.process()->err();
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
    // The same SIGHUP re-reads the model file after the ini file: a removal
    // made before that would be read back in.
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: re-read the model") != std::string::npos;
        },
        20s))
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
        << get.out << get.err << agent.process()->err();

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

TEST(AgentReload, SighupRereadsTheModelKelpctlLoadedAndQueuesTheRescan)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    const std::string loaded = agent.dir() / "loaded.xml";
    const std::string sample = readFile(sourcePath("data/models/sample.xml"));
    writeFile(loaded, sample);
    ASSERT_EQ(agent.kelpctl({"load", "--no-events", loaded}).status, 0);

    // The file loses the third fan; SIGHUP reads it, not --model, and the
    // rescan it queues rebuilds the fan table with a hole.
    const size_t from = sample.find("<object id=\"32\"");
    const size_t to = sample.find("</object>", from) + std::string("</object>").size();
    ASSERT_NE(from, std::string::npos);
    writeFile(loaded, sample.substr(0, from) + sample.substr(to));
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: re-read the model " + loaded +
                                               " and queued the rescan events") !=
                   std::string::npos;
        },
        20s))
        << agent.process()->err();
    RunResult get;
    EXPECT_TRUE(waitFor(
        [&] {
            get = agent.snmp("snmpget", {std::string(kRoot) + ".130.7.1.2.3"});
            return get.out.find("No Such Instance") != std::string::npos;
        },
        20s))
        << get.out << get.err;
}

TEST(AgentReload, ALargeModelIsReadOffTheMainLoopAndSigtermIsAnsweredMeanwhile)
{
    AgentUnderTest agent;
    const std::string big = agent.dir() / "big.xml";
    const RunResult made =
        run({KELPGEN_PATH, "--disks", "12000", "--out", big}, {}, agent.dir(), 60s);
    ASSERT_EQ(made.status, 0) << made.err;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    // The big model's ids name other objects than the sample's, so the
    // load is made under the plug-in's rescan lock and its tables are
    // rebuilt from it. The reload below starts once that rebuild is over:
    // the plug-in's unload waits for a rebuild, and one of 12,000 disks
    // takes longer than the stop's bound in the sanitizer build.
    const RunResult loaded = run({kelpctlPath(), "--control", agent.stateDir() + "/control.sock",
                                  "load", "--no-events", big},
                                 {}, agent.dir(), 120s);
    ASSERT_EQ(loaded.status, 0) << loaded.err;
    RunResult last;
    ASSERT_TRUE(waitFor(
        [&] {
            last = agent.snmp("snmpget", {std::string(kRoot) + ".130.4.1.2.12000"});
            return last.out.find("STRING") != std::string::npos;
        },
        180s))
        << last.out << last.err << agent.process()->err();
    {
        const size_t before = count(agent.process()->err(), "SIGHUP: re-read the model");
        agent.process()->signal(SIGHUP);
        // While the file is read, the agent answers at once.
        int answered = 0;
        do {
            const auto start = std::chrono::steady_clock::now();
            const RunResult get = agent.snmp("snmpget", {"1.3.6.1.2.1.1.3.0"});
            EXPECT_EQ(get.status, 0) << get.err;
            // A load on the main loop would hold this one for the whole read,
            // which takes far longer than this in the sanitizer build CI runs;
            // the bound leaves room for starting snmpget on a loaded machine.
            EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
            answered++;
        } while (count(agent.process()->err(), "SIGHUP: re-read the model") == before &&
                 answered < 2000);
        EXPECT_GT(answered, 0);
    }
    // SIGTERM in the middle of a reload ends the agent cleanly.
    agent.process()->signal(SIGHUP);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

} // namespace
} // namespace kelp::test
