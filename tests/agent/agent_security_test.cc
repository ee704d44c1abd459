// Who may query kelpagent and what it gives away: SNMPv3 users with their
// pass phrases from a private key file (never written to the state dir or
// the log), the engine ID and boot counter kept across restarts, --allow
// source networks, --no-v1v2c, refusals logged without the community, root
// refused or left for --user, and GETBULK answers kept bounded. net-snmp's
// own tools are the managers.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "snmpload.h"
#include "testkit.h"

namespace kelp::test {
namespace {

constexpr const char *kAuthPass = "auth-Phrase-7391";
constexpr const char *kPrivPass = "priv-Phrase-5528";
constexpr const char *kSysName = "1.3.6.1.2.1.1.5.0";
constexpr const char *kEngineId = "1.3.6.1.6.3.10.2.1.1.0";
constexpr const char *kEngineBoots = "1.3.6.1.6.3.10.2.1.2.0";

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

// Every byte of every file under `dir`, for looking for a secret.
std::string everythingUnder(const std::string &dir)
{
    std::string all;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (entry.is_regular_file()) {
            all += readFile(entry.path().string());
        }
    }
    return all;
}

// A kelpagent whose start this test watches itself (it may answer no
// community, so AgentUnderTest's first Get would not do).
class SecureAgent {
  public:
    explicit SecureAgent(const TempDir &dir) : dir_(dir), port_(freeUdpPort()) {}

    // Starts kelpagent with `args` after the state dir, listen address,
    // model and module; true once it logs that it answers. The log of every
    // start is kept (err()).
    bool start(const std::vector<std::string> &args, const std::string &listen = "")
    {
        std::vector<std::string> argv{kelpagentPath(),
                                      "--state-dir",
                                      dir_ / "state",
                                      "--listen",
                                      listen.empty() ? "udp:127.0.0.1:" + std::to_string(port_)
                                                     : listen,
                                      "--model",
                                      sourcePath("data/models/test/minimal.xml"),
                                      "--module",
                                      modulePath()};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string err = dir_ / ("agent" + std::to_string(starts_++) + ".err");
        process_ = std::make_unique<Process>(argv, agentEnv(), dir_ / "agent.out", err);
        return waitFor([&] { return has(process_->err(), "answering on") || !process_->running(); },
                       20s) &&
               process_->running();
    }

    // SIGTERM and the exit status.
    int stop()
    {
        process_->signal(SIGTERM);
        return process_->wait(15s).value_or(-1);
    }

    Process &process() { return *process_; }
    std::string err() const { return process_->err(); }
    int port() const { return port_; }

    // One of net-snmp's tools as SNMPv3 user `user` at `level`, with the
    // given pass phrases (empty: not given) and privacy protocol.
    RunResult v3(const std::string &tool, const std::string &user, const std::string &level,
                 const std::string &authPass, const std::string &privPass,
                 const std::vector<std::string> &args,
                 const std::string &privProtocol = "AES-256") const
    {
        std::vector<std::string> argv{tool,  "-v3", "-l", level, "-u", user,
                                      "-On", "-t",  "1",  "-r",  "0"};
        if (!authPass.empty()) {
            argv.insert(argv.end(), {"-a", "SHA-512", "-A", authPass});
        }
        if (!privPass.empty()) {
            argv.insert(argv.end(), {"-x", privProtocol, "-X", privPass});
        }
        argv.push_back("udp:127.0.0.1:" + std::to_string(port_));
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, snmpEnv(dir_), dir_, 15s);
    }

    RunResult v2c(const std::string &community, const std::vector<std::string> &args) const
    {
        std::vector<std::string> argv{
            "snmpget", "-v2c", "-c", community, "-On",
            "-t",      "1",    "-r", "0",       "udp:127.0.0.1:" + std::to_string(port_)};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, snmpEnv(dir_), dir_, 15s);
    }

  private:
    const TempDir &dir_;
    int port_;
    int starts_ = 0;
    std::unique_ptr<Process> process_;
};

// A key file of mode 0600 with ann's line (and a second user's).
std::string keyFile(const TempDir &dir)
{
    const std::string path = dir / "v3keys";
    writeFile(path, std::string("# user auth priv\nann ") + kAuthPass + " " + kPrivPass +
                        "\nbob other-auth-1 other-priv-1\n");
    chmod(path.c_str(), 0600);
    return path;
}

std::vector<std::string> v3Args(const TempDir &dir)
{
    return {"--allow-root", "--v3-user", "ann", "--v3-keys", keyFile(dir)};
}

TEST(AgentSecurity, SnmpV3UsersAuthenticateAndAnythingElseIsRefused)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();

    const RunResult priv = agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName});
    EXPECT_EQ(priv.status, 0) << priv.err;
    EXPECT_TRUE(has(priv.out, "." + std::string(kSysName) + " = STRING:")) << priv.out;
    const RunResult auth = agent.v3("snmpget", "ann", "authNoPriv", kAuthPass, "", {kSysName});
    EXPECT_EQ(auth.status, 0) << auth.err;
    EXPECT_TRUE(has(auth.out, "STRING:")) << auth.out;
    // SHA-512 localizes a key of 64 bytes, more than AES-256 needs, so no
    // key extension applies: a manager whose AES-256 extends keys the other
    // way (net-snmp's AES-256-C) makes the same key.
    const RunResult otherExtension =
        agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}, "AES-256-C");
    EXPECT_EQ(otherExtension.status, 0) << otherExtension.err;
    EXPECT_TRUE(has(otherExtension.out, "STRING:")) << otherExtension.out;
    // The storage tree answers SNMPv3 as it answers the community.
    const RunResult walk = agent.v3("snmpbulkwalk", "ann", "authPriv", kAuthPass, kPrivPass,
                                    {std::string(kRoot) + ".3"});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_TRUE(has(walk.out, "." + std::string(kRoot) + ".3.")) << walk.out;

    const struct {
        const char *what, *user, *level, *auth, *priv;
    } refused[] = {
        {"noAuthNoPriv", "ann", "noAuthNoPriv", "", ""},
        {"a wrong authentication pass phrase", "ann", "authNoPriv", "auth-Phrase-7392", ""},
        {"a wrong privacy pass phrase", "ann", "authPriv", kAuthPass, "priv-Phrase-5529"},
        {"an unknown user", "eve", "authPriv", kAuthPass, kPrivPass},
        // bob is in the key file but not a --v3-user.
        {"a user of the file the agent was not told to serve", "bob", "authNoPriv", "other-auth-1",
         ""},
    };
    for (const auto &r : refused) {
        const RunResult get = agent.v3("snmpget", r.user, r.level, r.auth, r.priv, {kSysName});
        EXPECT_NE(get.status, 0) << r.what;
        EXPECT_FALSE(has(get.out, "STRING:")) << r.what << ": " << get.out;
    }
    // The community still answers alongside.
    EXPECT_EQ(agent.v2c("public", {kSysName}).status, 0);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, FailedAuthenticationsAreLoggedOnceAMinutePerSourceWithTheSource)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    // net-snmp logs a line for every message whose digest is wrong, before
    // any access control: a sender who knows a user name could fill the log.
    for (int i = 0; i < 6; i++) {
        EXPECT_NE(
            agent.v3("snmpget", "ann", "authNoPriv", "auth-Phrase-7392", "", {kSysName}).status, 0);
    }
    // A wrong privacy pass phrase: a message net-snmp cannot decrypt.
    for (int i = 0; i < 3; i++) {
        agent.v3("snmpget", "ann", "authPriv", kAuthPass, "priv-Phrase-5529", {kSysName});
    }
    EXPECT_EQ(agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    EXPECT_EQ(agent.stop(), 0);
    const std::string log = agent.err();
    EXPECT_TRUE(has(log, "from 127.0.0.1: Authentication failed for ann (logged once a minute "
                         "per source)"))
        << log;
    EXPECT_EQ(countOf(log, "Authentication failed"), 1u) << log;
    EXPECT_EQ(countOf(log, "error parsing ScopedPDU"), 0u)
        << "the same source within the minute: " << log;
}

