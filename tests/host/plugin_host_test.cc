// The plug-in as a host meets it: loaded with dlopen and driven only through
// its dispatch function.
#include <dlfcn.h>
#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pluginhost.h"

namespace {

class PluginHostTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        char pattern[] = "/tmp/kelp-host-XXXXXX";
        dir_ = mkdtemp(pattern);
        setenv("KELP_INI", (dir_ + "/kelp.ini").c_str(), 1);
        setenv("KELP_TIME_SCALE", "100", 1);
        unsetenv("KELP_DEBUG_FILE");
        unsetenv("KELP_MODEL");
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

    void SetUp() override
    {
        std::ofstream(dir_ + "/kelp.ini") << "[general]\nDebugSNMP=On\nDebugPath=" << dir_ << "\n";
        ASSERT_TRUE(host.open(KELP_PLUGIN_PATH)) << host.error();
    }

    uint32_t call(uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                  uint32_t *used)
    {
        *used = 0xDEAD;
        return host.call(command, in, inSize, out, outSize, used);
    }

    static std::string debugLog()
    {
        std::ifstream in(dir_ + "/kelpimp64.log");
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    PluginHost host;
    static std::string dir_;
};
std::string PluginHostTest::dir_;

TEST_F(PluginHostTest, OnlyTheDispatchIsVisible)
{
    void *handle = dlopen(KELP_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr);
    EXPECT_NE(dlsym(handle, "KELPIMP64_SMMIBImplementerDispatch"), nullptr);
    for (const char *name : {"MIBImplementerLoad", "KelpmibAttach", "kelpMibDefinition", "ctrlList",
                             "getValue", "MPIOIDCompare", "dataMutex"}) {
        EXPECT_EQ(dlsym(handle, name), nullptr) << name;
    }
    dlclose(handle);
}

TEST_F(PluginHostTest, CommandsZeroAndThirteenAnswerGenErr)
{
    uint32_t out = 0, used = 0;
    EXPECT_EQ(call(0, &out, 4, &out, 4, &used), 5u);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(call(13, &out, 4, &out, 4, &used), 5u);
    EXPECT_EQ(used, 0u);
}

TEST_F(PluginHostTest, EverySizeRuleRefusesOneByteShort)
{
    struct Rule {
        uint32_t command, inSize, outSize;
    };
    const Rule rules[] = {{1, 0, 3},    {2, 0, 3},   {3, 0, 3},   {4, 15, 0},
                          {6, 0, 15},   {9, 31, 32}, {9, 32, 31}, {10, 31, 32},
                          {10, 32, 31}, {11, 31, 0}, {12, 31, 0}};
    alignas(8) unsigned char in[64] = {}, out[64] = {};
    for (const Rule &rule : rules) {
        std::memset(out, 0xAA, sizeof out);
        uint32_t used = 0;
        EXPECT_EQ(call(rule.command, in, rule.inSize, out, rule.outSize, &used), 5u)
            << rule.command;
        EXPECT_EQ(used, 0u);
        EXPECT_EQ(out[0], 0xAA) << rule.command;
    }
}

TEST_F(PluginHostTest, InformationCommandsAnswerOneZeroZero)
{
    uint32_t answer = 7;
    EXPECT_EQ(host.info(1, &answer), 0u);
    EXPECT_EQ(answer, 1u);
    EXPECT_EQ(host.info(2, &answer), 0u);
    EXPECT_EQ(answer, 0u);
    EXPECT_EQ(host.info(3, &answer), 0u);
    EXPECT_EQ(answer, 0u);
}

TEST_F(PluginHostTest, ListMibHandsOverTheTwentyTwoGroups)
{
    alignas(8) unsigned char out[16];
    uint32_t used = 0;
    ASSERT_EQ(call(6, nullptr, 0, out, sizeof out, &used), 0u);
    EXPECT_EQ(used, 16u);
    uint32_t count = 0;
    std::memcpy(&count, out, 4);
    EXPECT_EQ(count, 1u);

    std::vector<const SMMibGroupDef *> groups;
    ASSERT_EQ(host.listMib(&groups), 0u);
    struct Expected {
        const char *oid;
        uint32_t columns;
        bool table;
    };
    const std::string root = "1.3.6.1.4.1.61234.20571.1.20";
    const Expected expected[] = {
        {"", 5, false},          {".100", 4, false},      {".110", 15, false},
        {".130.1.1", 55, true},  {".130.2.1", 12, true},  {".130.3.1", 30, true},
        {".130.4.1", 34, true},  {".130.5.1", 7, true},   {".130.6.1", 7, true},
        {".130.7.1", 18, true},  {".130.8.1", 5, true},   {".130.9.1", 12, true},
        {".130.10.1", 5, true},  {".130.11.1", 14, true}, {".130.12.1", 5, true},
        {".130.13.1", 14, true}, {".130.14.1", 5, true},  {".130.15.1", 14, true},
        {".130.16.1", 5, true},  {".140.1.1", 22, true},  {".140.3.1", 7, true},
        {".200", 8, false},
    };
    ASSERT_EQ(groups.size(), std::size(expected));
    for (size_t i = 0; i < groups.size(); i++) {
        const SMMibGroupDef *group = groups[i];
        const bool table = expected[i].table;
        EXPECT_EQ(dottedOid(group->arcs, group->arcCount), root + expected[i].oid) << i;
        EXPECT_EQ(group->columnCount, expected[i].columns) << i;
        EXPECT_EQ(group->indexCount, table ? 1u : 0u) << i;
        EXPECT_EQ(group->indexColumn != nullptr, table) << i;
    }
}

TEST_F(PluginHostTest, SetCommandsAnswerReadOnly)
{
    SMSnmpValue binding{};
    uint32_t used = 0;
    EXPECT_EQ(call(11, &binding, sizeof binding, nullptr, 0, &used), 4u);
    EXPECT_EQ(call(12, &binding, sizeof binding, nullptr, 0, &used), 4u);
}

TEST_F(PluginHostTest, GetAndGetNextAnswerGenErrBeforeTheTablesAreBuilt)
{
    void *services[SM_SERVICE_COUNT] = {};
    ASSERT_EQ(host.load(services, 1), 0u);
    uint32_t arcs[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 1, 0};
    uint32_t replyArcs[128];
    char buffer[1024];
    SMSnmpValue request{}, reply{};
    request.name = SMSnmpOID{12, 0, arcs};
    reply.name = SMSnmpOID{0, 0, replyArcs};
    reply.buffer = buffer;
    uint32_t used = 0;
    EXPECT_EQ(call(9, &request, sizeof request, &reply, sizeof reply, &used), 5u);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(call(10, &request, sizeof request, &reply, sizeof reply, &used), 5u);
    ASSERT_EQ(call(7, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_EQ(call(9, &request, sizeof request, &reply, sizeof reply, &used), 5u);
    EXPECT_EQ(call(10, &request, sizeof request, &reply, sizeof reply, &used), 5u);
    ASSERT_EQ(call(8, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_EQ(host.unload(), 0u);
}

TEST_F(PluginHostTest, UnloadWithoutLoadAnswersNoError)
{
    EXPECT_EQ(host.unload(), 0u);
}

TEST_F(PluginHostTest, AWholeLifetimeLogsUnderTheModulesName)
{
    void *services[SM_SERVICE_COUNT] = {};
    uint32_t used = 0;
    ASSERT_EQ(host.load(services, 1), 0u);
    std::vector<const SMMibGroupDef *> groups;
    ASSERT_EQ(host.listMib(&groups), 0u);
    ASSERT_EQ(call(7, nullptr, 0, nullptr, 0, &used), 0u);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(call(8, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    ASSERT_EQ(host.unload(), 0u);
    host.close();
    const std::string log = debugLog();
    for (const char *line :
         {"MIBImplementerLoad: entry\n", "KelpmibListMib: exit\n", "KelpmibStartMonitor: exit\n",
          "KelpmibStopMonitor: exit\n", "MIBImplementerUnload: exit\n"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

TEST_F(PluginHostTest, RequestNamesOfAnyShapeAreAnsweredWithoutHarm)
{
    void *services[SM_SERVICE_COUNT] = {};
    ASSERT_EQ(host.load(services, 1), 0u);
    std::mt19937 random(20571);
    std::vector<std::vector<uint32_t>> names{
        {}, std::vector<uint32_t>(1000, 0xFFFFFFFF), std::vector<uint32_t>(128, 1)};
    for (int i = 0; i < 200; i++) {
        std::vector<uint32_t> name(random() % 40);
        for (uint32_t &arc : name) {
            arc = static_cast<uint32_t>(random());
        }
        names.push_back(name);
    }
    for (std::vector<uint32_t> &name : names) {
        uint32_t replyArcs[128];
        char buffer[1024];
        SMSnmpValue request{}, reply{};
        request.name =
            SMSnmpOID{static_cast<uint32_t>(name.size()), 0, name.empty() ? nullptr : name.data()};
        reply.name = SMSnmpOID{0, 0, replyArcs};
        reply.buffer = buffer;
        uint32_t used = 0;
        EXPECT_EQ(call(9, &request, sizeof request, &reply, sizeof reply, &used), 5u);
        EXPECT_EQ(call(10, &request, sizeof request, &reply, sizeof reply, &used), 5u);
        EXPECT_EQ(reply.name.count, 0u);
    }
    EXPECT_EQ(host.unload(), 0u);
}

} // namespace
