// The configuration file: its syntax, every key the option table gives,
// every refusal with its file and line, reading, and the command line
// winning over the file.
#include "config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "paths.h"
#include "testing/fifo_wait.h"

namespace kelp::agent {
namespace {

// parseConfig, then every setting applied as applyConfigFile does.
bool parseAndApply(std::string_view text, Options *options, std::string *error)
{
    std::vector<ConfigSetting> settings;
    if (!parseConfig(text, "f.conf", &settings, error)) {
        return false;
    }
    for (const ConfigSetting &setting : settings) {
        EXPECT_TRUE(applyOption(setting.key, setting.value, options, error)) << *error;
    }
    return true;
}

// A temporary dir for the file tests, removed at the end.
class ConfigFiles : public testing::Test {
  protected:
    void SetUp() override
    {
        dir_ = testing::TempDir() + "kelp-config-" + std::to_string(getpid());
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string write(const std::string &name, const std::string &text)
    {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // applyConfigFile over a parsed command line.
    bool apply(const std::string &defaultFile, std::vector<const char *> words, Options *options,
               std::string *error)
    {
        words.insert(words.begin(), "kelpagent");
        const int argc = static_cast<int>(words.size());
        EXPECT_TRUE(parseOptions(argc, words.data(), options, error)) << *error;
        return applyConfigFile(defaultFile, argc, words.data(), options, error);
    }
    std::string dir_;
};

TEST(Config, EveryKeySetsItsFieldAndValuesKeepTheirInnerBlanks)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parseAndApply("# kelpagent's options\n"
                              "\n"
                              "model m.xml\n"
                              "  listen\tudp:127.0.0.1:9   \n"
                              "community c\n"
                              "trap-sink udp:127.0.0.1:7\n"
                              "trap-sink udp:127.0.0.1:8\n"
                              "trap-version 1\n"
                              "trap-community alarms\n"
                              "inform-timeout 0.5\n"
                              "inform-retries 2\n"
                              "ini i.ini\n"
                              "state-dir /s\n"
                              "control c.sock\n"
                              "module m.so\n"
                              "sys-contact Storage team <storage@example.net> # not a comment\n"
                              "sys-name array-7\n"
                              "sys-location Rack 4,  row B\n"
                              "rescan-timeout 2.5\n"
                              "live-root /captured\n"
                              "live-interval 12\n"
                              "syslog\n"
                              "debug yes\n"
                              "agentx /tmp/x/master",
                              &o, &error))
        << error;
    EXPECT_EQ(o.model, "m.xml");
    EXPECT_EQ(o.listen, "udp:127.0.0.1:9");
    EXPECT_EQ(o.community, "c");
    EXPECT_EQ(o.trapSinks, (std::vector<std::string>{"udp:127.0.0.1:7", "udp:127.0.0.1:8"}));
    EXPECT_TRUE(o.trapV1);
    EXPECT_EQ(o.trapCommunity, "alarms");
    EXPECT_EQ(o.informTimeout, 0.5);
    EXPECT_EQ(o.informRetries, 2);
    EXPECT_EQ(o.ini, "i.ini");
    EXPECT_EQ(o.stateDir, "/s");
    EXPECT_EQ(o.control, "c.sock");
    EXPECT_EQ(o.module, "m.so");
    EXPECT_EQ(o.sysContact, "Storage team <storage@example.net> # not a comment");
    EXPECT_EQ(o.sysName, "array-7");
    EXPECT_EQ(o.sysLocation, "Rack 4,  row B");
    EXPECT_EQ(o.rescanTimeout, 2.5);
    EXPECT_TRUE(o.live);
    EXPECT_EQ(o.liveRoot, "/captured");
    EXPECT_EQ(o.liveInterval, 12);
    EXPECT_TRUE(o.syslog);
    EXPECT_TRUE(o.debug);
    EXPECT_TRUE(o.agentx);
    EXPECT_EQ(o.agentxSocket, "/tmp/x/master");
}

// A file saved by an editor that starts UTF-8 with a byte order mark reads
// as the same file without it.
TEST(Config, AByteOrderMarkBeforeTheFirstKeyIsSkipped)
{
    Options o;
    std::string error;
    ASSERT_TRUE(parseAndApply("\xEF\xBB\xBF"
                              "community c\n",
                              &o, &error))
        << error;
    EXPECT_EQ(o.community, "c");
    EXPECT_FALSE(parseAndApply("community c\n\xEF\xBB\xBF"
                               "listen udp:127.0.0.1:9\n",
                               &o, &error));
}

TEST(Config, FlagsTakeNothingYesOrNo)
{
    const struct {
        const char *text;
        bool syslog, agentx;
    } cases[] = {
        {"syslog\nagentx\n", true, true},
        {"syslog yes\n", true, false},
        {"syslog no\n", false, false},
        {"", false, false},
        {"# only a comment\n\n   \n", false, false},
    };
    for (const auto &c : cases) {
        Options o;
        std::string error;
        ASSERT_TRUE(parseAndApply(c.text, &o, &error)) << c.text << ": " << error;
        EXPECT_EQ(o.syslog, c.syslog) << c.text;
        EXPECT_EQ(o.agentx, c.agentx) << c.text;
        EXPECT_EQ(o.agentxSocket, "") << c.text;
    }
}

// A value that --NAME accepts, by the value's name in the help.
std::string sampleValue(std::string_view valueName)
{
    if (valueName == "ADDR") {
        return "udp:127.0.0.1:9";
    }
    if (valueName == "SECONDS") {
        return "5";
    }
    if (valueName == "1|2c") {
        return "2c";
    }
    return "x";
}

TEST(Config, EveryLongOptionButTheCommandLineOnesIsAKey)
{
    size_t keys = 0;
    for (const OptionShape &shape : optionShapes()) {
        const std::string name(shape.name);
        const std::string line =
            name + (shape.arg == OptionArg::kNone ? "" : " " + sampleValue(shape.valueName));
        std::vector<ConfigSetting> settings;
        std::string error;
        const bool ok = parseConfig(line, "f.conf", &settings, &error);
        if (name == "config" || name == "help" || name == "version") {
            EXPECT_FALSE(ok) << line;
            EXPECT_EQ(error, "f.conf:1: key '" + name + "' belongs on the command line only");
            continue;
        }
        // An option added later may want another sample value: it is still
        // a key.
        EXPECT_EQ(error.find("unknown key"), std::string::npos) << line << ": " << error;
        if (ok) {
            ASSERT_EQ(settings.size(), 1u) << line;
            EXPECT_EQ(settings[0].key, name);
            EXPECT_EQ(settings[0].line, 1);
            keys++;
        }
    }
    EXPECT_GE(keys, 19u) << "every option known when this test was written";
}

TEST(Config, OptionsHelpCallsRepeatableMayRepeatInTheFile)
{
    for (const OptionShape &shape : optionShapes()) {
        EXPECT_EQ(shape.repeatable, shape.help.find("repeatable") != std::string_view::npos)
            << shape.name << ": say \"repeatable\" in the help of an option that adds to a list";
    }
}

TEST(Config, BadFilesAreRefusedNamingFileAndLine)
{
    const struct {
        std::string text;
        std::string message;
    } cases[] = {
        {"comunity public\n", "f.conf:1: unknown key 'comunity'"},
        {"# c\n\nlisten udp:127.0.0.1:9\nport 9\n", "f.conf:4: unknown key 'port'"},
        {"--community x\n",
         "f.conf:1: unknown key '--community' (keys are written without dashes)"},
        {"community=x\n", "f.conf:1: unknown key 'community=x' (write 'community VALUE')"},
        {"community two words\n", "f.conf:1: bad value for 'community': --community must be a "
                                  "non-empty word without blanks or quotes"},
        {"community\n", "f.conf:1: 'community' needs a value (NAME)"},
        {"community " + std::string(kMaxCommunity + 1, 'c'),
         "f.conf:1: bad value for 'community': --community takes at most 255 bytes"},
        {"trap-version 3\n", "f.conf:1: bad value for 'trap-version': --trap-version takes 1, "
                             "2c or 2c-inform, not \"3\""},
        {"trap-community a b\n", "f.conf:1: bad value for 'trap-community'"},
        {"inform-retries 21\n", "f.conf:1: bad value for 'inform-retries'"},
        {"trap-sink udp:127.0.0.1:7\ntrap-sink a\"b\n", "f.conf:2: bad value for 'trap-sink'"},
        {"rescan-timeout 0\n", "f.conf:1: bad value for 'rescan-timeout'"},
        {"rescan-timeout 86401\n", "f.conf:1: bad value for 'rescan-timeout'"},
        {"live-interval soon\n", "f.conf:1: bad value for 'live-interval'"},
        {"sys-location " + std::string(kMaxSystemText + 1, 'x'),
         "f.conf:1: bad value for 'sys-location': --sys-location takes 1 to 255 bytes"},
        {"model\n", "f.conf:1: 'model' needs a value (FILE)"},
        {"listen a\n#\nlisten b\n", "f.conf:3: duplicate key 'listen' (first on line 1)"},
        {"sys-name a\nsys-name a\n", "f.conf:2: duplicate key 'sys-name' (first on line 1)"},
        {"syslog\nsyslog no\n", "f.conf:2: duplicate key 'syslog' (first on line 1)"},
        {"agentx\nagentx /s\n", "f.conf:2: duplicate key 'agentx' (first on line 1)"},
        {"syslog maybe\n", "f.conf:1: 'syslog' takes yes, no or nothing, not 'maybe'"},
        {"debug=yes\n", "f.conf:1: unknown key 'debug=yes' (write 'debug VALUE')"},
        {"config other.conf\n", "f.conf:1: key 'config' belongs on the command line only"},
        {"help\n", "f.conf:1: key 'help' belongs on the command line only"},
        {"version\n", "f.conf:1: key 'version' belongs on the command line only"},
        {"# " + std::string(kMaxConfigLine - 1, 'x') + "\n",
         "f.conf:1: line longer than 4096 bytes"},
        {"listen a\n" + std::string(kMaxConfigLine + 100, 'x'),
         "f.conf:2: line longer than 4096 bytes"},
        {std::string("listen a\nsys-name a\0b\n", 22), "f.conf:2: NUL byte"},
        {std::string("\0", 1), "f.conf:1: NUL byte"},
        {"# a comment\r\n", "f.conf:1: carriage return (a DOS line end?)"},
        {"sys-name a\x01z\n", "f.conf:1: control character 0x01"},
        {"sys-name a\x7f\n", "f.conf:1: control character 0x7f"},
    };
    for (const auto &c : cases) {
        std::vector<ConfigSetting> settings{{"kept", "", 0}};
        std::string error;
        EXPECT_FALSE(parseConfig(c.text, "f.conf", &settings, &error)) << c.text;
        EXPECT_EQ(error.substr(0, c.message.size()), c.message) << c.text;
        EXPECT_EQ(settings.size(), 1u) << "a refused file leaves the settings alone";
    }
}

TEST(Config, TheLongestLineIsAccepted)
{
    std::vector<ConfigSetting> settings;
    std::string error;
    const std::string longest = "# " + std::string(kMaxConfigLine - 2, 'x');
    EXPECT_TRUE(parseConfig(longest + "\n" + longest, "f.conf", &settings, &error)) << error;
    EXPECT_TRUE(settings.empty());
}

TEST_F(ConfigFiles, AFileIsReadOrItsFaultNamed)
{
    std::vector<ConfigSetting> settings;
    std::string error;
    bool found = false;
    const std::string good = write("good.conf", "listen udp:127.0.0.1:9\n");
    ASSERT_TRUE(readConfig(good, true, &settings, &error, &found)) << error;
    EXPECT_TRUE(found);
    ASSERT_EQ(settings.size(), 1u);
    EXPECT_EQ(settings[0].value, "udp:127.0.0.1:9");

    const std::string missing = dir_ + "/missing.conf";
    EXPECT_TRUE(readConfig(missing, false, &settings, &error, &found)) << "a default may be absent";
    EXPECT_FALSE(found);
    EXPECT_TRUE(settings.empty());
    EXPECT_TRUE(readConfig(good + "/below", false, &settings, &error, &found));
    EXPECT_FALSE(found);

    const struct {
        std::string path;
        std::string message;
    } bad[] = {
        {missing, missing + ": cannot open: No such file or directory"},
        {dir_, dir_ + ": cannot read: Is a directory"},
        {write("big.conf", std::string(kMaxConfigFile + 1, '\n')),
         dir_ + "/big.conf: larger than 1048576 bytes"},
        {write("nul.conf", std::string("listen a\n\0", 10)), dir_ + "/nul.conf:2: NUL byte"},
        {write("typo.conf", "\ncomunity x\n"), dir_ + "/typo.conf:2: unknown key 'comunity'"},
    };
    for (const auto &c : bad) {
        EXPECT_FALSE(readConfig(c.path, true, &settings, &error)) << c.path;
        EXPECT_EQ(error, c.message);
    }
    // A default file that exists but cannot be read is an error too.
    EXPECT_FALSE(readConfig(dir_, false, &settings, &error));
    if (geteuid() != 0) {
        const std::string locked = write("locked.conf", "listen a\n");
        chmod(locked.c_str(), 0);
        EXPECT_FALSE(readConfig(locked, false, &settings, &error));
        EXPECT_EQ(error, locked + ": cannot open: Permission denied");
    }
}

TEST_F(ConfigFiles, AFifoIsRefusedWithoutWaitingForAWriter)
{
    std::vector<ConfigSetting> settings;
    std::string error;
    bool read = true;
    const std::string fifo = dir_ + "/fifo.conf";
    EXPECT_TRUE(
        returnsWithoutAWriter(fifo, [&] { read = readConfig(fifo, false, &settings, &error); }));
    EXPECT_FALSE(read);
    EXPECT_EQ(error, fifo + ": a FIFO, not a file");
}

TEST_F(ConfigFiles, TheCommandLineWinsOverTheFile)
{
    const std::string file = write("kelpagent.conf", "community fromfile\n"
                                                     "sys-location Rack 4\n"
                                                     "trap-sink udp:127.0.0.1:7\n"
                                                     "trap-sink udp:127.0.0.1:8\n"
                                                     "syslog yes\n");
    Options o;
    std::string error;
    ASSERT_TRUE(apply("", {"--config", file.c_str(), "--community", "fromcli"}, &o, &error))
        << error;
    EXPECT_EQ(o.community, "fromcli");
    EXPECT_EQ(o.sysLocation, "Rack 4");
    EXPECT_EQ(o.trapSinks, (std::vector<std::string>{"udp:127.0.0.1:7", "udp:127.0.0.1:8"}));
    EXPECT_TRUE(o.syslog);
    EXPECT_EQ(o.config, file);

    Options replaced;
    ASSERT_TRUE(
        apply(file, {"--trap-sink", "udp:127.0.0.1:9", "--sys-location=Hall 2"}, &replaced, &error))
        << error;
    EXPECT_EQ(replaced.trapSinks, (std::vector<std::string>{"udp:127.0.0.1:9"}))
        << "a list on the command line replaces the file's";
    EXPECT_EQ(replaced.sysLocation, "Hall 2");
    EXPECT_EQ(replaced.community, "fromfile");
    EXPECT_EQ(replaced.config, file) << "the default file is read when it exists";
}

TEST_F(ConfigFiles, TheDataSourceOnTheCommandLineSetsAsideTheFilesOther)
{
    const std::string live = write("live.conf", "live-root /captured\nlive-interval 5\n");
    Options model;
    std::string error;
    ASSERT_TRUE(apply(live, {"--model", "m.xml"}, &model, &error)) << error;
    EXPECT_FALSE(model.live);
    EXPECT_EQ(model.liveRoot, "/");
    EXPECT_EQ(model.model, "m.xml");
    EXPECT_EQ(model.liveInterval, 5) << "only the choice of source is set aside";

    const std::string modelFile = write("model.conf", "model m.xml\ncommunity c\n");
    Options liveOptions;
    ASSERT_TRUE(apply(modelFile, {"--live"}, &liveOptions, &error)) << error;
    EXPECT_TRUE(liveOptions.live);
    EXPECT_EQ(liveOptions.model, "");
    EXPECT_EQ(liveOptions.community, "c");
}

TEST_F(ConfigFiles, OnlyANamedFileMustExist)
{
    const std::string missing = dir_ + "/missing.conf";
    Options o;
    std::string error;
    ASSERT_TRUE(apply(missing, {"--community", "c"}, &o, &error)) << error;
    EXPECT_EQ(o.community, "c");
    EXPECT_EQ(o.config, "");

    Options none;
    ASSERT_TRUE(apply("", {"--listen", "udp:127.0.0.1:9"}, &none, &error)) << error;
    EXPECT_EQ(none.listen, "udp:127.0.0.1:9");

    Options named;
    EXPECT_FALSE(apply("", {"--config", missing.c_str(), "--community", "c"}, &named, &error));
    EXPECT_EQ(error, missing + ": cannot open: No such file or directory");
    EXPECT_EQ(named.community, "c") << "a refused file leaves the options alone";

    // --config replaces the default file: the default is not read at all.
    const std::string bad = write("bad.conf", "comunity x\n");
    const std::string good = write("good.conf", "community fromgood\n");
    Options chosen;
    ASSERT_TRUE(apply(bad, {"--config", good.c_str()}, &chosen, &error)) << error;
    EXPECT_EQ(chosen.community, "fromgood");
    Options refused;
    EXPECT_FALSE(apply(bad, {}, &refused, &error));
    EXPECT_EQ(error, bad + ":1: unknown key 'comunity'");
}

TEST(Config, TheDefaultFileIsInTheConfigurationDirUnlessInTheBuildTree)
{
    const std::string installed = defaultPlaces("/opt/kelp/bin", nullptr, "/h").config;
    EXPECT_EQ(installed.front(), '/');
    EXPECT_TRUE(installed.ends_with("/kelp/kelpagent.conf")) << installed;

    const std::string build = testing::TempDir() + "kelp-build-" + std::to_string(getpid());
    std::filesystem::create_directories(build + "/bin");
    std::ofstream(build + "/CMakeCache.txt") << "# a build tree\n";
    EXPECT_EQ(defaultPlaces(build + "/bin", nullptr, "/h").config, "");
    std::filesystem::remove_all(build);

    DefaultPlaces places;
    places.config = "/etc/kelp/kelpagent.conf";
    EXPECT_NE(usageText(places).find("--config FILE"), std::string::npos);
    EXPECT_NE(usageText(places).find("/etc/kelp/kelpagent.conf when it exists"), std::string::npos);
}

} // namespace
} // namespace kelp::agent