TEST(AgentSecurity, NoPassPhraseReachesTheStateDirOrTheLog)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_EQ(agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    agent.v3("snmpget", "ann", "authPriv", kAuthPass, "priv-Phrase-wrong", {kSysName});
    EXPECT_EQ(agent.stop(), 0);
    const std::string state = everythingUnder(dir / "state");
    const std::string log = agent.err();
    for (const char *secret : {kAuthPass, kPrivPass}) {
        EXPECT_FALSE(has(state, secret)) << secret;
        EXPECT_FALSE(has(log, secret)) << log;
    }
    // Not even a user line with its localized keys: the users live in memory.
    EXPECT_FALSE(has(state, "\nusmUser")) << state;
    EXPECT_FALSE(has(state, "\ncreateUser")) << state;
    EXPECT_TRUE(has(log, "SNMPv3 user ann (read-only)")) << log;
}

TEST(AgentSecurity, EngineBootsCountEveryStartWithTheSameEngineId)
{
    TempDir dir;
    SecureAgent agent(dir);
    std::vector<long> boots;
    std::vector<std::string> ids;
    for (int start = 0; start < 3; start++) {
        ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
        const RunResult get =
            agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kEngineBoots, kEngineId});
        ASSERT_EQ(get.status, 0) << get.err;
        std::smatch m;
        ASSERT_TRUE(std::regex_search(get.out, m, std::regex(R"(INTEGER: (\d+))"))) << get.out;
        boots.push_back(std::stol(m[1]));
        ASSERT_TRUE(std::regex_search(get.out, m, std::regex(R"(Hex-STRING: ([0-9A-F \n]+))")))
            << get.out;
        ids.push_back(m[1]);
        // The last start is killed: its boot counts all the same.
        if (start < 2) {
            EXPECT_EQ(agent.stop(), 0);
        } else {
            agent.process().signal(SIGKILL);
            agent.process().wait(15s);
        }
    }
    EXPECT_EQ(boots[1], boots[0] + 1);
    EXPECT_EQ(boots[2], boots[1] + 1);
    EXPECT_EQ(ids[0], ids[1]);
    EXPECT_EQ(ids[1], ids[2]);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    const RunResult get = agent.v3("snmpget", "ann", "authNoPriv", kAuthPass, "", {kEngineBoots});
    EXPECT_TRUE(has(get.out, "INTEGER: " + std::to_string(boots[2] + 1))) << get.out;
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, ALostOrDamagedEngineIdIsWarnedAboutAtStart)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_FALSE(has(agent.err(), "the SNMP engine state")) << agent.err();
    const std::string file = dir / "state/snmp/kelpagent.conf";
    // Kept over a restart: no word.
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_FALSE(has(agent.err(), "the SNMP engine state")) << agent.err();
    // Emptied (a crash while net-snmp rewrote it).
    writeFile(file, "");
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_TRUE(has(agent.err(), "the SNMP engine state " + file +
                                     " holds no engine ID: this start makes a new one and "
                                     "counts boots from 1"))
        << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    // Edited by hand.
    writeFile(file, "engineBoots 4\noldEngineID garbage!!\n");
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_TRUE(has(agent.err(), "the SNMP engine state " + file +
                                     " holds an engine ID net-snmp did not write (garbage!!)"))
        << agent.err();
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, ABootCountAtItsLimitOrDamagedMakesANewEngineId)
{
    TempDir dir;
    SecureAgent agent(dir);
    const auto engine = [&](long *boots, std::string *id) {
        const RunResult get =
            agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kEngineBoots, kEngineId});
        ASSERT_EQ(get.status, 0) << get.err;
        std::smatch m;
        ASSERT_TRUE(std::regex_search(get.out, m, std::regex(R"(INTEGER: (-?\d+))"))) << get.out;
        *boots = std::stol(m[1]);
        ASSERT_TRUE(std::regex_search(get.out, m, std::regex(R"(Hex-STRING: ([0-9A-F \n]+))")))
            << get.out;
        *id = m[1];
    };
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    long boots = 0;
    std::string first;
    engine(&boots, &first);
    EXPECT_EQ(agent.stop(), 0);
    const std::string file = dir / "state/snmp/kelpagent.conf";
    const std::string kept = readFile(file);
    ASSERT_TRUE(has(kept, "\nengineBoots ") || kept.starts_with("engineBoots ")) << kept;

    // The count can reach 2147483647 only to stay there (RFC 3414), and
    // SNMPv3 then ends; a count net-snmp did not write could let messages
    // recorded before be taken again. Either way a new engine starts.
    const struct {
        const char *boots; // the line's value; nullptr: no line
        const char *problem;
    } cases[] = {
        {"2147483646", "holds a boot count at its limit (2147483646)"},
        {"4294967295", "holds a boot count at its limit (4294967295)"},
        {"abc", "holds a boot count net-snmp did not write (abc)"},
        {"-5", "holds a boot count net-snmp did not write (-5)"},
        {nullptr, "holds no boot count"},
    };
    for (const auto &c : cases) {
        std::string text = std::regex_replace(kept, std::regex(R"(engineBoots [^\n]*\n?)"),
                                              c.boots ? std::string("engineBoots ") + c.boots + "\n"
                                                      : std::string());
        writeFile(file, text);
        ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
        EXPECT_TRUE(has(agent.err(), "the SNMP engine state " + file + " " + c.problem +
                                         ": this start makes a new engine ID and counts boots "
                                         "from 1"))
            << agent.err();
        std::string id;
        engine(&boots, &id);
        EXPECT_EQ(boots, 1) << c.problem;
        EXPECT_NE(id, first) << c.problem;
        EXPECT_EQ(agent.stop(), 0);
    }
}

