// The command line: each option's row, usage errors, and the defaults.
#include "options.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "paths.h"

namespace kelp::agent {
namespace {

bool parse(std::vector<const char *> words, Options *options, std::string *error)
{
    words.insert(words.begin(), "kelpagent");
    return parseOptions(static_cast<int>(words.size()), words.data(), options, error);
}

TEST(Options, EveryOptionSetsItsField)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parse({"--model",
                       "m.xml",
                       "--listen=udp:127.0.0.1:9",
                       "--community",
                       "c",
                       "--trap-sink",
                       "udp:127.0.0.1:7",
                       "--trap-sink=udp:127.0.0.1:8",
                       "--trap-version",
                       "1",
                       "--ini",
                       "i.ini",
                       "--state-dir",
                       "/s",
                       "--control",
                       "c.sock",
                       "--module",
                       "m.so",
                       "--debug",
                       "--sys-contact",
                       "Storage team <storage@example.net>",
                       "--sys-name=array-7",
                       "--sys-location",
                       "Rack 4, row B",
                       "--syslog",
                       "--rescan-timeout",
                       "2.5",
                       "--max-waiting=0",
                       "--live-health-interval",
                       "0",
                       "--agentx"},
                      &o, &error))
        << error;
    EXPECT_EQ(o.model, "m.xml");
    EXPECT_EQ(o.listen, "udp:127.0.0.1:9");
    EXPECT_EQ(o.community, "c");
    EXPECT_EQ(o.trapSinks, (std::vector<std::string>{"udp:127.0.0.1:7", "udp:127.0.0.1:8"}));
    EXPECT_TRUE(o.trapV1);
    EXPECT_EQ(o.ini, "i.ini");
    EXPECT_EQ(o.stateDir, "/s");
    EXPECT_EQ(o.control, "c.sock");
    EXPECT_EQ(o.module, "m.so");
    EXPECT_TRUE(o.debug);
    EXPECT_EQ(o.sysContact, "Storage team <storage@example.net>");
    EXPECT_EQ(o.sysName, "array-7");
    EXPECT_EQ(o.sysLocation, "Rack 4, row B");
    EXPECT_TRUE(o.syslog);
    EXPECT_EQ(o.rescanTimeout, 2.5);
    EXPECT_EQ(o.maxWaiting, 0u);
    EXPECT_EQ(o.liveHealthInterval, 0.0);
    EXPECT_TRUE(o.agentx);
    EXPECT_EQ(o.agentxSocket, "");
}

TEST(Options, AV3UserNamedTwiceIsServedOnce)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parse({"--v3-user", "ann", "--v3-user", "bob", "--v3-user=ann", "--v3-keys", "k"},
                      &o, &error))
        << error;
    EXPECT_EQ(o.v3Users, (std::vector<std::string>{"ann", "bob"}));
}

TEST(Options, AgentxTakesASocketOnlyWhenOneFollows)
{
    Options a, b;
    std::string error;
    ASSERT_TRUE(parse({"--agentx", "/tmp/x/master", "--debug"}, &a, &error)) << error;
    EXPECT_TRUE(a.agentx);
    EXPECT_EQ(a.agentxSocket, "/tmp/x/master");
    ASSERT_TRUE(parse({"--agentx", "--debug"}, &b, &error)) << error;
    EXPECT_TRUE(b.agentx);
    EXPECT_EQ(b.agentxSocket, "");
    EXPECT_TRUE(b.debug);
}

TEST(Options, DefaultsAreTheDocumentedOnes)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parse({}, &o, &error));
    EXPECT_EQ(o.listen, "udp:127.0.0.1:1161");
    EXPECT_EQ(o.community, "public");
    EXPECT_FALSE(o.trapV1);
    EXPECT_FALSE(o.agentx);
    EXPECT_TRUE(o.trapSinks.empty());
    EXPECT_FALSE(o.trapInform);
    EXPECT_EQ(o.trapCommunity, "");
    EXPECT_EQ(o.informTimeout, 1.0);
    EXPECT_EQ(o.informRetries, 5);
    EXPECT_EQ(o.maxWaiting, 256u);
    EXPECT_EQ(o.liveHealthInterval, 300.0);
}

TEST(Options, TrapsCarryTheReadCommunityUnlessTheirOwnIsGiven)
{
    Options same, own;
    std::string error;
    ASSERT_TRUE(parse({"--community", "reader"}, &same, &error)) << error;
    EXPECT_EQ(trapCommunityOf(same), "reader");
    ASSERT_TRUE(parse({"--community", "reader", "--trap-community=alarms"}, &own, &error)) << error;
    EXPECT_EQ(trapCommunityOf(own), "alarms");
    EXPECT_EQ(own.community, "reader");
}

