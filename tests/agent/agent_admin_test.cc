// kelpagent as the person who runs it meets it: every listen address
// answering (IPv4, IPv6, both), SIGHUP re-reading the ini and model files,
// --debug leaving the ini file alone, files that block or never end, a busy
// control socket, and the clear errors for bad options.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

const std::string kVendor = std::string(kRoot) + ".3.0";
const std::string kCtrlName = std::string(kRoot) + ".130.1.1.2.1";

std::string minimalModel()
{
    return sourcePath("data/models/test/minimal.xml");
}

std::string sampleModel()
{
    return sourcePath("data/models/sample.xml");
}

RunResult kelpctl(AgentUnderTest &agent, const std::vector<std::string> &words)
{
    return agent.kelpctl(words);
}

TEST(AgentAdmin, AnIpv6ListenAddressAnswers)
{
    if (!haveIpv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address [::1]";
    }
    AgentUnderTest agent;
    agent.listen = [](int port) { return "udp6:[::1]:" + std::to_string(port); };
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult get = agent.snmp("snmpget", {kVendor});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find("\"Vorn Inc.\""), std::string::npos) << get.out << get.err;
    const RunResult wrong = agent.snmp("snmpget", {kVendor}, "2c", "private");
    EXPECT_NE(wrong.status, 0) << "the community applies to IPv6 sources too: " << wrong.out;
}

TEST(AgentAdmin, IPv4AndIpv6ListenAddressesAnswerAtOnce)
{
    if (!haveIpv6Loopback()) {
        GTEST_SKIP() << "this machine has no IPv6 loopback address [::1]";
    }
    AgentUnderTest agent;
    agent.listen = [](int port) {
        return "udp:127.0.0.1:" + std::to_string(port) + ",udp6:[::1]:" + std::to_string(port);
    };
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string port = std::to_string(agent.port());
    for (const std::string &target : {"udp:127.0.0.1:" + port, "udp6:[::1]:" + port}) {
        for (const char *version : {"1", "2c"}) {
            const RunResult get =
                snmpAt(agent.dir(), "snmpget", version, "public", target, {kVendor});
            EXPECT_NE(get.out.find("\"Vorn Inc.\""), std::string::npos)
                << target << " v" << version << ": " << get.out << get.err;
        }
    }
}

TEST(AgentAdmin, SighupRereadsTheModelAndKeepsServing)
{
    AgentUnderTest agent;
    const std::string model = agent.dir() / "model.xml";
    const std::string original = readFile(sampleModel());
    writeFile(model, original);
    std::string why;
    ASSERT_TRUE(agent.start(model, {}, &why)) << why;
    ASSERT_NE(agent.snmp("snmpget", {kCtrlName}).out.find("\"Vorn RX-240\""), std::string::npos);

    std::string renamed = original;
    const size_t at = renamed.find("<Name>Vorn RX-240</Name>");
    ASSERT_NE(at, std::string::npos);
    renamed.replace(at, 24, "<Name>Vorn RX-240 (renamed)</Name>");
    writeFile(model, renamed);
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: re-read the model " + model) !=
                   std::string::npos;
        },
        10s))
        << agent.process()->err();
    EXPECT_NE(agent.process()->err().find("SIGHUP: re-read the ini file"), std::string::npos);
    EXPECT_TRUE(agent.process()->running());
    EXPECT_NE(agent.snmp("snmpget", {kCtrlName}).out.find("\"Vorn RX-240 (renamed)\""),
              std::string::npos);

    // A model that does not validate is logged; the served one stays.
    writeFile(model, "<storage ready=\"1\">\n  <object id=\"1\" type=\"adapters\">\n");
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: the model does not load: " + model) !=
                   std::string::npos;
        },
        10s))
        << agent.process()->err();
    EXPECT_NE(agent.process()->err().find("still serving the one loaded before"),
              std::string::npos);
    EXPECT_TRUE(agent.process()->running());
    EXPECT_NE(agent.snmp("snmpget", {kCtrlName}).out.find("\"Vorn RX-240 (renamed)\""),
              std::string::npos);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentAdmin, SighupReportsAnIniFileThatCannotBeUsed)
{
    AgentUnderTest agent;
    std::filesystem::create_directories(agent.stateDir());
    const std::string ini = agent.stateDir() + "/kelp.ini";
    writeFile(ini, "[general]\nSNMPRefreshMinutes=5\n");
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    std::filesystem::remove(ini);
    ASSERT_EQ(mkfifo(ini.c_str(), 0600), 0);
    agent.process()->signal(SIGHUP);
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("SIGHUP: the ini file cannot be used: " + ini) !=
                   std::string::npos;
        },
        10s))
        << agent.process()->err();
    EXPECT_TRUE(agent.process()->running());
    EXPECT_NE(agent.snmp("snmpget", {kVendor}).out.find("\"Vorn Inc.\""), std::string::npos);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentAdmin, DebugNeverWritesTheIniFileEvenWhenTheAgentIsKilled)
{
    AgentUnderTest agent;
    std::filesystem::create_directories(agent.stateDir());
    const std::string ini = agent.stateDir() + "/kelp.ini";
    const std::string text = "[general]\nDebugSNMP=Off\nSNMPRefreshMinutes=5\n";
    writeFile(ini, text);
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--debug"}, &why)) << why;
    EXPECT_EQ(readFile(ini), text);
    agent.snmp("snmpget", {kVendor});
    agent.process()->signal(SIGKILL);
    agent.process()->wait(10s);
    EXPECT_EQ(readFile(ini), text);
    const std::string debug = readFile(agent.stateDir() + "/debug.log");
    EXPECT_NE(debug.find("MIBImplementerGet: entry"), std::string::npos) << debug.substr(0, 500);

    // The next run without --debug prints nothing more.
    AgentUnderTest again;
    std::filesystem::create_directories(again.stateDir());
    writeFile(again.stateDir() + "/kelp.ini", readFile(ini));
    ASSERT_TRUE(again.start(minimalModel(), {}, &why)) << why;
    again.snmp("snmpget", {kVendor});
    EXPECT_EQ(again.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(again.stateDir() + "/debug.log"))
        << readFile(again.stateDir() + "/debug.log").substr(0, 500);
}

