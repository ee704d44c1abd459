// The main loop's select leaves out the sockets the reading thread serves:
// that thread takes their datagrams, and a select that watched them would
// return at once until it had. The reading thread reads a request that
// arrives alone once.
#include "fairness.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/large_fd_set.h>

#include <gtest/gtest.h>

#include "testing/failing_new.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace kelp::agent;

int answerNothing(int, netsnmp_session *, int, netsnmp_pdu *, void *)
{
    return 1;
}

// The transport's own receive function, and how often it was called
// through countingReceive, which the reading thread takes for it.
using ReceiveFunction = int (*)(netsnmp_transport *, void *, int, void **, int *);
ReceiveFunction g_receive = nullptr;
std::atomic<int> g_receives{0};

int countingReceive(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                    int *opaqueLength)
{
    g_receives++;
    return g_receive(transport, buffer, size, opaque, opaqueLength);
}

// Waits up to `limit` for `done`.
template <typename Done> bool eventually(Done done, int limitMs = 5000)
{
    for (int i = 0; i < limitMs && !done(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

// A UDP session on a free loopback port that answers nothing, opened after
// a mark in the session list; the reading thread, if a test started it,
// is stopped and the session closed after each test, whatever failed.
class Fairness : public ::testing::Test {
  protected:
    void SetUp() override
    {
        mark_ = markSessions();
        netsnmp_transport *opened = netsnmp_transport_open_server("kelp-test", "udp:127.0.0.1:0");
        ASSERT_NE(opened, nullptr);
        netsnmp_session settings;
        snmp_sess_init(&settings);
        settings.callback = answerNothing;
        session_ = snmp_add(&settings, opened, nullptr, nullptr);
        ASSERT_NE(session_, nullptr);
        transport_ = snmp_sess_transport(snmp_sess_pointer(session_));
        ASSERT_NE(transport_, nullptr);
    }

    void TearDown() override
    {
        stopSharing();
        if (g_receive != nullptr && transport_ != nullptr) {
            transport_->f_recv = g_receive;
        }
        g_receive = nullptr;
        if (session_ != nullptr) {
            snmp_close(session_);
        }
        for (const int fd : senders_) {
            close(fd);
        }
    }

    // Puts `receive` in place of the transport's own receive function,
    // which it may call through g_receive, until the end of the test.
    void receiveThrough(ReceiveFunction receive)
    {
        g_receive = transport_->f_recv;
        transport_->f_recv = receive;
    }

    // Sends `bytes` to the session from 127.0.0.(source + 1), on a socket
    // closed after the test.
    bool sendFrom(int source, const std::string &bytes)
    {
        sockaddr_in to{};
        socklen_t length = sizeof to;
        if (getsockname(transport_->sock, reinterpret_cast<sockaddr *>(&to), &length) != 0) {
            return false;
        }
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = htonl(INADDR_LOOPBACK + uint32_t(source));
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        if (fd < 0) {
            return false;
        }
        senders_.push_back(fd);
        return bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) == 0 &&
               sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to),
                      sizeof to) == ssize_t(bytes.size());
    }

    bool send(const std::string &bytes) { return sendFrom(0, bytes); }

    // The next request in turn, as net-snmp takes it (the receive function
    // the reading thread put in place): its bytes, or "" with the result
    // and errno in *result and *error when there is none.
    std::string receiveInTurn(int *result = nullptr, int *error = nullptr)
    {
        char buffer[2048];
        void *opaque = nullptr;
        int opaqueLength = 0;
        errno = 0;
        const int received =
            transport_->f_recv(transport_, buffer, sizeof buffer, &opaque, &opaqueLength);
        if (error != nullptr) {
            *error = errno;
        }
        if (result != nullptr) {
            *result = received;
        }
        free(opaque);
        return received > 0 ? std::string(buffer, size_t(received)) : std::string();
    }

    // Sends a request and checks that it is the next one handed out.
    void expectTheNextRequestHandedOut()
    {
        ASSERT_TRUE(send("the next request"));
        ASSERT_TRUE(eventually(requestsWaiting));
        EXPECT_EQ(receiveInTurn(), "the next request");
    }

    SessionMark mark_;
    netsnmp_session *session_ = nullptr;
    netsnmp_transport *transport_ = nullptr;
    std::vector<int> senders_;
};

