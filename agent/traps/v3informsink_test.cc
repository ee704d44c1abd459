// An SNMPv3 inform sink without a receiver: the user's keys made from its
// pass phrases, targets net-snmp cannot use refused, informs queued (never
// waited for) while the receiver's engine ID is unknown, the queue bounded.
// The exchange with a receiver is tested with snmptrapd
// (tests/agent/agent_security_test.cc).
#include "traps/v3informsink.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "traps/trapmessage.h"

namespace kelp::agent {
namespace {

// net-snmp's library, reading no configuration file and writing its
// persistent state (none is stored here) to the test's temporary directory.
class NetSnmpLibrary : public ::testing::Environment {
  public:
    void SetUp() override
    {
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
        init_snmp("kelp-v3informsink-test");
    }
};

[[maybe_unused]] const auto *const kLibrary =
    ::testing::AddGlobalTestEnvironment(new NetSnmpLibrary);

V3InformUser annUser()
{
    V3InformUser user;
    std::string why;
    EXPECT_TRUE(makeV3InformUser("ann", "auth-Phrase-7391", "priv-Phrase-5528", &user, &why))
        << why;
    return user;
}

Trap coldStart()
{
    return coldStartTrap();
}

TEST(V3InformSink, TheKeysComeFromThePassPhrasesAndAreWiped)
{
    const struct {
        const char *auth, *priv;
        bool sameAsAnn;
    } cases[] = {
        {"auth-Phrase-7391", "priv-Phrase-5528", true},
        {"auth-Phrase-7392", "priv-Phrase-5528", false},
        {"priv-Phrase-5528", "auth-Phrase-7391", false},
    };
    const V3InformUser ann = annUser();
    // SHA-512: a key of 64 bytes, one for each pass phrase.
    EXPECT_EQ(ann.authKu.size(), 64u);
    EXPECT_EQ(ann.privKu.size(), 64u);
    EXPECT_NE(ann.authKu, ann.privKu);
    for (const auto &c : cases) {
        V3InformUser user;
        std::string why;
        ASSERT_TRUE(makeV3InformUser("ann", c.auth, c.priv, &user, &why)) << why;
        EXPECT_EQ(user.name, "ann");
        EXPECT_EQ(user.authKu == ann.authKu && user.privKu == ann.privKu, c.sameAsAnn)
            << c.auth << " " << c.priv;
        user.wipe();
        EXPECT_TRUE(user.authKu.empty());
        EXPECT_TRUE(user.privKu.empty());
    }
}

TEST(V3InformSink, ATargetNetSnmpCannotUseIsRefused)
{
    for (const char *target :
         {"udp:no such host!", "udp:127.0.0.1:99999", "nosuchdomain:1.2.3.4"}) {
        V3InformSink sink("inform:x", InformPolicy{});
        std::string error;
        EXPECT_FALSE(sink.open(target, annUser(), &error)) << target;
        EXPECT_FALSE(error.empty()) << target;
        // A sink that did not open takes nothing.
        std::string why;
        snmp_pdu *pdu = informPdu(coldStart(), &why);
        ASSERT_NE(pdu, nullptr) << why;
        EXPECT_FALSE(sink.send(*pdu));
        snmp_free_pdu(pdu);
    }
}

TEST(V3InformSink, InformsWaitForDiscoveryWithoutWaitingAndTheQueueIsBounded)
{
    // Nothing answers there: discovery is under way for the whole test.
    V3InformSink sink("inform:udp:127.0.0.1:9", InformPolicy{}, SinkLimits{3, 1 << 20});
    std::string error;
    ASSERT_TRUE(sink.open("udp:127.0.0.1:9", annUser(), &error)) << error;
    std::string why;
    snmp_pdu *pdu = informPdu(coldStart(), &why);
    ASSERT_NE(pdu, nullptr) << why;
    const auto start = std::chrono::steady_clock::now();
    const bool expected[] = {true, true, true, false, false};
    for (const bool taken : expected) {
        EXPECT_EQ(sink.send(*pdu), taken);
    }
    // net-snmp's own probe would have waited a second per send here.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_FALSE(sink.discovered());
    EXPECT_EQ(sink.waiting(), 3u);
    EXPECT_EQ(sink.underWay(), 0u);
    snmp_free_pdu(pdu);
    // The destructor closes the session with the discovery under way.
}

} // namespace
} // namespace kelp::agent
