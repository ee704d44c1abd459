// A sink's queue: its bounds in messages and bytes, the count of drops and
// the report of them at most once a minute, stream writes that stop in the
// middle of a message and go on from there, and datagrams, on socket pairs
// and loopback sockets.
#include "traps/sinkqueue.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

SinkMessage message(size_t size, char fill)
{
    return std::make_shared<const std::string>(size, fill);
}

// Both ends of a socket pair, closed at the end of the test.
struct Pair {
    explicit Pair(int type)
    {
        int fds[2];
        ok = socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) == 0;
        ours = ok ? fds[0] : -1;
        theirs = ok ? fds[1] : -1;
    }
    ~Pair()
    {
        closeTheirs();
        if (ours >= 0) {
            close(ours);
        }
    }
    void closeTheirs()
    {
        if (theirs >= 0) {
            close(theirs);
            theirs = -1;
        }
    }
    // Everything the peer can read now.
    std::string drain() const
    {
        std::string got;
        char buffer[65536];
        ssize_t n;
        while ((n = read(theirs, buffer, sizeof buffer)) > 0) {
            got.append(buffer, static_cast<size_t>(n));
        }
        return got;
    }
    bool ok = false;
    int ours = -1;
    int theirs = -1;
};

TEST(SinkQueue, AMessagePastTheCountBoundIsDroppedAndCounted)
{
    SinkQueue queue(SinkLimits{3, 1000});
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(queue.push(message(10, 'a')));
    }
    EXPECT_FALSE(queue.push(message(10, 'b')));
    EXPECT_EQ(queue.messages(), 3u);
    EXPECT_EQ(queue.bytes(), 30u);
    EXPECT_EQ(queue.droppedTotal(), 1u);
}

TEST(SinkQueue, AMessagePastTheByteBoundIsDroppedWhileSmallerOnesStillFit)
{
    SinkQueue queue(SinkLimits{100, 100});
    EXPECT_TRUE(queue.push(message(60, 'a')));
    EXPECT_FALSE(queue.push(message(41, 'b')));
    EXPECT_TRUE(queue.push(message(40, 'c')));
    EXPECT_EQ(queue.bytes(), 100u);
    EXPECT_FALSE(queue.push(message(1, 'd')));
    EXPECT_EQ(queue.droppedTotal(), 2u);

    SinkQueue empty(SinkLimits{100, 100});
    EXPECT_FALSE(empty.push(message(101, 'e'))) << "a message over the bound never fits";
    EXPECT_TRUE(empty.empty());
}

TEST(SinkQueue, ADrainedQueueTakesMessagesAgain)
{
    Pair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok);
    SinkQueue queue(SinkLimits{2, 1000});
    EXPECT_TRUE(queue.push(message(5, 'a')));
    EXPECT_TRUE(queue.push(message(5, 'b')));
    EXPECT_FALSE(queue.push(message(5, 'c')));
    int error = 0;
    EXPECT_EQ(queue.writeStream(pair.ours, &error), SinkWrite::kDrained);
    EXPECT_EQ(pair.drain(), "aaaaabbbbb");
    EXPECT_EQ(queue.bytes(), 0u);
    EXPECT_TRUE(queue.push(message(5, 'd')));
}

