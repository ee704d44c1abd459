// The controller columns read from '0'/'1' masks through getCtrl: method,
// patrol read, cluster, PCI slot, SED, hot slot, enhanced cache, the
// spin-down settings and times, preserved cache, and their log lines.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tables/ctrl_testing.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"

namespace {

using namespace ctrltest;

// ---- Mask columns ----------------------------------------------------------------

TEST_F(CtrlTest, CurrentMethodComesFromPositions28And29)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {mask({28}), 1}, {mask({29}), 2}, {mask({28, 29}), 1}, {mask({}), 3}, {"1", 3}};
    for (const auto &[methods, expected] : cases) {
        SetUp();
        serveController({{"CurrentMethodMask", methods}});
        expectNumber(40, expected);
    }
}

TEST_F(CtrlTest, PatrolReadModeComesFromPositions30And31)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {mask({30, 31}), 1}, {mask({31}), 2}, {mask({}), 3}, {mask({30}), 3}};
    for (const auto &[mode, expected] : cases) {
        SetUp();
        serveController({{"PatrolReadMode", mode}});
        expectNumber(52, expected);
    }
    // Neither '1' nor '0' at 31, or no character there: the number stays unset.
    for (const std::string &mode : {withChar(mask({30}), 31, 'x'), std::string("0011")}) {
        SetUp();
        serveController({{"PatrolReadMode", mode}});
        const Answer a = get(52);
        EXPECT_EQ(a.result, 0);
        EXPECT_EQ(a.type, kInt);
        EXPECT_EQ(a.value, kUntouched);
        EXPECT_FALSE(a.nullBuffer) << "the mask is read into a buffer of the call's own";
    }
}

TEST_F(CtrlTest, ClusterCapabilityDependsOnTheProtocol)
{
    struct Case {
        const char *protocol;
        Attributes masks;
        uint32_t expected;
    };
    const Case cases[] = {
        {"7", {{"AttributesMask", mask({31})}}, 1},
        {"7", {{"AttributesMask", mask({30})}}, 99},
        {"9", {}, 99},
        {"8", {{"ClusterMode", mask({31})}, {"AttributesMask", mask({})}}, 3},
        {"8", {{"ClusterMode", mask({30, 31})}}, 3},
        {"8", {{"ClusterMode", mask({30})}}, 1},
        {"8", {{"ClusterMode", mask({})}, {"AttributesMask", mask({31})}}, 2},
        {"8", {{"ClusterMode", mask({29})}}, 8}, // the protocol read into the binding
        {"8", {{"AttributesMask", mask({31})}}, 99},
    };
    for (const Case &c : cases) {
        SetUp();
        Attributes attributes = c.masks;
        attributes.emplace_back("BusProtocol", c.protocol);
        serveController(attributes);
        expectNumber(43, c.expected);
    }
    SetUp();
    serveController({{"ClusterMode", mask({31})}});
    EXPECT_EQ(get(43).result, 2);
}

TEST_F(CtrlTest, PciSlotZeroIsEmbeddedAndPcieControllersHaveNone)
{
    struct Case {
        Attributes attributes;
        int32_t result;
        std::string text;
    };
    const Case cases[] = {
        {{{"BusProtocol", "8"}, {"PCISlot", "0"}}, 0, "embedded"},
        {{{"BusProtocol", "8"}, {"PCISlot", "00"}}, 0, "00"},
        {{{"BusProtocol", "8"}, {"PCISlot", "3"}}, 0, "3"},
        {{{"BusProtocol", "9"}, {"PCISlot", "3"}}, 0, "NotApplicable"},
        {{{"BusProtocol", "9"}}, 0, "NotApplicable"},
        {{{"PCISlot", "0"}}, 0, "embedded"},
    };
    for (const Case &c : cases) {
        SetUp();
        serveController(c.attributes);
        expectText(42, c.text, c.result);
    }
    SetUp();
    serveController({{"BusProtocol", "8"}});
    EXPECT_EQ(get(42).result, 2);
}

TEST_F(CtrlTest, SedColumnsReadPositions8And7)
{
    struct Case {
        std::string attributes;
        uint32_t capable;
        uint32_t keyPresent;
    };
    const Case cases[] = {{mask({8}), 1, 0},
                          {mask({7, 8}), 1, 1},
                          {mask({7}), 99, 99},
                          {mask({}), 99, 99},
                          {withChar(mask({7}), 8, 'x'), 99, 99}};
    for (const Case &c : cases) {
        SetUp();
        serveController({{"AttributesMask", c.attributes}});
        expectNumber(57, c.capable);
        expectNumber(58, c.keyPresent);
    }
}