TEST(Options, TrapVersionChoosesTrapsOrInforms)
{
    struct Case {
        const char *version;
        bool v1, inform;
    };
    for (const Case &c :
         {Case{"1", true, false}, Case{"2c", false, false}, Case{"2c-inform", false, true}}) {
        Options o;
        std::string error;
        ASSERT_TRUE(parse({"--trap-version", c.version}, &o, &error)) << error;
        EXPECT_EQ(o.trapV1, c.v1) << c.version;
        EXPECT_EQ(o.trapInform, c.inform) << c.version;
    }
    Options o;
    std::string error;
    ASSERT_TRUE(parse({"--inform-timeout", "0.25", "--inform-retries=0"}, &o, &error)) << error;
    EXPECT_EQ(o.informTimeout, 0.25);
    EXPECT_EQ(o.informRetries, 0);
}

TEST(Options, UsageErrorsAreRefusedWithAMessage)
{
    const std::string longCommunity(256, 'c');
    const std::vector<std::vector<const char *>> bad{
        {"--nope"},
        {"model.xml"},
        {"--model"},
        {"--debug=yes"},
        {"--trap-version", "3"},
        {"--community", "two words"},
        {"--trap-sink", ""},
        {"--community=a\"b"},
        {"--rescan-timeout", "0"},
        {"--rescan-timeout", "-3"},
        {"--rescan-timeout", "soon"},
        {"--rescan-timeout", "inf"},
        {"--rescan-timeout", "86401"},
        {"--rescan-timeout", ""},
        {"--trap-version", "2c-informs"},
        {"--trap-version", "1-inform"},
        {"--trap-community", ""},
        {"--trap-community", "a b"},
        {"--trap-community", longCommunity.c_str()},
        {"--inform-timeout", "0"},
        {"--inform-timeout", "0.001"},
        {"--inform-timeout", "61"},
        {"--inform-timeout", "nan"},
        {"--inform-retries", "-1"},
        {"--inform-retries", "21"},
        {"--inform-retries", "2x"},
        {"--inform-retries", ""},
        {"--max-waiting", "-1"},
        {"--max-waiting", "65537"},
        {"--max-waiting", "many"},
        {"--max-waiting", "99999999999999999999"},
        {"--max-waiting", ""},
        {"--live-health-interval", "-1"},
        {"--live-health-interval", "86401"},
        {"--live-health-interval", "hourly"},
        {"--live-health-interval", "nan"},
        {"--live-health-interval", ""},
        {"--inform-timeout", "0x10"},
        {"--inform-timeout", "0x1p-3"},
        {"--inform-timeout", " 2"},
        {"--inform-timeout", "+2"},
        {"--inform-timeout", "1e1"},
        {"--inform-timeout", "."},
        {"--inform-timeout", "1.2.3"},
        {"--live-interval", "0x1e"},
    };
    for (const auto &words : bad) {
        Options o;
        std::string error;
        EXPECT_FALSE(parse(words, &o, &error)) << words[0];
        EXPECT_FALSE(error.empty()) << words[0];
    }
}

TEST(Options, SecondsAreDecimalRepeatableOptionsAddUpAndOthersTakeTheirLastValue)
{
    Options o;
    std::string error;
    EXPECT_TRUE(parse({"--inform-timeout", "2.5", "--rescan-timeout", ".5", "--live-interval", "30",
                       "--allow", "127.0.0.0/8", "--allow", "::1/128", "--trap-sink",
                       "udp:127.0.0.1:1", "--trap-sink", "udp:127.0.0.1:2"},
                      &o, &error))
        << error;
    EXPECT_EQ(o.informTimeout, 2.5);
    EXPECT_EQ(o.rescanTimeout, 0.5);
    EXPECT_EQ(o.trapSinks.size(), 2u);
    // Any other option given twice takes its last value, so that a wrapper
    // can override what it was given.
    Options last;
    EXPECT_TRUE(
        parse({"--listen", "udp:127.0.0.1:1161", "--listen", "udp:127.0.0.1:1162"}, &last, &error))
        << error;
    EXPECT_EQ(last.listen, "udp:127.0.0.1:1162");
}

TEST(Options, CompletionFillsThePlacesUnderTheStateDir)
{
    const std::string dir = testing::TempDir() + "kelp-options-" + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    const std::string model = dir + "/found.xml";
    std::ofstream(model) << "<storage/>";
    DefaultPlaces places;
    places.stateDir = dir + "/state";
    places.module = "/lib/x.so";
    places.modelCandidates = {dir + "/missing.xml", model};

    Options o;
    std::string error;
    ASSERT_TRUE(completeOptions(places, &o, &error)) << error;
    EXPECT_EQ(o.stateDir, dir + "/state");
    EXPECT_EQ(o.ini, dir + "/state/kelp.ini");
    EXPECT_EQ(o.control, dir + "/state/control.sock");
    EXPECT_EQ(o.module, "/lib/x.so");
    EXPECT_EQ(o.model, model);

    const std::string usage = usageText(places);
    for (const char *text :
         {"--model FILE", "--agentx [SOCKET]", "--trap-sink ADDR", "--debug", "--help", "--version",
          "udp:127.0.0.1:1161", "(found)", "--trap-version 1|2c|2c-inform", "--trap-community NAME",
          "--inform-timeout SECONDS", "--inform-retries N", "inform:ADDR", "--max-waiting N"}) {
        EXPECT_NE(usage.find(text), std::string::npos) << text;
    }

    places.modelCandidates = {dir + "/missing.xml"};
    Options none;
    EXPECT_FALSE(completeOptions(places, &none, &error));
    std::filesystem::remove_all(dir);
}