TEST(SinkQueue, StreamMessagesGoBackToBackAndAPartialWriteKeepsItsPlace)
{
    Pair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok);
    const int small = 4096;
    setsockopt(pair.ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    setsockopt(pair.theirs, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    SinkQueue queue(SinkLimits{10, 1 << 20});
    // Messages far larger than what the socket holds, each of its own bytes.
    std::string expected;
    for (char fill : {'x', 'y', 'z'}) {
        const SinkMessage one = message(100000, fill);
        expected += *one;
        ASSERT_TRUE(queue.push(one));
    }
    int error = 0;
    ASSERT_EQ(queue.writeStream(pair.ours, &error), SinkWrite::kBlocked);
    EXPECT_GT(queue.written(), 0u) << "the first message went out in part";
    EXPECT_LT(queue.written(), 100000u);
    EXPECT_EQ(queue.messages(), 3u);

    std::string received;
    for (int round = 0; round < 10000 && !queue.empty(); round++) {
        received += pair.drain();
        const SinkWrite result = queue.writeStream(pair.ours, &error);
        ASSERT_NE(result, SinkWrite::kBroken) << error;
    }
    received += pair.drain();
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(received.size(), expected.size());
    EXPECT_TRUE(received == expected) << "every byte once, in order, nothing between messages";
}

TEST(SinkQueue, AfterALostConnectionThePartialMessageGoesAgainWhole)
{
    Pair first(SOCK_STREAM);
    ASSERT_TRUE(first.ok);
    const int small = 4096;
    setsockopt(first.ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    SinkQueue queue;
    ASSERT_TRUE(queue.push(message(50000, 'p')));
    ASSERT_TRUE(queue.push(message(10, 'q')));
    int error = 0;
    ASSERT_EQ(queue.writeStream(first.ours, &error), SinkWrite::kBlocked);
    ASSERT_GT(queue.written(), 0u);

    queue.restartPartial();
    EXPECT_EQ(queue.written(), 0u);
    EXPECT_EQ(queue.messages(), 2u);
    Pair second(SOCK_STREAM);
    ASSERT_TRUE(second.ok);
    std::string received;
    for (int round = 0; round < 10000 && !queue.empty(); round++) {
        ASSERT_NE(queue.writeStream(second.ours, &error), SinkWrite::kBroken);
        received += second.drain();
    }
    EXPECT_EQ(received, std::string(50000, 'p') + std::string(10, 'q'));
}

TEST(SinkQueue, AStreamWhosePeerIsGoneIsBrokenAndKeepsItsMessages)
{
    Pair pair(SOCK_STREAM);
    ASSERT_TRUE(pair.ok);
    pair.closeTheirs();
    SinkQueue queue;
    ASSERT_TRUE(queue.push(message(10, 'a')));
    int error = 0;
    EXPECT_EQ(queue.writeStream(pair.ours, &error), SinkWrite::kBroken);
    EXPECT_EQ(error, EPIPE);
    EXPECT_EQ(queue.messages(), 1u);
}

TEST(SinkQueue, EachMessageIsOneDatagramAndAFullPeerBlocks)
{
    Pair pair(SOCK_DGRAM);
    ASSERT_TRUE(pair.ok);
    SinkQueue queue(SinkLimits{10000, 1 << 20});
    for (int i = 0; i < 2000; i++) {
        ASSERT_TRUE(queue.push(message(100, static_cast<char>('a' + i % 26))));
    }
    // A Unix datagram peer holds a limited number of datagrams.
    ASSERT_EQ(queue.writeDatagrams(pair.ours, nullptr, 0), SinkWrite::kBlocked);
    EXPECT_GT(queue.messages(), 0u);
    EXPECT_LT(queue.messages(), 2000u);

    std::vector<std::string> received;
    char buffer[1000];
    for (int round = 0; round < 10000 && received.size() < 2000; round++) {
        ssize_t n;
        while ((n = recv(pair.theirs, buffer, sizeof buffer, 0)) > 0) {
            received.emplace_back(buffer, static_cast<size_t>(n));
        }
        queue.writeDatagrams(pair.ours, nullptr, 0);
    }
    ASSERT_EQ(received.size(), 2000u);
    for (size_t i = 0; i < received.size(); i++) {
        ASSERT_EQ(received[i], std::string(100, static_cast<char>('a' + i % 26))) << i;
    }
    EXPECT_EQ(queue.droppedTotal(), 0u);
}

TEST(SinkQueue, ADatagramTheSystemRefusesIsDroppedAndTheNextStillGoes)
{
    const int receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int sender = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_GE(receiver, 0);
    ASSERT_GE(sender, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof to;
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    ASSERT_EQ(getsockname(receiver, reinterpret_cast<sockaddr *>(&to), &length), 0);

    SinkQueue queue(SinkLimits{10, 1 << 20});
    ASSERT_TRUE(queue.push(message(70000, 'L'))); // more than a UDP datagram holds
    ASSERT_TRUE(queue.push(message(20, 's')));
    EXPECT_EQ(queue.writeDatagrams(sender, reinterpret_cast<sockaddr *>(&to), sizeof to),
              SinkWrite::kDrained);
    char buffer[100];
    EXPECT_EQ(recv(receiver, buffer, sizeof buffer, 0), 20);
    EXPECT_EQ(queue.droppedTotal(), 1u);
    const std::optional<DropReport> report = queue.takeDropReport(SinkClock::now());
    ASSERT_TRUE(report.has_value());
    EXPECT_EQ(report->refused, 1u);
    EXPECT_EQ(report->full, 0u);
    EXPECT_EQ(report->lastRefusalError, EMSGSIZE);
    close(sender);
    close(receiver);
}

TEST(SinkQueue, DropsAreReportedAtOnceThenAtMostOnceAMinuteWithTheCountSinceTheLastLine)
{
    SinkQueue queue(SinkLimits{1, 1000});
    const SinkClock::time_point start{std::chrono::hours(1)};
    EXPECT_FALSE(queue.takeDropReport(start).has_value()) << "nothing dropped, nothing to say";
    EXPECT_FALSE(queue.nextDropReport().has_value());

    ASSERT_TRUE(queue.push(message(1, 'a')));
    EXPECT_FALSE(queue.push(message(1, 'b')));
    std::optional<DropReport> first = queue.takeDropReport(start);
    ASSERT_TRUE(first.has_value()) << "the first drop is reported at once";
    EXPECT_EQ(first->full, 1u);

    for (int i = 0; i < 5; i++) {
        EXPECT_FALSE(queue.push(message(1, 'c')));
    }
    EXPECT_FALSE(queue.takeDropReport(start + 59s).has_value());
    ASSERT_TRUE(queue.nextDropReport().has_value());
    EXPECT_EQ(*queue.nextDropReport(), start + kDropReportInterval);
    std::optional<DropReport> second = queue.takeDropReport(start + 60s);
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(second->full, 5u) << "the drops since the line before";

    EXPECT_FALSE(queue.nextDropReport().has_value()) << "nothing pending";
    EXPECT_FALSE(queue.takeDropReport(start + 300s).has_value());
    EXPECT_FALSE(queue.push(message(1, 'd')));
    EXPECT_EQ(*queue.nextDropReport(), start + 120s);
    EXPECT_FALSE(queue.takeDropReport(start + 119s).has_value());
    EXPECT_EQ(queue.takeDropReport(start + 121s)->full, 1u);
    EXPECT_EQ(queue.droppedTotal(), 7u);
}

TEST(SinkQueue, TheLostAtStopLineCountsWhatWaitedAndWhatWasUnderWay)
{
    EXPECT_EQ(lostAtStopLine("tcp:192.0.2.1:162", 0, 0, false), "");
    EXPECT_EQ(lostAtStopLine("tcp:192.0.2.1:162", 4, 0, false),
              "trap sink tcp:192.0.2.1:162 at the stop: 4 traps still waiting dropped");
    EXPECT_EQ(lostAtStopLine("inform:udp:192.0.2.1:162", 1, 2, true),
              "trap sink inform:udp:192.0.2.1:162 at the stop: 1 inform still waiting dropped, "
              "2 informs sent and not acknowledged");
    EXPECT_EQ(lostAtStopLine("x", 0, 1, true),
              "trap sink x at the stop: 1 inform sent and not acknowledged");
}

TEST(SinkQueue, PendingDropsAreTakenWhetherOrNotTheirReportIsDue)
{
    SinkQueue queue(SinkLimits{1, 1000});
    EXPECT_FALSE(queue.takePendingDrops().has_value());
    ASSERT_TRUE(queue.push(std::make_shared<const std::string>("a")));
    EXPECT_FALSE(queue.push(std::make_shared<const std::string>("b")));
    const SinkClock::time_point start{std::chrono::hours(1)};
    ASSERT_TRUE(queue.takeDropReport(start).has_value()); // the first, at once
    EXPECT_FALSE(queue.push(std::make_shared<const std::string>("c")));
    EXPECT_FALSE(queue.takeDropReport(start + std::chrono::seconds(1)).has_value())
        << "the next report is a minute away";
    const std::optional<DropReport> last = queue.takePendingDrops();
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(last->full, 1u);
    EXPECT_FALSE(queue.takePendingDrops().has_value());
}

TEST(SinkQueue, TheDropLineNamesTheSinkTheCountsAndTheReasons)
{
    const SinkLimits limits{1000, 1048576};
    EXPECT_EQ(dropLine("tcp:192.0.2.1:162", DropReport{523, 0, 0}, limits),
              "trap sink tcp:192.0.2.1:162: 523 traps dropped since the last report: 523 with "
              "the queue full (1000 traps or 1048576 bytes waiting)");
    EXPECT_EQ(dropLine("udp:192.0.2.1:162", DropReport{0, 1, EMSGSIZE}, limits),
              "trap sink udp:192.0.2.1:162: 1 trap dropped since the last report: 1 refused by "
              "the system (Message too long)");
    EXPECT_EQ(dropLine("x", DropReport{2, 3, ENETUNREACH}, limits),
              "trap sink x: 5 traps dropped since the last report: 2 with the queue full (1000 "
              "traps or 1048576 bytes waiting), 3 refused by the system (Network is "
              "unreachable)");
    EXPECT_EQ(dropLine("inform:udp:192.0.2.1:162", DropReport{0, 0, 0, 1, 6}, limits),
              "trap sink inform:udp:192.0.2.1:162: 1 trap dropped since the last report: 1 "
              "inform given up unacknowledged after 6 sends");
    EXPECT_EQ(dropLine("y", DropReport{1, 0, 0, 4, 1}, limits),
              "trap sink y: 5 traps dropped since the last report: 1 with the queue full (1000 "
              "traps or 1048576 bytes waiting), 4 informs given up unacknowledged after 1 send");
}

TEST(SinkQueue, GivenUpInformsAreReportedLikeOtherDrops)
{
    SinkQueue queue;
    const SinkClock::time_point start{std::chrono::hours(1)};
    queue.noteUnacknowledged(0, 3);
    EXPECT_FALSE(queue.nextDropReport().has_value()) << "nothing given up, nothing to report";
    queue.noteUnacknowledged(2, 3);
    EXPECT_EQ(queue.droppedTotal(), 2u);
    const std::optional<DropReport> report = queue.takeDropReport(start);
    ASSERT_TRUE(report.has_value()) << "the first drop is reported at once";
    EXPECT_EQ(report->unacknowledged, 2u);
    EXPECT_EQ(report->informSends, 3);
    queue.noteUnacknowledged(1, 3);
    EXPECT_FALSE(queue.takeDropReport(start + std::chrono::seconds(59)).has_value());
    EXPECT_EQ(queue.takeDropReport(start + std::chrono::seconds(60))->unacknowledged, 1u);
}

} // namespace
} // namespace kelp::agent
