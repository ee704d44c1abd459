// The array disk columns with rules of their own, through getAD: enclosure,
// spare state, media type, certification, SED, power state, and the log
// lines of the columns that print them.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tables/ad_testing.h"
#include "testing/debug_capture.h"

namespace {

using namespace adtest;

constexpr const char *kEntry = "getAD(): Entry\n";
constexpr const char *kExit = "getAD: Exit\n";

// ---- Enclosure --------------------------------------------------------------------

TEST_F(AdTest, TheEnclosureIdComesFromTheEnclosureTheDiskIsIn)
{
    serveTable(item(20, "enclosures", "0\\0\\0", {{"EnclosureID", "2"}}) +
               disk(1, "0\\0\\0\\3", {}, 20));
    expectText(9, "2");
}

TEST_F(AdTest, ADiskOutsideAnyEnclosureHasNoEnclosureId)
{
    serveTable(item(10, "bus", "0\\1", {}) + disk(1, "0\\1\\4", {}, 10));
    DebugCapture capture;
    const Answer a = get(9);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, kUntouched);
    EXPECT_EQ(capture.text(),
              std::string(kEntry) + "getChan(): CHANNELSCSIID_OID assocData is NULL\n" + kExit);
}

TEST_F(AdTest, AnEnclosureWithoutAnIdGivesNone)
{
    serveTable(item(20, "enclosures", "0\\0\\0", {}) + disk(1, "0\\0\\0\\3", {}, 20));
    EXPECT_EQ(get(9).result, 2);
}

// ---- Mask columns -------------------------------------------------------------------

TEST_F(AdTest, SpareStateComesFromPositions22To24)
{
    const std::pair<std::string, uint32_t> cases[] = {{mask({22}), 99},
                                                      {mask({22, 23, 24}), 99},
                                                      {mask({23}), 4},
                                                      {mask({23, 24}), 4},
                                                      {mask({24}), 3},
                                                      {mask({}), 5},
                                                      {"1", 5},
                                                      {"", 5},
                                                      {withChar(mask({}), 22, 'x'), 5}};
    for (const auto &[attributes, expected] : cases) {
        SetUp();
        serveDisk({{"AttributesMask", attributes}});
        expectNumber(22, expected);
    }
}

TEST_F(AdTest, Position20OfTheMaskGivesTwoElseOne)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {mask({20}), 2}, {mask({}), 1}, {withChar(mask({}), 20, '?'), 1}, {"0", 1}};
    for (const auto &[attributes, expected] : cases) {
        SetUp();
        serveDisk({{"AttributesMask", attributes}});
        expectNumber(31, expected);
    }
}

TEST_F(AdTest, SedCapableAndSecuredAreOneZeroOrNotApplicable)
{
    struct Case {
        std::string mask;
        uint32_t capable; // column 40, position 17
        uint32_t secured; // column 41, position 16
    };
    const Case cases[] = {
        {mask({16, 17}), 1, 1},
        {mask({17}), 1, 0},
        {mask({}), 0, 0},
        {withChar(withChar(mask({}), 16, 'x'), 17, '2'), 99, 99},
        {"0000000000000000", 99, 99}, // ends before position 16
    };
    for (const Case &c : cases) {
        SetUp();
        serveDisk({{"AttributesMask", c.mask}});
        expectNumber(40, c.capable);
        expectNumber(41, c.secured);
    }
    SetUp();
    serveDisk({{"AttributesMask", mask({17})}});
    DebugCapture capture;
    get(40);
    get(41);
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getAD:Retrieving AD_SED_CAPABLE_OID\n" +
                                  "getAD: AD_SED_CAPABLE_OID: 1\n" + kExit + kEntry +
                                  "getAD:Retrieving AD_SED_SECURED_OID\n" +
                                  "getAD: AD_SED_SECURED_OID: 0\n" + kExit);
}

// ---- Certified drive ------------------------------------------------------------------

TEST_F(AdTest, CertificationIsReadFromPositions18And19)
{
    struct Case {
        const char *protocol;
        std::string mask;
        uint32_t expected;
    };
    const Case cases[] = {
        {"8", mask({18, 19}), 0}, {"8", mask({18}), 1},
        {"7", mask({18}), 1},     {"8", mask({19}), 99},
        {"8", mask({}), 99},      {"8", "000000000000000000", 99}, // ends before position 18
    };
    for (const Case &c : cases) {
        SetUp();
        serveDisk({{"BusProtocol", c.protocol}, {"AttributesMask", c.mask}});
        expectNumber(36, c.expected);
    }
    // Without a protocol nothing is known of the disk.
    SetUp();
    serveDisk({{"AttributesMask", mask({18})}});
    expectNumber(36, 99);
}

TEST_F(AdTest, APcieDiskIsNeverRatedWhateverItsMaskHolds)
{
    for (const std::string &attributes :
         {mask({18}), mask({18, 19}), mask({}), std::string(40, '1')}) {
        SetUp();
        serveDisk({{"BusProtocol", "9"}, {"AttributesMask", attributes}});
        expectNumber(36, 99);
    }
}