TEST_F(Fairness, TheSocketsTheReadingThreadServesAreLeftOutOfTheLoopsSelect)
{
    const int other = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(other, 0);

    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    NETSNMP_LARGE_FD_SET(transport_->sock, &fds);
    NETSNMP_LARGE_FD_SET(other, &fds);
    // Nothing is served in turn yet: the set stays as it is.
    leaveOutSharedSockets(&fds);
    EXPECT_TRUE(NETSNMP_LARGE_FD_ISSET(transport_->sock, &fds));

    shareBetweenSources(mark_, 4, [] {});
    leaveOutSharedSockets(&fds);
    EXPECT_FALSE(NETSNMP_LARGE_FD_ISSET(transport_->sock, &fds));
    EXPECT_TRUE(NETSNMP_LARGE_FD_ISSET(other, &fds));

    netsnmp_large_fd_set_cleanup(&fds);
    close(other);
}

TEST_F(Fairness, ARequestThatArrivesAloneIsReadOnce)
{
    g_receives = 0;
    receiveThrough(countingReceive);
    shareBetweenSources(mark_, 4, [] {});

    const char request[] = "a request";
    ASSERT_TRUE(send(std::string(request, sizeof request)));
    ASSERT_TRUE(eventually(requestsWaiting));
    // Joins the reading thread: any read it makes after the request's has
    // been made by then.
    stopSharing();
    EXPECT_EQ(g_receives.load(), 1);
}

// net-snmp's receive function without memory for the sender's address: it
// fails with ENOMEM and leaves the datagram in the socket.
std::atomic<bool> g_receiveShortOfMemory{false};

int receiveShortOfMemory(netsnmp_transport *transport, void *buffer, int size, void **opaque,
                         int *opaqueLength)
{
    if (g_receiveShortOfMemory.exchange(false)) {
        *opaque = nullptr;
        *opaqueLength = 0;
        errno = ENOMEM;
        return -1;
    }
    return g_receive(transport, buffer, size, opaque, opaqueLength);
}

// A datagram net-snmp's receive function has no memory for is read off the
// socket and dropped, not polled for again and again; the next is read.
TEST_F(Fairness, ADatagramTheReceiveFunctionHasNoMemoryForIsDropped)
{
    receiveThrough(receiveShortOfMemory);
    g_receiveShortOfMemory = true;
    shareBetweenSources(mark_, 4, [] {});
    ASSERT_TRUE(send("the dropped request"));
    ASSERT_TRUE(eventually([] { return !g_receiveShortOfMemory; }));
    expectTheNextRequestHandedOut();
}

// A datagram the reading thread has no memory for is dropped, and the
// thread goes on reading: the next one is queued and handed out.
TEST_F(Fairness, ADatagramWithoutMemoryForItIsDroppedAndTheNextOneRead)
{
    shareBetweenSources(mark_, 4, [] {});
    // The datagram's copy is the only allocation of its odd size.
    const std::string unlucky(1237, 'x');
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failAllocationsOf(unlucky.size());
    ASSERT_TRUE(send(unlucky));
    const bool failed = eventually([&] { return kelp::test::failedAllocations() > failedBefore; });
    kelp::test::failAllocationsOf(0);
    ASSERT_TRUE(failed);
    EXPECT_FALSE(requestsWaiting());

    expectTheNextRequestHandedOut();
}

