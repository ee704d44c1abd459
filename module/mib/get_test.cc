// Get resolution: the root scalars, the information and global groups, the
// routing of table cells to getters and the empty-table probe.
#include <gtest/gtest.h>

#include "frame/state.h"
#include "mib/registry.h"
#include "mib/resolve.h"
#include "mib/scalars.h"
#include "store/build.h"
#include "store/refresh.h"
#include "testing/debug_capture.h"
#include "testing/model_fixture.h"
#include "testing/request.h"

namespace {

using testmodel::object;
using testmodel::serve;

std::string controller(uint32_t id, const char *treeStatus = "1")
{
    return object(id, "adapters", 0,
                  {{"Nexus", std::to_string(id)},
                   {"Name", "Ctrl " + std::to_string(id)},
                   {"TreeStatus", treeStatus}});
}

class GetTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        initWalkTable();
        g_SNMPRefreshMinutes = 5;
        g_uGlobalStatus = 0;
        g_uPrevGlobalStatus = 0;
    }
    void build(const std::string &items)
    {
        serve(items);
        ASSERT_EQ(buildAll(), 0);
    }
};

TEST_F(GetTest, RootScalarsAnswerTheirTextsWhateverFollows)
{
    const std::pair<uint32_t, const char *> cases[] = {
        {1, "5.2.0"},
        {3, "Vorn Inc."},
        {4, "Halden (Storage Management)"},
        {5, "Configuration and monitoring of disk storage devices."}};
    for (const auto &[arc, text] : cases) {
        const auto check = [&](Exchange &x) {
            ASSERT_EQ(getValue(&x.request, &x.reply), 0) << arc;
            EXPECT_EQ(x.reply.type, static_cast<uint32_t>(SM_ASN_OCTET_STRING));
            EXPECT_EQ(x.text(), text);
            EXPECT_EQ(x.replyBuffer[x.reply.value], '\0');
        };
        Exchange bare{arc};
        Exchange instance{arc, 0};
        Exchange longer{arc, 9, 9};
        check(bare);
        check(instance);
        check(longer);
    }
    Exchange vendor{3, 0};
    ASSERT_EQ(getValue(&vendor.request, &vendor.reply), 0);
    EXPECT_EQ(vendor.reply.value, 9u);
}

TEST_F(GetTest, TheRootAloneIsGenErrAndNamesOutsideAreNoSuchName)
{
    Exchange root{};
    EXPECT_EQ(getValue(&root.request, &root.reply), 5);
    Exchange outside{{1, 3, 6, 1, 2, 1, 1, 1, 0}, false};
    EXPECT_EQ(getValue(&outside.request, &outside.reply), 2);
    Exchange shorter{{1, 3, 6, 1}, false};
    EXPECT_EQ(getValue(&shorter.request, &shorter.reply), 2);
    Exchange empty{{}, false};
    EXPECT_EQ(getValue(&empty.request, &empty.reply), 2);
    Exchange other{7, 0};
    EXPECT_EQ(getValue(&other.request, &other.reply), 2);
}

TEST_F(GetTest, TheTrapGroupAnswersNothing)
{
    Exchange x{200, 1, 0};
    EXPECT_EQ(getValue(&x.request, &x.reply), 2);
}

TEST_F(GetTest, TheInformationGroupRepeatsTheDescriptors)
{
    const char *texts[] = {"Halden (Storage Management)",
                           "Configuration and monitoring of disk storage devices.", "Vorn Inc."};
    for (uint32_t c = 1; c <= 3; c++) {
        Exchange x{100, c, 0};
        ASSERT_EQ(getValue(&x.request, &x.reply), 0);
        EXPECT_EQ(x.text(), texts[c - 1]);
    }
    Exchange pastTheColumns{100, 4, 0};
    Exchange columnZero{100, 0};
    Exchange groupAlone{100};
    for (Exchange *x : {&pastTheColumns, &columnZero, &groupAlone}) {
        EXPECT_EQ(getValue(&x->request, &x->reply), 2);
    }
}

TEST_F(GetTest, GlobalColumnsWithoutValuesAreNoSuchName)
{
    for (uint32_t c : {1u, 2u, 7u, 8u, 9u, 10u, 16u}) {
        Exchange x{110, c, 0};
        EXPECT_EQ(getValue(&x.request, &x.reply), 2) << c;
    }
}

TEST_F(GetTest, TheRefreshPeriodIsReportedInSeconds)
{
    Exchange x{110, 6, 0};
    ASSERT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(x.reply.value, 300u);
    EXPECT_EQ(x.reply.buffer, nullptr);
    g_SNMPRefreshMinutes = 15;
    Exchange y{110, 6, 0};
    ASSERT_EQ(getValue(&y.request, &y.reply), 0);
    EXPECT_EQ(y.reply.value, 900u);
}

TEST_F(GetTest, GlobalConstantsVersionTimeAndThermalShutdown)
{
    serve("", true);
    lastRefreshTime = 0x100000007LL;
    Exchange time{110, 3, 0}, constant{110, 4, 0}, zero{110, 5, 0}, version{110, 11, 0},
        thermal{110, 15, 0};
    ASSERT_EQ(getValue(&time.request, &time.reply), 0);
    EXPECT_EQ(time.reply.value, 7u);
    ASSERT_EQ(getValue(&constant.request, &constant.reply), 0);
    EXPECT_EQ(constant.reply.value, 5u);
    ASSERT_EQ(getValue(&zero.request, &zero.reply), 0);
    EXPECT_EQ(zero.reply.value, 0u);
    ASSERT_EQ(getValue(&version.request, &version.reply), 0);
    EXPECT_EQ(version.text(), "5.2");
    ASSERT_EQ(getValue(&thermal.request, &thermal.reply), 0);
    EXPECT_EQ(thermal.reply.value, 0u);
}

