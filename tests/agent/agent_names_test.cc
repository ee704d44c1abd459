// Name columns over the wire on data/models/test/odd-nexus.xml, whose objects
// carry nexus texts no type has a shape for (empty, letters, negative
// numbers, numbers past 2^32, backslashes only, 40, 41 and 159 characters,
// UTF-8): every name cell answers an OCTET STRING naming the object by kind
// and nexus, and walks of the whole tree, bulk or not, v1 or v2c, run to the
// end of the storage tree without an error, also after objects left the
// model while the plug-in still lists them.
#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

std::string name(const std::string &tail)
{
    return std::string(kRoot) + "." + tail;
}

// One varbind of a tool's output: the type as printed and, for a string
// printed in hex (-Ox), its bytes.
struct Printed {
    std::string type;
    std::string bytes;
};

// The varbinds of output printed with -On -Ox, by name without the leading
// dot. A hex string runs over several lines of 16 bytes.
std::map<std::string, Printed> parseVarbinds(const std::string &out)
{
    std::map<std::string, Printed> found;
    Printed *current = nullptr;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::string hex = line;
        if (line.starts_with(".")) {
            const size_t equals = line.find(" = ");
            if (equals == std::string::npos) {
                current = nullptr;
                continue;
            }
            current = &found[line.substr(1, equals - 1)];
            const std::string value = line.substr(equals + 3);
            current->type = value.substr(0, value.find(':'));
            hex = current->type == "Hex-STRING" ? value.substr(value.find(':') + 1) : "";
        }
        if (current == nullptr || current->type != "Hex-STRING") {
            continue;
        }
        std::istringstream pairs(hex);
        for (std::string pair; pairs >> pair;) {
            current->bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
        }
    }
    return found;
}

const std::string kX32(32, 'x'), kY33(33, 'y'), kZ153(153, 'z');

// Every cell of a name column of the model, row by row, and the name it
// answers. Rows follow the model's file order; the PCIe channel's name is
// the plug-in's own ("Extender 0"), and the disk-to-channel table names the
// PCIe SSD as a physical disk.
struct NameCell {
    std::string cell;
    std::string text;
};

std::vector<NameCell> nameCells()
{
    const std::string disk0 = "Physical Disk abc";
    // A 159-character nexus; the plug-in answers at most 159 bytes of any
    // text, so the name is cut there.
    const std::string disk1 = ("Physical Disk 0\\0\\0\\" + kZ153).substr(0, 159);
    const std::string disk2 = "Physical Disk 0\\0\\0\\-1";
    const std::string disk5 = "Physical Disk 0\\0\\\xC3\xA9\\\xC3\xBC";
    const std::string fan = "Fan 0\\0\\0\\F1";
    const std::string supply = "Power Supply 0\\0\\0\\2\\4294967296";
    const std::string probe = "Temperature Probe 0\\0\\0\\3\\" + kX32; // 40 characters
    const std::string emm = "EMM 0\\0\\0\\4\\" + kY33;                 // 41 characters
    return {
        {"130.2.1.2.1", "Channel 0\\X0"},
        {"130.2.1.2.2", "Channel"}, // an empty nexus
        {"130.2.1.2.3", "Extender 0"},
        {"130.2.1.2.4", "Channel -1\\0"},
        {"130.2.1.2.5", "Channel -1\\4294967296"},
        {"130.4.1.2.1", disk0},
        {"130.4.1.2.2", disk1},
        {"130.4.1.2.3", disk2},
        {"130.4.1.2.4", "Physical Disk 0\\0\\0\\0\\0\\0"},
        {"130.4.1.2.5", "PCIe SSD 0\\1\\2\\99999999999"},
        {"130.4.1.2.6", disk5},
        {"130.5.1.2.1", disk0},
        {"130.5.1.2.2", disk1},
        {"130.5.1.2.3", disk2},
        {"130.5.1.2.4", disk5},
        {"130.6.1.2.1", "Physical Disk 0\\0\\0\\0\\0\\0"},
        {"130.6.1.2.2", "Physical Disk 0\\1\\2\\99999999999"},
        {"130.6.1.4.1", "Channel"},
        {"130.6.1.4.2", "Channel \\\\\\"}, // backslashes only
        {"130.7.1.2.1", fan},
        {"130.8.1.2.1", fan},
        {"130.9.1.2.1", supply},
        {"130.10.1.2.1", supply},
        {"130.11.1.2.1", probe},
        {"130.12.1.2.1", probe},
        {"130.13.1.2.1", emm},
        {"130.14.1.2.1", emm},
        {"130.15.1.2.1", "Battery 0\\64\\B0"},
        {"130.15.1.2.2", "Battery"},
        {"130.16.1.2.1", "Battery 0\\64\\B0"},
        {"130.16.1.2.2", "Battery"},
        {"130.17.1.2.1", "Tape Drive 0\\0\\T0"},
        {"140.3.1.2.1", disk0},
        {"140.3.1.2.2", disk1},
        {"140.3.1.2.3", disk2},
    };
}