TEST(AgentAdmin, LoadingAFifoIsRefusedAndTheAgentStillStops)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string fifo = agent.dir() / "model.fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const RunResult load = kelpctl(agent, {"load", fifo});
    EXPECT_EQ(load.status, 1) << load.out << load.err;
    EXPECT_NE(load.err.find("not a regular file"), std::string::npos) << load.err;
    const RunResult status = kelpctl(agent, {"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentAdmin, IdleControlClientsDoNotDelayAnother)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string path = agent.stateDir() + "/control.sock";
    std::vector<int> idle;
    for (int i = 0; i < 20; i++) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        idle.push_back(fd);
    }
    // Each idle client would hold the server for its 5 s deadline if they
    // were served one after the other.
    const RunResult status = run({kelpctlPath(), "--control", path, "status"}, {}, agent.dir(), 3s);
    EXPECT_EQ(status.status, 0) << status.err;
    for (const int fd : idle) {
        close(fd);
    }
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentAdmin, OverlongStorageAttributesAreRefusedNamingTheLine)
{
    TempDir dir;
    const std::string model = dir / "long-url.xml";
    writeFile(model, "<storage ready=\"1\"\n         url=\"https://" + std::string(10 << 20, 'u') +
                         "\">\n  <object id=\"1\" type=\"adapters\"><Nexus>0</Nexus></object>\n"
                         "</storage>\n");
    const RunResult result = run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state",
                                  "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                  "--model", model, "--module", modulePath()},
                                 agentEnv(), dir, 20s);
    EXPECT_EQ(result.status, 1) << result.err.substr(0, 500);
    // The line of the <storage> start tag.
    EXPECT_NE(result.err.find("the model does not load: " + model + ":1: url has 10485768 bytes"),
              std::string::npos)
        << result.err.substr(0, 500);
}

TEST(AgentAdmin, BadOptionsAreClearErrorsWithStatusTwo)
{
    TempDir dir;
    const RunResult community =
        run({kelpagentPath(), "--allow-root", "--community", std::string(256, 'c')}, {}, dir);
    EXPECT_EQ(community.status, 2);
    EXPECT_NE(community.err.find("--community takes at most 255 bytes, not 256"), std::string::npos)
        << community.err;
    const RunResult help = run({kelpagentPath(), "--allow-root", "-h"}, {}, dir);
    EXPECT_EQ(help.status, 0) << help.err;
    EXPECT_NE(help.out.find("usage: kelpagent"), std::string::npos);
}

TEST(AgentAdmin, TheLongestCommunityIsAnswered)
{
    AgentUnderTest agent;
    const std::string community(255, 'c');
    agent.startCommunity = community;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--community", community}, &why)) << why;
    const RunResult get = agent.snmp("snmpget", {kVendor}, "2c", community);
    EXPECT_NE(get.out.find("\"Vorn Inc.\""), std::string::npos) << get.out << get.err;
}

TEST(AgentAdmin, AnInvalidListenAddressIsNotReportedAsAPortInUse)
{
    TempDir dir;
    for (const char *listen : {"foo:bar", "udp:127.0.0.1:1161,udp:nowhere.invalid:9"}) {
        const RunResult result =
            run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen", listen,
                 "--model", minimalModel(), "--module", modulePath()},
                agentEnv(), dir, 20s);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_NE(result.err.find("is not a valid address"), std::string::npos) << result.err;
        EXPECT_EQ(result.err.find("in use"), std::string::npos) << result.err;
    }
}

