// kelpagent under a service manager: with NOTIFY_SOCKET set it sends
// READY=1 only once it answers requests from its model, STATUS lines,
// RELOADING=1 and READY=1 around a SIGHUP, and STOPPING=1 on SIGTERM;
// without it, or with a socket nobody reads, it serves as before.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

// A datagram socket in the role of systemd's notification socket.
class NotifySocket {
  public:
    explicit NotifySocket(const std::string &path) : path_(path)
    {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    }
    ~NotifySocket()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool bound() const { return bound_; }
    std::string env() const { return "NOTIFY_SOCKET=" + path_; }

    // The next message, or "" when none came within `limit`.
    std::string next(std::chrono::milliseconds limit)
    {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(limit.count())) != 1)
            return "";
        char buffer[4096];
        const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

    // Messages until one holds `field` (a line such as "READY=1"), each
    // appended to *seen; false when none did within `limit`.
    bool waitFor(const std::string &field, std::string *seen, std::chrono::milliseconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end) {
            const std::string message = next(100ms);
            *seen += message + "\n--\n";
            if (("\n" + message + "\n").find("\n" + field + "\n") != std::string::npos)
                return true;
        }
        return false;
    }

  private:
    std::string path_;
    int fd_ = -1;
    bool bound_ = false;
};

std::vector<std::string> agentArgs(const TempDir &dir, int port,
                                   const std::string &model = sourcePath("data/models/sample.xml"))
{
    return {kelpagentPath(), "--allow-root",
            "--state-dir",   dir / "state",
            "--listen",      "udp:127.0.0.1:" + std::to_string(port),
            "--module",      modulePath(),
            "--model",       model};
}

std::vector<std::string> withEnv(std::vector<std::string> env, const std::string &more)
{
    env.push_back(more);
    return env;
}

TEST(AgentNotify, ReadyComesOnlyOnceTheModelIsServedThenLoadReloadAndStop)
{
    TempDir dir;
    NotifySocket notify(dir / "notify");
    ASSERT_TRUE(notify.bound());
    const int port = freeUdpPort();
    Process agent(agentArgs(dir, port), withEnv(agentEnv(), notify.env()), dir / "out",
                  dir / "err");

    std::string seen;
    ASSERT_TRUE(notify.waitFor("READY=1", &seen, 20s)) << seen << agent.err();
    // The moment READY=1 arrives, the model answers: a manager may start
    // what depends on the agent now.
    const RunResult get = snmp(dir, "snmpget", "2c", "public", port, {std::string(kRoot) + ".3.0"});
    EXPECT_NE(get.out.find("Vorn Inc."), std::string::npos) << get.out << get.err;
    EXPECT_NE(agent.err().find("answering on"), std::string::npos)
        << "READY=1 before the agent answered:\n"
        << agent.err();
    EXPECT_NE(seen.find("STATUS=serving " + sourcePath("data/models/sample.xml") +
                        " on udp:127.0.0.1:" + std::to_string(port)),
              std::string::npos)
        << seen;

    // After a kelpctl load the status names the model served now, and the
    // READY=1 that ends a reload carries it too.
    const std::string other = dir / "other.xml";
    writeFile(other, readFile(sourcePath("data/models/sample.xml")));
    const RunResult load = run(
        {kelpctlPath(), "--control", dir / "state/control.sock", "load", other}, agentEnv(), dir);
    ASSERT_EQ(load.status, 0) << load.err;
    const std::string status =
        "STATUS=serving " + other + " on udp:127.0.0.1:" + std::to_string(port);
    seen.clear();
    EXPECT_TRUE(notify.waitFor(status, &seen, 10s)) << seen;

    seen.clear();
    agent.signal(SIGHUP);
    EXPECT_TRUE(notify.waitFor("RELOADING=1", &seen, 10s)) << seen;
    EXPECT_NE(seen.find("MONOTONIC_USEC="), std::string::npos) << seen;
    seen.clear();
    EXPECT_TRUE(notify.waitFor("READY=1", &seen, 10s)) << seen;
    EXPECT_NE(seen.find(status), std::string::npos) << seen;

    seen.clear();
    agent.signal(SIGTERM);
    EXPECT_TRUE(notify.waitFor("STOPPING=1", &seen, 10s)) << seen;
    EXPECT_EQ(agent.wait(15s), std::optional<int>(0)) << agent.err();
}

TEST(AgentNotify, AnAgentThatCannotServeNeverSaysReady)
{
    TempDir dir;
    NotifySocket notify(dir / "notify");
    ASSERT_TRUE(notify.bound());
    writeFile(dir / "broken.xml", "<storage><object id=\"1\" type=\"adapters\">");
    Process agent(agentArgs(dir, freeUdpPort(), dir / "broken.xml"),
                  withEnv(agentEnv(), notify.env()), dir / "out", dir / "err");
    EXPECT_EQ(agent.wait(15s), std::optional<int>(1)) << agent.err();
    std::string seen;
    EXPECT_FALSE(notify.waitFor("READY=1", &seen, 200ms)) << seen;
}

TEST(AgentNotify, WithoutAManagerTheAgentServesAsBefore)
{
    struct Case {
        const char *name;
        bool setSocket; // NOTIFY_SOCKET names a path where nobody listens
    } cases[] = {{"no NOTIFY_SOCKET", false}, {"a socket nobody reads", true}};
    for (const Case &c : cases) {
        TempDir dir;
        const int port = freeUdpPort();
        std::vector<std::string> env = agentEnv();
        if (c.setSocket)
            env.push_back("NOTIFY_SOCKET=" + (dir / "nobody"));
        Process agent(agentArgs(dir, port), env, dir / "out", dir / "err");
        EXPECT_TRUE(waitFor(
            [&] {
                return !agent.running() ||
                       agent.err().find("kelpagent: answering on") != std::string::npos;
            },
            20s))
            << c.name;
        const std::string answer =
            snmp(dir, "snmpget", "2c", "public", port, {std::string(kRoot) + ".3.0"}).out;
        EXPECT_NE(answer.find("Vorn Inc."), std::string::npos) << c.name << "\n" << agent.err();
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.wait(15s), std::optional<int>(0)) << c.name << "\n" << agent.err();
        const bool warned =
            agent.err().find("cannot notify the service manager") != std::string::npos;
        EXPECT_EQ(warned, c.setSocket) << c.name << "\n" << agent.err();
    }
}

} // namespace
} // namespace kelp::test
