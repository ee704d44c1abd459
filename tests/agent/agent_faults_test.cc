// kelpagent when things around it fail: stopped under load, killed and
// started again on the same state dir, its AgentX master restarted, its
// state dir read-only or full, its ini file unreadable. Trap receivers that
// blackhole or refuse are agent_trapsink_stall_test's.
//
// Root ignores file modes, so a read-only or full state dir is a small
// tmpfs mounted for the test; a test that cannot mount one (not root, no
// CAP_SYS_ADMIN) is skipped and says why.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kVendor = std::string(kRoot) + ".3.0";

std::string minimalModel()
{
    return sourcePath("data/models/test/minimal.xml");
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A tmpfs of `bytes` mounted on a fresh temp dir for the test's lifetime.
class Tmpfs {
  public:
    explicit Tmpfs(size_t bytes)
    {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
        if (mount("tmpfs", dir_.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) ==
            0) {
            mounted_ = true;
        } else {
            why_ = std::string("cannot mount a tmpfs for the test (") + std::strerror(errno) +
                   "): a full or read-only state dir needs one when running as root, who "
                   "ignores file modes";
        }
    }
    ~Tmpfs()
    {
        if (mounted_) {
            umount2(dir_.path().c_str(), MNT_DETACH);
        }
    }
    Tmpfs(const Tmpfs &) = delete;
    Tmpfs &operator=(const Tmpfs &) = delete;

    bool mounted() const { return mounted_; }
    const std::string &why() const { return why_; }
    std::string operator/(const std::string &name) const { return dir_ / name; }

    // Makes the file system read-only; false when the remount is refused.
    bool makeReadOnly()
    {
        return mount(nullptr, dir_.path().c_str(), nullptr,
                     MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr) == 0;
    }

    // Writes a file until the file system has no block left; true when a
    // write was refused with ENOSPC.
    bool fill(const std::string &name = "filler")
    {
        const int fd = open((dir_ / name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) {
            return false;
        }
        const std::string block(4096, 'x');
        bool full = false;
        while (!full) {
            const ssize_t n = write(fd, block.data(), block.size());
            if (n < 0) {
                full = errno == ENOSPC;
                break;
            }
        }
        close(fd);
        return full;
    }

    void unfill(const std::string &name = "filler") { unlink((dir_ / name).c_str()); }

  private:
    TempDir dir_;
    bool mounted_ = false;
    std::string why_;
};

#define KELP_REQUIRE_TMPFS(fs)                                                                     \
    if (!(fs).mounted()) {                                                                         \
        GTEST_SKIP() << (fs).why();                                                                \
    }

// kelpagent started on `stateDir` to its end (it is expected to refuse).
RunResult startRefused(const TempDir &dir, const std::string &stateDir,
                       const std::vector<std::string> &extra = {})
{
    std::vector<std::string> argv{kelpagentPath(), "--allow-root",
                                  "--state-dir",   stateDir,
                                  "--listen",      "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
                                  "--model",       minimalModel(),
                                  "--module",      modulePath()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return run(argv, agentEnv(), dir, 20s);
}

TEST(AgentFaults, AReadOnlyStateDirIsAClearErrorAtStart)
{
    Tmpfs fs(1 << 20);
    KELP_REQUIRE_TMPFS(fs);
    ASSERT_TRUE(std::filesystem::create_directory(fs / "state"));
    ASSERT_TRUE(fs.makeReadOnly()) << std::strerror(errno);
    TempDir dir;
    struct Case {
        std::string stateDir;
        std::string message;
    };
    const Case cases[] = {
        {fs / "state",
         "the state dir " + (fs / "state") + " cannot be written: Read-only file system"},
        {fs / "missing", "cannot create " + (fs / "missing") + ": Read-only file system"},
    };
    for (const Case &c : cases) {
        const RunResult result = startRefused(dir, c.stateDir);
        EXPECT_EQ(result.status, 1) << c.stateDir << ": " << result.err;
        EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
        // One line, and the agent got no further than the check.
        EXPECT_EQ(countOf(result.err, "kelpagent: "), 1u) << result.err;
        EXPECT_EQ(result.err.find("serving the model"), std::string::npos) << result.err;
    }
}

TEST(AgentFaults, AStateDirOnAFullFileSystemIsAClearErrorAtStart)
{
    Tmpfs fs(256 << 10);
    KELP_REQUIRE_TMPFS(fs);
    ASSERT_TRUE(std::filesystem::create_directory(fs / "state"));
    ASSERT_TRUE(fs.fill());
    TempDir dir;
    const RunResult result = startRefused(dir, fs / "state");
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_NE(result.err.find("the state dir " + (fs / "state") +
                              " cannot be written: No space left on device"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(countOf(result.err, "kelpagent: "), 1u) << result.err;
    // Nothing was left behind to take space or confuse the next start.
    EXPECT_TRUE(std::filesystem::is_empty(fs / "state"));
}

// The engine ID line of net-snmp's persistent file in `stateDir`.
std::string engineIdLine(const std::string &stateDir)
{
    const std::string text = readFile(stateDir + "/snmp/kelpagent.conf");
    const size_t at = text.find("\noldEngineID ");
    return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

TEST(AgentFaults, ADiskThatFillsUpLaterIsLoggedAndTheAgentKeepsServing)
{
    Tmpfs fs(1 << 20);
    KELP_REQUIRE_TMPFS(fs);
    AgentUnderTest agent;
    // The state dir on the tmpfs: a symbolic link keeps the agent's own
    // paths as start() makes them.
    std::filesystem::create_directory_symlink(fs / "state", agent.stateDir());
    ASSERT_EQ(mkdir((fs / "state").c_str(), 0700), 0);
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {"--debug"}, &why)) << why;
    KELP_REQUIRE_MODULE_VALUES(agent);
    const std::string engineId = engineIdLine(agent.stateDir());
    ASSERT_FALSE(engineId.empty()) << readFile(agent.stateDir() + "/snmp/kelpagent.conf");

    ASSERT_TRUE(fs.fill());
    // Every request writes debug lines (a walk more than the page a full
    // tmpfs still lets the file fill); the requests are still answered.
    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    EXPECT_EQ(walk.status, 0) << walk.err;
    EXPECT_NE(walk.out.find("\"Vorn Inc.\""), std::string::npos) << walk.out.substr(0, 500);
    EXPECT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("cannot write debug file " + agent.stateDir() +
                                               "/debug.log: No space left on device") !=
                   std::string::npos;
        },
        10s))
        << agent.process()->err();
    // A save into the full state dir fails with the reason, and the agent
    // serves on.
    const RunResult save = agent.kelpctl({"save", agent.stateDir() + "/saved.xml"});
    EXPECT_NE(save.status, 0) << save.out;
    EXPECT_NE((save.out + save.err).find("No space left on device"), std::string::npos)
        << save.out << save.err;
    EXPECT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("kelpctl save: " + agent.stateDir() +
                                               "/saved.xml: cannot write: No space left on "
                                               "device") != std::string::npos;
        },
        5s))
        << agent.process()->err();
    EXPECT_NE(agent.snmp("snmpget", {kVendor}).out.find("\"Vorn Inc.\""), std::string::npos);
    EXPECT_EQ(agent.kelpctl({"status"}).status, 0);

    // The stop cannot save the engine state: it says so, keeps the file
    // saved at start, and still exits 0.
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
    EXPECT_NE(agent.process()->err().find("cannot save the SNMP engine state to " +
                                          agent.stateDir() + "/snmp/kelpagent.conf"),
              std::string::npos)
        << agent.process()->err();
    EXPECT_EQ(engineIdLine(agent.stateDir()), engineId);

    // With room again the next start is the same engine.
    fs.unfill();
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    EXPECT_EQ(engineIdLine(agent.stateDir()), engineId);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentFaults, AnIniFileThatCannotBeReadKeepsTheDefaultsWithAWarning)
{
    TempDir dir;
    const std::string directory = dir / "ini-dir";
    std::filesystem::create_directory(directory);
    const std::string fifo = dir / "ini-fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string large = dir / "ini-large";
    writeFile(large, "[general]\n" + std::string(2 << 20, ';') + "\n");
    struct Case {
        std::string ini;
        std::string reason;
    };
    const Case cases[] = {
        {directory, "not a regular file"},
        {fifo, "not a regular file"},
        {"/dev/zero", "not a regular file"},
        {large, "over the limit"},
    };
    for (const Case &c : cases) {
        AgentUnderTest agent;
        std::string why;
        ASSERT_TRUE(agent.start(minimalModel(), {"--ini", c.ini}, &why)) << c.ini << ": " << why;
        EXPECT_NE(agent.snmp("snmpget", {kVendor}).out.find("\"Vorn Inc.\""), std::string::npos)
            << c.ini;
        const std::string err = agent.process()->err();
        EXPECT_NE(err.find("the ini file cannot be used: " + c.ini + ": " + c.reason),
                  std::string::npos)
            << err;
        EXPECT_NE(err.find("the plug-in's defaults apply"), std::string::npos) << err;
        EXPECT_EQ(countOf(err, c.ini + ": " + c.reason), 1u) << "said once: " << err;
        // DebugSNMP is off by default: nothing is printed.
        EXPECT_FALSE(std::filesystem::exists(agent.stateDir() + "/debug.log")) << c.ini;
        EXPECT_EQ(agent.stop(), 0) << err;
    }
    // Nothing was put in their place.
    EXPECT_TRUE(std::filesystem::is_directory(directory));
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
    EXPECT_EQ(std::filesystem::file_size(large), (2u << 20) + 11);
}