// The tables whose column 2 is a display name.
const std::vector<std::string> kNamedTables = {
    "130.2",  "130.4",  "130.5",  "130.6",  "130.7",  "130.8",  "130.9",  "130.10",
    "130.11", "130.12", "130.13", "130.14", "130.15", "130.16", "130.17", "140.3"};

class AgentNames : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/test/odd-nexus.xml"), {}, &why)) << why;
    }

    // A walk of the whole tree: exit status 0, nothing on stderr, and the
    // names it printed in order.
    std::vector<std::string> walk(const std::string &tool, const std::string &version)
    {
        const RunResult result = agent.snmp(tool, {kRoot}, version);
        EXPECT_EQ(result.status, 0) << tool << " -v" << version << "\n" << result.err;
        EXPECT_EQ(result.err, "") << tool << " -v" << version;
        std::vector<std::string> names;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with(".")) {
                names.push_back(line.substr(1, line.find(" = ") - 1));
            }
            EXPECT_EQ(line.find("Error"), std::string::npos) << line;
        }
        return names;
    }

    // Checks that a walk passes through the name column of each of `tables`
    // and ends in the last table of the storage tree.
    void expectWholeTree(const std::vector<std::string> &names, const std::string &what,
                         const std::vector<std::string> &tables = kNamedTables)
    {
        ASSERT_FALSE(names.empty()) << what;
        EXPECT_TRUE(names.back().starts_with(name("140.6.1."))) << what << ": " << names.back();
        for (const std::string &table : tables) {
            const std::string column = name(table + ".1.2.");
            const bool seen = std::any_of(names.begin(), names.end(), [&](const std::string &n) {
                return n.starts_with(column);
            });
            EXPECT_TRUE(seen) << what << " passes over " << column;
        }
    }

    AgentUnderTest agent;
};

TEST_F(AgentNames, EveryNameCellAnswersTheNameOfItsKindAndNexus)
{
    const std::vector<NameCell> cells = nameCells();
    std::vector<std::string> args{"-Ox"};
    for (const NameCell &c : cells) {
        args.push_back(name(c.cell));
    }
    for (const std::string version : {"2c", "1"}) {
        SCOPED_TRACE("v" + version);
        const RunResult get = agent.snmp("snmpget", args, version);
        ASSERT_EQ(get.status, 0) << get.out << get.err;
        const std::map<std::string, Printed> answers = parseVarbinds(get.out);
        for (const NameCell &c : cells) {
            SCOPED_TRACE(c.cell);
            const auto answer = answers.find(name(c.cell));
            ASSERT_NE(answer, answers.end()) << get.out;
            EXPECT_EQ(answer->second.type, "Hex-STRING") << get.out;
            EXPECT_EQ(answer->second.bytes, c.text);
        }
    }
}

TEST_F(AgentNames, EachNameColumnWalksOverEveryRow)
{
    const std::vector<NameCell> cells = nameCells();
    for (const std::string &table : kNamedTables) {
        SCOPED_TRACE(table);
        const std::string column = name(table + ".1.2");
        const RunResult walked = agent.snmp("snmpwalk", {"-Ox", column});
        EXPECT_EQ(walked.status, 0) << walked.err;
        std::vector<std::string> expected;
        for (const NameCell &c : cells) {
            if (c.cell.starts_with(table + ".1.2.")) {
                expected.push_back(name(c.cell));
            }
        }
        std::vector<std::string> rows;
        for (const auto &[cell, printed] : parseVarbinds(walked.out)) {
            EXPECT_EQ(printed.type, "Hex-STRING") << cell;
            rows.push_back(cell);
        }
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(rows, expected) << walked.out;
    }
}

TEST_F(AgentNames, WalksOfTheWholeTreeEndAfterTheStorageTree)
{
    const std::vector<std::string> names = walk("snmpwalk", "2c");
    expectWholeTree(names, "snmpwalk -v2c");
    EXPECT_EQ(walk("snmpbulkwalk", "2c"), names);
    EXPECT_EQ(walk("snmpwalk", "1"), names);
}

TEST_F(AgentNames, ObjectsThatLeftTheModelDoNotEndAWalk)
{
    // Without a rescan the plug-in goes on listing the fan and the tape
    // drive the model no longer holds.
    for (const std::string id : {"30", "80"}) {
        const RunResult removed = agent.kelpctl({"remove", "--no-events", id});
        ASSERT_EQ(removed.status, 0) << removed.out << removed.err;
    }
    const RunResult get = agent.snmp("snmpget", {name("130.7.1.2.1"), name("130.17.1.2.1")});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(get.out.find("genErr"), std::string::npos) << get.out;

    // The fan's and the tape drive's tables have no other row.
    std::vector<std::string> others;
    for (const std::string &table : kNamedTables) {
        if (table != "130.7" && table != "130.8" && table != "130.17") {
            others.push_back(table);
        }
    }
    const std::vector<std::string> names = walk("snmpwalk", "2c");
    expectWholeTree(names, "snmpwalk -v2c", others);
    EXPECT_EQ(walk("snmpbulkwalk", "2c"), names);
}

} // namespace
} // namespace kelp::test