TEST_F(GetTest, TheManagementAddressLosesATrailingNonDigit)
{
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText("<storage url=\"https://h:1311/\"/>", "m", &error));
    Exchange x{110, 12, 0};
    ASSERT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(x.text(), "https://h:1311");
    ASSERT_TRUE(kelp::ds::loadModelText("<storage url=\"https://h:1311\"/>", "m", &error));
    Exchange y{110, 12, 0};
    ASSERT_EQ(getValue(&y.request, &y.reply), 0);
    EXPECT_EQ(y.text(), "https://h:1311");
    kelp::ds::unloadModel();
    Exchange none{110, 12, 0};
    ASSERT_EQ(getValue(&none.request, &none.reply), 0);
    EXPECT_EQ(none.reply.value, 0u);
}

TEST_F(GetTest, TheGlobalStatusIsMappedAndTracked)
{
    build(controller(1, "1") + controller(2, "4")); // worst TreeStatus 4: status 5
    Exchange mapped{2, 0};
    ASSERT_EQ(getValue(&mapped.request, &mapped.reply), 0);
    EXPECT_EQ(mapped.reply.type, static_cast<uint32_t>(SM_ASN_INTEGER));
    EXPECT_EQ(mapped.reply.value, 1u);
    Exchange raw{110, 13, 0};
    ASSERT_EQ(getValue(&raw.request, &raw.reply), 0);
    EXPECT_EQ(raw.reply.value, 5u);
    Exchange previous{110, 14, 0};
    ASSERT_EQ(getValue(&previous.request, &previous.reply), 0);
    EXPECT_EQ(previous.reply.value, 3u); // an unknown previous status reads as 3
}

TEST_F(GetTest, WithoutControllersTheGlobalStatusIsThree)
{
    Exchange x{2, 0};
    ASSERT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(x.reply.value, 3u);
}

TEST_F(GetTest, AControllerCellReachesTheControllerGetter)
{
    build(controller(1));
    DebugCapture capture;
    Exchange x{130, 1, 1, 2, 1};
    ASSERT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(x.text(), "Ctrl 1");
    EXPECT_NE(capture.text().find("getCtrl"), std::string::npos);
}

TEST_F(GetTest, AMissingRowOfATableWithRowsIsTwo)
{
    build(controller(1));
    Exchange x{130, 1, 1, 2, 9};
    EXPECT_EQ(getValue(&x.request, &x.reply), 2);
}

TEST_F(GetTest, ARowOfATableWithoutRowsIsThree)
{
    build("");
    Exchange x{130, 1, 1, 2, 9};
    EXPECT_EQ(getValue(&x.request, &x.reply), 3);
}

TEST_F(GetTest, UnknownTablesAnswerByGroup)
{
    Exchange g140{140, 7, 1, 1, 1};
    EXPECT_EQ(getValue(&g140.request, &g140.reply), 5);
    Exchange g130{130, 19, 1, 1, 1};
    EXPECT_EQ(getValue(&g130.request, &g130.reply), 2);
    Exchange n130{130}, n140{140};
    EXPECT_EQ(getValue(&n130.request, &n130.reply), 2);
    EXPECT_EQ(getValue(&n140.request, &n140.reply), 2);
}

TEST_F(GetTest, EveryTableHasItsGetter)
{
    for (uint32_t table = 1; table <= 18; table++) {
        const TableRegistryEntry *entry = findTableEntry(130, table);
        ASSERT_NE(entry, nullptr) << table;
        EXPECT_NE(entry->getter, nullptr) << "130." << table;
    }
    for (uint32_t table = 1; table <= 6; table++) {
        const TableRegistryEntry *entry = findTableEntry(140, table);
        ASSERT_NE(entry, nullptr) << table;
        EXPECT_NE(entry->getter, nullptr) << "140." << table;
    }
}

TEST_F(GetTest, AFanRowIsAnswered)
{
    build(controller(1) + object(10, "fans", 1, {{"Nexus", "1\\0\\0\\1\\0"}}));
    Exchange x{130, 7, 1, 1, 1};
    EXPECT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(x.reply.value, 1u);
}

TEST_F(GetTest, TheCallPrintsEntryAndExit)
{
    DebugCapture capture;
    Exchange x{3, 0};
    ASSERT_EQ(getValue(&x.request, &x.reply), 0);
    EXPECT_EQ(capture.text(), "getValue: Entry\ngetValue: exit\n");
}

TEST(TableRegistry, EveryTableNamesItsListsAndTheEndEntryNone)
{
    for (uint32_t i = 0; i < kTableCount; i++) {
        EXPECT_NE(kTableRegistry[i].list, nullptr) << i;
        EXPECT_NE(kTableRegistry[i].walkList, nullptr) << i;
    }
    EXPECT_EQ(kTableRegistry[kTableCount].list, nullptr);
    EXPECT_EQ(lastTableOf(130), 18u);
    EXPECT_EQ(lastTableOf(140), 6u);
}

} // namespace
