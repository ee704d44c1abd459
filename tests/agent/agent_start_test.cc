// kelpagent's start-up as a user meets it: the command line, the defaults,
// and the clear errors (exit status 1) for a module that does not load, a
// model that does not validate and a port that is taken.
#include <netinet/in.h>
#include <poll.h>
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

// kelpagent with a private state dir on a free port, plus `extra`.
RunResult startAndFail(const TempDir &dir, const std::vector<std::string> &extra)
{
    std::vector<std::string> argv{
        kelpagentPath(), "--allow-root", "--state-dir",
        dir / "state",   "--listen",     "udp:127.0.0.1:" + std::to_string(freeUdpPort())};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return run(argv, agentEnv(), dir, 20s);
}

TEST(AgentStart, HelpNamesEveryOptionAndTheDefaults)
{
    TempDir dir;
    const RunResult help = run({kelpagentPath(), "--allow-root", "--help"}, agentEnv(), dir);
    EXPECT_EQ(help.status, 0);
    for (const char *text :
         {"--model FILE", "--listen ADDR", "--community NAME", "--agentx [SOCKET]",
          "--trap-sink ADDR", "--trap-version 1|2c", "--ini FILE", "--state-dir DIR",
          "--control SOCKET", "--module PATH", "--debug", "udp:127.0.0.1:1161", "public",
          "data/models/sample.xml", "(found)", "libkelpimp64.so"}) {
        EXPECT_NE(help.out.find(text), std::string::npos) << text;
    }
    const RunResult version = run({kelpagentPath(), "--allow-root", "--version"}, {}, dir);
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("kelpagent ", 0), 0u) << version.out;
    const RunResult bad = run({kelpagentPath(), "--allow-root", "--port", "9"}, {}, dir);
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("unknown option --port"), std::string::npos) << bad.err;
}

TEST(AgentStart, AModuleThatDoesNotLoadIsAClearError)
{
    TempDir dir;
    const RunResult missing =
        startAndFail(dir, {"--model", sourcePath("data/models/test/minimal.xml"), "--module",
                           dir / "nothing.so"});
    EXPECT_EQ(missing.status, 1) << missing.err;
    EXPECT_NE(missing.err.find("kelpagent: the module does not load: "), std::string::npos)
        << missing.err;
    EXPECT_NE(missing.err.find("nothing.so"), std::string::npos) << missing.err;

    // A library without the dispatch (the runtime itself).
    const std::string runtime =
        std::filesystem::path(modulePath()).parent_path() / "libkelpruntime.so";
    const RunResult wrong = startAndFail(
        dir, {"--model", sourcePath("data/models/test/minimal.xml"), "--module", runtime});
    EXPECT_EQ(wrong.status, 1) << wrong.err;
    EXPECT_NE(wrong.err.find("KELPIMP64_SMMIBImplementerDispatch"), std::string::npos) << wrong.err;

    // A FIFO is refused at once: loading it would wait for a writer.
    const std::string fifo = dir / "fifo.so";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const RunResult blocked = startAndFail(
        dir, {"--model", sourcePath("data/models/test/minimal.xml"), "--module", fifo});
    EXPECT_EQ(blocked.status, 1) << blocked.err;
    EXPECT_NE(
        blocked.err.find("kelpagent: the module does not load: " + fifo + ": not a regular file"),
        std::string::npos)
        << blocked.err;
}

TEST(AgentStart, AModelThatDoesNotValidateIsAClearErrorNamingFileAndLine)
{
    TempDir dir;
    const std::string bad = sourcePath("data/models/test/bad-duplicate-id.xml");
    const RunResult result = startAndFail(dir, {"--model", bad, "--module", modulePath()});
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("kelpagent: the model does not load: " + bad + ":"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(result.err.find("module"), std::string::npos)
        << "the model is checked before the module is loaded:\n"
        << result.err;

    const RunResult missing =
        startAndFail(dir, {"--model", dir / "none.xml", "--module", modulePath()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("none.xml"), std::string::npos) << missing.err;
}

TEST(AgentStart, APortInUseIsAClearError)
{
    TempDir dir;
    const int taken = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr *>(&addr), &length), 0);
    const std::string listen = "udp:127.0.0.1:" + std::to_string(ntohs(addr.sin_port));

    const RunResult result =
        run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen", listen,
             "--model", sourcePath("data/models/test/minimal.xml"), "--module", modulePath()},
            agentEnv(), dir, 20s);
    close(taken);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("kelpagent: cannot listen on " + listen), std::string::npos)
        << result.err;
    EXPECT_FALSE(std::filesystem::exists(dir / "state/control.sock"))
        << "everything started is stopped again";
}