TEST(AgentSecurity, AStartThatFailsBeforeTheEngineStartsLeavesItsStateAlone)
{
    TempDir dir;
    SecureAgent agent(dir);
    std::vector<std::string> broken = v3Args(dir);
    broken.insert(broken.end(), {"--module", dir / "none.so"});
    const std::string file = dir / "state/snmp/kelpagent.conf";
    // On a new state dir: no engine state is written without an engine ID.
    EXPECT_FALSE(agent.start(broken));
    EXPECT_EQ(agent.process().wait(15s).value_or(-1), 1) << agent.err();
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_FALSE(has(agent.err(), "the SNMP engine state")) << agent.err();
    const RunResult before = agent.v3("snmpget", "ann", "authNoPriv", kAuthPass, "", {kEngineId});
    EXPECT_EQ(before.status, 0) << before.err;
    EXPECT_EQ(agent.stop(), 0);
    // With the engine's state kept: the failed start leaves it as it was,
    // and says nothing of it.
    const std::string kept = readFile(file);
    EXPECT_FALSE(agent.start(broken));
    EXPECT_EQ(agent.process().wait(15s).value_or(-1), 1) << agent.err();
    EXPECT_FALSE(has(agent.err(), "SNMP engine state")) << agent.err();
    EXPECT_EQ(readFile(file), kept);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_FALSE(has(agent.err(), "the SNMP engine state")) << agent.err();
    const RunResult after = agent.v3("snmpget", "ann", "authNoPriv", kAuthPass, "", {kEngineId});
    EXPECT_EQ(after.out, before.out) << "the same engine";
    EXPECT_EQ(agent.stop(), 0);
}

// A UDP socket on a free loopback port (0 when none could be had).
int loopbackSocket(int *port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    *port = ntohs(address.sin_port);
    return fd;
}

sockaddr_in loopbackAddress(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// A relay between a manager and the agent on `agentPort` that keeps every
// datagram the manager sent: what an eavesdropper on the path records.
class RecordingRelay {
  public:
    explicit RecordingRelay(int agentPort) : agent_(loopbackAddress(agentPort))
    {
        managerSide_ = loopbackSocket(&port_);
        int unused = 0;
        agentSide_ = loopbackSocket(&unused);
        thread_ = std::thread([this] { relay(); });
    }
    ~RecordingRelay()
    {
        stop_ = true;
        thread_.join();
        close(managerSide_);
        close(agentSide_);
    }
    int port() const { return port_; }
    // The manager's datagrams so far, in order.
    std::vector<std::string> sent()
    {
        std::lock_guard lock(mutex_);
        return sent_;
    }

  private:
    void relay()
    {
        sockaddr_in manager{};
        char buffer[65536];
        while (!stop_) {
            pollfd fds[2] = {{managerSide_, POLLIN, 0}, {agentSide_, POLLIN, 0}};
            if (poll(fds, 2, 50) <= 0)
                continue;
            if (fds[0].revents & POLLIN) {
                socklen_t length = sizeof manager;
                const ssize_t n = recvfrom(managerSide_, buffer, sizeof buffer, 0,
                                           reinterpret_cast<sockaddr *>(&manager), &length);
                if (n > 0) {
                    {
                        std::lock_guard lock(mutex_);
                        sent_.emplace_back(buffer, size_t(n));
                    }
                    sendto(agentSide_, buffer, size_t(n), 0,
                           reinterpret_cast<const sockaddr *>(&agent_), sizeof agent_);
                }
            }
            if (fds[1].revents & POLLIN) {
                const ssize_t n = recv(agentSide_, buffer, sizeof buffer, 0);
                if (n > 0 && manager.sin_port != 0) {
                    sendto(managerSide_, buffer, size_t(n), 0,
                           reinterpret_cast<const sockaddr *>(&manager), sizeof manager);
                }
            }
        }
    }

    sockaddr_in agent_;
    int port_ = 0;
    int managerSide_ = -1;
    int agentSide_ = -1;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> sent_;
    std::thread thread_;
};

// Sends `message` to the agent on `port` from a new socket; its answer, or
// "" when none came within two seconds.
std::string replay(const std::string &message, int port)
{
    int unused = 0;
    const int fd = loopbackSocket(&unused);
    const sockaddr_in agent = loopbackAddress(port);
    sendto(fd, message.data(), message.size(), 0, reinterpret_cast<const sockaddr *>(&agent),
           sizeof agent);
    pollfd pfd{fd, POLLIN, 0};
    std::string answer;
    if (poll(&pfd, 1, 2000) == 1) {
        char buffer[65536];
        const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
        if (n > 0)
            answer.assign(buffer, size_t(n));
    }
    close(fd);
    return answer;
}

// The counters a manager reads to see why its SNMPv3 requests fail: the
// user-based security model's (usmStats), the message processing's
// (snmpMPDStats) and the contexts' (snmpUnavailableContexts,
// snmpUnknownContexts).
TEST(AgentSecurity, TheSnmpV3StatisticsCountWhatTheAgentRefused)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    const std::string unknownUsers = "1.3.6.1.6.3.15.1.1.3.0";
    const std::string wrongDigests = "1.3.6.1.6.3.15.1.1.5.0";
    const std::vector<std::string> others = {
        "1.3.6.1.6.3.15.1.1.1.0", // usmStatsUnsupportedSecLevels
        "1.3.6.1.6.3.15.1.1.2.0", // usmStatsNotInTimeWindows
        "1.3.6.1.6.3.15.1.1.4.0", // usmStatsUnknownEngineIDs
        "1.3.6.1.6.3.15.1.1.6.0", // usmStatsDecryptionErrors
        "1.3.6.1.6.3.11.2.1.1.0", // snmpUnknownSecurityModels
        "1.3.6.1.6.3.11.2.1.2.0", // snmpInvalidMsgs
        "1.3.6.1.6.3.11.2.1.3.0", // snmpUnknownPDUHandlers
        "1.3.6.1.6.3.12.1.4.0",   // snmpUnavailableContexts
        "1.3.6.1.6.3.12.1.5.0",   // snmpUnknownContexts
    };
    const auto counter = [&](const std::string &name) {
        const RunResult get = agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {name});
        const std::string mark = "." + name + " = Counter32: ";
        const size_t at = get.out.find(mark);
        return at == std::string::npos ? -1L : std::stol(get.out.substr(at + mark.size()));
    };
    for (const std::string &name : others)
        EXPECT_GE(counter(name), 0) << name;
    const long users = counter(unknownUsers);
    const long digests = counter(wrongDigests);
    ASSERT_GE(users, 0);
    ASSERT_GE(digests, 0);
    EXPECT_NE(agent.v3("snmpget", "eve", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    EXPECT_NE(agent.v3("snmpget", "ann", "authNoPriv", "auth-Phrase-7392", "", {kSysName}).status,
              0);
    EXPECT_EQ(counter(unknownUsers), users + 1);
    EXPECT_EQ(counter(wrongDigests), digests + 1);
    // The community sees them too, as it sees the snmp group's counters.
    const RunResult v2c = agent.v2c("public", {unknownUsers});
    EXPECT_TRUE(has(v2c.out, "Counter32: ")) << v2c.out;
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, AMessageReplayedOutsideItsTimeWindowIsRefused)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    RecordingRelay relay(agent.port());
    // An authPriv Get through the relay: discovery first, then the Get
    // itself, authenticated and encrypted; the last datagram is the Get.
    const RunResult get =
        run({"snmpget", "-v3",     "-l",  "authPriv",
             "-u",      "ann",     "-a",  "SHA-512",
             "-A",      kAuthPass, "-x",  "AES-256",
             "-X",      kPrivPass, "-On", "-t",
             "1",       "-r",      "0",   "udp:127.0.0.1:" + std::to_string(relay.port()),
             kSysName},
            snmpEnv(dir), dir, 15s);
    ASSERT_EQ(get.status, 0) << get.err;
    const std::vector<std::string> sent = relay.sent();
    ASSERT_GE(sent.size(), 2u);
    const std::string recorded = sent.back();
    // usmStatsNotInTimeWindows.0 as it stands in a Report's varbind.
    const std::string notInTimeWindow("\x06\x0a\x2b\x06\x01\x06\x03\x0f\x01\x01\x02\x00", 12);
    // Within its window the copy is a valid message: answered (encrypted,
    // so only its arrival and the absence of a Report can be seen).
    const std::string early = replay(recorded, agent.port());
    ASSERT_FALSE(early.empty());
    EXPECT_FALSE(has(early, notInTimeWindow));
    // A restart on the same state dir counts a boot: the recorded message
    // now names a past boot and is outside the time window.
    ASSERT_EQ(agent.stop(), 0);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    const std::string late = replay(recorded, agent.port());
    ASSERT_FALSE(late.empty());
    EXPECT_TRUE(has(late, notInTimeWindow));
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, AKeyFileOthersCanReadIsRefused)
{
    TempDir dir;
    const std::string keys = keyFile(dir);
    for (const mode_t mode : {0640u, 0604u, 0660u}) {
        chmod(keys.c_str(), mode);
        const RunResult r = run({kelpagentPath(), "--allow-root", "--state-dir", dir / "state",
                                 "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                 "--model", sourcePath("data/models/test/minimal.xml"), "--module",
                                 modulePath(), "--v3-user", "ann", "--v3-keys", keys},
                                agentEnv(), dir);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(has(r.err, "must be readable by its owner alone")) << r.err;
        EXPECT_FALSE(has(r.err, kAuthPass)) << r.err;
    }
    // A user without a line, and a missing file, are refused too.
    chmod(keys.c_str(), 0600);
    for (const std::vector<std::string> &bad :
         {std::vector<std::string>{"--v3-user", "carl", "--v3-keys", keys},
          std::vector<std::string>{"--v3-user", "ann", "--v3-keys", dir / "none"}}) {
        std::vector<std::string> argv{kelpagentPath(), "--allow-root",
                                      "--state-dir",   dir / "state",
                                      "--model",       sourcePath("data/models/test/minimal.xml")};
        argv.insert(argv.end(), bad.begin(), bad.end());
        const RunResult r = run(argv, agentEnv(), dir);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(has(r.err, "--v3-keys")) << r.err;
    }
}