TEST_F(CtrlTest, PersistentHotSlotNeedsPosition0)
{
    const std::pair<std::string, uint32_t> cases[] = {{mask({}), 99},       {mask({0}), 99},
                                                      {mask({0, 1}), 1},    {mask({0, 2}), 0},
                                                      {mask({0, 1, 2}), 1}, {mask({1, 2}), 99}};
    for (const auto &[properties, expected] : cases) {
        SetUp();
        serveController({{"ChangeControllerPropertyMask", properties}});
        expectNumber(59, expected);
    }
}

TEST_F(CtrlTest, EnhancedCacheIsPosition1)
{
    const std::pair<std::string, uint32_t> cases[] = {{mask({1}), 1}, {mask({0, 2}), 0}};
    for (const auto &[attributes, expected] : cases) {
        SetUp();
        serveController({{"AttributesMask", attributes}});
        expectNumber(64, expected);
    }
}

// ---- Spin-down ---------------------------------------------------------------------

struct SpinColumn {
    uint32_t column;
    uint32_t enable;
    uint32_t disable;
    const char *feature;
    const char *tag;
};
constexpr SpinColumn kSpinColumns[] = {
    {60, 26, 27, "Unconfigured Drives Spin", "CTRL_UNCONFDRIVES_SPIN_CAPAB"},
    {61, 24, 25, "HotSpare Drives Spin", "CTRL_HOTSPAREDRIVES_SPIN_CAPAB"},
    {65, 22, 23, "Configured Drives Spin", "CTRL_CONFDRIVES_SPIN_CAPAB"},
    {66, 20, 21, "Configured Drives idlec Spin", "CTRL_CONFDRIVES_IDLEC_CAPAB"},
};

TEST_F(CtrlTest, SpinSettingsNeedTheFeatureThenReadEnableAndDisable)
{
    for (const SpinColumn &spin : kSpinColumns) {
        const std::pair<std::string, uint32_t> cases[] = {
            {mask({}), 99},
            {mask({spin.enable, spin.disable}), 99},
            {mask({0}), 99},
            {mask({0, spin.enable}), 1},
            {mask({0, spin.disable}), 0},
            {mask({0, spin.enable, spin.disable}), 1},
        };
        for (const auto &[dimmer, expected] : cases) {
            SetUp();
            serveController({{"DimmerPropertyMask", dimmer}});
            SCOPED_TRACE(dimmer);
            expectNumber(spin.column, expected);
        }
    }
}

TEST_F(CtrlTest, SpinSettingsLogEveryStepWithTheirOwnWords)
{
    for (const SpinColumn &spin : kSpinColumns) {
        const std::string f = std::string("getCtrl: ") + spin.feature + " capablity ";
        const std::string retrieving = std::string("getCtrl: Retrieving ") + spin.tag + "\n";
        const std::string check =
            std::string("getCtrl: about to check controller prop mask for ") + spin.tag + ": 0\n";
        const std::string close = std::string("getCtrl: ") + spin.tag + ": ";
        const std::string curr = "getCtrl: curr ID = 1\n";
        const std::string supported = f + "is supported by controller firmware\n";
        const std::pair<std::string, std::string> cases[] = {
            {mask({}),
             curr + retrieving + f + "is not supported by controller firmware\n" + close + "99\n"},
            {mask({0, spin.enable}),
             curr + retrieving + supported + check + f + "enabled\n" + close + "1\n"},
            {mask({0, spin.disable}),
             curr + retrieving + supported + check + f + "disabled\n" + close + "0\n"},
            {mask({0}), curr + retrieving + supported + check + f + "check value is improper\n" +
                            close + "99\n"},
        };
        for (const auto &[dimmer, log] : cases) {
            SetUp();
            serveController({{"DimmerPropertyMask", dimmer}});
            DebugCapture capture;
            get(spin.column);
            EXPECT_EQ(capture.text(), log);
        }
    }
}

TEST_F(CtrlTest, SpinDownTimeIsValidOnlyWhileSomeSpinDownCanHappen)
{
    const std::pair<std::string, uint32_t> cases[] = {
        {mask({0}), 30},
        {mask({0, 21, 23, 25}), 30},
        {mask({0, 21, 23, 27}), 30},
        {mask({0, 21, 25, 27}), 30},
        {mask({0, 23, 25, 27}), 30},
        {mask({0, 21, 23, 25, 27}), 9999},
        {mask({21}), 9999},
    };
    for (const auto &[dimmer, expected] : cases) {
        SetUp();
        serveController({{"DimmerPropertyMask", dimmer}, {"SpinDownTime", "30"}});
        expectNumber(62, expected);
    }
    SetUp();
    serveController({{"DimmerPropertyMask", mask({0})}});
    EXPECT_EQ(get(62).result, 2);
    SetUp();
    serveController({{"DimmerPropertyMask", mask({})}});
    DebugCapture capture;
    expectNumber(62, 9999);
    EXPECT_EQ(capture.text(),
              "getCtrl: curr ID = 1\ngetCtrl:Spindown time interval is not valid\n");
}

