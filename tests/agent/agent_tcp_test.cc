// kelpagent's TCP transport against managers that hold it: one that sends
// requests and never reads the answers, connections held open up to the
// descriptor limit and beyond the most the agent keeps. Every other manager
// must still be answered, and the agent must wait for work rather than
// spin.
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <dirent.h>

#include <atomic>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "snmpload.h"
#include "testkit.h"

namespace kelp::test {
namespace {

const std::string kUptime = "1.3.6.1.2.1.1.3.0";

// An agent on a UDP and a TCP port of 127.0.0.1.
struct TcpAgent {
    AgentUnderTest agent;
    int tcpPort = freeTcpPort();

    bool start(std::string *why, const std::vector<std::string> &extra = {},
               const std::vector<std::string> &env = {})
    {
        const int tcp = tcpPort;
        agent.listen = [tcp](int port) {
            return "udp:127.0.0.1:" + std::to_string(port) +
                   ",tcp:127.0.0.1:" + std::to_string(tcp);
        };
        return agent.start(sourcePath("data/models/sample.xml"), extra, why, env);
    }
    std::string tcp() const { return "tcp:127.0.0.1:" + std::to_string(tcpPort); }
    std::string log() { return agent.process()->err(); }
    // Whether the agent's log holds `text` within `limit`.
    bool logSays(const std::string &text, std::chrono::seconds limit)
    {
        return waitFor([&] { return log().find(text) != std::string::npos; }, limit);
    }
    // `count` connections to the agent's TCP port, in *fds; false when one
    // could not be made.
    bool connectMany(int count, std::vector<int> *fds) const;
};

// A TCP connection to 127.0.0.1:port, or -1.
int connectTo(int port, int receiveBuffer = 0)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (receiveBuffer > 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool TcpAgent::connectMany(int count, std::vector<int> *fds) const
{
    for (int i = 0; i < count; i++) {
        const int fd = connectTo(tcpPort);
        if (fd < 0) {
            return false;
        }
        fds->push_back(fd);
    }
    return true;
}

// The request id of the answer to a Get of sysUpTime.0 with request id
// `id` sent on the connection `fd`, within 10 s; nullopt when none came.
std::optional<int32_t> uptimeAnswerId(int fd, int32_t id)
{
    const Bytes get = v2cRequest(0xA0, id, "public", kUptime);
    if (send(fd, get.data(), get.size(), MSG_NOSIGNAL) != ssize_t(get.size())) {
        return std::nullopt;
    }
    uint8_t answer[4096];
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, 10000) != 1) {
        return std::nullopt;
    }
    const ssize_t got = recv(fd, answer, sizeof answer, 0);
    if (got <= 0) {
        return std::nullopt;
    }
    return responseId(answer, size_t(got));
}

// True when the agent ended the connection on `fd` (end of stream or a
// reset) within `limit`, reading and dropping what it was sent meanwhile.
bool endedByAgent(int fd, std::chrono::milliseconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    std::vector<uint8_t> buffer(1 << 16);
    while (std::chrono::steady_clock::now() < until) {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, 100) <= 0) {
            continue;
        }
        const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            return true;
        }
    }
    return false;
}

// The processor time the process has used, in clock ticks.
long processorTicks(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    long user = 0, system = 0;
    for (int i = 3; fields >> field; i++) {
        if (i == 14) {
            user = std::stol(field);
        } else if (i == 15) {
            system = std::stol(field);
            break;
        }
    }
    return user + system;
}

size_t openDescriptors(pid_t pid)
{
    size_t count = 0;
    DIR *dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (const dirent *entry = readdir(dir)) {
        count += entry->d_name[0] != '.' ? 1 : 0;
    }
    closedir(dir);
    return count;
}

TEST(AgentTcp, AManagerThatNeverReadsItsAnswersIsClosedWhileOthersAreAnswered)
{
    TcpAgent agent;
    std::string why;
    ASSERT_TRUE(agent.start(&why)) << why;
    // GETBULKs for the storage tree, thousands of times more answer than
    // the connection's buffers hold, on a connection that reads nothing.
    const int flooder = connectTo(agent.tcpPort, 4096);
    ASSERT_GE(flooder, 0);
    Bytes requests;
    for (int id = 1; id <= 3000; id++) {
        const Bytes request = v2cRequest(0xA5, id, "public", kRoot, 64);
        requests.insert(requests.end(), request.begin(), request.end());
    }
    size_t sent = 0;
    while (sent < requests.size()) {
        pollfd ready{flooder, POLLOUT, 0};
        if (poll(&ready, 1, 3000) <= 0) {
            break; // the agent no longer reads it
        }
        const ssize_t n =
            send(flooder, requests.data() + sent, requests.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            break;
        }
        sent += size_t(n);
    }
    // Managers on UDP and on another TCP connection are answered.
    EXPECT_TRUE(agent.logSays("closing the TCP connection", 20s)) << agent.log();
    const RunResult udp = agent.agent.snmp("snmpget", {kUptime});
    EXPECT_EQ(udp.status, 0) << udp.err;
    const RunResult tcp =
        snmpAt(agent.agent.dir(), "snmpget", "2c", "public", agent.tcp(), {kUptime});
    EXPECT_EQ(tcp.status, 0) << tcp.err;
    EXPECT_EQ(countOf(agent.log(), "closing the TCP connection from 127.0.0.1: it does not read "
                                   "its answers (logged once a minute per source)"),
              1u)
        << agent.log();
    // The agent ended that connection.
    EXPECT_TRUE(endedByAgent(flooder, 20s));
    close(flooder);
    EXPECT_EQ(agent.agent.stop(), 0);
}