TEST(AgentSecurity, NoV1v2cLeavesSnmpV3Alone)
{
    TempDir dir;
    SecureAgent agent(dir);
    std::vector<std::string> args = v3Args(dir);
    args.push_back("--no-v1v2c");
    ASSERT_TRUE(agent.start(args)) << agent.err();
    EXPECT_NE(agent.v2c("public", {kSysName}).status, 0);
    EXPECT_EQ(agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    EXPECT_TRUE(has(agent.err(), "answering on udp:127.0.0.1:" + std::to_string(agent.port()) +
                                     ", SNMPv3 user ann (read-only) from any source"))
        << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    // The refusal's line says why: no community is wrong when none answers.
    EXPECT_TRUE(has(agent.err(), "refused a SNMPv2c request from 127.0.0.1: SNMPv1 and v2c are "
                                 "not answered (--no-v1v2c)"))
        << agent.err();
    EXPECT_FALSE(has(agent.err(), "wrong community")) << agent.err();
}

TEST(AgentSecurity, AllowLimitsTheSourcesOfEveryVersion)
{
    TempDir dir;
    SecureAgent outside(dir);
    std::vector<std::string> args = v3Args(dir);
    args.insert(args.end(), {"--allow", "10.0.0.0/8", "--allow", "2001:db8::/32"});
    ASSERT_TRUE(outside.start(args)) << outside.err();
    EXPECT_NE(outside.v2c("public", {kSysName}).status, 0);
    const RunResult v3 = outside.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName});
    EXPECT_NE(v3.status, 0);
    EXPECT_FALSE(has(v3.out, "STRING:")) << v3.out;
    EXPECT_TRUE(waitFor(
        [&] {
            return has(outside.err(),
                       "refused a SNMPv2c request from 127.0.0.1: its source is not in --allow");
        },
        5s))
        << outside.err();
    EXPECT_EQ(outside.stop(), 0);

    TempDir dir2;
    SecureAgent inside(dir2);
    args = v3Args(dir2);
    args.insert(args.end(), {"--allow", "10.0.0.0/8", "--allow", "127.0.0.0/8"});
    ASSERT_TRUE(inside.start(args)) << inside.err();
    EXPECT_EQ(inside.v2c("public", {kSysName}).status, 0);
    EXPECT_EQ(inside.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    EXPECT_TRUE(has(inside.err(), "from 10.0.0.0/8, 127.0.0.0/8")) << inside.err();
    EXPECT_EQ(inside.stop(), 0);
}

TEST(AgentSecurity, AllowTakesIpv6Networks)
{
    if (!haveIpv6Loopback()) {
        GTEST_SKIP() << "no IPv6 loopback";
    }
    const struct {
        const char *network;
        bool answered;
    } cases[] = {{"::1/128", true}, {"2001:db8::/32", false}, {"127.0.0.0/8", false}};
    for (const auto &c : cases) {
        TempDir dir;
        SecureAgent agent(dir);
        const std::string target = "udp6:[::1]:" + std::to_string(agent.port());
        ASSERT_TRUE(agent.start({"--allow-root", "--allow", c.network}, target)) << agent.err();
        const RunResult get = run(
            {"snmpget", "-v2c", "-c", "public", "-On", "-t", "0.5", "-r", "0", target, kSysName},
            snmpEnv(dir), dir);
        EXPECT_EQ(get.status == 0, c.answered) << c.network << ": " << get.out << get.err;
        EXPECT_EQ(agent.stop(), 0);
    }
}

