// Start-up lines: the MIB summary counts the definition's groups and the 24
// served tables, naming those served without a registration; the plug-in's
// answers; and bound sockets in net-snmp's transport syntax.
#include "startup.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <regex>

#include <gtest/gtest.h>

#include "options.h"
#include "snmp/tree.h"

namespace kelp::agent {
namespace {

std::vector<uint32_t> underRoot(std::initializer_list<uint32_t> arcs)
{
    std::vector<uint32_t> name(std::begin(kMibRoot), std::end(kMibRoot));
    name.insert(name.end(), arcs);
    return name;
}

TEST(MibSummary, CountsTheDefinitionAndServesAllTwentyFourTables)
{
    // As the plug-in defines them: 4 scalar groups and 18 tables.
    std::vector<DefinedGroup> groups = {
        {underRoot({}), false, 5}, {underRoot({100}), false, 4}, {underRoot({110}), false, 15}};
    for (uint32_t table = 1; table <= 16; table++) {
        groups.push_back({underRoot({130, table, 1}), true, 7});
    }
    groups.push_back({underRoot({140, 1, 1}), true, 22});
    groups.push_back({underRoot({140, 3, 1}), true, 7});
    groups.push_back({underRoot({200}), false, 8});
    const MibSummary summary = summariseMib(groups);
    EXPECT_EQ(summary.definition,
              "the plug-in's MIB definition registers 22 groups: 4 scalar groups and 18 tables");
    EXPECT_EQ(summary.served,
              "serving 1.3.6.1.4.1.61234.20571.1.20 as one subtree: 17 scalars and 24 tables (6 "
              "of them not in the definition, served all the same: 130.17, 130.18, 140.2, 140.4, "
              "140.5, 140.6)");
    EXPECT_TRUE(summary.outside.empty());
    ASSERT_EQ(summary.details.size(), 22u);
    EXPECT_EQ(summary.details[3],
              "  1.3.6.1.4.1.61234.20571.1.20.130.1.1: table, 7 columns defined, 73 served");
    EXPECT_EQ(summary.details[0], "  1.3.6.1.4.1.61234.20571.1.20: scalars, 5 columns defined");
}

TEST(MibSummary, AnEmptyOrStrayDefinitionStillServesEveryTable)
{
    const MibSummary none = summariseMib({});
    EXPECT_EQ(none.definition,
              "the plug-in's MIB definition registers 0 groups: 0 scalar groups and 0 tables");
    EXPECT_NE(none.served.find("24 tables (24 of them not in the definition"), std::string::npos)
        << none.served;

    const MibSummary stray = summariseMib(
        {{{1, 3, 6, 1, 2, 1}, true, 1}, {{}, false, 0}, {underRoot({130, 99, 1}), true, 2}});
    EXPECT_EQ(stray.definition,
              "the plug-in's MIB definition registers 3 groups: 1 scalar group and 2 tables");
    ASSERT_EQ(stray.outside.size(), 2u);
    EXPECT_EQ(stray.outside[0], "the MIB definition's group 1.3.6.1.2.1 lies outside "
                                "1.3.6.1.4.1.61234.20571.1.20 and is not answered");
    EXPECT_NE(stray.outside[1].find("(no name)"), std::string::npos);
    EXPECT_NE(stray.served.find("(24 of them"), std::string::npos) << stray.served;
}

TEST(PluginInfoLine, SaysTheAnswersAndAnyFailure)
{
    EXPECT_EQ(pluginInfoLine("/l/p.so", {0, 0, 0}, {1, 0, 0}),
              "plug-in /l/p.so loaded; its information answers (commands 1-3) are 1, 0, 0");
    EXPECT_EQ(pluginInfoLine("/l/p.so", {0, 5, 0}, {1, 9, 0}),
              "plug-in /l/p.so loaded; its information answers (commands 1-3) are 1, -, 0; "
              "command 2 fails with status 5");
}

TEST(AnsweringLine, NamesTheBoundAddressesAndTheListenTextWhenItDiffers)
{
    EXPECT_EQ(answeringLine("1161", {"udp:0.0.0.0:1161"}, "A"),
              "answering on udp:0.0.0.0:1161 (--listen 1161), A");
    EXPECT_EQ(answeringLine("udp:127.0.0.1:1161", {"udp:127.0.0.1:1161"}, "A"),
              "answering on udp:127.0.0.1:1161, A");
    EXPECT_EQ(
        answeringLine("udp:localhost:9,udp6:[::1]:9", {"udp:127.0.0.1:9", "udp6:[::1]:9"}, "A"),
        "answering on udp:127.0.0.1:9, udp6:[::1]:9 (--listen udp:localhost:9,udp6:[::1]:9), "
        "A");
    EXPECT_EQ(answeringLine("udp:1.2.3.4:5", {}, "A"), "answering on udp:1.2.3.4:5, A");
}

TEST(AccessSummary, NamesVersionsUsersAndSourcesButNoSecret)
{
    const struct {
        bool community;
        std::vector<std::string> users, allow;
        std::string expected;
    } cases[] = {
        {true, {}, {}, "community (SNMPv1/v2c, read-only) from any source"},
        {true,
         {"ann"},
         {"10.0.0.0/8"},
         "community (SNMPv1/v2c, read-only) and SNMPv3 user ann (read-only) from 10.0.0.0/8"},
        {false,
         {"ann", "bob"},
         {"10.0.0.0/8", "::1"},
         "SNMPv3 users ann, bob (read-only) from 10.0.0.0/8, ::1"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(accessSummary(c.community, c.users, c.allow), c.expected);
    }
}

TEST(UnusedBySubagent, NamesTheGivenListenAndCommunityButNotTheCommunitysValue)
{
    EXPECT_EQ(unusedBySubagent(kDefaultListen, kDefaultCommunity), "");
    EXPECT_EQ(unusedBySubagent("udp:0.0.0.0:161", kDefaultCommunity),
              "--listen udp:0.0.0.0:161 not used: an AgentX subagent answers on no address of its "
              "own; the master's addresses, communities and access control apply");
    const std::string both = unusedBySubagent("udp:0.0.0.0:161", "s3cret");
    EXPECT_EQ(both.rfind("--listen udp:0.0.0.0:161 and --community not used: ", 0), 0u) << both;
    EXPECT_EQ(both.find("s3cret"), std::string::npos) << both;
    EXPECT_EQ(unusedBySubagent(kDefaultListen, "s3cret").rfind("--community not used: ", 0), 0u);
}

TEST(BoundSocketText, NamesWhatTheKernelBound)
{
    const int udp = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(udp, 0);
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(udp, reinterpret_cast<sockaddr *>(&in), sizeof in), 0);
    EXPECT_TRUE(std::regex_match(boundSocketText(udp), std::regex(R"(udp:127\.0\.0\.1:[1-9]\d*)")))
        << boundSocketText(udp);
    close(udp);

    const int tcp = socket(AF_INET6, SOCK_STREAM, 0);
    if (tcp >= 0) {
        sockaddr_in6 in6{};
        in6.sin6_family = AF_INET6;
        in6.sin6_addr = in6addr_any;
        if (bind(tcp, reinterpret_cast<sockaddr *>(&in6), sizeof in6) == 0) {
            EXPECT_TRUE(
                std::regex_match(boundSocketText(tcp), std::regex(R"(tcp6:\[::\]:[1-9]\d*)")))
                << boundSocketText(tcp);
        }
        close(tcp);
    }

    char dir[] = "/tmp/kelp-bound-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/s";
    const int unixSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::strcpy(un.sun_path, path.c_str());
    ASSERT_EQ(bind(unixSocket, reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    EXPECT_EQ(boundSocketText(unixSocket), "unix:" + path);
    close(unixSocket);
    unlink(path.c_str());
    rmdir(dir);

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    EXPECT_EQ(boundSocketText(pipeFds[0]), "") << "not a socket";
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(boundSocketText(-1), "");
}

} // namespace
} // namespace kelp::agent
