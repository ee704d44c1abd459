// The agent's callbacks that net-snmp calls with its callback list locked,
// run through net-snmp's own snmp_call_callbacks: an allocation that fails
// inside one must not unwind into the library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <net-snmp/agent/agent_callbacks.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

#include <gtest/gtest.h>

#include "access.h"
#include "log.h"
#include "refusals.h"
#include "snmpagent.h"
#include "testing/failing_new.h"

namespace kelp::agent {
namespace {

TEST(NetsnmpCallbacks, ALogLineWithoutMemoryStaysOutOfTheLibraryAndIsWritten)
{
    ASSERT_TRUE(logOpen(LogSink::kStderrStamped, LogLevel::kInfo));
    snmp_disable_log();
    ASSERT_EQ(
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, onNetsnmpLog, nullptr),
        SNMPERR_SUCCESS);
    snmp_enable_calllog();
    // Longer than any line before it, so that gathering it must allocate.
    const std::string line(300, 'x');
    testing::internal::CaptureStderr();
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    EXPECT_NO_THROW(snmp_log(LOG_ERR, "%s\n", line.c_str()));
    kelp::test::failNthAllocation(0);
    const bool failed = kelp::test::failedAllocations() == failedBefore + 1;
    // The library's lock was let go: the next line, in two pieces, comes
    // out whole.
    snmp_log(LOG_ERR, "the next ");
    snmp_log(LOG_ERR, "line\n");
    const std::string written = testing::internal::GetCapturedStderr();
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, onNetsnmpLog, nullptr,
                             1);
    EXPECT_TRUE(failed) << "the line was gathered without allocating";
    EXPECT_NE(written.find("kelpagent: " + line + "\n"), std::string::npos) << written;
    EXPECT_NE(written.find("kelpagent: the next line\n"), std::string::npos) << written;
    EXPECT_EQ(written.find("_callback_lock"), std::string::npos) << written;
}

TEST(NetsnmpCallbacks, ARefusalWithoutMemoryToLogItsSourceIsStillARefusal)
{
    ASSERT_TRUE(logOpen(LogSink::kStderrStamped, LogLevel::kInfo));
    Network loopback;
    std::string error;
    ASSERT_TRUE(parseNetwork("127.0.0.1/32", &loopback, &error)) << error;
    watchAccess({loopback});

    sockaddr_in source{};
    source.sin_family = AF_INET;
    ASSERT_EQ(inet_pton(AF_INET, "192.0.2.7", &source.sin_addr), 1);
    netsnmp_pdu pdu{};
    pdu.version = SNMP_VERSION_2c;
    pdu.transport_data = &source;
    pdu.transport_data_length = sizeof source;
    view_parameters check{};
    check.pdu = &pdu;
    check.errorcode = VACM_SUCCESS;

    testing::internal::CaptureStderr();
    kelp::test::failNthAllocation(1);
    EXPECT_NO_THROW(
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, &check));
    kelp::test::failNthAllocation(0);
    std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(check.errorcode, VACM_NOACCESS);
    EXPECT_NE(written.find("refused a SNMPv2c request: its source is not in --allow (its source "
                           "not logged: out of memory)"),
              std::string::npos)
        << written;

    // With memory, the source is named.
    check.errorcode = VACM_SUCCESS;
    testing::internal::CaptureStderr();
    snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_ACM_CHECK_INITIAL, &check);
    written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(check.errorcode, VACM_NOACCESS);
    EXPECT_NE(written.find("refused a SNMPv2c request from 192.0.2.7"), std::string::npos)
        << written;
}

} // namespace
} // namespace kelp::agent
