#include "access.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "testing/fifo_wait.h"

namespace kelp::agent {
namespace {

sockaddr_storage addressOf(const std::string &text)
{
    sockaddr_storage address{};
    auto *in = reinterpret_cast<sockaddr_in *>(&address);
    auto *in6 = reinterpret_cast<sockaddr_in6 *>(&address);
    if (inet_pton(AF_INET, text.c_str(), &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
    } else if (inet_pton(AF_INET6, text.c_str(), &in6->sin6_addr) == 1) {
        in6->sin6_family = AF_INET6;
    }
    return address;
}

bool contains(const std::string &network, const std::string &address)
{
    Network parsed;
    std::string error;
    EXPECT_TRUE(parseNetwork(network, &parsed, &error)) << error;
    const sockaddr_storage a = addressOf(address);
    return networkContains(parsed, reinterpret_cast<const sockaddr *>(&a), sizeof a);
}

TEST(Access, NetworksHoldTheirAddressesOnly)
{
    const struct {
        const char *network, *address;
        bool inside;
    } cases[] = {
        {"10.0.0.0/8", "10.255.1.2", true},
        {"10.0.0.0/8", "11.0.0.1", false},
        {"192.168.1.0/25", "192.168.1.127", true},
        {"192.168.1.0/25", "192.168.1.128", false},
        {"127.0.0.1", "127.0.0.1", true},
        {"127.0.0.1", "127.0.0.2", false},
        {"0.0.0.0/0", "203.0.113.9", true},
        {"0.0.0.0/0", "::1", false},
        {"::1/128", "::1", true},
        {"::1", "::2", false},
        {"2001:db8::/32", "2001:db8:ffff::1", true},
        {"2001:db8::/33", "2001:db8:8000::1", false},
        {"127.0.0.0/8", "::ffff:127.0.0.5", true},
        {"10.0.0.0/8", "::ffff:127.0.0.5", false},
        {"::/0", "::ffff:127.0.0.5", true},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(contains(c.network, c.address), c.inside) << c.network << " " << c.address;
    }
}

TEST(Access, BadNetworksAreRefused)
{
    for (const char *text : {"", "10.0.0.0/", "10.0.0.0/33", "::/129", "10.0.0.1/8", "10.0.0/8",
                             "host.example/8", "10.0.0.0/-1", "10.0.0.0/8x", "::1/1000"}) {
        Network network;
        std::string error;
        EXPECT_FALSE(parseNetwork(text, &network, &error)) << text;
        EXPECT_NE(error.find("--allow"), std::string::npos) << error;
    }
}

TEST(Access, NoNetworksAllowEverySourceAndSomeOnlyTheirs)
{
    Network loopback;
    std::string error;
    ASSERT_TRUE(parseNetwork("127.0.0.0/8", &loopback, &error));
    const sockaddr_storage inside = addressOf("127.0.0.1");
    const sockaddr_storage outside = addressOf("192.0.2.1");
    const auto *in = reinterpret_cast<const sockaddr *>(&inside);
    const auto *out = reinterpret_cast<const sockaddr *>(&outside);
    EXPECT_TRUE(sourceAllowed({}, out, sizeof outside));
    EXPECT_TRUE(sourceAllowed({loopback}, in, sizeof inside));
    EXPECT_FALSE(sourceAllowed({loopback}, out, sizeof outside));
    // An address net-snmp could not describe is refused when a list is given.
    EXPECT_FALSE(sourceAllowed({loopback}, nullptr, 0));
    EXPECT_FALSE(sourceAllowed({loopback}, in, 4));
}

TEST(Access, ASourceIsNamedByItsAddressOrAsALocalProcess)
{
    const sockaddr_storage v4 = addressOf("192.0.2.7");
    const sockaddr_storage v6 = addressOf("2001:db8::7");
    EXPECT_EQ(sourceText(reinterpret_cast<const sockaddr *>(&v4), sizeof v4), "192.0.2.7");
    EXPECT_EQ(sourceText(reinterpret_cast<const sockaddr *>(&v6), sizeof v6), "2001:db8::7");
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_EQ(sourceText(reinterpret_cast<const sockaddr *>(&local), sizeof local),
              "a local process");
    EXPECT_EQ(sourceText(nullptr, 0), "an unknown source");
    EXPECT_EQ(sourceText(reinterpret_cast<const sockaddr *>(&v4), 4), "an unknown source");
}

TEST(Access, KeyFileLinesAreParsedAndBadOnesNameTheLineButNoPassPhrase)
{
    std::vector<V3Key> keys;
    std::string error;
    ASSERT_TRUE(parseV3Keys("# users\n\nann authpass1 privpass1\n  bob  a-secret-2 p-secret-2 \n",
                            &keys, &error))
        << error;
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0].name, "ann");
    EXPECT_EQ(keys[0].authPass, "authpass1");
    EXPECT_EQ(keys[0].privPass, "privpass1");
    EXPECT_EQ(keys[1].name, "bob");
    EXPECT_EQ(keys[1].privPass, "p-secret-2");

