// One trap sink run by hand on loopback sockets: UDP datagrams at once, a
// TCP connection made without blocking, the back-off after a refusal, a
// receiver that closes or never answers, the queue kept across
// reconnections, and what the loop is asked to watch. Times are the test's
// own; the sockets are real.
#include "traps/trapsink.h"

#include "traps/pduhead.h"
#include "traps/pduhead_testing.h"

#include "testing/failing_new.h"
#include "testing/loopback_sockets.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

// The loop's side: what the sink asked for last.
struct FakeLoop : SinkLoop {
    void watch(TrapSink *, int f, bool r, bool w) override
    {
        if (!r && !w) {
            forgotten.push_back(f);
            fd = -1;
        } else {
            fd = f;
        }
        readable = r;
        writable = w;
    }
    void wakeAt(TrapSink *, std::optional<SinkClock::time_point> when) override { wake = when; }

    int fd = -1;
    bool readable = false;
    bool writable = false;
    std::vector<int> forgotten;
    std::optional<SinkClock::time_point> wake;
};

// Polls what the loop watches and hands the sink its events until `done`
// holds (real time, at most 5 s).
template <typename Done>
bool runUntil(TrapSink &sink, FakeLoop &loop, SinkClock::time_point now, Done done)
{
    for (int round = 0; round < 500 && !done(); round++) {
        if (loop.fd < 0) {
            return done();
        }
        pollfd entry{
            loop.fd,
            static_cast<short>((loop.readable ? POLLIN : 0) | (loop.writable ? POLLOUT : 0)), 0};
        if (poll(&entry, 1, 10) <= 0) {
            continue;
        }
        if ((entry.revents & (POLLIN | POLLHUP | POLLERR)) != 0 && loop.readable) {
            sink.onReadable(now);
        }
        if ((entry.revents & (POLLOUT | POLLHUP | POLLERR)) != 0 && loop.writable &&
            loop.fd == entry.fd) {
            sink.onWritable(now);
        }
    }
    return done();
}

using kelp::test::boundSocket;
using kelp::test::closedPort;
using kelp::test::listener;
using kelp::test::loopback;
using kelp::test::portOf;

SinkAddress addressOf(int port, bool stream)
{
    SinkAddress address;
    address.name = std::string(stream ? "tcp" : "udp") + ":127.0.0.1:" + std::to_string(port);
    address.stream = stream;
    const sockaddr_in at = loopback(port);
    std::memcpy(&address.address, &at, sizeof at);
    address.length = sizeof at;
    return address;
}

SinkMessage message(const std::string &text)
{
    return std::make_shared<const std::string>(text);
}

// Reads from `fd` until `size` bytes came or 5 s passed.
std::string receive(int fd, size_t size)
{
    std::string got;
    char buffer[65536];
    for (int round = 0; round < 500 && got.size() < size; round++) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 10) > 0) {
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                break;
            }
            got.append(buffer, static_cast<size_t>(n));
        }
    }
    return got;
}

const SinkClock::time_point kStart{std::chrono::hours(100)};

TEST(Backoff, DoublesFromOneSecondToAMinuteAndStartsOverAfterAReset)
{
    Backoff backoff;
    std::vector<long long> delays;
    for (int i = 0; i < 8; i++) {
        delays.push_back(backoff.next().count());
    }
    EXPECT_EQ(delays, (std::vector<long long>{1, 2, 4, 8, 16, 32, 60, 60}));
    EXPECT_FALSE(backoff.atFirst());
    backoff.reset();
    EXPECT_TRUE(backoff.atFirst());
    EXPECT_EQ(backoff.next(), 1s);
}

TEST(OneTrapSink, AUdpSinkSendsEachMessageAsADatagramAtOnce)
{
    const int receiver = boundSocket(SOCK_DGRAM);
    ASSERT_GE(receiver, 0);
    FakeLoop loop;
    TrapSink sink(addressOf(portOf(receiver), false), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error)) << error;
    EXPECT_EQ(sink.state(), TrapSink::State::kReady);
    EXPECT_TRUE(sink.send(message("first"), kStart));
    EXPECT_TRUE(sink.send(message("second"), kStart));
    EXPECT_TRUE(sink.queue().empty());
    EXPECT_EQ(loop.fd, -1) << "nothing waits, nothing is watched";
    char buffer[100];
    ASSERT_EQ(recv(receiver, buffer, sizeof buffer, 0), 5);
    EXPECT_EQ(std::string(buffer, 5), "first");
    ASSERT_EQ(recv(receiver, buffer, sizeof buffer, 0), 6);
    EXPECT_EQ(std::string(buffer, 6), "second");
    close(receiver);
}