// net-snmp reads an empty address as every interface's port 161: a comma
// too many in --listen must not open the agent to the network.
TEST(AgentAdmin, AnEmptyEntryInTheListenListIsRefused)
{
    TempDir dir;
    for (const char *listen : {",", "udp:127.0.0.1:1161,", ",udp:127.0.0.1:1161",
                               "udp:127.0.0.1:1161,,udp:127.0.0.1:1162"}) {
        const RunResult result =
            run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen", listen,
                 "--model", minimalModel(), "--module", modulePath()},
                agentEnv(), dir, 20s);
        EXPECT_EQ(result.status, 1) << listen << ": " << result.err;
        EXPECT_NE(result.err.find("an empty address (a comma too many)"), std::string::npos)
            << result.err;
        EXPECT_EQ(result.err.find("answering on"), std::string::npos) << result.err;
    }
}

TEST(AgentAdmin, ASecondAgentOnTheSameStateDirNamesTheWayOut)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult second = run({kelpagentPath(), "--allow-root", "--state-dir", agent.stateDir(),
                                  "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                  "--model", minimalModel(), "--module", modulePath()},
                                 agentEnv(), agent.dir(), 20s);
    EXPECT_EQ(second.status, 1) << second.err;
    EXPECT_NE(second.err.find("give each agent its own --state-dir"), std::string::npos)
        << second.err;
    EXPECT_TRUE(agent.process()->running());
}

TEST(AgentAdmin, KelpControlSetForKelpctlIsLeftAloneByTheAgent)
{
    // A user who exported KELP_CONTROL for kelpctl, naming a running
    // agent's socket, then runs another kelpagent.
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    std::vector<std::string> env = agentEnv();
    env.push_back("KELP_CONTROL=" + agent.stateDir() + "/control.sock");
    const RunResult version = run({kelpagentPath(), "--version"}, env, agent.dir(), 20s);
    EXPECT_EQ(version.status, 0) << version.err;
    EXPECT_EQ(version.err, "");
    const RunResult help = run({kelpagentPath(), "--help"}, env, agent.dir(), 20s);
    EXPECT_EQ(help.err.find("KELP_CONTROL"), std::string::npos) << help.err;
    // The running agent still answers on its socket.
    EXPECT_EQ(agent.kelpctl({"status"}).status, 0);
}

TEST(AgentAdmin, KelpctlSaysOkOnSuccess)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const RunResult set = kelpctl(agent, {"set", "1", "Name", "renamed"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(set.out, "ok\n");
}

TEST(AgentAdmin, KelpctlUsageErrorsTheAgentFindsAreStatusTwo)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::vector<std::vector<std::string>> usage = {
        {"set", "1"}, {"ready", "maybe"}, {"status", "extra"}, {"bogus"}};
    for (const std::vector<std::string> &words : usage) {
        const RunResult result = kelpctl(agent, words);
        EXPECT_EQ(result.status, 2) << words[0] << ": " << result.err;
        EXPECT_TRUE(result.err.starts_with("error: usage: ") ||
                    result.err.starts_with("error: unknown command "))
            << result.err;
    }
    // A command the agent could not carry out stays status 1.
    const RunResult missing = kelpctl(agent, {"remove", "99999"});
    EXPECT_EQ(missing.status, 1) << missing.err;
}

TEST(AgentAdmin, KelpctlRefusesARelativeFileFromADirectoryThatIsGone)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string gone = agent.dir() / "gone";
    const RunResult save = run({"sh", "-c",
                                "mkdir '" + gone + "' && cd '" + gone + "' && rmdir '" + gone +
                                    "' && exec '" + kelpctlPath() + "' --control '" +
                                    agent.stateDir() + "/control.sock' save rel.xml"},
                               {}, agent.dir());
    EXPECT_EQ(save.status, 1) << save.err;
    EXPECT_NE(save.err.find("the current directory cannot be named"), std::string::npos)
        << save.err;
}

TEST(AgentAdmin, KelpctlIgnoresARelativeXdgStateHomeAsTheAgentDoes)
{
    TempDir dir;
    const RunResult status =
        run({kelpctlPath(), "status"},
            {"KELP_CONTROL=", "XDG_STATE_HOME=relative", "HOME=" + dir.path()}, dir);
    EXPECT_EQ(status.status, 2) << status.err;
    EXPECT_NE(status.err.find("cannot reach the control socket " + dir.path() +
                              "/.local/state/kelp/control.sock"),
              std::string::npos)
        << status.err;
}

} // namespace
} // namespace kelp::test