TEST(AgentSecurity, AWrongCommunityIsLoggedWithoutTheCommunity)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    EXPECT_NE(agent.v2c("Guessed-Secret-42", {kSysName}).status, 0);
    EXPECT_TRUE(waitFor(
        [&] {
            return has(agent.err(),
                       "refused a SNMPv2c request from 127.0.0.1: wrong community (logged once");
        },
        5s))
        << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_FALSE(has(agent.err(), "Guessed-Secret")) << agent.err();
    // Nor the agent's own community.
    EXPECT_FALSE(has(agent.err(), "\"public\"")) << agent.err();
}

TEST(AgentSecurity, ACommunityBeyondLoopbackFromAnySourceIsWarnedAbout)
{
    const std::string warning = "answered beyond loopback from any source: give --allow";
    const struct {
        std::vector<std::string> args;
        bool wildcard, warned;
    } cases[] = {
        {{}, true, true},
        {{"--allow", "127.0.0.0/8"}, true, false},
        {{}, false, false},
    };
    for (const auto &c : cases) {
        TempDir dir;
        SecureAgent agent(dir);
        std::vector<std::string> args{"--allow-root"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        ASSERT_TRUE(
            agent.start(args, c.wildcard ? "udp:0.0.0.0:" + std::to_string(agent.port()) : ""))
            << agent.err();
        EXPECT_EQ(agent.stop(), 0);
        EXPECT_EQ(has(agent.err(), warning), c.warned) << agent.err();
    }
}

TEST(AgentSecurity, TheControlSocketIs0600InAStateDirClosedToOthers)
{
    TempDir dir;
    // A state dir made by hand, open to everyone.
    std::filesystem::create_directories(dir / "state");
    chmod((dir / "state").c_str(), 0755);
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    struct stat st {};
    ASSERT_EQ(stat((dir / "state").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_TRUE(has(agent.err(), "was mode 0755, open to other users: now 0700")) << agent.err();
    ASSERT_EQ(lstat((dir / "state/control.sock").c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, AStateDirOpenToOthersThatHoldsOtherFilesIsLeftAsItIsWithAWarning)
{
    TempDir dir;
    // A shared directory given as the state dir by mistake.
    std::filesystem::create_directories(dir / "state/otherapp");
    writeFile(dir / "state/otherapp/key", "secret\n");
    chmod((dir / "state").c_str(), 01777);
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    EXPECT_TRUE(has(agent.err(), "the state dir " + (dir / "state") +
                                     " is open to other users (mode 1777) and holds what is "
                                     "not kelp's (otherapp): left as it is"))
        << agent.err();
    EXPECT_FALSE(has(agent.err(), "now 0700")) << agent.err();
    struct stat st {};
    ASSERT_EQ(stat((dir / "state").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 01777u);
    // What must stay private does.
    ASSERT_EQ(lstat((dir / "state/control.sock").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((dir / "state/snmp").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, TwoAgentsCannotShareAStateDir)
{
    TempDir dir;
    SecureAgent first(dir);
    ASSERT_TRUE(first.start({"--allow-root"})) << first.err();
    SecureAgent second(dir);
    EXPECT_FALSE(second.start({"--allow-root", "--control", dir / "second.sock"}));
    EXPECT_EQ(second.process().wait(15s), 1) << second.err();
    EXPECT_TRUE(has(second.err(), "the state dir " + (dir / "state") +
                                      " is in use by another kelpagent (pid " +
                                      std::to_string(first.process().pid()) + ")"))
        << second.err();
    EXPECT_EQ(first.stop(), 0) << first.err();
    // Once the first has stopped, the dir is free again.
    ASSERT_TRUE(second.start({"--allow-root"})) << second.err();
    EXPECT_EQ(second.stop(), 0);
}

TEST(AgentSecurity, TrapsGoOutAsAnSnmpV3UserTheReceiverAuthenticates)
{
    TempDir dir;
    SecureAgent agent(dir);
    // A first start makes the engine ID the receiver must know the user's
    // keys for (a notification's sender is its authoritative engine).
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    EXPECT_EQ(agent.stop(), 0);
    std::smatch m;
    const std::string persistent = readFile(dir / "state/snmp/kelpagent.conf");
    ASSERT_TRUE(std::regex_search(persistent, m, std::regex(R"(\noldEngineID (0x[0-9a-f]+))")))
        << persistent;
    const std::string engineId = m[1];

    // snmptrapd logs only what user ann sent, authenticated and encrypted.
    const std::string conf = dir / "trapconf";
    std::filesystem::create_directories(conf);
    writeFile(conf + "/snmptrapd.conf", "createUser -e " + engineId + " ann SHA-512 " + kAuthPass +
                                            " AES-256 " + kPrivPass + "\nauthUser log ann priv\n");
    const int trapPort = freeUdpPort();
    Process receiver(
        {"/usr/sbin/snmptrapd", "-f", "-C", "-c", conf + "/snmptrapd.conf", "-Lf",
         dir / "traps.log", "-On", "-m", "", "-F", "%P %v\n",
         "udp:127.0.0.1:" + std::to_string(trapPort)},
        {"SNMPCONFPATH=" + conf, "SNMP_PERSISTENT_DIR=" + (dir / "trappersist"), "MIBS="},
        dir / "trapd.out", dir / "trapd.err");
    ASSERT_TRUE(waitFor([&] { return has(readFile(dir / "traps.log"), "NET-SNMP version"); }, 10s))
        << receiver.err();

    std::vector<std::string> args = v3Args(dir);
    args.insert(args.end(), {"--trap-sink", "udp:127.0.0.1:" + std::to_string(trapPort),
                             "--trap-v3-user", "ann"});
    ASSERT_TRUE(agent.start(args)) << agent.err();
    // coldStart at the start.
    EXPECT_TRUE(
        waitFor([&] { return has(readFile(dir / "traps.log"), ".1.3.6.1.6.3.1.1.5.1"); }, 10s))
        << readFile(dir / "traps.log") << agent.err();
    const std::string log = readFile(dir / "traps.log");
    EXPECT_TRUE(has(log, "SNMP v3, user ann")) << log;
    EXPECT_EQ(agent.stop(), 0);

    // Only a --v3-user may send them, and not as SNMPv1 traps.
    for (const std::vector<std::string> &bad :
         {std::vector<std::string>{"--trap-v3-user", "bob"},
          std::vector<std::string>{"--trap-v3-user", "ann", "--trap-version", "1"}}) {
        std::vector<std::string> argv{kelpagentPath(), "--allow-root",
                                      "--state-dir",   dir / "state",
                                      "--model",       sourcePath("data/models/test/minimal.xml")};
        std::vector<std::string> v3 = v3Args(dir);
        argv.insert(argv.end(), v3.begin(), v3.end());
        argv.insert(argv.end(), bad.begin(), bad.end());
        const RunResult r = run(argv, agentEnv(), dir);
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_TRUE(has(r.err, "--trap-v3-user")) << r.err;
    }
}

// A snmptrapd on a free port that logs (and acknowledges) only what user
// ann sends authenticated and encrypted with these pass phrases. No -e: the
// receiver of an inform is the authoritative engine, so the user's keys are
// localized to the receiver's own engine ID, which the sender discovers.
class InformReceiver {
  public:
    InformReceiver(const TempDir &dir, const std::string &name, const std::string &authPass,
                   const std::string &privPass)
        : dir_(dir), name_(name), log_(dir / (name + ".log")), port_(freeUdpPort())
    {
        const std::string conf = dir / name;
        std::filesystem::create_directories(conf);
        writeFile(conf + "/snmptrapd.conf", "createUser ann SHA-512 " + authPass + " AES-256 " +
                                                privPass + "\nauthUser log ann priv\n");
        launch();
    }

    // Stops snmptrapd and starts it again on the same port, with a new log.
    // With -C it reads no persistent file: it comes back with another
    // engine ID.
    bool restart()
    {
        process_->signal(SIGTERM);
        process_->wait(15s);
        std::filesystem::remove(log_);
        launch();
        return ready();
    }

    bool ready() const
    {
        return waitFor([&] { return has(readFile(log_), "NET-SNMP version"); }, 10s);
    }
    std::string sink() const { return "inform:udp:127.0.0.1:" + std::to_string(port_); }
    std::string log() const { return readFile(log_); }
    std::string err() const { return process_->err(); }

  private:
    void launch()
    {
        const std::string conf = dir_ / name_;
        process_ = std::make_unique<Process>(
            std::vector<std::string>{"/usr/sbin/snmptrapd", "-f", "-C", "-c",
                                     conf + "/snmptrapd.conf", "-Lf", log_, "-On", "-m", "", "-F",
                                     "%P %v\n", "udp:127.0.0.1:" + std::to_string(port_)},
            std::vector<std::string>{"SNMPCONFPATH=" + conf,
                                     "SNMP_PERSISTENT_DIR=" + (dir_ / (name_ + "-persist")),
                                     "MIBS="},
            dir_ / (name_ + ".out"), dir_ / (name_ + ".err"));
    }

    const TempDir &dir_;
    std::string name_;
    std::string log_;
    int port_;
    std::unique_ptr<Process> process_;
};

// How long one SNMPv3 Get of sysName takes the agent to answer.
std::chrono::milliseconds timedGet(const SecureAgent &agent, int *status)
{
    const auto start = std::chrono::steady_clock::now();
    *status = agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status;
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

TEST(AgentSecurity, InformsGoOutAsAnSnmpV3UserTheReceiverAcknowledges)
{
    // An inform: sink, and a plain sink made an inform sink by --trap-version.
    for (const bool everySink : {false, true}) {
        SCOPED_TRACE(everySink ? "--trap-version 2c-inform" : "inform:ADDR");
        TempDir dir;
        InformReceiver receiver(dir, "trapd", kAuthPass, kPrivPass);
        ASSERT_TRUE(receiver.ready()) << receiver.err();
        SecureAgent agent(dir);
        std::vector<std::string> args = v3Args(dir);
        const std::string sink =
            everySink ? receiver.sink().substr(std::strlen("inform:")) : receiver.sink();
        args.insert(args.end(), {"--trap-sink", sink, "--trap-v3-user", "ann", "--inform-timeout",
                                 "0.5", "--inform-retries", "2"});
        if (everySink) {
            args.insert(args.end(), {"--trap-version", "2c-inform"});
        }
        ASSERT_TRUE(agent.start(args)) << agent.err();
        // coldStart at the start, as an SNMPv3 inform of ann.
        ASSERT_TRUE(waitFor([&] { return has(receiver.log(), ".1.3.6.1.6.3.1.1.5.1"); }, 10s))
            << receiver.log() << agent.err();
        const std::string log = receiver.log();
        EXPECT_TRUE(has(log, "INFORM")) << log;
        EXPECT_TRUE(has(log, "SNMP v3, user ann")) << log;
        // Past the first retry's time: an acknowledged inform is sent once.
        std::this_thread::sleep_for(1200ms);
        EXPECT_EQ(countOf(receiver.log(), ".1.3.6.1.6.3.1.1.5.1"), 1u) << receiver.log();
        EXPECT_FALSE(has(agent.err(), "sent again")) << agent.err();
        EXPECT_FALSE(has(agent.err(), "given up")) << agent.err();
        EXPECT_FALSE(has(agent.err(), "discovery")) << agent.err();
        EXPECT_TRUE(has(agent.err(), "trap coldStart sent to " + sink)) << agent.err();
        // The inform sink's own socket is not an address the agent answers
        // on, nor one beyond loopback.
        EXPECT_TRUE(has(agent.err(), "answering on udp:127.0.0.1:" + std::to_string(agent.port()) +
                                         ", community"))
            << agent.err();
        EXPECT_FALSE(has(agent.err(), "beyond loopback")) << agent.err();
        // The agent still answers its own user: the user localized to the
        // receiver's engine did not replace the agent's own.
        int status = -1;
        timedGet(agent, &status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(agent.stop(), 0);
        // Nor is it written to the agent's persistent file.
        EXPECT_EQ(countOf(readFile(dir / "state/snmp/kelpagent.conf"), "usmUser"), 0u)
            << readFile(dir / "state/snmp/kelpagent.conf");
    }
}

TEST(AgentSecurity, AnInformReceiverRestartedWithAnotherEngineIdStillGetsTheInform)
{
    TempDir dir;
    InformReceiver receiver(dir, "trapd", kAuthPass, kPrivPass);
    ASSERT_TRUE(receiver.ready()) << receiver.err();
    SecureAgent agent(dir);
    std::vector<std::string> args = v3Args(dir);
    args.insert(args.end(), {"--trap-sink", receiver.sink(), "--trap-v3-user", "ann",
                             "--inform-timeout", "0.5", "--inform-retries", "2"});
    ASSERT_TRUE(agent.start(args)) << agent.err();
    ASSERT_TRUE(waitFor([&] { return has(receiver.log(), ".1.3.6.1.6.3.1.1.5.1"); }, 10s))
        << receiver.log() << agent.err();
    // The receiver drops what is sent to its old engine ID without a Report
    // the agent can read: the first retry goes with a new discovery, and
    // the retry after it to the new engine ID.
    ASSERT_TRUE(receiver.restart()) << receiver.err();
    const RunResult event = run({kelpctlPath(), "--control", dir / "state/control.sock", "event",
                                 "2048", "--object", "300"},
                                {}, dir);
    ASSERT_EQ(event.status, 0) << event.out << event.err;
    EXPECT_TRUE(waitFor([&] { return has(receiver.log(), "INFORM"); }, 10s))
        << receiver.log() << agent.err();
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(countOf(receiver.log(), "INFORM"), 1u) << receiver.log();
    EXPECT_TRUE(has(receiver.log(), "SNMP v3, user ann")) << receiver.log();
    EXPECT_TRUE(has(agent.err(), "the receiver's SNMPv3 engine ID changed; informs go to the new "
                                 "one"))
        << agent.err();
    EXPECT_TRUE(has(agent.err(), "informs are acknowledged again")) << agent.err();
    EXPECT_FALSE(has(agent.err(), "given up")) << agent.err();
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, SnmpV3InformsNobodyAcknowledgesAreGivenUpWhileRequestsGoOn)
{
    TempDir dir;
    // A receiver that has ann with other pass phrases: it answers the
    // discovery but can neither authenticate nor decrypt the informs.
    const std::string otherAuth = "other-Auth-4410";
    const std::string otherPriv = "other-Priv-8832";
    InformReceiver wrong(dir, "wrong", otherAuth, otherPriv);
    ASSERT_TRUE(wrong.ready()) << wrong.err();
    // And a port nobody listens on: discovery itself gets no answer.
    const std::string dead = "inform:udp:127.0.0.1:" + std::to_string(freeUdpPort());
    SecureAgent agent(dir);
    std::vector<std::string> args = v3Args(dir);
    args.insert(args.end(), {"--trap-sink", wrong.sink(), "--trap-sink", dead, "--trap-v3-user",
                             "ann", "--inform-timeout", "0.4", "--inform-retries", "2"});
    ASSERT_TRUE(agent.start(args)) << agent.err();
    // While the coldStart's informs wait for their retries, requests are
    // answered at once.
    for (int i = 0; i < 5; i++) {
        int status = -1;
        const std::chrono::milliseconds took = timedGet(agent, &status);
        EXPECT_EQ(status, 0);
        EXPECT_LT(took, 700ms);
    }
    EXPECT_TRUE(waitFor(
        [&] {
            return has(agent.err(), wrong.sink() +
                                        ": 1 trap dropped since the last report: 1 inform given "
                                        "up unacknowledged after 3 sends");
        },
        10s))
        << agent.err();
    EXPECT_TRUE(has(agent.err(), wrong.sink() +
                                     ": an inform was not acknowledged within 0.4 s; sent again "
                                     "(retry 1 of 2)"))
        << agent.err();
    EXPECT_TRUE(waitFor(
        [&] {
            return has(agent.err(), dead +
                                        ": the receiver did not answer SNMPv3 engine ID "
                                        "discovery after 3 sends 0.4 s apart; 1 inform given up");
        },
        10s))
        << agent.err();
    EXPECT_FALSE(has(wrong.log(), ".1.3.6.1.6.3.1.1.5.1")) << wrong.log();
    EXPECT_EQ(agent.stop(), 0);
    // No pass phrase, of either side, in the agent's log.
    for (const std::string &secret :
         {std::string(kAuthPass), std::string(kPrivPass), otherAuth, otherPriv}) {
        EXPECT_FALSE(has(agent.err(), secret)) << secret;
    }
}

TEST(AgentSecurity, GetBulkAnswersAreBounded)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    // A manager asking for ten thousand repetitions of three columns gets
    // at most the agent's cap, in one datagram.
    const RunResult bulk = run({"snmpbulkget", "-v2c", "-c", "public", "-On", "-t", "2", "-r", "0",
                                "-Cn0", "-Cr10000", "udp:127.0.0.1:" + std::to_string(agent.port()),
                                "1.3.6.1.2.1.1", "1.3.6.1.2.1.1", "1.3.6.1.2.1.1"},
                               snmpEnv(dir), dir);
    ASSERT_EQ(bulk.status, 0) << bulk.err;
    size_t lines = 0;
    for (size_t at = bulk.out.find("\n.1."); at != std::string::npos;
         at = bulk.out.find("\n.1.", at + 1)) {
        lines++;
    }
    lines += bulk.out.rfind(".1.", 0) == 0 ? 1u : 0u;
    EXPECT_GT(lines, 10u) << bulk.out;
    EXPECT_LE(lines, 64u) << bulk.out;
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, AGetBulkWithMoreRepeatersThanTheCapGetsOneRepetitionOfEach)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    // 70 repeating varbinds, more than the 64 an answer holds: net-snmp
    // alone gave each 64 / 70 = 0 repetitions, an answer with no varbind.
    std::vector<std::string> argv{"snmpbulkget",
                                  "-v2c",
                                  "-c",
                                  "public",
                                  "-On",
                                  "-t",
                                  "2",
                                  "-r",
                                  "0",
                                  "-Cn1",
                                  "-Cr5",
                                  "udp:127.0.0.1:" + std::to_string(agent.port()),
                                  "1.3.6.1.2.1.1.5"};
    for (int i = 0; i < 70; i++) {
        argv.push_back("1.3.6.1.2.1.1.4");
    }
    const RunResult bulk = run(argv, snmpEnv(dir), dir);
    ASSERT_EQ(bulk.status, 0) << bulk.err;
    // The non-repeater, then one repetition of each repeater.
    EXPECT_EQ(bulk.out.rfind(".1.3.6.1.2.1.1.5.0 = ", 0), 0u) << bulk.out;
    EXPECT_EQ(countOf(bulk.out, ".1.3.6.1.2.1.1.4.0 = "), 70u) << bulk.out;
    EXPECT_EQ(countOf(bulk.out, "\n"), 71u) << bulk.out;
    EXPECT_EQ(agent.stop(), 0);
}

// A GetBulk in an SNMPv1 message is not SNMP: net-snmp's parser let it
// through and the agent answered it.
TEST(AgentSecurity, AGetBulkInAnSnmpV1MessageIsDroppedAsAParseError)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--allow-root"})) << agent.err();
    const std::string parseErrors = "1.3.6.1.2.1.11.6.0";
    auto counter = [&] {
        const RunResult get = run({"snmpget", "-v2c", "-c", "public", "-Oqv", "-t", "2", "-r", "1",
                                   "udp:127.0.0.1:" + std::to_string(agent.port()), parseErrors},
                                  snmpEnv(dir), dir);
        return get.status == 0 ? std::stol(get.out) : -1L;
    };
    const long before = counter();
    ASSERT_GE(before, 0);

    const int fd = udpSocketTo(agent.port());
    ASSERT_GE(fd, 0);
    const Bytes community = tlv(0x04, Bytes{'p', 'u', 'b', 'l', 'i', 'c'});
    const Bytes varbinds =
        tlv(0x30, tlv(0x30, concat({objectIdentifier({1, 3, 6, 1, 2, 1, 1}), Bytes{0x05, 0x00}})));
    const Bytes v1Bulk =
        tlv(0x30, concat({Bytes{0x02, 0x01, 0x00}, community,
                          tlv(0xA5, concat({Bytes{0x02, 0x01, 0x05}, Bytes{0x02, 0x01, 0x00},
                                            Bytes{0x02, 0x01, 0x05}, varbinds}))}));
    const Bytes fine = v2cRequest(0xA1, 77, "public", "1.3.6.1.2.1.1");
    for (const Bytes *message : {&v1Bulk, &fine}) {
        ASSERT_EQ(send(fd, message->data(), message->size(), 0), ssize_t(message->size()));
    }
    // The agent takes one source's requests in order: the first answer is
    // the well-formed request's.
    pollfd ready{fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10000), 1);
    uint8_t answer[4096];
    const ssize_t got = recv(fd, answer, sizeof answer, 0);
    close(fd);
    ASSERT_GT(got, 0);
    EXPECT_EQ(responseId(answer, size_t(got)), std::optional<int32_t>(77));
    EXPECT_EQ(counter(), before + 1);
    EXPECT_EQ(agent.stop(), 0);
}

// An SNMPv3 GETBULK whose answer is bigger than the manager's message size
// is cut to fit, as in SNMPv2c; net-snmp alone would build it again for
// ever (authNoPriv) or fail it (authPriv), the agent answering nothing.
TEST(AgentSecurity, AnSnmpV3GetBulkAnswerIsCutToTheManagersMessageSize)
{
    TempDir dir;
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start(v3Args(dir))) << agent.err();
    const std::string address = "udp:127.0.0.1:" + std::to_string(agent.port());
    auto v3 = [&](const std::string &tool, const std::string &level, const std::string &size,
                  const std::vector<std::string> &args) {
        std::vector<std::string> argv{
            tool, "-v3",     "-l",  level, "-u", "ann", "-a", "SHA-512",
            "-A", kAuthPass, "-On", "-t",  "3",  "-r",  "0",  "--sendMessageMaxSize=" + size};
        if (level == "authPriv") {
            argv.insert(argv.end(), {"-x", "AES-256", "-X", kPrivPass});
        }
        argv.insert(argv.end(), args.begin(), args.end());
        argv.push_back(address);
        argv.push_back("1.3.6.1.2.1.1");
        return run(argv, snmpEnv(dir), dir, 30s);
    };
    for (const char *level : {"authNoPriv", "authPriv"}) {
        // Thirty repetitions of the system group are about 2 KB.
        const RunResult small = v3("snmpbulkget", level, "484", {"-Cr30"});
        ASSERT_EQ(small.status, 0) << level << ": " << small.err;
        EXPECT_EQ(small.out.rfind(".1.3.6.1.2.1.1.1.0 = STRING:", 0), 0u) << small.out;
        const size_t lines =
            static_cast<size_t>(std::count(small.out.begin(), small.out.end(), '\n'));
        EXPECT_GT(lines, 1u) << small.out;
        EXPECT_LT(lines, 30u) << small.out;
        // A walk in such steps sees what SNMPv2c sees.
        const RunResult walk = v3("snmpbulkwalk", level, "600", {"-Cr30"});
        ASSERT_EQ(walk.status, 0) << level << ": " << walk.err;
        const RunResult v2c =
            run({"snmpbulkwalk", "-v2c", "-c", "public", "-On", address, "1.3.6.1.2.1.1"},
                snmpEnv(dir), dir, 30s);
        auto withoutUptime = [](const std::string &text) {
            std::string out;
            std::istringstream in(text);
            for (std::string line; std::getline(in, line);) {
                if (line.find(".1.3.6.1.2.1.1.3.0 ") != 0)
                    out += line + "\n";
            }
            return out;
        };
        EXPECT_EQ(withoutUptime(walk.out), withoutUptime(v2c.out)) << level;
    }
    // And the agent goes on answering.
    EXPECT_EQ(agent.v3("snmpget", "ann", "authPriv", kAuthPass, kPrivPass, {kSysName}).status, 0);
    EXPECT_EQ(agent.stop(), 0);
}

TEST(AgentSecurity, RootIsRefusedWithoutAllowRootOrUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "runs as root only";
    }
    TempDir dir;
    const RunResult r = run({kelpagentPath(), "--state-dir", dir / "state", "--model",
                             sourcePath("data/models/test/minimal.xml"), "--module", modulePath()},
                            agentEnv(), dir);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_TRUE(has(r.err, "refusing to run as root")) << r.err;
}

TEST(AgentSecurity, StartedAsRootWithUserItRunsAsThatUserOnceBound)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "runs as root only";
    }
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    TempDir dir;
    // The user must reach its state dir below the test's own.
    chmod(dir.path().c_str(), 0755);
    SecureAgent agent(dir);
    ASSERT_TRUE(agent.start({"--user", "nobody"})) << agent.err();
    EXPECT_TRUE(has(agent.err(), "running as user nobody")) << agent.err();
    const std::string status =
        readFile("/proc/" + std::to_string(agent.process().pid()) + "/status");
    const std::string uid = std::to_string(nobody->pw_uid);
    EXPECT_TRUE(has(status, "\nUid:\t" + uid + "\t" + uid + "\t" + uid + "\t" + uid + "\n"))
        << status;
    EXPECT_TRUE(has(status, "\nGroups:\t" + std::to_string(nobody->pw_gid) + " \n")) << status;
    EXPECT_EQ(agent.v2c("public", {kSysName}).status, 0);
    struct stat st {};
    ASSERT_EQ(stat((dir / "state/control.sock").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, nobody->pw_uid);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // The control socket serves root and its own user.
    const RunResult ctl =
        run({kelpctlPath(), "--control", dir / "state/control.sock", "status"}, {}, dir);
    EXPECT_EQ(ctl.status, 0) << ctl.err;
    EXPECT_EQ(agent.stop(), 0);
    // The persistent file was written by the user at the stop.
    ASSERT_EQ(stat((dir / "state/snmp/kelpagent.conf").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, nobody->pw_uid);
}

TEST(AgentSecurity, WithUserAStateDirTheUserCannotWriteIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "runs as root only";
    }
    TempDir dir;
    chmod(dir.path().c_str(), 0755);
    // Root's own directory, closed to others, holding a file of root's
    // beside kelp's: neither it nor that file is handed to the user.
    std::filesystem::create_directories(dir / "state");
    chmod((dir / "state").c_str(), 0700);
    writeFile(dir / "state/notes", "root's\n");
    writeFile(dir / "state/kelp.ini", "");
    SecureAgent agent(dir);
    EXPECT_FALSE(agent.start({"--user", "nobody"}));
    EXPECT_EQ(agent.process().wait(15s), 1) << agent.err();
    EXPECT_TRUE(
        has(agent.err(), "the state dir " + (dir / "state") + " cannot be written by user nobody"))
        << agent.err();
    struct stat st {};
    ASSERT_EQ(stat((dir / "state").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    ASSERT_EQ(stat((dir / "state/notes").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
}

} // namespace
} // namespace kelp::test
