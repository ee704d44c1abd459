// Whole walks through GetNext: the sample model and a generated one fill all
// 24 tables, visited in the order of the walk; after the model changes and
// the tables are rebuilt, the stable tables keep their row numbers and the
// renumbered ones start again from 1.
#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "datastore/model_store.h"
#include "frame/state.h"
#include "mib/registry.h"
#include "mib/resolve.h"
#include "store/build.h"
#include "testing/model_fixture.h"
#include "testing/request.h"

namespace {

using Name = std::vector<uint32_t>;
using Table = std::pair<uint32_t, uint32_t>; // group, table

// Every table in the order of the walk.
std::vector<Table> everyTable()
{
    std::vector<Table> tables;
    for (uint32_t table = 1; table <= 18; table++) {
        tables.emplace_back(130, table);
    }
    for (uint32_t table = 1; table <= 6; table++) {
        tables.emplace_back(140, table);
    }
    return tables;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string sampleText()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return source == nullptr ? "" : readFile(std::string(source) + "/data/models/sample.xml");
}

// `text` without the first occurrence of `part`; the test fails when there
// is none.
std::string without(std::string text, const std::string &part)
{
    const size_t at = text.find(part);
    EXPECT_NE(at, std::string::npos) << part;
    if (at != std::string::npos) {
        text.erase(at, part.size());
    }
    return text;
}

// The <object> element of `id` in `text`, with its line end.
std::string objectOf(const std::string &text, uint32_t id)
{
    const size_t start = text.find("  <object id=\"" + std::to_string(id) + "\"");
    const size_t end = text.find("</object>\n", start);
    if (start == std::string::npos || end == std::string::npos) {
        ADD_FAILURE() << "no object " << id;
        return "";
    }
    return text.substr(start, end + 10 - start);
}

class WalkTest : public ModelTest {
  protected:
    void SetUp() override
    {
        ModelTest::SetUp();
        initWalkTable();
        g_SNMPRefreshMinutes = 5;
    }

    void load(const std::string &text)
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(text, "walk-model", &error)) << error;
    }

    // Every name of a walk from the start of the MIB, below the root.
    static std::vector<Name> walk()
    {
        std::vector<Name> names;
        Name current{1, 3, 6, 1};
        for (int steps = 0; steps < 200000; steps++) {
            Exchange x{{}, false};
            x.requestArcs = current;
            x.request.name =
                SMSnmpOID{static_cast<uint32_t>(current.size()), 0, x.requestArcs.data()};
            if (getNextValue(&x.request, &x.reply) != 0) {
                break;
            }
            current.assign(x.reply.name.arcs, x.reply.name.arcs + x.reply.name.count);
            EXPECT_EQ(x.reply.type == 2 || x.reply.type == 4, true) << x.name();
            names.push_back(Name(current.begin() + 10, current.end()));
        }
        return names;
    }

    // The tables a walk visits, each once, in the order visited.
    static std::vector<Table> tablesOf(const std::vector<Name> &names)
    {
        std::vector<Table> tables;
        for (const Name &name : names) {
            if (name.size() == 5 && (name[0] == 130 || name[0] == 140)) {
                const Table table{name[0], name[1]};
                if (tables.empty() || tables.back() != table) {
                    tables.push_back(table);
                }
            }
        }
        return tables;
    }

    // The row numbers of column 1 of root.group.table in a walk.
    static std::vector<uint32_t> rowsOf(const std::vector<Name> &names, uint32_t group,
                                        uint32_t table)
    {
        std::vector<uint32_t> rows;
        for (const Name &name : names) {
            if (name.size() == 5 && name[0] == group && name[1] == table && name[2] == 1 &&
                name[3] == 1) {
                rows.push_back(name[4]);
            }
        }
        return rows;
    }
};

