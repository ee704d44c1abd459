// KELP-STORAGE-MIB against the tools and against what is served: smilint
// finds nothing to say, net-snmp loads it silently, its scalars and tables
// are those of the agent's tree, its columns are exactly the columns a walk
// of the sample model answers, every walked name translates to a MIB object
// and back, and every populated table prints with snmptable.
#include <algorithm>
#include <memory>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "mib_model.h"
#include "snmp/tree.h"
#include "testkit.h"

namespace kelp::test {
namespace {

// smilint -l 6 on `file` with the base modules of tests/mibs; its report,
// which is the verdict: smilint exits 0 even when an import is missing.
RunResult smilint(const TempDir &dir, const std::string &file)
{
    std::vector<std::string> env = snmpEnv(dir);
    env.push_back("SMIPATH=" + mibDirs());
    return run({"smilint", "-l", "6", "-s", "-m", file}, env, dir);
}

// The one kind of line smilint -l 6 may print: an index column that is
// read-only. SMIv2 prefers index columns not-accessible, but the agent
// serves column 1 of every table: not-accessible, it would be a column a
// manager may not read by name, and snmptable, which leaves it out, warns
// "More columns on agent than in MIB" for every table. Read-only indexes are
// what agents of read-only tables commonly do; smilint rates it a warning of
// level 5.
const std::regex kIndexAccessible(
    R"(^.*KELP-STORAGE-MIB\.txt:[0-9]+: \[5\] \{index-element-accessible\} warning: index element `([A-Za-z0-9]+)Index' of row `([A-Za-z0-9]+)Entry' should be not-accessible in SMIv2 MIB$)");

TEST(MibLint, SmilintSaysNothingButTheReadableIndexColumns)
{
    TempDir dir;
    const RunResult lint = smilint(dir, sourcePath("mibs/KELP-STORAGE-MIB.txt"));
    ASSERT_EQ(lint.status, 0) << lint.out << lint.err;
    size_t indexLines = 0;
    for (const std::string &line : linesOf(lint.out + lint.err)) {
        std::smatch match;
        if (std::regex_match(line, match, kIndexAccessible) && match[1] == match[2]) {
            indexLines++;
        } else {
            ADD_FAILURE() << "smilint: " << line;
        }
    }
    // One for each of the 24 tables, and no more.
    EXPECT_EQ(indexLines, std::size(agent::kServedTables));
}

TEST(MibLint, SmilintReportsAModuleThatLacksAnImport)
{
    // The check above reads smilint's report because smilint exits 0 when
    // an import is missing; this is the case it must then catch.
    TempDir dir;
    std::string text = readFile(sourcePath("mibs/KELP-STORAGE-MIB.txt"));
    const std::string import = "TEXTUAL-CONVENTION, DisplayString";
    ASSERT_NE(text.find(import), std::string::npos);
    text.replace(text.find(import), import.size(), "TEXTUAL-CONVENTION");
    writeFile(dir / "KELP-STORAGE-MIB.txt", text);
    const RunResult lint = smilint(dir, dir / "KELP-STORAGE-MIB.txt");
    EXPECT_EQ(lint.status, 0);
    const std::string report = lint.out + lint.err;
    EXPECT_NE(report.find("DisplayString"), std::string::npos) << report;
}

TEST(MibLoad, NetSnmpLoadsTheModuleWithoutAWord)
{
    TempDir dir;
    const RunResult tz = mibTool(dir, "snmptranslate", {"-Tz"});
    EXPECT_EQ(tz.status, 0);
    EXPECT_EQ(tz.err, "");
    EXPECT_NE(tz.out.find("\"arrayDiskTable\""), std::string::npos);
    // Added to net-snmp's default list, as managers load it: what the
    // tools may say is about the default modules Debian does not ship,
    // never about this module or its imports.
    const RunResult added = run({"snmptranslate", "-M", "+" + mibDirs(), "-m", "+KELP-STORAGE-MIB",
                                 "-On", "KELP-STORAGE-MIB::arrayDiskState.3"},
                                quietSnmpEnv(dir), dir);
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_EQ(added.out, "." + std::string(kRoot) + ".130.4.1.4.3\n");
    for (const std::string &line : linesOf(added.err)) {
        if (line.starts_with("MIB search path: ")) {
            continue; // printed with the first module not found
        }
        EXPECT_EQ(line.find("KELP-STORAGE-MIB"), std::string::npos) << line;
        EXPECT_EQ(line.find(sourcePath("")), std::string::npos) << line;
    }
}

TEST(MibTree, TheScalarsAndTablesAreThoseTheAgentServes)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    EXPECT_EQ(mib.unplaced, std::vector<std::string>{});
    std::set<Arcs> served;
    for (const agent::ServedScalar &scalar : agent::kServedScalars) {
        // Without the instance arc .0.
        served.insert(Arcs(scalar.arcs, scalar.arcs + scalar.count - 1));
    }
    std::set<Arcs> inMib;
    for (const auto &[arcs, name] : mib.scalars) {
        inMib.insert(arcs);
    }
    EXPECT_EQ(inMib, served);

