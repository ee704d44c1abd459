// Every column of the fan, power supply, temperature probe, EMM and battery
// tables, the fan's speed text, EMM column 7, and the sample model's rows.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "store/build.h"
#include "store/tablelist.h"
#include "tables/components_testing.h"
#include "tables/getters.h"
#include "testing/debug_capture.h"
#include "testing/table_fixture.h"

namespace {

using namespace tabletest;
using namespace componenttest;

// ---- The fan table ----------------------------------------------------------------

class FanTest : public TableTest {
  protected:
    FanTest() : TableTest(kFanTable) {}
};

TEST_F(FanTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(30, "fans", "0\\0\\1\\1\\2", kFanAttributes));
    expectNumber(1, 1);
    expectText(2, "Fan 2");
    expectText(3, "VORN");
    expectNumber(4, 3);
    expectText(11, "slow");
    expectText(12, "VN-FN120");
    expectNumber(14, 3);
    expectNumber(15, 4);
    expectText(16, "0\\0\\1\\1\\2");
    expectText(17, "A01");
}

TEST_F(FanTest, SpeedIsAWordOrTheNumberOfAJx33Fan)
{
    struct Case {
        Attributes attributes;
        const char *text;
    };
    const Case cases[] = {
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "1"}}, "stopped"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "2"}}, "slow"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "3"}}, "medium"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "4"}}, "fast"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "0"}}, "unknown"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "5"}}, "unknown"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "9"}}, "unknown"},
        {{{"IsEnclosureJX33XX", "0"}, {"FanSpeed", "4200"}}, "unknown"},
        // A flag that cannot be read is no flag.
        {{{"FanSpeed", "3"}}, "medium"},
        {{{"IsEnclosureJX33XX", "1"}, {"FanSpeed", "4200"}}, "4200"},
        {{{"IsEnclosureJX33XX", "1"}, {"FanSpeed", "3"}}, "3"},
        {{{"IsEnclosureJX33XX", "1"}, {"FanSpeed", "0"}}, "0"},
        {{{"IsEnclosureJX33XX", "2"}, {"FanSpeed", "12000"}}, "12000"},
        // Printed with %d.
        {{{"IsEnclosureJX33XX", "1"}, {"FanSpeed", "4294967295"}}, "-1"},
    };
    for (const Case &c : cases) {
        SetUp();
        serveTable(item(30, "fans", "0\\0\\1\\1\\0", c.attributes));
        const Answer a = get(11);
        EXPECT_EQ(a.result, 0) << c.text;
        EXPECT_EQ(a.type, kStr) << c.text;
        EXPECT_EQ(a.text, c.text);
        EXPECT_EQ(a.value, std::string(c.text).size()) << c.text;
        EXPECT_FALSE(a.ownBuffer) << "the caller's buffer";
    }
}

TEST_F(FanTest, ASpeedThatCannotBeReadIsAbsent)
{
    for (const Attributes &attributes : {Attributes{{"IsEnclosureJX33XX", "1"}}, Attributes{}}) {
        SetUp();
        serveTable(item(30, "fans", "0\\0\\1\\1\\0", attributes));
        const Answer a = get(11);
        EXPECT_EQ(a.result, 2);
        EXPECT_EQ(a.type, kUnsetType);
        EXPECT_EQ(a.value, kUntouched);
    }
}

// ---- The power supply table -------------------------------------------------------

class PowerSupplyTest : public TableTest {
  protected:
    PowerSupplyTest() : TableTest(kPowerSupplyTable) {}
};

TEST_F(PowerSupplyTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(40, "psupplies", "0\\0\\1\\2\\1", kPowerSupplyAttributes));
    expectNumber(1, 1);
    expectText(2, "Power Supply 1");
    expectText(3, "VORN");
    expectNumber(4, 4);
    expectText(6, "VN-PS600");
    expectNumber(8, 2);
    expectNumber(9, 5);
    expectText(10, "0\\0\\1\\2\\1");
    expectText(11, "A03");
    EXPECT_EQ(absentColumns(5, 7), (std::vector<uint32_t>{5, 7}));
}

// ---- The temperature probe table --------------------------------------------------

class ProbeTest : public TableTest {
  protected:
    ProbeTest() : TableTest(kProbeTable) {}
};

TEST_F(ProbeTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(50, "tempprobes", "0\\0\\1\\3\\3", kProbeAttributes));
    expectNumber(1, 1);
    expectText(2, "Temperature Probe 3");
    expectText(3, "VORN");
    expectNumber(4, 2);
    expectText(6, "celsius");
    expectNumber(7, 5);
    expectNumber(8, 2);
    expectNumber(9, 45);
    expectNumber(10, 50);
    expectNumber(11, 27);
    expectNumber(12, 4);
    expectNumber(13, 1);
    expectText(14, "0\\0\\1\\3\\3");
}