TEST_F(AdTest, AnUnknownCertificationLeavesTheNumberUnset)
{
    serveDisk({{"BusProtocol", "8"}, {"AttributesMask", withChar(mask({18}), 19, '-')}});
    DebugCapture capture;
    const Answer a = get(36);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched);
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getAD:Retrieving AD_VORN_CERTIFIED\n" +
                                  "getAD:value for AD_VORN_CERTIFIED is " +
                                  std::to_string(kUntouched) + "\n" + kExit);
}

TEST_F(AdTest, CertificationWithoutAMaskIsNotApplicableAndFails)
{
    serveDisk({{"BusProtocol", "8"}});
    DebugCapture capture;
    expectNumber(36, 99, 2);
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getAD:Retrieving AD_VORN_CERTIFIED\n" +
                                  "getAD:value for AD_VORN_CERTIFIED is 99\n" + kExit);
}

// ---- Media type ------------------------------------------------------------------------

TEST_F(AdTest, MediaTypeIsRaisedByOneEvenWhenItCannotBeRead)
{
    serveDisk({{"MediaType", "2"}});
    {
        DebugCapture capture;
        expectNumber(35, 3);
        EXPECT_EQ(capture.text(),
                  std::string(kEntry) + "getAD:value for AD_MEDIATYPE is 3\n" + kExit);
    }
    SetUp();
    serveDisk({});
    DebugCapture capture;
    const Answer a = get(35);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.type, kInt);
    EXPECT_EQ(a.value, kUntouched + 1);
    EXPECT_FALSE(a.nullBuffer) << "nothing was read into the reply";
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getAD:value for AD_MEDIATYPE is " +
                                  std::to_string(kUntouched + 1) + "\n" + kExit);
}

// ---- Power state ---------------------------------------------------------------------

TEST_F(AdTest, ASolidStateDiskHasNoPowerStateEvenWhenOneIsStored)
{
    serveDisk({{"PDPowerState", "1"}, {"MediaType", "2"}});
    DebugCapture capture;
    expectNumber(42, 99);
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getCtrl: Retrieving AD_POWER_STATE\n" +
                                  "getCtrl: Retrieving AD_POWER_STATE:99\n" + kExit);
}

TEST_F(AdTest, PowerStateCases)
{
    struct Case {
        Attributes attributes;
        uint32_t expected;
        int32_t result;
    };
    const Case cases[] = {
        {{{"PDPowerState", "1"}, {"MediaType", "1"}}, 1, 0},
        {{{"PDPowerState", "0"}, {"MediaType", "3"}}, 0, 0},
        {{{"MediaType", "1"}}, 99, 0}, // no power state: not applicable
        {{{"MediaType", "2"}}, 99, 0},
        {{{"PDPowerState", "1"}}, 1, 2}, // no media type: the state, failed
    };
    for (const Case &c : cases) {
        SetUp();
        serveDisk(c.attributes);
        expectNumber(42, c.expected, c.result);
    }
}

// ---- Log lines of the plain columns -------------------------------------------------

TEST_F(AdTest, ColumnsWithLogLinesPrintThemAroundTheirRead)
{
    serveDisk({{"DriveWriteCacheEnabled", "1"},
               {"ModelNumber", "M"},
               {"DeviceLifeTimeRemaining", "90"},
               {"CurrentDriverVersion", "2.6"},
               {"PCIeSSDDeviceStatus", "1"},
               {"PdSectorSize", "512"},
               {"PdPICapable", "1"},
               {"MaxLinkWidth", "4"},
               {"NegotiatedLinkWidth", "2"}});
    const std::pair<uint32_t, std::string> cases[] = {
        {43, "getAD: Retrieving AD_DRIVE_WRITE_CACHE\n"},
        {44, "getAD: Retrieving AD_DRIVE_MODEL_NUMBER\n"},
        {45, "getAD: Retrieving AD_DRIVE_LIFE_REMAINING\n"},
        {46, "getAD: Retrieving AD_PCIESSD_DRVR_VER\n"},
        {47, "getAD: Retrieving AD_PCIESSD_DRVR_HEALTH\n"},
        {50, "getAD:value for AD_SECTORSIZE is 512\n"},
        {51, "getCtrl: Retrieving PD_PI_CAPABLE\n"
             "getCtrl: Retrieving PD_PI_CAPABLE succeeded - 1\n"},
        {52, "getAD:value for AD_MAXLINKWIDTH_INFO is 4\n"},
        {53, "getAD:value for AD_NEGLINKWIDTH_INFO is 2\n"},
    };
    for (const auto &[column, lines] : cases) {
        DebugCapture capture;
        EXPECT_EQ(get(column).result, 0) << "column " << column;
        EXPECT_EQ(capture.text(), kEntry + lines + kExit) << "column " << column;
    }
}

TEST_F(AdTest, AMissingProtectionCapabilitySaysSo)
{
    serveDisk({});
    DebugCapture capture;
    EXPECT_EQ(get(51).result, 2);
    EXPECT_EQ(capture.text(), std::string(kEntry) + "getCtrl: Retrieving PD_PI_CAPABLE\n" +
                                  "getCtrl: Retrieving PD_PI_CAPABLE failed\n" + kExit);
}

} // namespace