TEST(OneTrapSink, ADatagramTheSystemRefusesAtOnceIsNotSent)
{
    FakeLoop loop;
    // Port 0: sendto answers EINVAL.
    TrapSink sink(addressOf(0, false), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error)) << error;
    EXPECT_FALSE(sink.send(message("refused"), kStart));
    EXPECT_TRUE(sink.queue().empty());
    EXPECT_EQ(sink.queue().droppedTotal(), 1u);
}

TEST(OneTrapSink, ATcpSinkConnectsWithoutBlockingAndSendsWhatWaitedInOrder)
{
    const int server = listener(0);
    ASSERT_GE(server, 0);
    FakeLoop loop;
    TrapSink sink(addressOf(portOf(server), true), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    EXPECT_TRUE(sink.send(message("one."), kStart));
    EXPECT_TRUE(sink.send(message("two."), kStart));
    ASSERT_TRUE(
        runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kConnected; }));
    ASSERT_TRUE(runUntil(sink, loop, kStart, [&] { return sink.queue().empty(); }));
    EXPECT_TRUE(loop.readable) << "a connected sink learns from reading when the peer closes";
    EXPECT_FALSE(loop.writable) << "an empty queue is not watched for writing";
    const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(accepted, 0);
    EXPECT_TRUE(sink.send(message("three."), kStart));
    EXPECT_EQ(receive(accepted, 14), "one.two.three.");
    close(accepted);
    close(server);
}