TEST(AgentStart, TheDefaultStateDirFollowsXdgStateHome)
{
    TempDir dir;
    Process agent({kelpagentPath(), "--allow-root", "--listen",
                   "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                   sourcePath("data/models/test/minimal.xml"), "--module", modulePath()},
                  {"XDG_STATE_HOME=" + (dir / "xdg"), agentEnv()[0]}, dir / "out", dir / "err");
    const std::string state = dir / "xdg/kelp";
    EXPECT_TRUE(waitFor([&] { return std::filesystem::exists(state + "/control.sock"); }, 20s))
        << agent.err();
    // A stop request in the middle of start-up is a clean stop too.
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(15s), 0) << agent.err();
    Process again({kelpagentPath(), "--allow-root", "--listen",
                   "udp:127.0.0.1:" + std::to_string(freeUdpPort()), "--model",
                   sourcePath("data/models/test/minimal.xml"), "--module", modulePath()},
                  {"XDG_STATE_HOME=" + (dir / "xdg"), agentEnv()[0]}, dir / "out", dir / "err");
    EXPECT_TRUE(waitFor([&] { return again.err().find("answering on") != std::string::npos; }, 20s))
        << again.err();
    struct stat st {};
    ASSERT_EQ(stat(state.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_TRUE(std::filesystem::exists(state + "/control.sock"));
    again.signal(SIGTERM);
    EXPECT_EQ(again.wait(15s), 0) << again.err();
}

// A socket of the AgentX master at `path` that takes connections and never
// answers: the subagent's Open waits in net-snmp for its answer.
class SilentMaster {
  public:
    explicit SilentMaster(const std::string &path)
    {
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (listener_ < 0 || path.size() >= sizeof address.sun_path) {
            return;
        }
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_, 4) != 0) {
            close(listener_);
            listener_ = -1;
        }
    }
    ~SilentMaster()
    {
        if (connection_ >= 0) {
            close(connection_);
        }
        if (listener_ >= 0) {
            close(listener_);
        }
    }
    bool listening() const { return listener_ >= 0; }

    // Takes the subagent's connection and waits for its first bytes (the
    // Open), within 20 s.
    bool takeTheOpen()
    {
        pollfd connecting{listener_, POLLIN, 0};
        if (poll(&connecting, 1, 20000) != 1) {
            return false;
        }
        connection_ = accept(listener_, nullptr, nullptr);
        pollfd opening{connection_, POLLIN, 0};
        return connection_ >= 0 && poll(&opening, 1, 20000) == 1;
    }

  private:
    int listener_ = -1;
    int connection_ = -1;
};

// kelpagent as a subagent of `master`, whose stop may take 1 s.
Process subagentOf(const TempDir &dir, const std::string &master)
{
    std::vector<std::string> environment = agentEnv();
    environment.push_back("KELP_STOP_TIMEOUT=1");
    return Process({kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--agentx",
                    master, "--model", sourcePath("data/models/test/minimal.xml"), "--module",
                    modulePath()},
                   environment, dir / "agent.out", dir / "agent.err");
}

// Stops `agent` and expects it to end after its stop's time-out with status
// 1 and the line naming `what` did not end.
void expectTheStopToTimeOut(Process &agent, const std::string &what)
{
    agent.signal(SIGTERM);
    const std::optional<int> status = agent.wait(30s);
    ASSERT_TRUE(status) << agent.err();
    EXPECT_EQ(*status, 1) << agent.err();
    EXPECT_NE(agent.err().find("kelpagent: stopping takes too long (" + what + "): exiting"),
              std::string::npos)
        << agent.err();
}

// A stop asked for while the start waits in net-snmp (here for a master
// that never answers the Open; under a limit of address space net-snmp may
// spin there for good) ends the agent after the stop's time-out, saying
// why, instead of whenever the start ends.
TEST(AgentStart, AStopDuringAStartThatDoesNotEndEndsAfterTheStopTimeOut)
{
    TempDir dir;
    SilentMaster master(dir / "master");
    ASSERT_TRUE(master.listening());
    Process agent = subagentOf(dir, dir / "master");
    ASSERT_TRUE(master.takeTheOpen()) << agent.err();
    expectTheStopToTimeOut(agent, "the start does not end");
}

// The same wait on the main loop: a master that appears after the start is
// connected to from the loop, whose Open waits in net-snmp as well.
TEST(AgentStart, AStopDuringATurnOfTheLoopThatDoesNotEndEndsAfterTheStopTimeOut)
{
    TempDir dir;
    Process agent = subagentOf(dir, dir / "master");
    ASSERT_TRUE(waitFor(
        [&] { return agent.err().find("kelpagent: AgentX subagent of") != std::string::npos; },
        20s))
        << agent.err();
    SilentMaster master(dir / "master");
    ASSERT_TRUE(master.listening());
    // The subagent tries again every 5 s.
    ASSERT_TRUE(master.takeTheOpen()) << agent.err();
    expectTheStopToTimeOut(agent, "the main loop does not end");
}

} // namespace
} // namespace kelp::test