TEST(AgentFaults, SigtermUnderLoadExitsZeroWithinFiveSeconds)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    KELP_REQUIRE_MODULE_VALUES(agent);
    // Clients that walk the whole tree in bulk, over and over, until killed.
    const std::string walk = "while :; do snmpbulkwalk -v2c -c public -On -Cr60 -t 2 -r 0 "
                             "127.0.0.1:" +
                             std::to_string(agent.port()) + " " + kRoot + " >/dev/null 2>&1; done";
    std::vector<std::unique_ptr<Process>> load;
    for (int i = 0; i < 4; i++) {
        load.push_back(std::make_unique<Process>(
            std::vector<std::string>{"/bin/sh", "-c", walk}, snmpEnv(agent.dir()),
            agent.dir() / ("load" + std::to_string(i) + ".out"),
            agent.dir() / ("load" + std::to_string(i) + ".err")));
    }
    std::this_thread::sleep_for(1500ms);
    const Clock::time_point signalled = Clock::now();
    agent.process()->signal(SIGTERM);
    const std::optional<int> status = agent.process()->wait(15s);
    const double seconds = secondsSince(signalled);
    // A walk under way ends at its own time-out.
    load.clear();
    std::cout << "SIGTERM under load: exit after " << seconds << " s\n";
    ASSERT_TRUE(status.has_value()) << agent.process()->err();
    EXPECT_EQ(*status, 0) << agent.process()->err();
    EXPECT_LT(seconds, 5.0);
    EXPECT_NE(agent.process()->err().find("kelpagent: stopped"), std::string::npos);
}

