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

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using namespace kelp::agent;

int answerNothing(int, netsnmp_session *, int, netsnmp_pdu *, void *)
{
    return 1;
}

// A UDP session on a free loopback port that answers nothing, or null.
netsnmp_session *openUdpSession()
{
    netsnmp_transport *transport = netsnmp_transport_open_server("kelp-test", "udp:127.0.0.1:0");
    if (transport == nullptr) {
        return nullptr;
    }
    netsnmp_session settings;
    snmp_sess_init(&settings);
    settings.callback = answerNothing;
    return snmp_add(&settings, transport, nullptr, nullptr);
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

TEST(Fairness, TheSocketsTheReadingThreadServesAreLeftOutOfTheLoopsSelect)
{
    const SessionMark mark = markSessions();
    netsnmp_session *session = openUdpSession();
    ASSERT_NE(session, nullptr);
    netsnmp_transport *transport = snmp_sess_transport(snmp_sess_pointer(session));
    ASSERT_NE(transport, nullptr);
    const int other = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(other, 0);

    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    NETSNMP_LARGE_FD_SET(transport->sock, &fds);
    NETSNMP_LARGE_FD_SET(other, &fds);
    // Nothing is served in turn yet: the set stays as it is.
    leaveOutSharedSockets(&fds);
    EXPECT_TRUE(NETSNMP_LARGE_FD_ISSET(transport->sock, &fds));

    shareBetweenSources(mark, 4, [] {});
    leaveOutSharedSockets(&fds);
    EXPECT_FALSE(NETSNMP_LARGE_FD_ISSET(transport->sock, &fds));
    EXPECT_TRUE(NETSNMP_LARGE_FD_ISSET(other, &fds));

    stopSharing();
    netsnmp_large_fd_set_cleanup(&fds);
    close(other);
    snmp_close(session);
}

TEST(Fairness, ARequestThatArrivesAloneIsReadOnce)
{
    const SessionMark mark = markSessions();
    netsnmp_session *session = openUdpSession();
    ASSERT_NE(session, nullptr);
    netsnmp_transport *transport = snmp_sess_transport(snmp_sess_pointer(session));
    ASSERT_NE(transport, nullptr);
    g_receive = transport->f_recv;
    g_receives = 0;
    transport->f_recv = countingReceive;
    shareBetweenSources(mark, 4, [] {});

    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(transport->sock, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const int sender = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(sender, 0);
    const char request[] = "a request";
    ASSERT_EQ(sendto(sender, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&address),
                     sizeof address),
              ssize_t(sizeof request));
    for (int i = 0; i < 5000 && !requestsWaiting(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(requestsWaiting());
    // Joins the reading thread: any read it makes after the request's has
    // been made by then.
    stopSharing();
    EXPECT_EQ(g_receives.load(), 1);

    transport->f_recv = g_receive;
    close(sender);
    snmp_close(session);
}

} // namespace