TEST(Paths, StateDirFollowsXdgThenHomeAndIsMadePrivate)
{
    EXPECT_EQ(defaultPlaces("/b", "/x", "/h").stateDir, "/x/kelp");
    EXPECT_EQ(defaultPlaces("/b", nullptr, "/h").stateDir, "/h/.local/state/kelp");
    EXPECT_EQ(defaultPlaces("/b", "relative", "/h").stateDir, "/h/.local/state/kelp");
    EXPECT_EQ(defaultPlaces("/b", nullptr, nullptr).stateDir, "");
    const DefaultPlaces places = defaultPlaces("/opt/kelp/bin", nullptr, "/h");
    EXPECT_EQ(places.module, "/opt/kelp/bin/../lib/libkelpimp64.so");
    ASSERT_GE(places.modelCandidates.size(), 2u);
    EXPECT_EQ(places.modelCandidates[0], "/opt/kelp/bin/../share/kelp/models/sample.xml");
    EXPECT_EQ(places.modelCandidates[1], "/opt/kelp/bin/../../data/models/sample.xml");

    const std::string dir = testing::TempDir() + "kelp-paths-" + std::to_string(getpid());
    std::string error;
    ASSERT_TRUE(makeStateDir(dir + "/a/b", &error)) << error;
    EXPECT_EQ(std::filesystem::status(dir + "/a/b").permissions(),
              std::filesystem::perms::owner_all);
    ASSERT_TRUE(makeStateDir(dir + "/a/b", &error)) << "an existing dir is fine";
    std::ofstream(dir + "/file") << "x";
    EXPECT_FALSE(makeStateDir(dir + "/file", &error));
    std::filesystem::remove_all(dir);
}

TEST(Options, DashHAsksForHelpLikeDashDashHelp)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parse({"-h"}, &o, &error)) << error;
    EXPECT_TRUE(o.help);
    Options other;
    EXPECT_FALSE(parse({"-x"}, &other, &error));
}

TEST(Options, ACommunityNetSnmpCannotMatchIsRefused)
{
    Options o;
    std::string error;
    const std::string longest(kMaxCommunity, 'c');
    ASSERT_TRUE(parse({"--community", longest.c_str()}, &o, &error)) << error;
    EXPECT_EQ(o.community, longest);
    const std::string tooLong(kMaxCommunity + 1, 'c');
    Options other;
    EXPECT_FALSE(parse({"--community", tooLong.c_str()}, &other, &error));
    EXPECT_EQ(error, "--community takes at most 255 bytes, not 256");
}

TEST(Options, SystemTextsRefuseLineEndsAndOverlongValues)
{
    std::string error;
    for (const char *bad : {"two\nlines", "tab\there", ""}) {
        Options o;
        EXPECT_FALSE(parse({"--sys-location", bad}, &o, &error)) << bad;
    }
    const std::string longest(kMaxSystemText, 'x');
    const std::string tooLong(kMaxSystemText + 1, 'x');
    Options o;
    EXPECT_TRUE(parse({"--sys-contact", longest.c_str()}, &o, &error)) << error;
    EXPECT_FALSE(parse({"--sys-contact", tooLong.c_str()}, &o, &error));
    EXPECT_NE(error.find("--sys-contact takes 1 to 255 bytes"), std::string::npos) << error;
}

TEST(Options, TheSystemGroupHasSensibleDefaults)
{
    Options o;
    EXPECT_EQ(o.sysContact, "root@localhost");
    EXPECT_EQ(o.sysLocation, "unknown");
    EXPECT_EQ(o.sysName, "") << "empty: the host's name, filled in at start";
    EXPECT_FALSE(o.syslog);
}

TEST(Options, TheStopTimeoutComesFromTheEnvironmentWithinItsBounds)
{
    std::string warning;
    EXPECT_EQ(stopTimeoutFrom(nullptr, &warning), kDefaultStopTimeout);
    EXPECT_EQ(stopTimeoutFrom("", &warning), kDefaultStopTimeout);
    EXPECT_EQ(stopTimeoutFrom("2.5", &warning), 2.5);
    EXPECT_TRUE(warning.empty()) << warning;
    for (const char *bad : {"0", "-3", "ten", "1e9", "nan"}) {
        warning.clear();
        EXPECT_EQ(stopTimeoutFrom(bad, &warning), kDefaultStopTimeout) << bad;
        EXPECT_NE(warning.find("KELP_STOP_TIMEOUT takes a number of seconds"), std::string::npos)
            << bad << ": " << warning;
        EXPECT_NE(warning.find("; using 60"), std::string::npos) << warning;
    }
}

} // namespace
} // namespace kelp::agent
