// kelpagent --config FILE as an operator meets it: the agent answers on the
// address and community the file gives, an option on the command line wins
// over the file's, and a bad file stops it with status 1 naming file and
// line.
#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

constexpr const char *kSysContact = "1.3.6.1.2.1.1.4.0";
constexpr const char *kSysLocation = "1.3.6.1.2.1.1.6.0";

TEST(AgentConfig, TheFileSetsListenAndCommunityAndTheCommandLineWins)
{
    TempDir dir;
    const std::string file = dir / "kelpagent.conf";
    std::unique_ptr<Process> agent;
    int port = 0;
    // A free port can be taken by another test before the agent binds it.
    for (int attempt = 0; attempt < 3; attempt++) {
        port = freeUdpPort();
        writeFile(file, "# written by the test\n"
                        "listen udp:127.0.0.1:" +
                            std::to_string(port) +
                            "\n"
                            "community fromfile\n"
                            "allow 127.0.0.0/8\n"
                            "allow ::1\n"
                            "state-dir " +
                            (dir / "state") +
                            "\n"
                            "model " +
                            sourcePath("data/models/test/minimal.xml") +
                            "\n"
                            "module " +
                            modulePath() +
                            "\n"
                            "sys-contact Storage team <storage@example.net>\n"
                            "sys-location Rack 4, row B\n");
        agent = std::make_unique<Process>(std::vector<std::string>{kelpagentPath(), "--allow-root",
                                                                   "--config", file,
                                                                   "--sys-location", "Hall 2"},
                                          agentEnv(), dir / "agent.out", dir / "agent.err");
        const bool up = waitFor(
            [&] {
                return !agent->running() ||
                       agent->err().find("kelpagent: answering on") != std::string::npos;
            },
            20s);
        if (up && agent->running()) {
            break;
        }
        ASSERT_NE(agent->err().find("cannot listen on"), std::string::npos) << agent->err();
        ASSERT_LT(attempt, 2) << agent->err();
    }
    EXPECT_NE(agent->err().find("kelpagent: options read from " + file), std::string::npos)
        << agent->err();
    // The log names no community; the Get below shows the file's is in effect.
    EXPECT_EQ(agent->err().find("fromfile"), std::string::npos) << agent->err();
    // A repeatable key adds on every line.
    EXPECT_NE(agent->err().find("read-only) from 127.0.0.0/8, ::1\n"), std::string::npos)
        << agent->err();

    const RunResult get = snmp(dir, "snmpget", "2c", "fromfile", port, {kSysContact, kSysLocation});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_NE(get.out.find(std::string(".") + kSysContact +
                           " = STRING: \"Storage team <storage@example.net>\""),
              std::string::npos)
        << get.out;
    EXPECT_NE(get.out.find(std::string(".") + kSysLocation + " = STRING: \"Hall 2\""),
              std::string::npos)
        << "--sys-location on the command line wins over the file:\n"
        << get.out;

    agent->signal(SIGTERM);
    EXPECT_EQ(agent->wait(15s), 0) << agent->err();
}

TEST(AgentConfig, ABadFileStopsTheAgentWithStatusOneNamingFileAndLine)
{
    TempDir dir;
    const std::string file = dir / "kelpagent.conf";
    writeFile(file, "listen udp:127.0.0.1:" + std::to_string(freeUdpPort()) +
                        "\n"
                        "\n"
                        "comunity public\n");
    const RunResult bad = run({kelpagentPath(), "--allow-root", "--config", file, "--model",
                               sourcePath("data/models/test/minimal.xml")},
                              agentEnv(), dir);
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err, "kelpagent: " + file + ":3: unknown key 'comunity'\n");

    const RunResult missing =
        run({kelpagentPath(), "--allow-root", "--config", dir / "none.conf"}, agentEnv(), dir);
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err,
              "kelpagent: " + (dir / "none.conf") + ": cannot open: No such file or directory\n");

    // --help still answers: it reads no file.
    const RunResult help =
        run({kelpagentPath(), "--allow-root", "--config", file, "--help"}, agentEnv(), dir);
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--config FILE"), std::string::npos) << help.out;
}

} // namespace
} // namespace kelp::test