TEST(AgentFaults, SigtermWithInformsPendingOnASilentReceiverExitsZeroWithinFiveSeconds)
{
    // A UDP port that takes informs and never acknowledges one, and a TCP
    // port nobody listens on.
    const int silent = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(silent, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(getsockname(silent, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const std::string inform = "inform:udp:127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    const std::string refused = "tcp:127.0.0.1:" + std::to_string(freeTcpPort());

    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"),
                            {"--trap-sink", inform, "--trap-sink", refused, "--inform-timeout", "1",
                             "--inform-retries", "20"},
                            &why))
        << why;
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(agent.kelpctl({"event", "2049", "--object", "303"}).status, 0);
    }
    ASSERT_TRUE(waitFor(
        [&] {
            return agent.process()->err().find("trap sink " + inform +
                                               ": an inform was not acknowledged") !=
                   std::string::npos;
        },
        10s))
        << agent.process()->err();
    const Clock::time_point signalled = Clock::now();
    agent.process()->signal(SIGTERM);
    const std::optional<int> status = agent.process()->wait(15s);
    const double seconds = secondsSince(signalled);
    close(silent);
    std::cout << "SIGTERM with informs pending: exit after " << seconds << " s\n";
    ASSERT_TRUE(status.has_value()) << agent.process()->err();
    EXPECT_EQ(*status, 0) << agent.process()->err();
    EXPECT_LT(seconds, 5.0);
}

TEST(AgentFaults, ARestartAfterSigkillReplacesTheStaleControlSocket)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string socket = agent.stateDir() + "/control.sock";
    const std::string engineId = engineIdLine(agent.stateDir());
    ASSERT_FALSE(engineId.empty());
    ASSERT_EQ(agent.stop(SIGKILL), 128 + SIGKILL);
    struct stat st {};
    ASSERT_EQ(lstat(socket.c_str(), &st), 0) << "the killed agent left no socket to replace";
    ASSERT_TRUE(S_ISSOCK(st.st_mode));

    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    EXPECT_NE(agent.snmp("snmpget", {kVendor}).out.find("\"Vorn Inc.\""), std::string::npos);
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    // The engine state saved at the first start outlived the kill.
    EXPECT_EQ(engineIdLine(agent.stateDir()), engineId);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