TEST_F(CtrlTest, SpinUpTimeIsReadOnlyWhenPosition22Says)
{
    const std::pair<std::string, std::string> cases[] = {
        {mask({0, 22}), "22:00"}, {mask({0, 21, 22, 23, 25, 27}), "22:00"},
        {mask({0}), "9999"},      {mask({0, 21, 23, 25, 27}), "9999"},
        {mask({22}), "9999"},
    };
    for (const auto &[dimmer, expected] : cases) {
        SetUp();
        serveController({{"DimmerPropertyMask", dimmer}, {"DisableLDPSTime", "22:00"}});
        expectText(67, expected);
    }
    SetUp();
    serveController({{"DimmerPropertyMask", mask({0, 22})}});
    EXPECT_EQ(get(67).result, 2);
    // Any other character at 22: the binding stays as the caller gave it.
    SetUp();
    serveController(
        {{"DimmerPropertyMask", withChar(mask({0}), 22, 'x')}, {"DisableLDPSTime", "22:00"}});
    const Answer a = get(67);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.type, kUnsetType);
    EXPECT_EQ(a.value, kUntouched);
    EXPECT_EQ(buffer[0], 'Z');
}

TEST_F(CtrlTest, SpinUpIntervalIsValidFrom1To24Hours)
{
    const std::pair<const char *, uint32_t> hours[] = {
        {"1", 1}, {"24", 24}, {"6", 6}, {"0", 9999}, {"25", 9999}};
    for (const auto &[interval, expected] : hours) {
        SetUp();
        serveController({{"DimmerPropertyMask", mask({0})}, {"DisableLDPSInterval", interval}});
        expectNumber(68, expected);
    }
    SetUp();
    serveController({{"DimmerPropertyMask", mask({0})}});
    expectNumber(68, 9999);

    const std::pair<std::string, const char *> invalid[] = {
        {mask({0, 21, 23, 25, 27}), "getCtrl:DisableLDPSInterval is not valid1\n"},
        {mask({22}), "getCtrl:DisableLDPSInterval is not valid2\n"},
    };
    for (const auto &[dimmer, line] : invalid) {
        SetUp();
        serveController({{"DimmerPropertyMask", dimmer}, {"DisableLDPSInterval", "6"}});
        DebugCapture capture;
        expectNumber(68, 9999);
        EXPECT_EQ(capture.text(), std::string("getCtrl: curr ID = 1\n") + line);
    }
}

// ---- Preserved cache ----------------------------------------------------------------

TEST_F(CtrlTest, PreservedCacheIsNotApplicableToSoftwareRaidModels)
{
    struct Case {
        Attributes attributes;
        int32_t result;
        uint32_t expected;
    };
    const Case cases[] = {
        {{{"Name", "Vorn Q330 Lite"}, {"AttributesMask", mask({5})}}, 0, 99},
        {{{"Name", "Vorn Q310"}, {"AttributesMask", mask({5})}}, 0, 99},
        {{{"Name", "vorn q330"}, {"AttributesMask", mask({5})}}, 0, 99},
        {{{"Name", "Vorn Q310"}}, 0, 99},
        {{{"Name", "Vorn RX-240"}, {"AttributesMask", mask({5})}}, 0, 1},
        {{{"Name", "Vorn q310"}, {"AttributesMask", mask({})}}, 0, 0},
        {{{"AttributesMask", mask({5})}}, 0, 1},
        {{{"Name", "Vorn RX-240"}}, 2, 99},
    };
    for (const Case &c : cases) {
        SetUp();
        serveController(c.attributes);
        expectNumber(69, c.expected, c.result);
    }
}