TEST(AgentTcp, ConnectionsHeldToTheDescriptorLimitLeaveTheAgentWaitingAndNewManagersAnswered)
{
    TcpAgent agent;
    std::string why;
    ASSERT_TRUE(agent.start(&why)) << why;
    const pid_t pid = agent.agent.process()->pid();
    // Eight descriptors more than the agent has open now.
    const rlimit limit{openDescriptors(pid) + 8, openDescriptors(pid) + 8};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &limit, nullptr), 0);
    std::vector<int> held;
    ASSERT_TRUE(agent.connectMany(20, &held));
    EXPECT_TRUE(agent.logSays("cannot accept a TCP connection: Too many open files", 10s))
        << agent.log();
    // accept failing again and again, with the listening socket still
    // readable, would keep a processor busy: the agent waits instead.
    const long before = processorTicks(pid);
    std::this_thread::sleep_for(2s);
    const long used = processorTicks(pid) - before;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 2) << "ticks used in 2 s: " << used;
    // The connections idle longest made room for a new manager.
    const RunResult tcp =
        snmpAt(agent.agent.dir(), "snmpget", "2c", "public", agent.tcp(), {kUptime});
    EXPECT_EQ(tcp.status, 0) << tcp.err << agent.log();
    EXPECT_EQ(agent.agent.snmp("snmpget", {kUptime}).status, 0);
    EXPECT_EQ(countOf(agent.log(), "cannot accept a TCP connection"), 1u) << agent.log();
    EXPECT_NE(agent.log().find("closing the TCP connection from 127.0.0.1: the agent ran out of "
                               "descriptors, and it was idle longest"),
              std::string::npos)
        << agent.log();
    for (const int fd : held) {
        close(fd);
    }
    EXPECT_EQ(agent.agent.stop(), 0);
}

TEST(AgentTcp, TheMostConnectionsKeptReturnsAMinuteAfterTheDescriptorsRanOut)
{
    TcpAgent agent;
    std::string why;
    // The agent's minute is a second here.
    ASSERT_TRUE(agent.start(&why, {}, {"KELP_TIME_SCALE=60"})) << why;
    const pid_t pid = agent.agent.process()->pid();
    rlimit saved{};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, nullptr, &saved), 0);
    const rlimit small{openDescriptors(pid) + 8, saved.rlim_max};
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &small, nullptr), 0);
    std::vector<int> held;
    ASSERT_TRUE(agent.connectMany(20, &held));
    ASSERT_TRUE(agent.logSays("cannot accept a TCP connection: Too many open files: at most", 10s))
        << agent.log();
    // The descriptors come back, and the agent's minute passes.
    ASSERT_EQ(prlimit(pid, RLIMIT_NOFILE, &saved, nullptr), 0);
    for (const int fd : held) {
        close(fd);
    }
    std::this_thread::sleep_for(1500ms);
    const size_t logged = agent.log().size();
    // More connections than the lowered most are all kept and answered.
    std::vector<int> fresh;
    ASSERT_TRUE(agent.connectMany(16, &fresh));
    EXPECT_TRUE(agent.logSays(
        "at most 256 connections are kept again: accept has found descriptors for a minute", 10s))
        << agent.log();
    for (int i = 0; i < 16; i++) {
        EXPECT_EQ(uptimeAnswerId(fresh[size_t(i)], 100 + i), std::optional<int32_t>(100 + i))
            << i << agent.log();
    }
    EXPECT_EQ(agent.log().find("idle longest (logged", logged), std::string::npos) << agent.log();
    for (const int fd : fresh) {
        close(fd);
    }
    EXPECT_EQ(agent.agent.stop(), 0);
}

TEST(AgentTcp, BeyondTheMostConnectionsKeptTheOneIdleLongestIsClosed)
{
    // The agent keeps at most half of a small descriptor limit: 64 of 128.
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const rlimit small{128, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &small), 0);
    TcpAgent agent;
    std::string why;
    const bool started = agent.start(&why);
    setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(started) << why;
    const pid_t pid = agent.agent.process()->pid();
    const size_t before = openDescriptors(pid);
    std::vector<int> held;
    ASSERT_TRUE(agent.connectMany(64, &held));
    // All 64 accepted.
    ASSERT_TRUE(waitFor([&] { return openDescriptors(pid) >= before + 64; }, 10s))
        << openDescriptors(pid) - before;
    ASSERT_EQ(uptimeAnswerId(held[0], 7), std::optional<int32_t>(7));
    EXPECT_EQ(agent.log().find("closing the TCP connection"), std::string::npos) << agent.log();
    // The 65th: the second connection makes room.
    const RunResult tcp =
        snmpAt(agent.agent.dir(), "snmpget", "2c", "public", agent.tcp(), {kUptime});
    EXPECT_EQ(tcp.status, 0) << tcp.err;
    EXPECT_TRUE(endedByAgent(held[1], 10s));
    EXPECT_NE(
        agent.log().find("closing the TCP connection from 127.0.0.1: 64 connections are open, "
                         "the most kept, and it was idle longest"),
        std::string::npos)
        << agent.log();
    // The first goes on.
    EXPECT_EQ(uptimeAnswerId(held[0], 8), std::optional<int32_t>(8));
    for (const int fd : held) {
        close(fd);
    }
    EXPECT_EQ(agent.agent.stop(), 0);
}