// A request the agent's thread has no memory to take in its turn is
// dropped, not left first in turn to be asked for again at once: the next
// call hands out the one after it. Fifteen sources wait, the first with two
// requests, so that taking its first queues its next turn at the end of a
// full block of the turns' deque, which allocates.
TEST_F(Fairness, ARequestWithoutMemoryToTakeItInTurnIsDropped)
{
    g_receives = 0;
    receiveThrough(countingReceive);
    shareBetweenSources(mark_, 32, [] {});
    ASSERT_TRUE(sendFrom(0, "first of 127.0.0.1"));
    ASSERT_TRUE(eventually([] { return g_receives.load() >= 1; }));
    ASSERT_TRUE(sendFrom(0, "second of 127.0.0.1"));
    for (int source = 1; source < 15; source++) {
        ASSERT_TRUE(sendFrom(source, "one of 127.0.0." + std::to_string(source + 1)));
    }
    // 16 datagrams read (the reading thread reads one a round).
    ASSERT_TRUE(eventually([] { return g_receives.load() >= 16; }));

    const size_t failedBefore = kelp::test::failedAllocations();
    int result = 0;
    int error = 0;
    kelp::test::failNthAllocation(1);
    receiveInTurn(&result, &error);
    kelp::test::failNthAllocation(0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(kelp::test::failedAllocations(), failedBefore + 1);
    EXPECT_EQ(receiveInTurn(), "second of 127.0.0.1");
}

// net-snmp's read of the sockets, in answerWaiting's place of snmp_read,
// as it reads when it has no memory for its receive buffer: it takes
// nothing.
void readNothing(fd_set *) {}

// net-snmp's read as it goes: one datagram from each socket offered.
netsnmp_transport *g_readTransport = nullptr;
std::string g_read;

// One datagram through g_readTransport's receive function, into g_read.
void readThroughTransport()
{
    char buffer[2048];
    void *opaque = nullptr;
    int opaqueLength = 0;
    const int received =
        g_readTransport->f_recv(g_readTransport, buffer, sizeof buffer, &opaque, &opaqueLength);
    free(opaque);
    g_read = received > 0 ? std::string(buffer, size_t(received)) : std::string();
}

void readOne(fd_set *ready)
{
    if (g_readTransport != nullptr && FD_ISSET(g_readTransport->sock, ready)) {
        readThroughTransport();
    }
}

// A request net-snmp does not take when it is offered (it had no memory to
// read it) is dropped, so that the main loop, which offers requests for as
// long as any waits, does not offer it again and again without end.
TEST_F(Fairness, ARequestNetSnmpDoesNotTakeInItsTurnIsDropped)
{
    shareBetweenSources(mark_, 4, [] {});
    ASSERT_TRUE(send("the unread request"));
    ASSERT_TRUE(eventually(requestsWaiting));
    answerWaitingThrough(readNothing);
    EXPECT_FALSE(requestsWaiting());

    expectTheNextRequestHandedOut();
}

// A request net-snmp takes is not dropped beside it: the next one waits
// for its own turn.
TEST_F(Fairness, ARequestNetSnmpTakesLeavesTheNextWaiting)
{
    g_receives = 0;
    receiveThrough(countingReceive);
    shareBetweenSources(mark_, 4, [] {});
    ASSERT_TRUE(send("the first request"));
    ASSERT_TRUE(send("the second request"));
    // Both queued (the reading thread reads one a round).
    ASSERT_TRUE(eventually([] { return g_receives.load() >= 2; }));
    g_readTransport = transport_;
    g_read.clear();
    answerWaitingThrough(readOne);
    g_readTransport = nullptr;
    EXPECT_EQ(g_read, "the first request");
    ASSERT_TRUE(eventually(requestsWaiting));
    EXPECT_EQ(receiveInTurn(), "the second request");
}

// Without the reading thread (--max-waiting 0), net-snmp reads the socket
// itself; readThrough stands for its read.
void readNothingLarge(netsnmp_large_fd_set *) {}

void readOneLarge(netsnmp_large_fd_set *readable)
{
    if (g_readTransport != nullptr && NETSNMP_LARGE_FD_ISSET(g_readTransport->sock, readable)) {
        readThroughTransport();
    }
}

// Whether a datagram waits in the socket, within `ms`.
bool readable(int fd, int ms)
{
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// A datagram net-snmp does not read when select finds its socket readable
// (it had no memory for its receive buffer) is dropped, so that select does
// not find the socket readable again and again without end.
TEST_F(Fairness, WithoutTheReadingThreadADatagramNetSnmpDoesNotReadIsDropped)
{
    shareBetweenSources(mark_, 0, [] {});
    EXPECT_FALSE(requestsWaiting());
    ASSERT_TRUE(send("the unread request"));
    ASSERT_TRUE(readable(transport_->sock, 5000));
    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    NETSNMP_LARGE_FD_SET(transport_->sock, &fds);
    readThrough(&fds, readNothingLarge);
    netsnmp_large_fd_set_cleanup(&fds);
    EXPECT_FALSE(readable(transport_->sock, 0));

    ASSERT_TRUE(send("the next request"));
    ASSERT_TRUE(readable(transport_->sock, 5000));
    EXPECT_EQ(receiveInTurn(), "the next request");
}

// A datagram net-snmp reads is the only one taken.
TEST_F(Fairness, WithoutTheReadingThreadADatagramNetSnmpReadsLeavesTheNext)
{
    shareBetweenSources(mark_, 0, [] {});
    ASSERT_TRUE(send("the first request"));
    ASSERT_TRUE(send("the second request"));
    ASSERT_TRUE(readable(transport_->sock, 5000));
    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    NETSNMP_LARGE_FD_SET(transport_->sock, &fds);
    g_readTransport = transport_;
    g_read.clear();
    readThrough(&fds, readOneLarge);
    g_readTransport = nullptr;
    netsnmp_large_fd_set_cleanup(&fds);
    EXPECT_EQ(g_read, "the first request");
    ASSERT_TRUE(readable(transport_->sock, 5000));
    EXPECT_EQ(receiveInTurn(), "the second request");
}

} // namespace
