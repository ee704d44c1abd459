#include "log.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testing/failing_new.h"

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

TEST(Log, AStampedLineStartsWithTheLocalTimeToTheMillisecond)
{
    const auto when = std::chrono::system_clock::from_time_t(1795000000) + 42ms;
    const std::string line = stampedLine(when, "answering on udp:127.0.0.1:1161");
    EXPECT_TRUE(std::regex_match(
        line,
        std::regex(
            R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.042 kelpagent: answering on udp:127\.0\.0\.1:1161\n)")))
        << line;
}

TEST(Log, ASyslogDatagramCarriesFacilityDaemonSeverityAndPid)
{
    const auto when = std::chrono::system_clock::from_time_t(1795000000);
    const std::string warning = syslogDatagram(LogLevel::kWarning, when, 4242, "refused");
    EXPECT_TRUE(std::regex_match(
        warning,
        std::regex(R"(<28>[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d kelpagent\[4242\]: refused)")))
        << warning;
    EXPECT_EQ(syslogDatagram(LogLevel::kError, when, 1, "x").rfind("<27>", 0), 0u);
    EXPECT_EQ(syslogDatagram(LogLevel::kNotice, when, 1, "x").rfind("<29>", 0), 0u);
}

TEST(Log, TheJournalStreamIsRecognisedOnlyForTheFileItNames)
{
    char path[] = "/tmp/kelp-log-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    const std::string mine = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
    const std::string other = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1);
    EXPECT_TRUE(isJournalStream(mine.c_str(), fd));
    EXPECT_FALSE(isJournalStream(other.c_str(), fd));
    EXPECT_FALSE(isJournalStream(nullptr, fd));
    EXPECT_FALSE(isJournalStream("", fd));
    EXPECT_FALSE(isJournalStream("journal", fd));
    close(fd);
    unlink(path);
}

TEST(Log, TheSyslogSinkSendsOneDatagramPerLineToTheSocket)
{
    char dir[] = "/tmp/kelp-syslog-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/log";
    const int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    timeval timeout{2, 0};
    setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    setenv("KELP_SYSLOG_SOCKET", path.c_str(), 1);
    ASSERT_TRUE(logOpen(LogSink::kSyslog, LogLevel::kInfo));
    logLine("serving the model %s", "sample.xml");
    logAt(LogLevel::kDebug, "below the threshold");
    logAt(LogLevel::kWarning, "refused");
    char buffer[2048];
    const ssize_t first = recv(sock, buffer, sizeof buffer, 0);
    ASSERT_GT(first, 0);
    const std::string notice(buffer, size_t(first));
    EXPECT_EQ(notice.rfind("<29>", 0), 0u) << notice;
    EXPECT_NE(
        notice.find(" kelpagent[" + std::to_string(getpid()) + "]: serving the model sample.xml"),
        std::string::npos)
        << notice;
    const ssize_t second = recv(sock, buffer, sizeof buffer, 0);
    ASSERT_GT(second, 0);
    const std::string warning(buffer, size_t(second));
    EXPECT_EQ(warning.rfind("<28>", 0), 0u) << warning;
    EXPECT_NE(warning.find("]: refused"), std::string::npos) << warning;

    logOpen(LogSink::kStderrStamped, LogLevel::kInfo);
    unsetenv("KELP_SYSLOG_SOCKET");
    close(sock);
    unlink(path.c_str());
    rmdir(dir);
}

TEST(Log, StderrLinesCarryThePriorityPrefixWhenAsked)
{
    const auto when = std::chrono::system_clock::from_time_t(1795000000) + 7ms;
    struct Case {
        LogLevel level;
        bool stamped, priorities;
        std::string pattern;
    };
    const Case cases[] = {
        {LogLevel::kNotice, false, true, R"(<5>kelpagent: body\n)"},
        {LogLevel::kError, false, true, R"(<3>kelpagent: body\n)"},
        {LogLevel::kWarning, false, true, R"(<4>kelpagent: body\n)"},
        {LogLevel::kInfo, false, true, R"(<6>kelpagent: body\n)"},
        {LogLevel::kDebug, false, true, R"(<7>kelpagent: body\n)"},
        {LogLevel::kNotice, false, false, R"(kelpagent: body\n)"},
        {LogLevel::kWarning, true, true,
         R"(<4>\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.007 kelpagent: body\n)"},
        {LogLevel::kWarning, true, false,
         R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.007 kelpagent: body\n)"},
    };
    for (const Case &c : cases) {
        const std::string line = stderrLine(c.level, when, "body", c.stamped, c.priorities);
        EXPECT_TRUE(std::regex_match(line, std::regex(c.pattern))) << line;
    }
    EXPECT_EQ(priorityPrefix(LogLevel::kError), "<3>");
}

TEST(Log, SyslogWithoutItsSocketIsRefusedAndTheSinkStays)
{
    setenv("KELP_SYSLOG_SOCKET", "/nonexistent-kelp-dir/log", 1);
    EXPECT_EQ(syslogSocketPath(), "/nonexistent-kelp-dir/log");
    std::string error;
    EXPECT_FALSE(logOpen(LogSink::kSyslog, LogLevel::kInfo, false, &error));
    EXPECT_NE(error.find("/nonexistent-kelp-dir/log"), std::string::npos) << error;
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    // A path too long for a socket address is a reason too, not an overrun.
    setenv("KELP_SYSLOG_SOCKET", ("/tmp/" + std::string(200, 'x')).c_str(), 1);
    error.clear();
    EXPECT_FALSE(logOpen(LogSink::kSyslog, LogLevel::kInfo, false, &error));
    EXPECT_NE(error.find("too long"), std::string::npos) << error;
    unsetenv("KELP_SYSLOG_SOCKET");
    EXPECT_EQ(syslogSocketPath(), "/dev/log");

    testing::internal::CaptureStderr();
    logLine("still on stderr");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("kelpagent: still on stderr\n"),
              std::string::npos);
}