// The value of snmpInPkts.0 (the messages the agent has taken) in an
// answer, or -1.
long inPacketsOf(const uint8_t *answer, size_t size)
{
    // The one varbind's Counter32 ends the message: 0x41, its length and
    // at most five octets.
    for (size_t at = size >= 7 ? size - 7 : 0; at + 2 < size; at++) {
        if (answer[at] == 0x41 && at + 2 + answer[at + 1] == size) {
            long value = 0;
            for (size_t i = at + 2; i < size; i++) {
                value = value << 8 | answer[i];
            }
            return value;
        }
    }
    return -1;
}

TEST(AgentTcp, AConnectionThatPipelinesIsReadOneRequestATurn)
{
    TcpAgent agent;
    std::string why;
    ASSERT_TRUE(agent.start(&why)) << why;
    const int udp = udpSocketTo(agent.agent.port());
    ASSERT_GE(udp, 0);
    // The messages the agent has taken when it answers this Get.
    auto inPackets = [&](int32_t id) {
        const Bytes get = v2cRequest(0xA0, id, "public", "1.3.6.1.2.1.11.1.0");
        if (send(udp, get.data(), get.size(), 0) != ssize_t(get.size())) {
            return -1L;
        }
        pollfd ready{udp, POLLIN, 0};
        uint8_t answer[2048];
        while (poll(&ready, 1, 20000) == 1) {
            const ssize_t got = recv(udp, answer, sizeof answer, 0);
            if (got > 0 && responseId(answer, size_t(got)) == std::optional<int32_t>(id)) {
                return inPacketsOf(answer, size_t(got));
            }
        }
        return -1L;
    };
    const long before = inPackets(1);
    ASSERT_GE(before, 0);

    // Thousands of GETBULKs on one connection, as many as its buffers take
    // at once, their answers read as they come.
    const int pipeliner = connectTo(agent.tcpPort);
    ASSERT_GE(pipeliner, 0);
    const int sendBuffer = 1 << 20;
    setsockopt(pipeliner, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::vector<uint8_t> buffer(1 << 16);
        while (!done) {
            pollfd ready{pipeliner, POLLIN, 0};
            if (poll(&ready, 1, 100) == 1 &&
                recv(pipeliner, buffer.data(), buffer.size(), 0) <= 0) {
                return;
            }
        }
    });
    Bytes requests;
    for (int id = 1; id <= 4000; id++) {
        const Bytes request = v2cRequest(0xA5, id, "public", kRoot, 10);
        requests.insert(requests.end(), request.begin(), request.end());
    }
    const ssize_t sent =
        send(pipeliner, requests.data(), requests.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    const long during = inPackets(2);
    done = true;
    reader.join();
    close(pipeliner);
    close(udp);
    // More than one read of net-snmp's (64 KiB, some 1,400 requests) went.
    ASSERT_GT(sent, 65536) << "the connection took too little at once";
    ASSERT_GE(during, 0);
    // Read whole, the pipelined requests that one read brought were all
    // answered before the Get; read one a turn, the Get waited for a few.
    EXPECT_LT(during - before, 300) << "messages taken between the two Gets";
    EXPECT_EQ(agent.agent.stop(), 0);
}

TEST(AgentTcp, AUnixSocketAnswersTheCommunityAndNamesItsPeerALocalProcess)
{
    AgentUnderTest agent;
    const std::string path = agent.dir() / "snmp.sock";
    agent.listen = [path](int) { return "unix:" + path; };
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    const RunResult get = snmpAt(agent.dir(), "snmpget", "2c", "public", "unix:" + path, {kUptime});
    EXPECT_EQ(get.status, 0) << get.err << agent.process()->err();
    EXPECT_NE(get.out.find(".1.3.6.1.2.1.1.3.0 = Timeticks"), std::string::npos) << get.out;
    const RunResult wrong =
        snmpAt(agent.dir(), "snmpget", "2c", "wrong", "unix:" + path, {kUptime});
    EXPECT_NE(wrong.status, 0);
    EXPECT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find(
                       "refused a SNMPv2c request from a local process: wrong community") !=
                   std::string::npos;
        },
        5s))
        << agent.process()->err();
    EXPECT_EQ(agent.stop(), 0);
}

} // namespace
} // namespace kelp::test