    const struct {
        std::string text, message;
    } cases[] = {
        {"ann secretpass1\n", "line 1: expected NAME AUTHPASS PRIVPASS"},
        {"ann secretpass1 secretpass2 more\n", "line 1: expected NAME AUTHPASS PRIVPASS"},
        {"\nann short secretpass2\n", "line 2: a pass phrase has 8 to 256 characters"},
        {"ann " + std::string(257, 's') + " secretpass2\n",
         "line 1: a pass phrase has 8 to 256 characters"},
        {std::string(33, 'n') + " secretpass1 secretpass2\n",
         "line 1: a user name has at most 32 characters"},
        {"ann secretpass1 secret\"pass2\n", "line 1: names and pass phrases are printable"},
        {"ann secretpass1 secret\\pass2\n", "line 1: names and pass phrases are printable"},
        {"ann secretpass1 secretpass2\nann secretpass3 secretpass4\n",
         "line 2: user ann is given twice"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(parseV3Keys(c.text, &keys, &error)) << c.text;
        EXPECT_EQ(error.rfind(c.message, 0), 0u) << error;
        EXPECT_EQ(error.find("secret"), std::string::npos) << error;
    }
}

// An editor that begins a UTF-8 file with a byte order mark leaves the
// first user's line as it was written.
TEST(Access, AByteOrderMarkBeforeTheFirstKeyLineIsSkipped)
{
    std::vector<V3Key> keys;
    std::string error;
    ASSERT_TRUE(parseV3Keys("\xEF\xBB\xBF"
                            "ann authpass1 privpass1\n",
                            &keys, &error))
        << error;
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].name, "ann");
    EXPECT_FALSE(parseV3Keys("ann authpass1 privpass1\n\xEF\xBB\xBF"
                             "bob authpass2 privpass2\n",
                             &keys, &error));
}

TEST(Access, AFifoAsKeyFileIsRefusedWithoutWaitingForAWriter)
{
    char dir[] = "/tmp/kelp-keys-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string fifo = std::string(dir) + "/keys";
    std::vector<V3Key> keys;
    std::string error;
    bool read = true;
    EXPECT_TRUE(
        returnsWithoutAWriter(fifo, [&] { read = readV3Keys(fifo, {"ann"}, &keys, &error); }));
    EXPECT_FALSE(read);
    EXPECT_EQ(error, "--v3-keys " + fifo + " is not a regular file");
    std::filesystem::remove_all(dir);
}

TEST(Access, KeyFileReadableByOthersOrMissingAUserIsRefused)
{
    char dir[] = "/tmp/kelp-keys-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/keys";
    std::ofstream(path) << "ann authpass1 privpass1\n";
    std::vector<V3Key> keys;
    std::string error;
    for (const mode_t mode : {0640u, 0604u, 0620u, 0644u}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_FALSE(readV3Keys(path, {"ann"}, &keys, &error)) << mode;
        EXPECT_NE(error.find("chmod 600"), std::string::npos) << error;
    }
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_TRUE(readV3Keys(path, {"ann"}, &keys, &error)) << error;
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].authPass, "authpass1");
    EXPECT_FALSE(readV3Keys(path, {"ann", "bob"}, &keys, &error));
    EXPECT_NE(error.find("no line for --v3-user bob"), std::string::npos) << error;
    EXPECT_FALSE(readV3Keys(std::string(dir) + "/none", {"ann"}, &keys, &error));
    EXPECT_FALSE(readV3Keys(dir, {"ann"}, &keys, &error));
    // Garbage too large to be a key file is refused before it is parsed.
    std::ofstream(path) << std::string(kMaxKeyFileBytes + 1, 'x');
    EXPECT_FALSE(readV3Keys(path, {"ann"}, &keys, &error));
    EXPECT_NE(error.find("larger than"), std::string::npos) << error;
    std::remove(path.c_str());
    rmdir(dir);
}

TEST(Access, AKeyFileOfTheUserTheAgentRunsAsOrBehindALinkIsRead)
{
    char dir[] = "/tmp/kelp-keys-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/keys";
    std::ofstream(path) << "ann authpass1 privpass1\n";
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    std::vector<V3Key> keys;
    std::string error;
    // A mounted secret is a chain of links to the file.
    const std::string link = std::string(dir) + "/link";
    ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
    EXPECT_TRUE(readV3Keys(link, {"ann"}, &keys, &error)) << error;
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].authPass, "authpass1");
    // The checks are the file's, not the link's.
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_FALSE(readV3Keys(link, {"ann"}, &keys, &error));
    EXPECT_EQ(error, "--v3-keys " + link +
                         " must be readable by its owner alone (its mode is "
                         "0640; chmod 600 it)");
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);

    if (geteuid() == 0) {
        // Root starts the agent, which runs as another user (--user): the
        // file may be that user's.
        constexpr uid_t kOther = 65534;
        ASSERT_EQ(chown(path.c_str(), kOther, static_cast<gid_t>(-1)), 0);
        EXPECT_FALSE(readV3Keys(path, {"ann"}, &keys, &error));
        EXPECT_EQ(error, "--v3-keys " + path +
                             " belongs to uid 65534: it must belong to the agent's user (uid 0)");
        EXPECT_TRUE(readV3Keys(path, {"ann"}, &keys, &error, KeyFileUser{kOther, "nobody"}))
            << error;
        EXPECT_FALSE(readV3Keys(path, {"ann"}, &keys, &error, KeyFileUser{kOther + 1, "other"}));
        EXPECT_EQ(error, "--v3-keys " + path +
                             " belongs to uid 65534: it must belong to the agent's user (other) "
                             "or to the user that starts it (uid 0)");
    }
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace kelp::agent