TEST(Log, ALineWithoutMemoryToFormatItIsWrittenAsItStands)
{
    ASSERT_TRUE(logOpen(LogSink::kStderrStamped, LogLevel::kInfo));
    testing::internal::CaptureStderr();
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    logAt(LogLevel::kWarning, "out of memory: %s", "a request was dropped");
    kelp::test::failNthAllocation(0);
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(kelp::test::failedAllocations(), failedBefore + 1);
    EXPECT_EQ(written, "kelpagent: out of memory: a request was dropped\n");
    // The next line has its stamp again.
    testing::internal::CaptureStderr();
    logLine("memory is back");
    const std::string next = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(next, std::regex(R"(\d{4}-.* kelpagent: memory is back\n)")))
        << next;
}

TEST(Log, AnIntervalLetsOneEventThroughWhicheverThreadAsks)
{
    LogInterval interval(60s);
    const auto t0 = LogInterval::Clock::time_point{} + 1000s;
    EXPECT_TRUE(interval.allow(t0));
    EXPECT_FALSE(interval.allow(t0 + 1s));
    EXPECT_FALSE(interval.allow(t0 + 59s));
    EXPECT_TRUE(interval.allow(t0 + 60s));
    EXPECT_FALSE(interval.allow(t0 + 61s));
    // The first event ever goes through, whatever the clock reads.
    LogInterval early(60s);
    EXPECT_TRUE(early.allow(LogInterval::Clock::time_point{}));
    // Of threads asking at once, one is let through.
    LogInterval shared(60s);
    std::atomic<int> allowed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&] { allowed += shared.allow(t0) ? 1 : 0; });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(allowed.load(), 1);
}

TEST(Log, AnIntervalsWarningIsLoggedOnceWithinTheInterval)
{
    ASSERT_TRUE(logOpen(LogSink::kStderrPlain, LogLevel::kInfo));
    LogInterval interval(60s);
    testing::internal::CaptureStderr();
    interval.warn("out of memory: a request was dropped");
    interval.warn("out of memory: a request was dropped");
    const std::string written = testing::internal::GetCapturedStderr();
    // Once, as a warning (priority 4).
    EXPECT_EQ(written, "<4>kelpagent: out of memory: a request was dropped\n");
}

TEST(Log, ARateLimitLetsOneEventPerKeyThroughEachInterval)
{
    LogRateLimit limit(60s, 16);
    const auto t0 = LogRateLimit::Clock::time_point{} + 1000s;
    EXPECT_TRUE(limit.allow("127.0.0.1", t0));
    EXPECT_FALSE(limit.allow("127.0.0.1", t0 + 1s));
    EXPECT_FALSE(limit.allow("127.0.0.1", t0 + 59s));
    EXPECT_TRUE(limit.allow("::1", t0 + 1s)) << "another source has its own interval";
    EXPECT_TRUE(limit.allow("127.0.0.1", t0 + 60s));
    EXPECT_FALSE(limit.allow("127.0.0.1", t0 + 61s));
}

TEST(Log, ARateLimitHoldsABoundedNumberOfKeys)
{
    LogRateLimit limit(60s, 4);
    const auto t0 = LogRateLimit::Clock::time_point{} + 1000s;
    for (int i = 0; i < 4; i++) {
        EXPECT_TRUE(limit.allow("10.0.0." + std::to_string(i), t0 + std::chrono::seconds(i)));
    }
    // Full, nothing expired: the oldest key (10.0.0.0) makes room.
    EXPECT_TRUE(limit.allow("10.0.0.9", t0 + 10s));
    EXPECT_TRUE(limit.allow("10.0.0.0", t0 + 11s)) << "the oldest key was forgotten";
    EXPECT_FALSE(limit.allow("10.0.0.3", t0 + 12s)) << "a younger key is still held";
}

TEST(Log, ARateLimitWithACapLetsAtMostThatManyKeysThroughAnInterval)
{
    // A flood of new sources (spoofed ones, say) is held to 3 lines a minute
    // and one line saying so.
    LogRateLimit limit(60s, 1024, 3);
    const auto t0 = LogRateLimit::Clock::time_point{} + 1000s;
    EXPECT_FALSE(limit.takeCapped());
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(limit.allow("10.0.0." + std::to_string(i), t0 + std::chrono::seconds(i)));
    }
    EXPECT_FALSE(limit.takeCapped()) << "nothing refused for the cap yet";
    EXPECT_FALSE(limit.allow("10.0.0.3", t0 + 3s));
    EXPECT_FALSE(limit.allow("10.0.0.4", t0 + 4s));
    EXPECT_TRUE(limit.takeCapped());
    EXPECT_FALSE(limit.takeCapped()) << "said once an interval";
    EXPECT_FALSE(limit.allow("10.0.0.0", t0 + 30s)) << "its own interval holds it too";
    // The interval that began at t0 has ended: new keys go through again,
    // and 10.0.0.3, refused for the cap, was not held.
    EXPECT_TRUE(limit.allow("10.0.0.3", t0 + 60s));
    EXPECT_FALSE(limit.takeCapped());
    EXPECT_TRUE(limit.allow("10.0.0.5", t0 + 61s));
    EXPECT_TRUE(limit.allow("10.0.0.6", t0 + 62s));
    EXPECT_FALSE(limit.allow("10.0.0.7", t0 + 63s));
    EXPECT_TRUE(limit.takeCapped()) << "said again in the new interval";
}

} // namespace
} // namespace kelp::agent