TEST(OneTrapSink, ARefusedConnectionIsRetriedWithBackOffAndTheTrapsWait)
{
    const int port = closedPort();
    FakeLoop loop;
    TrapSink sink(addressOf(port, true), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error)) << "a refusal is retried, not fatal";
    EXPECT_TRUE(sink.send(message("waiting."), kStart));
    ASSERT_TRUE(
        runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink.retryAt(), kStart + 1s);
    EXPECT_EQ(loop.wake, kStart + 1s);
    EXPECT_EQ(loop.fd, -1) << "the closed socket is forgotten";

    sink.onTimer(kStart + 1s);
    ASSERT_TRUE(runUntil(sink, loop, kStart + 1s,
                         [&] { return sink.state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink.retryAt(), kStart + 3s) << "the second delay is twice the first";
    EXPECT_EQ(sink.queue().messages(), 1u);

    // The receiver comes up; the next attempt delivers what waited.
    const int server = listener(port);
    ASSERT_GE(server, 0);
    sink.onTimer(kStart + 2s);
    EXPECT_EQ(sink.state(), TrapSink::State::kWaiting) << "not before its time";
    sink.onTimer(kStart + 3s);
    ASSERT_TRUE(runUntil(sink, loop, kStart + 3s, [&] { return sink.queue().empty(); }));
    const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(accepted, 0);
    EXPECT_EQ(receive(accepted, 8), "waiting.");
    close(accepted);
    close(server);
}

// A TCP sink connected to a receiver that reads slowly (a small receive
// buffer), with a message larger than both sockets' buffers under way in
// part: what happens to the connection must not cut the message.
class PartlySentMessage : public ::testing::Test {
  protected:
    void SetUp() override
    {
        server = listener(0);
        ASSERT_GE(server, 0);
        const int small = 2048;
        setsockopt(server, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sink = std::make_unique<TrapSink>(addressOf(portOf(server), true), &loop);
        std::string error;
        ASSERT_TRUE(sink->open(kStart, &error));
        ASSERT_TRUE(runUntil(*sink, loop, kStart,
                             [&] { return sink->state() == TrapSink::State::kConnected; }));
        accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
        ASSERT_GE(accepted, 0);
        ASSERT_TRUE(sink->send(message(big), kStart));
        ASSERT_GT(sink->queue().written(), 0u) << "under way in part";
        ASSERT_FALSE(sink->queue().empty());
    }
    void TearDown() override
    {
        sink.reset();
        close(accepted);
        close(server);
    }

    // The sink's next connection, at `now`, and all it sends there.
    std::string receivedOnTheNextConnection(SinkClock::time_point now)
    {
        if (!runUntil(*sink, loop, now,
                      [&] { return sink->state() == TrapSink::State::kConnected; })) {
            return "(not connected)";
        }
        close(accepted);
        accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
        std::string received;
        for (int round = 0; round < 2000 && received.size() < big.size(); round++) {
            runUntil(*sink, loop, now, [] { return true; });
            received += receive(accepted, 1);
            sink->onWritable(now);
        }
        return received + receive(accepted, big.size() - received.size());
    }

    const std::string big = std::string(1 << 20, 'B');
    int server = -1;
    int accepted = -1;
    FakeLoop loop;
    std::unique_ptr<TrapSink> sink;
};

TEST_F(PartlySentMessage, AReceiverThatClosesIsReconnectedAndGetsTheMessageWhole)
{
    close(accepted);
    accepted = -1;
    ASSERT_TRUE(
        runUntil(*sink, loop, kStart, [&] { return sink->state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink->queue().written(), 0u);
    EXPECT_EQ(sink->queue().messages(), 1u);

    sink->onTimer(sink->retryAt());
    const std::string received = receivedOnTheNextConnection(kStart + 1s);
    EXPECT_EQ(received.size(), big.size());
    EXPECT_TRUE(received == big) << "the whole message from its first byte";
}

TEST(OneTrapSink, AConnectionThatNeverCompletesIsGivenUpAndItsQueueOverflows)
{
    // A listener whose backlog is full: the kernel answers no further SYN.
    const int server = listener(0, 0);
    ASSERT_GE(server, 0);
    const int filler = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_in at = loopback(portOf(server));
    connect(filler, reinterpret_cast<const sockaddr *>(&at), sizeof at);
    pollfd entry{filler, POLLOUT, 0};
    ASSERT_EQ(poll(&entry, 1, 5000), 1);

    FakeLoop loop;
    TrapSink sink(addressOf(portOf(server), true), &loop, SinkLimits{3, 1000});
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    // A tenth of a second of the loop changes nothing.
    runUntil(sink, loop, kStart, [rounds = 0]() mutable { return ++rounds > 10; });
    ASSERT_EQ(sink.state(), TrapSink::State::kConnecting);
    EXPECT_TRUE(loop.writable);
    sink.onWritable(kStart);
    EXPECT_EQ(sink.state(), TrapSink::State::kConnecting)
        << "a wake-up before the connection is made changes nothing";
    EXPECT_EQ(loop.wake, kStart + kConnectTimeout);
    for (int i = 0; i < 5; i++) {
        sink.send(message("m" + std::to_string(i)), kStart);
    }
    EXPECT_EQ(sink.queue().messages(), 3u);
    EXPECT_EQ(sink.queue().droppedTotal(), 2u);

    sink.onTimer(kStart + kConnectTimeout - 1s);
    EXPECT_EQ(sink.state(), TrapSink::State::kConnecting);
    sink.onTimer(kStart + kConnectTimeout);
    EXPECT_EQ(sink.state(), TrapSink::State::kWaiting);
    EXPECT_EQ(sink.retryAt(), kStart + kConnectTimeout + 1s);
    EXPECT_EQ(sink.queue().messages(), 3u);
    EXPECT_EQ(loop.fd, -1);
    close(filler);
    close(server);
}

TEST(OneTrapSink, AConnectionThatLastedStartsTheBackOffOver)
{
    const int server = listener(0);
    ASSERT_GE(server, 0);
    FakeLoop loop;
    TrapSink sink(addressOf(portOf(server), true), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    ASSERT_TRUE(
        runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kConnected; }));
    // Accepted and closed at once: the back-off grows.
    close(accept4(server, nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(
        runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink.retryAt(), kStart + 1s);
    sink.onTimer(kStart + 1s);
    ASSERT_TRUE(runUntil(sink, loop, kStart + 1s,
                         [&] { return sink.state() == TrapSink::State::kConnected; }));
    close(accept4(server, nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(runUntil(sink, loop, kStart + 2s,
                         [&] { return sink.state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink.retryAt(), kStart + 4s);

    // This one stays up long enough before it goes.
    sink.onTimer(kStart + 4s);
    ASSERT_TRUE(runUntil(sink, loop, kStart + 4s,
                         [&] { return sink.state() == TrapSink::State::kConnected; }));
    const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    close(accepted);
    const SinkClock::time_point later = kStart + 4s + kStableConnection;
    ASSERT_TRUE(
        runUntil(sink, loop, later, [&] { return sink.state() == TrapSink::State::kWaiting; }));
    EXPECT_EQ(sink.retryAt(), later + 1s);
    close(server);
}

TEST(OneTrapSink, ClosingForgetsTheSocketAndTheTimer)
{
    FakeLoop loop;
    TrapSink sink(addressOf(closedPort(), true), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kWaiting; });
    ASSERT_TRUE(loop.wake.has_value());
    sink.close();
    EXPECT_EQ(sink.state(), TrapSink::State::kClosed);
    EXPECT_FALSE(loop.wake.has_value());

    const int server = listener(0);
    FakeLoop other;
    {
        TrapSink connected(addressOf(portOf(server), true), &other);
        ASSERT_TRUE(connected.open(kStart, &error));
        ASSERT_TRUE(runUntil(connected, other, kStart,
                             [&] { return connected.state() == TrapSink::State::kConnected; }));
        const int fd = connected.fd();
        ASSERT_EQ(other.fd, fd);
        // The destructor closes.
        connected.send(message("last."), kStart);
        EXPECT_EQ(other.forgotten.size(), 0u);
    }
    ASSERT_EQ(other.forgotten.size(), 1u);
    EXPECT_EQ(other.fd, -1);
    const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_EQ(receive(accepted, 5), "last.");
    close(accepted);
    close(server);
}

TEST_F(PartlySentMessage, AnEventOutOfMemoryStartsTheConnectionOverAndTheMessageGoesWhole)
{
    sink->outOfMemory(kStart);
    EXPECT_EQ(sink->state(), TrapSink::State::kWaiting);
    EXPECT_EQ(loop.fd, -1) << "the dropped connection is forgotten";
    EXPECT_EQ(sink->fd(), -1);
    EXPECT_EQ(loop.wake, kStart + kShortageRetry);
    EXPECT_EQ(sink->queue().messages(), 1u);
    EXPECT_EQ(sink->queue().written(), 0u) << "the message goes again from its start";

    sink->onTimer(kStart + kShortageRetry);
    const std::string received = receivedOnTheNextConnection(kStart + kShortageRetry);
    EXPECT_EQ(received.size(), big.size());
    EXPECT_TRUE(received == big) << "the whole message from its first byte";
}

// The descriptors the process holds.
size_t openDescriptors()
{
    size_t count = 0;
    for (int fd = 0; fd < 1024; fd++) {
        count += fcntl(fd, F_GETFD) != -1 ? 1u : 0u;
    }
    return count;
}

TEST(OneTrapSink, ARefusalWithoutMemoryToLogItChangesNothingAndLeaksNoSocket)
{
    FakeLoop loop;
    TrapSink sink(addressOf(closedPort(), true), &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    ASSERT_TRUE(
        runUntil(sink, loop, kStart, [&] { return sink.state() == TrapSink::State::kWaiting; }));
    ASSERT_EQ(sink.retryAt(), kStart + 1s);
    const size_t descriptors = openDescriptors();
    loop.forgotten.reserve(16); // the fake loop allocates nothing meanwhile

    // The next attempt is refused, and the reason it would log cannot be
    // made (or, refused later, the socket cannot be watched).
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    bool threw = false;
    try {
        sink.onTimer(kStart + 1s);
        runUntil(sink, loop, kStart + 1s,
                 [&] { return sink.state() == TrapSink::State::kWaiting; });
    } catch (const std::bad_alloc &) {
        threw = true;
    }
    kelp::test::failNthAllocation(0);
    ASSERT_TRUE(threw);
    ASSERT_EQ(kelp::test::failedAllocations(), failedBefore + 1);
    sink.outOfMemory(kStart + 1s);
    EXPECT_EQ(openDescriptors(), descriptors) << "the attempt's socket is closed";
    EXPECT_EQ(loop.wake, kStart + 1s + kShortageRetry);

    // The attempt after the shortage is the second of the series: its
    // refusal waits twice the first delay, as if the shortage had not been.
    sink.onTimer(kStart + 2s);
    ASSERT_TRUE(runUntil(sink, loop, kStart + 2s, [&] {
        return sink.state() == TrapSink::State::kWaiting && sink.fd() < 0;
    }));
    EXPECT_EQ(sink.retryAt(), kStart + 4s);
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(OneTrapSink, AUnixStreamSinkWorksLikeTcp)
{
    char dir[] = "/tmp/kelp-sink-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/sink.sock";
    const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    std::strcpy(at.sun_path, path.c_str());
    ASSERT_EQ(bind(server, reinterpret_cast<const sockaddr *>(&at), sizeof at), 0);
    ASSERT_EQ(listen(server, 4), 0);
    SinkAddress address;
    address.name = "unix:" + path;
    address.stream = true;
    std::memcpy(&address.address, &at, sizeof at);
    address.length = sizeof at;
    FakeLoop loop;
    TrapSink sink(address, &loop);
    std::string error;
    ASSERT_TRUE(sink.open(kStart, &error));
    EXPECT_TRUE(sink.send(message("local."), kStart));
    ASSERT_TRUE(runUntil(sink, loop, kStart, [&] { return sink.queue().empty(); }));
    const int accepted = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_EQ(receive(accepted, 6), "local.");
    close(accepted);
    close(server);
    unlink(path.c_str());
    rmdir(dir);
}

} // namespace
} // namespace kelp::agent

namespace kelp::agent {
namespace {

// An inform sink on a UDP receiver the test plays: it reads the informs and
// answers each with a Response of the inform's request-id, or does not.
class InformSink : public ::testing::Test {
  protected:
    void SetUp() override
    {
        receiver = boundSocket(SOCK_DGRAM);
        ASSERT_GE(receiver, 0);
        SinkAddress address = addressOf(portOf(receiver), false);
        address.name = "inform:" + address.name;
        address.inform = true;
        sink = std::make_unique<TrapSink>(address, &loop, kSinkLimits, InformPolicy{1s, 2, 2});
        std::string error;
        ASSERT_TRUE(sink->open(kStart, &error)) << error;
        EXPECT_TRUE(loop.readable) << "Responses are read from the start";
    }
    void TearDown() override
    {
        sink.reset();
        close(receiver);
    }

    // The request-ids of the informs that reached the receiver by now.
    std::vector<int32_t> received()
    {
        std::vector<int32_t> ids;
        char buffer[65536];
        for (;;) {
            pollfd entry{receiver, POLLIN, 0};
            if (poll(&entry, 1, 200) <= 0) {
                return ids;
            }
            const ssize_t n = recvfrom(receiver, buffer, sizeof buffer, 0,
                                       reinterpret_cast<sockaddr *>(&from), &fromLength);
            PduHead head;
            if (n > 0 && peekPdu(std::string_view(buffer, static_cast<size_t>(n)), &head)) {
                ids.push_back(head.requestId);
            }
        }
    }

    void answer(const std::string &datagram)
    {
        ASSERT_EQ(sendto(receiver, datagram.data(), datagram.size(), 0,
                         reinterpret_cast<const sockaddr *>(&from), fromLength),
                  static_cast<ssize_t>(datagram.size()));
    }

    bool acknowledged(size_t stillFlying)
    {
        return runUntil(*sink, loop, kStart, [&] { return sink->informs().size() == stillFlying; });
    }

    int receiver = -1;
    FakeLoop loop;
    std::unique_ptr<TrapSink> sink;
    sockaddr_storage from{};
    socklen_t fromLength = sizeof from;
};

TEST_F(InformSink, InformsWithinTheWindowGoAtOnceAndEachResponseLetsTheNextOneGo)
{
    for (const int32_t id : {501, 502, 503}) {
        ASSERT_TRUE(sink->send(message(testing::snmpMessage(kInformPduTag, id)), kStart));
    }
    EXPECT_EQ(received(), (std::vector<int32_t>{501, 502})) << "a window of two";
    EXPECT_EQ(sink->queue().messages(), 1u);
    // A stray Response, garbage and an inform are no acknowledgement.
    answer(testing::snmpMessage(kResponsePduTag, 999));
    answer("garbage");
    answer(testing::snmpMessage(kInformPduTag, 501));
    answer(testing::snmpMessage(kResponsePduTag, 502));
    // 502 is done, and 503 takes its place in the window.
    ASSERT_TRUE(runUntil(*sink, loop, kStart, [&] { return sink->queue().empty(); }));
    EXPECT_EQ(sink->informs().size(), 2u);
    EXPECT_EQ(received(), (std::vector<int32_t>{503}));
    answer(testing::snmpMessage(kResponsePduTag, 501));
    answer(testing::snmpMessage(kResponsePduTag, 503));
    ASSERT_TRUE(acknowledged(0));
    EXPECT_FALSE(loop.wake.has_value()) << "nothing left to time";
    EXPECT_EQ(sink->queue().droppedTotal(), 0u);
}

TEST_F(InformSink, AnUnacknowledgedInformIsSentAgainAndGivenUpAfterItsLastRetry)
{
    ASSERT_TRUE(sink->send(message(testing::snmpMessage(kInformPduTag, 7)), kStart));
    EXPECT_EQ(received(), (std::vector<int32_t>{7}));
    ASSERT_EQ(loop.wake, kStart + 1s);
    sink->onTimer(kStart + 1s);
    EXPECT_EQ(received(), (std::vector<int32_t>{7})) << "retry 1";
    ASSERT_EQ(loop.wake, kStart + 2s);
    sink->onTimer(kStart + 2s);
    EXPECT_EQ(received(), (std::vector<int32_t>{7})) << "retry 2";
    sink->onTimer(kStart + 3s);
    EXPECT_TRUE(received().empty()) << "given up: no third retry";
    EXPECT_TRUE(sink->informs().empty());
    EXPECT_EQ(sink->queue().droppedTotal(), 1u);
    // A late Response changes nothing; the sink still sends.
    answer(testing::snmpMessage(kResponsePduTag, 7));
    ASSERT_TRUE(sink->send(message(testing::snmpMessage(kInformPduTag, 8)), kStart + 4s));
    EXPECT_EQ(received(), (std::vector<int32_t>{8}));
}

TEST_F(InformSink, ASinkOutOfMemoryStopsWatchingItsSocketAndReadsItAgainAfterASecond)
{
    ASSERT_TRUE(sink->send(message(testing::snmpMessage(kInformPduTag, 31)), kStart));
    EXPECT_EQ(received(), (std::vector<int32_t>{31}));
    answer(testing::snmpMessage(kResponsePduTag, 31));
    // The Response is there, and reading it runs out of memory.
    pollfd entry{sink->fd(), POLLIN, 0};
    ASSERT_EQ(poll(&entry, 1, 5000), 1);
    kelp::test::failNthAllocation(1);
    EXPECT_THROW(sink->onReadable(kStart), std::bad_alloc);
    kelp::test::failNthAllocation(0);

    sink->outOfMemory(kStart);
    EXPECT_EQ(loop.fd, -1) << "a socket that stays readable would call again at once";
    EXPECT_GE(sink->fd(), 0) << "the socket is kept";
    EXPECT_EQ(loop.wake, kStart + kShortageRetry);
    EXPECT_EQ(sink->informs().size(), 1u);

    sink->onTimer(kStart + kShortageRetry);
    EXPECT_EQ(loop.fd, sink->fd());
    EXPECT_TRUE(loop.readable);
    ASSERT_TRUE(acknowledged(0)) << "the Response waiting is read";
    EXPECT_EQ(sink->queue().droppedTotal(), 0u);
}

TEST_F(InformSink, ARetriedInformThatIsThenAcknowledgedIsDone)
{
    ASSERT_TRUE(sink->send(message(testing::snmpMessage(kInformPduTag, 21)), kStart));
    EXPECT_EQ(received(), (std::vector<int32_t>{21}));
    sink->onTimer(kStart + 1s);
    EXPECT_EQ(received(), (std::vector<int32_t>{21}));
    answer(testing::snmpMessage(kResponsePduTag, 21));
    ASSERT_TRUE(acknowledged(0));
    sink->onTimer(kStart + 5s);
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(sink->queue().droppedTotal(), 0u);
}

} // namespace
} // namespace kelp::agent