TEST(AgentFaults, ASecondAgentOnALiveAgentsStateDirIsRefused)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start(minimalModel(), {}, &why)) << why;
    const std::string engineId = engineIdLine(agent.stateDir());
    const RunResult second = startRefused(agent.dir(), agent.stateDir());
    EXPECT_EQ(second.status, 1) << second.err;
    EXPECT_NE(second.err.find("the state dir " + agent.stateDir() +
                              " is in use by another kelpagent (pid " +
                              std::to_string(agent.process()->pid()) +
                              "): give each agent its own --state-dir"),
              std::string::npos)
        << second.err;
    // The first one keeps its socket, its engine and its answers.
    EXPECT_EQ(agent.kelpctl({"status"}).status, 0);
    EXPECT_EQ(engineIdLine(agent.stateDir()), engineId);
    EXPECT_NE(agent.snmp("snmpget", {kVendor}).out.find("\"Vorn Inc.\""), std::string::npos);
    EXPECT_EQ(agent.stop(), 0) << agent.process()->err();
}

// A private snmpd as AgentX master on a loopback port and a socket in a
// temp dir; started again on the same ones by restart().
class Master {
  public:
    Master() : port_(freeUdpPort()), socket_(dir_ / "agentx")
    {
        writeFile(dir_ / "snmpd.conf", "agentaddress udp:127.0.0.1:" + std::to_string(port_) +
                                           "\nmaster agentx\nagentXSocket " + socket_ +
                                           "\nagentXPerms 0600 0700\nrocommunity public "
                                           "127.0.0.1\n");
    }
    ~Master() { stop(); }

    // Starts snmpd; true once its AgentX socket is there.
    bool start()
    {
        starts_++;
        const std::string log = dir_ / ("snmpd" + std::to_string(starts_));
        process_ = std::make_unique<Process>(
            std::vector<std::string>{"snmpd", "-f", "-Lo", "-C", "-c", dir_ / "snmpd.conf", "-p",
                                     dir_ / "snmpd.pid", "-I", "-smux"},
            snmpEnv(dir_), log + ".out", log + ".err");
        return waitFor([&] { return std::filesystem::exists(socket_) || !process_->running(); },
                       20s) &&
               process_->running();
    }
    void stop()
    {
        if (process_ && process_->running()) {
            process_->signal(SIGTERM);
            process_->wait(15s);
        }
    }
    // True when a Get through the master reaches the plug-in.
    bool servesThePlugin()
    {
        return snmp(dir_, "snmpget", "2c", "public", port_, {kVendor}).out.find("\"Vorn Inc.\"") !=
               std::string::npos;
    }
    const std::string &socket() const { return socket_; }
    const TempDir &dir() const { return dir_; }
    std::string out() const { return process_ ? process_->out() + process_->err() : ""; }

  private:
    TempDir dir_;
    int port_;
    std::string socket_;
    int starts_ = 0;
    std::unique_ptr<Process> process_;
};

TEST(AgentFaults, TheSubagentServesAgainWithinItsPingPeriodAfterTheMasterRestarts)
{
    // The subagent pings its master every 5 s and reconnects on that
    // period; some slack for the master's own start and a loaded machine.
    constexpr double kPingSeconds = 5;
    constexpr double kSlackSeconds = 3;
    Master master;
    ASSERT_TRUE(master.start()) << master.out();
    Process kelp({kelpagentPath(), "--allow-root", "--agentx", master.socket(), "--state-dir",
                  master.dir() / "state", "--model", minimalModel(), "--module", modulePath()},
                 agentEnv(), master.dir() / "kelp.out", master.dir() / "kelp.err");
    ASSERT_TRUE(waitFor([&] { return master.servesThePlugin(); }, 20s)) << kelp.err();

    master.stop();
    std::this_thread::sleep_for(500ms);
    ASSERT_TRUE(kelp.running()) << "the subagent ended with its master:\n" << kelp.err();
    ASSERT_TRUE(master.start()) << master.out();
    const Clock::time_point restarted = Clock::now();
    const bool serves =
        waitFor([&] { return master.servesThePlugin(); },
                std::chrono::milliseconds(static_cast<int>((kPingSeconds + kSlackSeconds) * 1000)));
    const double seconds = secondsSince(restarted);
    std::cout << "AgentX: served again " << seconds << " s after the master restarted\n";
    EXPECT_TRUE(serves) << kelp.err();
    EXPECT_TRUE(kelp.running());
    EXPECT_NE(kelp.err().find("lost: the master closed the connection; trying again every 5 s"),
              std::string::npos)
        << kelp.err();
    EXPECT_TRUE(waitFor([&] { return kelp.err().find("regained after") != std::string::npos; }, 2s))
        << kelp.err();
    kelp.signal(SIGTERM);
    EXPECT_EQ(kelp.wait(15s), 0) << kelp.err();
}

} // namespace
} // namespace kelp::test
