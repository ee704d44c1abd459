// The configuration keys read at load, the debug switch, and the private log.
#include "frame/config.h"

#include <cstdlib>
#include <filesystem>

#include "testing/frame_fixture.h"

namespace {

class ConfigTest : public FrameTest {};

TEST_F(ConfigTest, DebugSnmpOnInAnyCaseSwitchesPrintingOn)
{
    for (const char *value : {"on", "ON", "On", "oN"}) {
        writeIni(std::string("[general]\nDebugSNMP=") + value + "\n");
        ASSERT_EQ(load(), 0u);
        EXPECT_EQ(debugText().rfind("MIBImplementerLoad: entry\n", 0), 0u) << value;
        dispatch(SM_CMD_UNLOAD);
        std::filesystem::remove(debugPath());
    }
}

TEST_F(ConfigTest, DebugSnmpOtherThanOnLeavesPrintingOff)
{
    for (const char *value : {"Off", "On1", "O", "\"On \""}) {
        writeIni(std::string("[general]\nDebugSNMP=") + value + "\n");
        ASSERT_EQ(load(), 0u);
        dispatch(SM_CMD_UNLOAD);
        EXPECT_EQ(debugText(), "") << value;
    }
}

TEST_F(ConfigTest, AggregateEventsOnInOtherCaseLeavesAggregationOff)
{
    writeIni("[general]\nDebugSNMP=on\n[vcsipe]\nAggregateEvents=on\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_bAggregateEvents, 0u);
}

TEST_F(ConfigTest, AggregateEventsExactlyOnSwitchesAggregationOnAndIsLogged)
{
    writeIni("[general]\nDebugSNMP=On\n[vcsipe]\nAggregateEvents=On\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_bAggregateEvents, 1u);
    EXPECT_NE(debugText().find("KelpmibAttach: EVENT_INI_AGGREGATEENEVTS is On\n"),
              std::string::npos);
}

TEST_F(ConfigTest, AggregateEventsWithATrailingBlankLeavesAggregationOff)
{
    writeIni("[general]\nDebugSNMP=On\n[vcsipe]\nAggregateEvents=\"On \"\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_bAggregateEvents, 0u);
    EXPECT_NE(debugText().find("KelpmibAttach: EVENT_INI_AGGREGATEENEVTS is On \n"),
              std::string::npos);
}

TEST_F(ConfigTest, ASecondLoadNeverClearsAggregation)
{
    writeIni("[vcsipe]\nAggregateEvents=On\n");
    ASSERT_EQ(load(), 0u);
    dispatch(SM_CMD_UNLOAD);
    writeIni("[vcsipe]\nAggregateEvents=Off\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_bAggregateEvents, 1u);
}

TEST_F(ConfigTest, RefreshMinutesThatConvertToZeroGiveFive)
{
    for (const char *value : {"0", "abc", "", "-5"}) {
        writeIni(std::string("[general]\nSNMPRefreshMinutes=") + value + "\n");
        ASSERT_EQ(load(), 0u);
        EXPECT_EQ(g_SNMPRefreshMinutes, 5u) << value;
        dispatch(SM_CMD_UNLOAD);
    }
}

TEST_F(ConfigTest, RefreshMinutesAreKeptAsConverted)
{
    writeIni("[general]\nSNMPRefreshMinutes=15\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_SNMPRefreshMinutes, 15u);
    dispatch(SM_CMD_UNLOAD);
    writeIni("[general]\nSNMPRefreshMinutes=7min\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_SNMPRefreshMinutes, 7u);
}

TEST_F(ConfigTest, MissingRefreshMinutesGiveFive)
{
    writeIni("[general]\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(g_SNMPRefreshMinutes, 5u);
}

TEST_F(ConfigTest, AMissingDebugSnmpIsWrittenBackAsOff)
{
    writeIni("[general]\nSNMPRefreshMinutes=3\n");
    ASSERT_EQ(load(), 0u);
    char value[16] = {};
    uint32_t size = sizeof value;
    ASSERT_EQ(SSGetPrivateIniValue("general", "DebugSNMP", value, &size), 0u);
    EXPECT_STREQ(value, "Off");
    EXPECT_NE(readFile(iniPath()).find("SNMPRefreshMinutes=3"), std::string::npos);
}

TEST_F(ConfigTest, AnOverriddenDebugSnmpSwitchesPrintingOnAndIsNeverWritten)
{
    const std::string text = "[general]\nSNMPRefreshMinutes=3\n";
    writeIni(text);
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On"), 0);
    const uint32_t status = load();
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", nullptr), 0);
    ASSERT_EQ(status, 0u);
    EXPECT_EQ(debugText().rfind("MIBImplementerLoad: entry\n", 0), 0u);
    EXPECT_EQ(readFile(iniPath()), text);
}

TEST_F(ConfigTest, DebugPathNamesTheDebugLogDirectory)
{
    kelpRuntimeSetDebugFile("");
    const std::string logs = dir() + "/logs";
    std::filesystem::create_directory(logs);
    writeIni("[general]\nDebugSNMP=On\nDebugPath=" + logs + "\n");
    ASSERT_EQ(load(), 0u);
    const std::string file = logs + "/" + g_ModuleExportContext.moduleName + ".log";
    EXPECT_EQ(readFile(file).rfind("MIBImplementerLoad: entry\n", 0), 0u);
}

TEST_F(ConfigTest, AnOverlongDebugSnmpValueIsReadSafely)
{
    writeIni("[general]\nDebugSNMP=" + std::string(5000, 'x') + "\n");
    ASSERT_EQ(load(), 0u);
    EXPECT_EQ(debugText(), "");
}

TEST(ConfigParse, OnAnyCaseMatchesOnlyTheTwoLetters)
{
    EXPECT_TRUE(configIsOnAnyCase("On"));
    EXPECT_TRUE(configIsOnAnyCase("oN"));
    EXPECT_FALSE(configIsOnAnyCase("On "));
    EXPECT_FALSE(configIsOnAnyCase("O"));
    EXPECT_FALSE(configIsOnAnyCase(""));
}

class SnmpLogTest : public FrameTest {
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        setenv("KELP_INSTALL_PATH", dir().c_str(), 1);
    }
    void TearDown() override
    {
        closeSNMPLog();
        unsetenv("KELP_INSTALL_PATH");
        FrameTest::TearDown();
    }
    std::string logPath() const { return dir() + "/smsnmp.log"; }
};

TEST_F(SnmpLogTest, WithDebugOnTheLogIsOpenedTruncatedAndWritten)
{
    writeIni("[general]\nDebugSNMP=ON\n");
    {
        std::ofstream(logPath()) << "old content\n";
    }
    openSNMPLog();
    writeSNMPLog("value %d of %s\n", 3, "disk");
    EXPECT_EQ(readFile(logPath()), "value 3 of disk\n");
}

TEST_F(SnmpLogTest, WithDebugOffNothingIsOpenedOrWritten)
{
    writeIni("[general]\nDebugSNMP=Off\n");
    openSNMPLog();
    writeSNMPLog("nothing\n");
    EXPECT_FALSE(std::filesystem::exists(logPath()));
}

TEST_F(SnmpLogTest, IsDebugSnmpOnWritesOffBackWhenMissing)
{
    writeIni("");
    EXPECT_FALSE(isDebugSNMPOn());
    EXPECT_NE(readFile(iniPath()).find("DebugSNMP=Off"), std::string::npos);
}

TEST_F(SnmpLogTest, AnInstallPathThatDoesNotFitIsReported)
{
    setenv("KELP_INSTALL_PATH", ("/" + std::string(600, 'p')).c_str(), 1);
    writeIni("[general]\nDebugSNMP=On\n");
    VscilDebugInit("");
    VscilDebugToggle();
    openSNMPLog();
    VscilDebugExit();
    EXPECT_EQ(debugText(), "getInstPath() failed \n");
    writeSNMPLog("nothing\n");
}

TEST(SnmpLogIdentity, NamesTheModule)
{
    EXPECT_STREQ(kModuleLogName, "kelpimp64");
    EXPECT_STREQ(kModuleLogFileName, "kelpimp64.log");
}

} // namespace
