// Service table entry 7 called directly, as the plug-in's threads call it,
// with net-snmp set up the way kelpagent sets it up and a snmptrapd started
// by the test listening on a free loopback port: the trap arrives as an
// SNMPv2c notification (snmpTrapOID enterprise.0.specific) or an SNMPv1
// trap, with its bindings' names, types and values.
#include <signal.h>

#include <future>

#include <gtest/gtest.h>

#include "snmpagent.h"
#include "testkit.h"
#include "traps/trap.h"
#include "traps/trapsend.h"

namespace kelp::test {
namespace {

using agent::kelpAgentSendTrap;
using agent::SnmpAgent;
using agent::TrapQueue;

class TrapSink : public ::testing::Test {
  protected:
    void SetUp() override
    {
        sinkPort = freeUdpPort();
        writeFile(dir / "snmptrapd.conf", "disableAuthorization yes\n");
        trapd = std::make_unique<Process>(
            std::vector<std::string>{"snmptrapd", "-f", "-Lf", dir / "traps.log", "-On", "-X", "-C",
                                     "-c", dir / "snmptrapd.conf", "-F",
                                     "v=%s ent=%N gen=%w specific=%q vbs=%V|%v\n",
                                     "udp:127.0.0.1:" + std::to_string(sinkPort)},
            snmpEnv(dir), dir / "trapd.out", dir / "trapd.err");
        ASSERT_TRUE(waitFor(
            [&] {
                return readFile(dir / "traps.log").find("NET-SNMP version") != std::string::npos;
            },
            20s))
            << trapd->err() << readFile(dir / "traps.log");
    }

    void TearDown() override
    {
        snmp.shutdown();
        trapd->signal(SIGTERM);
        EXPECT_TRUE(trapd->wait(15s).has_value());
    }

    // net-snmp as kelpagent runs it, with one sink on the snmptrapd.
    void startAgent(bool v1)
    {
        agent::AgentSettings settings;
        settings.listen = "udp:127.0.0.1:" + std::to_string(freeUdpPort());
        settings.community = "public";
        settings.trapSinks = {"udp:127.0.0.1:" + std::to_string(sinkPort)};
        settings.trapV1 = v1;
        settings.trapCommunity = "public";
        settings.persistentDir = dir / "persist";
        std::string error;
        ASSERT_TRUE(snmp.init(settings, &error)) << error;
        ASSERT_TRUE(snmp.open(&error)) << error;
    }

    // Sends the trap of a failed disk through entry 7 from another thread,
    // pumping on this one as the agent's loop does; entry 7's answer.
    uint32_t sendDiskTrap(TrapQueue &queue)
    {
        std::future<uint32_t> sent = std::async(std::launch::async, [&] {
            uint32_t enterprise[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};
            uint32_t nameText[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 2, 0};
            uint32_t nameStatus[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 7, 0};
            char text[] = "Disk 0:1:4 failed";
            SMSnmpValue bindings[2]{};
            bindings[0].name = {13, 0, nameText};
            bindings[0].type = SM_ASN_OCTET_STRING;
            bindings[0].value = 17;
            bindings[0].buffer = text;
            bindings[1].name = {13, 0, nameStatus};
            bindings[1].type = SM_ASN_INTEGER;
            bindings[1].value = 0xFFFFFFFF;
            const SMSnmpOID oid{11, 0, enterprise};
            return kelpAgentSendTrap(reinterpret_cast<uint64_t>(&queue), &oid, 6, 2049, 2,
                                     bindings);
        });
        while (sent.wait_for(10ms) != std::future_status::ready) {
            queue.pump();
        }
        return sent.get();
    }

    std::string waitForTrap()
    {
        std::string log;
        waitFor(
            [&] {
                log = readFile(dir / "traps.log");
                return log.find("v=") != std::string::npos;
            },
            10s);
        return log;
    }

    TempDir dir;
    int sinkPort = 0;
    std::unique_ptr<Process> trapd;
    SnmpAgent snmp;
};

TEST_F(TrapSink, AV2cNotificationCarriesEnterpriseZeroSpecificAndTheBindings)
{
    startAgent(false);
    TrapQueue queue(
        agent::sendTrapNow, [] {}, 5s);
    queue.adoptPumpThread();
    EXPECT_EQ(sendDiskTrap(queue), 0u);
    const std::string log = waitForTrap();
    EXPECT_NE(log.find("v=1 "), std::string::npos) << log;
    const std::string root = ".1.3.6.1.4.1.61234.20571.1.20.200";
    EXPECT_NE(log.find(".1.3.6.1.6.3.1.1.4.1.0 = OID: " + root + ".0.2049"), std::string::npos)
        << log;
    EXPECT_NE(log.find(root + ".2.0 = STRING: \"Disk 0:1:4 failed\""), std::string::npos) << log;
    EXPECT_NE(log.find(root + ".7.0 = INTEGER: -1"), std::string::npos) << log;
}

TEST_F(TrapSink, AV1TrapCarriesEnterpriseGenericAndSpecific)
{
    startAgent(true);
    TrapQueue queue(
        agent::sendTrapNow, [] {}, 5s);
    queue.adoptPumpThread();
    EXPECT_EQ(sendDiskTrap(queue), 0u);
    const std::string log = waitForTrap();
    // snmptrapd prints the specific number as the last arc of the
    // enterprise.0.specific name it derives: ".2049".
    EXPECT_NE(log.find("v=0 ent=.1.3.6.1.4.1.61234.20571.1.20.200 gen=6 specific=.2049 "),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("STRING: \"Disk 0:1:4 failed\""), std::string::npos) << log;
}

TEST_F(TrapSink, UnusableRecordsAreRefusedWithoutSending)
{
    startAgent(false);
    TrapQueue queue(
        agent::sendTrapNow, [] {}, 5s);
    queue.adoptPumpThread();
    SMSnmpValue untyped{};
    uint32_t arcs[] = {1, 3, 6};
    untyped.name = {3, 0, arcs};
    const SMSnmpOID enterprise{3, 0, arcs};
    EXPECT_EQ(kelpAgentSendTrap(reinterpret_cast<uint64_t>(&queue), &enterprise, 6, 1, 1, &untyped),
              uint32_t{SM_SNMP_GENERR});
    EXPECT_EQ(kelpAgentSendTrap(0, &enterprise, 6, 1, 0, nullptr), uint32_t{SM_SNMP_GENERR});
}

} // namespace
} // namespace kelp::test