    std::set<TableId> tables;
    std::map<TableId, std::set<uint32_t>> servedColumns;
    for (const agent::ServedTable &table : agent::kServedTables) {
        for (uint32_t column = 1; column <= table.columns; column++) {
            if (table.hasColumn(column)) {
                servedColumns[{table.group, table.table}].insert(column);
            }
        }
        const TableId id{table.group, table.table};
        tables.insert(id);
        EXPECT_TRUE(mib.entries.contains(id)) << id.first << "." << id.second;
        ASSERT_TRUE(mib.columns.contains(id)) << id.first << "." << id.second;
        const auto &columns = mib.columns.at(id);
        EXPECT_TRUE(columns.contains(1)) << id.first << "." << id.second << " has no index";
        // The agent visits columns 1 to `columns` of a table; a MIB column
        // past them could never be walked.
        EXPECT_LE(columns.rbegin()->first, table.columns) << id.first << "." << id.second;
    }
    std::set<TableId> mibTables;
    for (const auto &[id, name] : mib.tables) {
        mibTables.insert(id);
    }
    EXPECT_EQ(mibTables, tables);
    // The agent answers noSuchObject for exactly the column numbers the MIB
    // leaves out.
    EXPECT_EQ(columnDifferences(mib, servedColumns), std::vector<std::string>{});
}

TEST(MibTree, AColumnMissingOnEitherSideIsReported)
{
    MibObjects mib;
    mib.columns[{130, 2}] = {{1, "channelIndex"}, {2, "channelName"}, {4, "channelExtra"}};
    const std::map<TableId, std::set<uint32_t>> served = {{{130, 2}, {1, 2, 3}}, {{130, 3}, {1}}};
    const std::vector<std::string> expected = {
        "130.2 column 4 (channelExtra): in the MIB, not served",
        "130.2 column 3: served, not in the MIB", "130.3 column 1: served, not in the MIB"};
    EXPECT_EQ(columnDifferences(mib, served), expected);
    EXPECT_EQ(columnDifferences(mib, {{{130, 2}, {1, 2, 4}}}), std::vector<std::string>{});
}

// One agent on the sample model for the walk and table checks: every table
// has rows there, and every column a getter has answers in some row.
class MibWalk : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        agent_ = std::make_unique<AgentUnderTest>();
        std::string why;
        if (!agent_->start(sourcePath("data/models/sample.xml"), {}, &why)) {
            agent_.reset();
            startFailure_ = why;
            return;
        }
        const RunResult walk = agent_->snmp("snmpwalk", {kRoot});
        walk_ = walk.out;
    }
    static void TearDownTestSuite() { agent_.reset(); }

    void SetUp() override { ASSERT_TRUE(agent_) << startFailure_; }

    // (OID below the root, rest of the line) of each walked instance.
    static std::vector<std::pair<Arcs, std::string>> walked()
    {
        std::vector<std::pair<Arcs, std::string>> rows;
        const std::string prefix = "." + std::string(kRoot) + ".";
        for (const std::string &line : linesOf(walk_)) {
            if (!line.starts_with(prefix)) {
                continue;
            }
            const size_t space = line.find(' ');
            rows.emplace_back(parseArcs(line.substr(prefix.size(), space - prefix.size())),
                              line.substr(space));
        }
        return rows;
    }

    static std::unique_ptr<AgentUnderTest> agent_;
    static std::string startFailure_;
    static std::string walk_;
};
std::unique_ptr<AgentUnderTest> MibWalk::agent_;
std::string MibWalk::startFailure_;
std::string MibWalk::walk_;

// The one served value whose type the MIB cannot give: an enclosure's
// channel is text (H:E) for SAS and PCIe enclosures and the channel number
// (an INTEGER) for any other; the MIB says DisplayString, and the sample's
// SATA backplane (row 3) shows as a value of the wrong type.
bool isTheMixedColumn(const std::string &name)
{
    return name == "enclosureChannel";
}

TEST_F(MibWalk, TheMibHasExactlyTheColumnsAndScalarsAWalkAnswers)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    std::map<TableId, std::set<uint32_t>> served;
    std::set<Arcs> scalars;
    for (const auto &[arcs, rest] : walked()) {
        ASSERT_GE(arcs.size(), 2u) << dotted(arcs);
        if (arcs[0] == 130 || arcs[0] == 140) {
            ASSERT_EQ(arcs.size(), 5u) << dotted(arcs);
            served[{arcs[0], arcs[1]}].insert(arcs[3]);
        } else {
            ASSERT_EQ(arcs.back(), 0u) << dotted(arcs);
            scalars.insert(Arcs(arcs.begin(), arcs.end() - 1));
        }
    }
    EXPECT_EQ(served.size(), std::size(agent::kServedTables)) << "a table without rows";
    EXPECT_EQ(columnDifferences(mib, served), std::vector<std::string>{});
    std::set<Arcs> inMib;
    for (const auto &[arcs, name] : mib.scalars) {
        inMib.insert(arcs);
    }
    EXPECT_EQ(inMib, scalars);
}

