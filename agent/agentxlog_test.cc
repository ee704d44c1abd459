// AgentX connection lines: one per change, with net-snmp's reason in words
// whether it came before or after the callback, never an empty reason, and
// a master that stays away costs one line, not one every retry.
#include "agentxlog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<AgentxLog::Line>;

const AgentxLog::Clock::time_point t0 = AgentxLog::Clock::time_point{} + 1000s;
constexpr const char *kRefused = "Warning: Failed to connect to the agentx master agent (/s/ax): "
                                 "Unknown host (/s/ax) (Connection refused)";

TEST(AgentxLog, ReasonsInWords)
{
    struct Case {
        const char *line;
        std::optional<std::string> reason;
    };
    const Case cases[] = {
        {"AgentX master disconnected us, reconnecting in 5", "the master closed the connection"},
        {"AgentX master agent failed to respond to ping.  Attempting to re-register.",
         "the master did not answer a ping"},
        {kRefused, "Unknown host (/s/ax) (Connection refused)"},
        {"Warning: Failed to connect to the agentx master agent (/s/ax)", ""},
        {"Warning: Failed to connect to the agentx master agent (/s/ax): ", ""},
        {"AgentX session to master agent attempted to be re-opened.",
         "AgentX session to master agent attempted to be re-opened."},
        {"Created directory: /x/snmp", std::nullopt},
        // Paths that hold the word are no AgentX lines.
        {"Created directory: /var/lib/agentx/snmp", std::nullopt},
        {"read_config_store open failure on /srv/AgentX/kelpagent.conf", std::nullopt},
        {"", std::nullopt},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(AgentxLog::reasonOf(c.line), c.reason) << c.line;
    }
}

TEST(AgentxLog, ConnectedThenLostWithTheReasonLoggedAfterTheCallbackThenRegained)
{
    AgentxLog log("/s/ax", 5);
    log.onOpened(t0);
    EXPECT_TRUE(log.onLibraryLine("NET-SNMP version 5.9.3 AgentX subagent connected"));
    EXPECT_EQ(log.flush(t0),
              (Lines{{LogLevel::kNotice, "AgentX: connected to the master at /s/ax"}}));
    EXPECT_EQ(log.flush(t0 + 1s), Lines{});

    log.onClosed(t0 + 10s);
    EXPECT_TRUE(log.onLibraryLine("AgentX master disconnected us, reconnecting in 5"));
    EXPECT_EQ(
        log.flush(t0 + 10s),
        (Lines{{LogLevel::kWarning, "AgentX: connection to the master at /s/ax lost: the "
                                    "master closed the connection; trying again every 5 s"}}));
    // The retries while it is away say nothing more.
    for (int i = 1; i <= 3; i++) {
        EXPECT_TRUE(log.onLibraryLine(kRefused));
        EXPECT_EQ(log.flush(t0 + 10s + i * 5s), Lines{});
    }
    log.onOpened(t0 + 27s);
    EXPECT_EQ(log.flush(t0 + 27s),
              (Lines{{LogLevel::kNotice, "AgentX: connection to the master at /s/ax regained "
                                         "after 17 s; the tree is registered again"}}));
}

TEST(AgentxLog, AnUnansweredPingIsTheReasonNotTheFailedReconnectAfterIt)
{
    AgentxLog log("", 5);
    log.onOpened(t0);
    log.flush(t0);
    EXPECT_TRUE(log.onLibraryLine(
        "AgentX master agent failed to respond to ping.  Attempting to re-register."));
    log.onClosed(t0 + 5s);
    EXPECT_TRUE(log.onLibraryLine(kRefused));
    EXPECT_EQ(log.flush(t0 + 5s),
              (Lines{{LogLevel::kWarning,
                      "AgentX: connection to the master at net-snmp's default socket lost: the "
                      "master did not answer a ping; trying again every 5 s"}}));
}

TEST(AgentxLog, ALossWithoutAnyReasonStillSaysSomething)
{
    AgentxLog log("/s/ax", 5);
    log.onOpened(t0);
    log.flush(t0);
    log.onClosed(t0 + 1s);
    const Lines lines = log.flush(t0 + 1s);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second, "AgentX: connection to the master at /s/ax lost: net-snmp closed "
                               "the session without a reason; trying again every 5 s");
}

TEST(AgentxLog, AMasterNeverReachedIsOneWarningUntilItComes)
{
    AgentxLog log("/s/ax", 5);
    EXPECT_TRUE(log.onLibraryLine(kRefused));
    EXPECT_EQ(log.flush(t0), (Lines{{LogLevel::kWarning,
                                     "AgentX: cannot connect to the master at /s/ax: Unknown host "
                                     "(/s/ax) (Connection refused); trying again every 5 s"}}));
    EXPECT_TRUE(log.onLibraryLine(kRefused));
    EXPECT_EQ(log.flush(t0 + 5s), Lines{});
    log.onOpened(t0 + 10s);
    EXPECT_EQ(log.flush(t0 + 10s),
              (Lines{{LogLevel::kNotice, "AgentX: connected to the master at /s/ax"}}));
}

TEST(AgentxLog, WhereNetSnmpGivesNoReasonTheProbeOrALastResortDoes)
{
    const char *bare = "Warning: Failed to connect to the agentx master agent (/s/ax): ";
    AgentxLog probed("/s/ax", 5, [] { return std::string("connect(/s/ax): Connection refused"); });
    EXPECT_TRUE(probed.onLibraryLine(bare));
    EXPECT_EQ(probed.flush(t0),
              (Lines{{LogLevel::kWarning, "AgentX: cannot connect to the master at /s/ax: "
                                          "connect(/s/ax): Connection refused; trying again "
                                          "every 5 s"}}));

    AgentxLog unprobed("/s/ax", 5, [] { return std::string(); });
    EXPECT_TRUE(unprobed.onLibraryLine(bare));
    const Lines lines = unprobed.flush(t0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second, "AgentX: cannot connect to the master at /s/ax: net-snmp gives no "
                               "reason; trying again every 5 s");
}

TEST(AgentxLog, TheProbeSaysWhyAUnixSocketCannotBeReached)
{
    char dir[] = "/tmp/kelp-probe-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/master";
    EXPECT_EQ(AgentxLog::probeUnixSocket(path), "connect(" + path + "): No such file or directory");
    EXPECT_EQ(AgentxLog::probeUnixSocket("unix:" + path),
              "connect(" + path + "): No such file or directory");
    // Bound but not listening: refused.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(AgentxLog::probeUnixSocket(path), "connect(" + path + "): Connection refused");
    ASSERT_EQ(listen(fd, 1), 0);
    EXPECT_EQ(AgentxLog::probeUnixSocket(path), "") << "a master that listens";
    close(fd);
    unlink(path.c_str());
    rmdir(dir);
    EXPECT_EQ(AgentxLog::probeUnixSocket("tcp:localhost:705"), "");
    EXPECT_EQ(AgentxLog::probeUnixSocket("/" + std::string(300, 'x')), "");
    EXPECT_EQ(AgentxLog::probeUnixSocket(""), "");
}

TEST(AgentxLog, OtherLinesAreNotTaken)
{
    AgentxLog log("/s/ax", 5);
    EXPECT_FALSE(log.onLibraryLine("Created directory: /x/snmp"));
    EXPECT_FALSE(log.onLibraryLine("Created directory: /var/lib/agentx-state/snmp"));
    EXPECT_EQ(log.flush(t0), Lines{});
}

} // namespace
} // namespace kelp::agent
