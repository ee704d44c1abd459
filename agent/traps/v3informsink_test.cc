// An SNMPv3 inform sink without a receiver: the user's keys made from its
// pass phrases, targets net-snmp cannot use refused, informs queued (never
// waited for) while the receiver's engine ID is unknown, the queue bounded.
// With snmptrapd as the receiver, on net-snmp's own loop: an answer whose
// handling runs out of memory stays out of the library and loses no inform.
// The exchange through the agent is tested in
// tests/agent/agent_security_test.cc.
#include "traps/v3informsink.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/failing_new.h"
#include "testing/loopback_sockets.h"
#include "testing/netsnmp_loop.h"
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

std::string readAll(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        count++;
    }
    return count;
}

// A loopback UDP port free when asked.
int freePort()
{
    const int probe = kelp::test::boundSocket(SOCK_DGRAM);
    const int port = kelp::test::portOf(probe);
    close(probe);
    return port;
}

// snmptrapd on loopback port `port` (a free one when 0), logging (and
// acknowledging) what user ann sends authenticated and encrypted; stopped
// by the destructor.
class Snmptrapd {
  public:
    explicit Snmptrapd(int port = 0) : port_(port != 0 ? port : freePort())
    {
        char pattern[] = "/tmp/kelp-v3inform-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            return;
        }
        dir_ = pattern;
        std::ofstream(dir_ + "/snmptrapd.conf")
            << "createUser ann SHA-512 auth-Phrase-7391 AES-256 priv-Phrase-5528\n"
               "authUser log ann priv\n";
        const std::string address = "udp:127.0.0.1:" + std::to_string(port_);
        std::vector<std::string> args = {"/usr/sbin/snmptrapd",
                                         "-f",
                                         "-C",
                                         "-c",
                                         dir_ + "/snmptrapd.conf",
                                         "-Lf",
                                         log(),
                                         "-On",
                                         "-m",
                                         "",
                                         address};
        std::vector<std::string> env = {"SNMPCONFPATH=" + dir_, "SNMP_PERSISTENT_DIR=" + dir_,
                                        "MIBS="};
        std::vector<char *> argv, envp;
        for (std::string &a : args) {
            argv.push_back(a.data());
        }
        argv.push_back(nullptr);
        for (std::string &e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);
        if (posix_spawn(&pid_, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) {
            pid_ = -1;
        }
    }
    ~Snmptrapd()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (!dir_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);
        }
    }
    Snmptrapd(const Snmptrapd &) = delete;
    Snmptrapd &operator=(const Snmptrapd &) = delete;

    // Up and listening: its log says so (at most 10 s).
    bool ready() const
    {
        for (int i = 0; i < 1000 && pid_ > 0; i++) {
            if (readAll(log()).find("NET-SNMP version") != std::string::npos) {
                return true;
            }
            usleep(10000);
        }
        return false;
    }
    std::string log() const { return dir_ + "/trapd.log"; }
    std::string target() const { return "udp:127.0.0.1:" + std::to_string(port_); }

  private:
    int port_;
    std::string dir_;
    pid_t pid_ = -1;
};

TEST(V3InformSink, AnAnswerHandledWithoutMemoryStaysOutOfNetsnmpAndLosesNoInform)
{
    if (access("/usr/sbin/snmptrapd", X_OK) != 0) {
        GTEST_SKIP() << "no /usr/sbin/snmptrapd";
    }
    Snmptrapd receiver;
    ASSERT_TRUE(receiver.ready()) << readAll(receiver.log());
    V3InformSink sink("inform:" + receiver.target(), InformPolicy{std::chrono::seconds(1), 2, 8});
    std::string error;
    ASSERT_TRUE(sink.open(receiver.target(), annUser(), &error)) << error;
    std::string why;
    snmp_pdu *first = informPdu(coldStart(), &why);
    snmp_pdu *second = informPdu(coldStart(), &why);
    ASSERT_NE(first, nullptr) << why;
    ASSERT_NE(second, nullptr) << why;

    // The first inform waits for discovery. The receiver's Report names its
    // engine, and the first thing its handling allocates (the inform's place
    // among those under way) fails.
    ASSERT_TRUE(sink.send(*first));
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    EXPECT_NO_THROW(kelp::test::turnAgentLoopUntil(std::chrono::milliseconds(3000), [&] {
        return kelp::test::failedAllocations() > failedBefore;
    })) << "an exception unwound out of net-snmp's snmp_read";
    kelp::test::failNthAllocation(0);
    ASSERT_EQ(kelp::test::failedAllocations(), failedBefore + 1);
    EXPECT_TRUE(sink.discovered());
    EXPECT_EQ(sink.waiting(), 1u) << "the inform that could not go waits";
    EXPECT_EQ(sink.underWay(), 0u);

    // The next trap takes it along: both arrive and are acknowledged.
    ASSERT_TRUE(sink.send(*second));
    EXPECT_TRUE(kelp::test::turnAgentLoopUntil(std::chrono::milliseconds(5000), [&] {
        return sink.waiting() == 0 && sink.underWay() == 0 &&
               occurrences(readAll(receiver.log()), ".1.3.6.1.6.3.1.1.5.1") == 2;
    })) << readAll(receiver.log());
    snmp_free_pdu(first);
    snmp_free_pdu(second);
}

TEST(V3InformSink, AnInformQueuedDuringDiscoveryWaitsItsOwnRetriesBeforeItIsGivenUp)
{
    if (access("/usr/sbin/snmptrapd", X_OK) != 0) {
        GTEST_SKIP() << "no /usr/sbin/snmptrapd";
    }
    // Probes two seconds apart, two per inform: nothing answers the first
    // inform's, at 0 and 2 s, and it is given up at 4 s.
    const int port = freePort();
    const std::string target = "udp:127.0.0.1:" + std::to_string(port);
    V3InformSink sink("inform:" + target, InformPolicy{std::chrono::seconds(2), 1, 8});
    std::string error;
    ASSERT_TRUE(sink.open(target, annUser(), &error)) << error;
    std::string why;
    snmp_pdu *first = informPdu(coldStart(), &why);
    snmp_pdu *second = informPdu(coldStart(), &why);
    ASSERT_NE(first, nullptr) << why;
    ASSERT_NE(second, nullptr) << why;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(sink.send(*first));
    const auto turnUntil = [&](std::chrono::milliseconds at) {
        kelp::test::turnAgentLoopUntil(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           at - (std::chrono::steady_clock::now() - start)),
                                       [] { return false; });
    };

    // The second comes a second before the first's last probe times out:
    // it has waited for none of the probes that went before it.
    turnUntil(std::chrono::milliseconds(3000));
    ASSERT_TRUE(sink.send(*second));
    EXPECT_EQ(sink.waiting(), 2u);
    turnUntil(std::chrono::milliseconds(4500));
    EXPECT_EQ(sink.waiting(), 1u) << "the first is given up, the second waits on";

    // The receiver is up before the second's own probes run out: it gets
    // the second inform.
    Snmptrapd receiver(port);
    ASSERT_TRUE(receiver.ready()) << readAll(receiver.log());
    EXPECT_TRUE(kelp::test::turnAgentLoopUntil(std::chrono::milliseconds(6000), [&] {
        return sink.waiting() == 0 && sink.underWay() == 0 &&
               occurrences(readAll(receiver.log()), ".1.3.6.1.6.3.1.1.5.1") == 1;
    })) << readAll(receiver.log());
    EXPECT_TRUE(sink.discovered());
    snmp_free_pdu(first);
    snmp_free_pdu(second);
}

} // namespace
} // namespace kelp::agent