TEST_F(MibWalk, EveryWalkedNameTranslatesToItsObjectAndBack)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    const std::vector<std::pair<Arcs, std::string>> numeric = walked();
    ASSERT_FALSE(numeric.empty());

    // The same walk printed with the MIB: the object's name and nothing
    // but the index after it.
    const RunResult named = mibTool(dir, "snmpwalk",
                                    {"-v2c", "-c", "public", "-t", "2", "-r", "1",
                                     "127.0.0.1:" + std::to_string(agent_->port()), kRoot});
    ASSERT_EQ(named.status, 0) << named.err;
    EXPECT_EQ(named.err, "");
    const std::vector<std::string> lines = linesOf(named.out);
    ASSERT_EQ(lines.size(), numeric.size());
    const std::regex shape(R"(^KELP-STORAGE-MIB::([A-Za-z][A-Za-z0-9]*)\.([0-9]+) = (.*)$)");
    for (size_t i = 0; i < lines.size(); i++) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, shape)) << lines[i];
        const Arcs &arcs = numeric[i].first;
        const Arcs object(arcs.begin(), arcs.end() - 1);
        ASSERT_TRUE(mib.names.contains(object)) << dotted(arcs);
        EXPECT_EQ(match[1].str(), mib.names.at(object)) << dotted(arcs);
        EXPECT_EQ(match[2].str(), std::to_string(arcs.back())) << lines[i];
        const std::string value = match[3].str();
        if (value.starts_with("Wrong Type")) {
            EXPECT_TRUE(isTheMixedColumn(match[1].str())) << lines[i];
        }
    }

    // And back: every name of the walk to its OID.
    std::vector<std::string> names{"-On"};
    for (const std::string &line : lines) {
        names.push_back(line.substr(0, line.find(' ')));
    }
    const RunResult back = mibTool(dir, "snmptranslate", names);
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(back.err, "");
    const std::vector<std::string> oids = linesOf(back.out);
    ASSERT_EQ(oids.size(), numeric.size());
    for (size_t i = 0; i < oids.size(); i++) {
        EXPECT_EQ(oids[i], "." + std::string(kRoot) + "." + dotted(numeric[i].first));
    }
}

TEST_F(MibWalk, EveryTablePrintsWithSnmptable)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    std::map<TableId, size_t> rows;
    for (const auto &[arcs, rest] : walked()) {
        if ((arcs[0] == 130 || arcs[0] == 140) && arcs[3] == 1) {
            rows[{arcs[0], arcs[1]}]++;
        }
    }
    for (const auto &[id, table] : mib.tables) {
        SCOPED_TRACE(table);
        // As a manager would run it: the module added to net-snmp's own list.
        const RunResult printed = run({"snmptable", "-v2c", "-c", "public", "-t", "2", "-r", "1",
                                       "-m", "+KELP-STORAGE-MIB", "-M", "+" + mibDirs(), "-Cf", "|",
                                       "127.0.0.1:" + std::to_string(agent_->port()), table},
                                      quietSnmpEnv(dir), dir);
        ASSERT_EQ(printed.status, 0) << printed.err;
        const std::vector<std::string> lines = linesOf(printed.out);
        ASSERT_GE(lines.size(), 2u) << printed.out;
        EXPECT_EQ(lines[0], "SNMP table: KELP-STORAGE-MIB::" + table);
        std::string header;
        for (const auto &[column, name] : mib.columns.at(id)) {
            header += (header.empty() ? "" : "|") + name;
        }
        EXPECT_EQ(lines[1], header);
        EXPECT_EQ(lines.size() - 2, rows[id]) << printed.out;
        const auto fields = std::count(header.begin(), header.end(), '|');
        for (size_t i = 2; i < lines.size(); i++) {
            EXPECT_EQ(std::count(lines[i].begin(), lines[i].end(), '|'), fields) << lines[i];
            if (lines[i].find("Wrong Type") != std::string::npos) {
                EXPECT_EQ(table, "enclosureTable") << lines[i];
            }
        }
        // "More columns on agent than in MIB" and the like.
        EXPECT_EQ(printed.out.find("WARNING"), std::string::npos) << printed.out;
        EXPECT_EQ(printed.err.find("WARNING"), std::string::npos) << printed.err;
        for (const std::string &line : linesOf(printed.err)) {
            EXPECT_EQ(line.find("KELP-STORAGE-MIB"), std::string::npos) << line;
        }
    }
}

} // namespace
} // namespace kelp::test