TEST_F(WalkTest, TheSampleModelFillsEveryTableInWalkOrder)
{
    testmodel::serveSampleModel();
    const std::vector<Name> names = walk();
    EXPECT_EQ(tablesOf(names), everyTable());
    // The disk-to-enclosure and disk-to-channel tables split the disks.
    EXPECT_EQ(rowsOf(names, 130, 5).size() + rowsOf(names, 130, 6).size(),
              rowsOf(names, 130, 4).size());
    EXPECT_FALSE(rowsOf(names, 130, 6).empty());
}

TEST_F(WalkTest, AGeneratedModelFillsEveryTableInWalkOrder)
{
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("kelp-walk-" + std::to_string(getpid()) + ".xml");
    const std::string command =
        std::string(KELPGEN_PATH) + " --disks 64 --disks-per-controller 16 --out " + file.string();
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
    const std::string text = readFile(file.string());
    std::filesystem::remove(file);
    load(text);
    ASSERT_EQ(buildAll(), 0);
    const std::vector<Name> names = walk();
    EXPECT_EQ(tablesOf(names), everyTable());
    EXPECT_EQ(rowsOf(names, 130, 4).size(), 64u);
    EXPECT_EQ(rowsOf(names, 130, 1).size(), 4u);
    EXPECT_FALSE(rowsOf(names, 130, 6).empty());
}

TEST_F(WalkTest, AfterARebuildStableTablesKeepTheirRows)
{
    const std::string sample = sampleText();
    ASSERT_FALSE(sample.empty()) << "ctest sets KELP_SOURCE_DIR";
    load(sample);
    ASSERT_EQ(buildAll(), 0);
    const std::vector<Name> before = walk();
    const std::vector<uint32_t> fans = rowsOf(before, 130, 7);
    const std::vector<uint32_t> disks = rowsOf(before, 130, 4);
    ASSERT_GE(fans.size(), 2u);

    // The second fan and the second disk leave; a fan arrives. (A stable
    // table whose first row leaves is passed over whole by the walk, whose
    // probe of row 1 then finds no first row.)
    std::string changed = without(sample, objectOf(sample, 31));
    changed = without(changed, objectOf(changed, 301));
    changed = without(changed, "  <link a=\"301\" b=\"100\"/>\n");
    const std::string newFan = "  <object id=\"39\" type=\"fans\" parent=\"21\">\n"
                               "    <Nexus>1\\0\\0\\1\\7</Nexus>\n"
                               "    <ObjState>1</ObjState>\n"
                               "    <FanSpeed>2</FanSpeed>\n"
                               "  </object>\n";
    changed.insert(changed.find("</storage>"), newFan);
    load(changed);
    ASSERT_EQ(rebuildAllStep1(), 0);
    rebuildAllStep2();

    const std::vector<Name> after = walk();
    EXPECT_EQ(tablesOf(after), everyTable());
    // Fans keep their rows: the second leaves a hole, the new one comes last.
    std::vector<uint32_t> expectedFans = fans;
    expectedFans.erase(expectedFans.begin() + 1);
    expectedFans.push_back(fans.back() + 1);
    EXPECT_EQ(rowsOf(after, 130, 7), expectedFans);
    EXPECT_EQ(rowsOf(after, 130, 8), expectedFans);
    // Controllers, enclosures and channels are as they were.
    for (const uint32_t table : std::initializer_list<uint32_t>{1, 2, 3, 9, 11, 13, 15}) {
        EXPECT_EQ(rowsOf(after, 130, table), rowsOf(before, 130, table)) << table;
    }
    // Array disks are numbered from 1 again.
    std::vector<uint32_t> renumbered(disks.begin(), disks.end() - 1);
    EXPECT_EQ(rowsOf(after, 130, 4), renumbered);
    // Every other name answers as it did, but for the rows that changed.
    const std::set<Name> old(before.begin(), before.end());
    size_t same = 0;
    for (const Name &name : after) {
        same += old.count(name);
    }
    EXPECT_GT(same, after.size() * 9 / 10);
}

} // namespace