// ---- The EMM table ----------------------------------------------------------------

class EmmTest : public TableTest {
  protected:
    EmmTest() : TableTest(kEmmTable) {}
};

TEST_F(EmmTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(60, "emms", "0\\0\\1\\4\\0", kEmmAttributes));
    expectNumber(1, 1);
    expectText(2, "EMM 0");
    expectText(3, "VORN");
    expectNumber(4, 5);
    expectText(6, "VN-EM12G");
    expectNumber(7, 1);
    expectText(8, "3.06");
    expectText(9, "12Gbps");
    expectNumber(10, 3);
    expectNumber(11, 2);
    expectText(12, "0\\0\\1\\4\\0");
    expectText(13, "A02");
}

TEST_F(EmmTest, ColumnSevenIsOneForEveryRow)
{
    serveTable(item(60, "emms", "0\\0\\1\\4\\0", {}) + item(61, "emms", "0\\0\\1\\4\\1", {}));
    for (const uint32_t row : {1u, 2u}) {
        const Answer a = get(7, row);
        EXPECT_EQ(a.result, 0) << row;
        EXPECT_EQ(a.type, kInt) << row;
        EXPECT_EQ(a.value, 1u) << row;
    }
    EXPECT_EQ(get(7, 3).result, 2);
}

// ---- The battery table ------------------------------------------------------------

class BatteryTest : public TableTest {
  protected:
    BatteryTest() : TableTest(kBatteryTable) {}
};

TEST_F(BatteryTest, EveryColumnAnswersItsAttribute)
{
    serveTable(item(70, "batteries", "0\\64\\0", kBatteryAttributes));
    expectNumber(1, 1);
    expectText(2, "Battery 0");
    expectText(3, "VORN");
    expectNumber(4, 7);
    expectNumber(5, 3);
    expectNumber(6, 2);
    // Counts, answered as the texts they are stored as.
    expectText(7, "47");
    expectText(8, "1100");
    expectText(9, "0\\64\\0");
    expectNumber(10, 1);
    expectNumber(11, 1320);
    expectNumber(12, 3);
    expectNumber(13, 0);
    expectNumber(14, 168);
    expectNumber(15, 0xFFFFFFFFu);
}

TEST_F(BatteryTest, ColumnSixteenIsAbsent)
{
    serveTable(item(70, "batteries", "0\\64\\0", kBatteryAttributes));
    const Answer a = get(16);
    EXPECT_EQ(a.result, 2);
    EXPECT_EQ(a.value, kUntouched);
}

// ---- The shipped sample model -----------------------------------------------------

TEST_F(FanTest, TheSampleModelAnswersWhatItsFansHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(fanList.length, 3u);
    expectText(2, "Fan 0");
    expectText(11, "medium");
    expectText(12, "VN-FN120");
    EXPECT_EQ(get(11, 2).text, "fast");
    EXPECT_EQ(get(16, 2).text, "1\\0\\0\\1\\1");
    // The JX3310's fan reports its speed in rpm.
    EXPECT_EQ(get(11, 3).text, "4200");
}

TEST_F(PowerSupplyTest, TheSampleModelAnswersWhatItsSuppliesHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(psuList.length, 2u);
    expectText(2, "Power Supply 0");
    expectNumber(4, 1);
    expectText(6, "VN-PS600");
    expectText(11, "A03");
}

TEST_F(ProbeTest, TheSampleModelAnswersWhatItsProbesHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(tempList.length, 3u);
    expectNumber(4, 1);
    // Bit 7 (n = 8) and bit 60 (n = 61) translated.
    EXPECT_EQ(get(4, 2).value, 4u);
    EXPECT_EQ(get(4, 3).value, 6u);
    expectNumber(11, 27);
    expectNumber(9, 45);
    EXPECT_EQ(get(11, 2).value, 31u);
    EXPECT_EQ(get(11, 3).value, 29u);
}

TEST_F(EmmTest, TheSampleModelAnswersWhatItsEmmsHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(emmList.length, 2u);
    expectText(2, "EMM 0");
    expectText(8, "3.06");
    expectText(9, "12Gbps");
    expectNumber(10, 3);
}

TEST_F(BatteryTest, TheSampleModelAnswersWhatItsBatteriesHold)
{
    testmodel::serveSampleModel();
    ASSERT_EQ(battList.length, 3u);
    EXPECT_EQ(get(4, 2).value, 7u);  // 0x800
    EXPECT_EQ(get(4, 3).value, 21u); // bit 20
    EXPECT_EQ(get(2, 3).text, "Battery 0");
    expectText(2, "Battery 0");
    expectNumber(4, 1);
    expectText(7, "47");
    expectText(8, "1100");
    expectNumber(11, 1320);
    expectNumber(14, 168);
}

} // namespace
