// The main loop's select leaves out the sockets the reading thread serves:
// that thread takes their datagrams, and a select that watched them would
// return at once until it had.
#include "fairness.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/large_fd_set.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace kelp::agent;

int answerNothing(int, netsnmp_session *, int, netsnmp_pdu *, void *)
{
    return 1;
}

TEST(Fairness, TheSocketsTheReadingThreadServesAreLeftOutOfTheLoopsSelect)
{
    const SessionMark mark = markSessions();
    netsnmp_transport *transport = netsnmp_transport_open_server("kelp-test", "udp:127.0.0.1:0");
    ASSERT_NE(transport, nullptr);
    netsnmp_session settings;
    snmp_sess_init(&settings);
    settings.callback = answerNothing;
    netsnmp_session *session = snmp_add(&settings, transport, nullptr, nullptr);
    ASSERT_NE(session, nullptr);
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

} // namespace