TEST_F(CtrlTest, PreservedCacheTestsAndLogsAllFourNeedles)
{
    serveController({{"Name", "Vorn Q310"}, {"AttributesMask", mask({5})}});
    {
        DebugCapture capture;
        get(69);
        EXPECT_EQ(capture.text(),
                  "getCtrl: curr ID = 1\n"
                  "getCtrl: Controller Name: Vorn Q310\n"
                  "getCtrl: checking haystack = Vorn Q310 needle = Q330"
                  "getCtrl: position is NULL"
                  "getCtrl: checking haystack = Vorn Q310 needle = Q310"
                  "getCtrl: position not NULL"
                  "getCtrl: checking haystack = Vorn Q310 needle = q330"
                  "getCtrl: position is NULL"
                  "getCtrl: checking haystack = Vorn Q310 needle = Q330"
                  "getCtrl: position is NULL"
                  "getCtrl: Controller detected as a swraid controller"
                  "getCtrl: preserved cache not applicable for swraid controller \n");
    }
    SetUp();
    serveController({{"Name", "RX"}, {"AttributesMask", mask({5})}});
    DebugCapture capture;
    get(69);
    std::string needles;
    for (const char *needle : {"Q330", "Q310", "q330", "Q330"}) {
        needles += std::string("getCtrl: checking haystack = RX needle = ") + needle +
                   "getCtrl: position is NULL";
    }
    EXPECT_EQ(capture.text(),
              "getCtrl: curr ID = 1\ngetCtrl: Controller Name: RX\n" + needles +
                  "getCtrl: swarid controller not detected moving on \n"
                  "getCtrl: might be a ZARC or PCIeSSD virtual controller checking..  \n"
                  "getCtrl:  controller has Preserved Cache\n"
                  "getCtrl: CTRL_PRESERVED_CACHE: 1\n");
}

TEST_F(CtrlTest, CapabilityReadFailuresLogTheirLine)
{
    serveController({});
    const std::pair<uint32_t, const char *> cases[] = {
        {63, "getCtrl: Retrieving CTRL_SECURITY_MODE failed\n"},
        {70, "getCtrl: Retrieving CTRL_PI_ENABLE failed\n"},
        {64, "getCtrl: CTRL_ENHANCED_CACHE: 99\n"},
        // No number to show: the closing line is not printed.
        {57, ""},
        {58, "getCtrl: Retrieving CTRL_SED_LOCKKEY_PRESENT\n"},
        // The closing line follows the read, with an empty text.
        {55, "getCtrl: Retrieving CTRLSTORPORTDRIVER_VERSION_OID\n"
             "getCtrl: CTRLSTORPORTDRIVER_VERSION_OID: \n"},
        {56, "getCtrl: Retrieving CTRLMIN_STORPORT_VERSION_OID\n"
             "getCtrl: CTRLMIN_STORPORT_VERSION_OID: \n"},
    };
    for (const auto &[column, line] : cases) {
        DebugCapture capture;
        get(column);
        EXPECT_EQ(capture.text(), std::string("getCtrl: curr ID = 1\n") + line);
    }
}

TEST_F(CtrlTest, CapabilityColumnsLogTheirAnswers)
{
    serveController(
        {{"AttributesMask", mask({1, 7, 8})}, {"RequiredStorPortDriverVersion", "5.0"}});
    const std::pair<uint32_t, const char *> cases[] = {
        {57, "getCtrl: controller is SED capable\ngetCtrl: CTRL_SED_CAPABLE: 1\n"},
        {58, "getCtrl: Retrieving CTRL_SED_LOCKKEY_PRESENT\ngetCtrl: controller key present\n"
             "getCtrl: CTRL_SED_LOCKKEY_PRESENT: 1\n"},
        {64, "getCtrl: controller is EC capable\ngetCtrl: CTRL_ENHANCED_CACHE: 1\n"},
        {56, "getCtrl: Retrieving CTRLMIN_STORPORT_VERSION_OID\n"
             "getCtrl: CTRLMIN_STORPORT_VERSION_OID: 5.0\n"},
        {59, ""}, // a missing property mask is simply not applicable
    };
    for (const auto &[column, lines] : cases) {
        DebugCapture capture;
        get(column);
        EXPECT_EQ(capture.text(), std::string("getCtrl: curr ID = 1\n") + lines);
    }
}

TEST_F(CtrlTest, HotSlotAndKeyLinesNameTheirCase)
{
    const std::pair<std::string, const char *> hotSlot[] = {
        {mask({}), "getCtrl: Persistent HotSlot Not applicable\n"},
        {mask({0, 1}), "getCtrl: Persistent HotSlot enabled\n"},
        {mask({0, 2}), "getCtrl: Persistent HotSlot disabled\n"},
        {mask({0}), "getCtrl: Persistent HotSlot not applicable\n"},
    };
    for (const auto &[properties, line] : hotSlot) {
        SetUp();
        serveController(
            {{"ChangeControllerPropertyMask", properties}, {"AttributesMask", mask({8})}});
        DebugCapture capture;
        get(59);
        EXPECT_EQ(capture.text(), std::string("getCtrl: curr ID = 1\n") + line);
    }
    DebugCapture capture;
    get(58);
    EXPECT_EQ(capture.text(), "getCtrl: curr ID = 1\ngetCtrl: Retrieving CTRL_SED_LOCKKEY_PRESENT\n"
                              "getCtrl: controllerkey not present\n"
                              "getCtrl: CTRL_SED_LOCKKEY_PRESENT: 0\n");
}

} // namespace
