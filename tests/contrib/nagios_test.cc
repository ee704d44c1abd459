// contrib/nagios/commands.cfg: every check command, expanded as Nagios
// expands it and run through /bin/sh as Nagios runs it, answers OK on the
// healthy sample model and CRITICAL or WARNING, naming the object, once a
// disk has failed or a battery or fan degrades; a row that does not exist
// is UNKNOWN, never OK.
#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "contrib_kit.h"

namespace kelp::test {
namespace {

constexpr const char *kPlugins = "/usr/lib/nagios/plugins";

// Nagios plug-in exit codes.
constexpr int kOkExit = 0, kWarningExit = 1, kCriticalExit = 2, kUnknownExit = 3;

// command_name to command_line of every "define command" block of `path`.
std::map<std::string, std::string> readCommands(const std::string &path, std::string *bad)
{
    std::map<std::string, std::string> commands;
    std::ifstream in(path);
    std::string name, line;
    bool inside = false;
    for (std::string text; std::getline(in, text);) {
        const size_t start = text.find_first_not_of(" \t");
        if (start == std::string::npos || text[start] == '#') {
            continue;
        }
        text = text.substr(start);
        if (!inside) {
            inside = text.starts_with("define command") && text.ends_with("{");
            if (!inside) {
                *bad = text;
                return {};
            }
            name.clear();
            line.clear();
        } else if (text == "}") {
            if (name.empty() || line.empty() || commands.contains(name)) {
                *bad = "command block without a name or line, or twice: " + name;
                return {};
            }
            commands[name] = line;
            inside = false;
        } else if (text.starts_with("command_name")) {
            name = text.substr(text.find_first_of(" \t") + 1);
            name = name.substr(name.find_first_not_of(" \t"));
        } else if (text.starts_with("command_line")) {
            line = text.substr(text.find_first_of(" \t") + 1);
            line = line.substr(line.find_first_not_of(" \t"));
        } else {
            *bad = text;
            return {};
        }
    }
    if (inside) {
        *bad = "unterminated block " + name;
        return {};
    }
    return commands;
}

// `line` with the macros Nagios would replace: $USER1$, $HOSTADDRESS$ and
// $ARGn$ (the check_command's arguments, from 1).
std::string expand(std::string line, const std::vector<std::string> &args)
{
    std::map<std::string, std::string> macros{{"$USER1$", kPlugins},
                                              {"$HOSTADDRESS$", "127.0.0.1"}};
    for (size_t i = 0; i < args.size(); i++) {
        macros["$ARG" + std::to_string(i + 1) + "$"] = args[i];
    }
    for (const auto &[macro, value] : macros) {
        for (size_t at = line.find(macro); at != std::string::npos;
             at = line.find(macro, at + value.size())) {
            line.replace(at, macro.size(), value);
        }
    }
    return line;
}

// One check and what it answers in each scenario: the model changes of the
// scenario, then the exit code and a text its first line must hold.
struct Expect {
    int exit;
    const char *text;
};
struct CheckCase {
    const char *command;
    const char *index; // the check's row argument; "" for none
    Expect healthy;
    Expect failedDisk; // disk 300 of virtual disk 100 on controller 1 failed
    Expect degraded;   // battery 70 non-critical, fan 30 of enclosure 21 critical
};

// Rows of the sample model: controller 1 is row 1, disk 300 row 1, virtual
// disk 100 row 1, battery 70 row 1, enclosure 20 (the backplane of disk
// 300) row 1 and enclosure 21 (of fan 30) row 2.
const CheckCase kCases[] = {
    {"check_kelp_global_status",
     "",
     {kOkExit, "OK - Storage status 3"},
     {kCriticalExit, "CRITICAL - Storage status *1*"},
     {kCriticalExit, "CRITICAL - Storage status *1*"}},
    {"check_kelp_controller_status",
     "1",
     {kOkExit, "OK - Controller Vorn RX-240 "},
     {kCriticalExit, "CRITICAL - Controller Vorn RX-240 "},
     {kWarningExit, "WARNING - Controller Vorn RX-240 "}},
    {"check_kelp_controller_status",
     "2",
     {kOkExit, "OK - Controller Vorn HX-120 "},
     {kOkExit, "OK - Controller Vorn HX-120 "},
     {kCriticalExit, "CRITICAL - Controller Vorn HX-120 "}},
    {"check_kelp_disk_status",
     "1",
     {kOkExit, "OK - Disk Physical Disk 0:0:0 "},
     {kCriticalExit, "CRITICAL - Disk Physical Disk 0:0:0 "},
     {kOkExit, "OK - Disk Physical Disk 0:0:0 "}},
    {"check_kelp_disk_status",
     "2",
     {kOkExit, "OK - Disk Physical Disk 0:0:1 "},
     {kOkExit, "OK - Disk Physical Disk 0:0:1 "},
     {kOkExit, "OK - Disk Physical Disk 0:0:1 "}},
    {"check_kelp_vdisk_status",
     "1",
     {kOkExit, "OK - Virtual disk OS "},
     {kWarningExit, "WARNING - Virtual disk OS "},
     {kOkExit, "OK - Virtual disk OS "}},
    {"check_kelp_battery_status",
     "1",
     {kOkExit, "OK - Battery Battery 0 "},
     {kOkExit, "OK - Battery Battery 0 "},
     {kWarningExit, "WARNING - Battery Battery 0 "}},
    {"check_kelp_enclosure_status",
     "1",
     {kOkExit, "OK - Enclosure Backplane "},
     {kCriticalExit, "CRITICAL - Enclosure Backplane "},
     {kOkExit, "OK - Enclosure Backplane "}},
    {"check_kelp_enclosure_status",
     "2",
     {kOkExit, "OK - Enclosure JX3210 "},
     {kOkExit, "OK - Enclosure JX3210 "},
     {kCriticalExit, "CRITICAL - Enclosure JX3210 "}},
};

std::vector<std::vector<std::string>> degrade()
{
    // The fan fails, and the roll-ups of its enclosure and the HBA above it
    // follow; the battery of controller 1 is only non-critical, and so is
    // that controller's roll-up.
    return {
        {"set", "30", "ObjStatus", "4"},  {"set", "30", "TreeStatus", "4"},
        {"set", "21", "TreeStatus", "4"}, {"set", "2", "TreeStatus", "4"},
        {"set", "70", "ObjStatus", "3"},  {"set", "70", "TreeStatus", "3"},
        {"set", "1", "TreeStatus", "3"},
    };
}

class ContribNagiosChecks : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (!executable(std::string(kPlugins) + "/check_snmp")) {
            GTEST_SKIP() << kPlugins
                         << "/check_snmp is not installed (Debian: monitoring-plugins-standard)";
        }
        std::string bad;
        commands = readCommands(contribPath("nagios/commands.cfg"), &bad);
        ASSERT_FALSE(commands.empty()) << "commands.cfg does not read: " << bad;
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"), {}, &why)) << why;
    }

    // Runs the check command `name` with the row `index`, as Nagios would.
    RunResult check(const std::string &name, const std::string &index)
    {
        EXPECT_TRUE(commands.contains(name)) << name << " is not in commands.cfg";
        std::vector<std::string> args{"public", std::to_string(agent.port())};
        if (!index.empty()) {
            args.push_back(index);
        }
        return run({"/bin/sh", "-c", expand(commands[name], args)}, mibEnv(dir), dir, 30s);
    }

    void expectEach(Expect CheckCase::*scenario, const char *what)
    {
        for (const CheckCase &c : kCases) {
            const Expect &expect = c.*scenario;
            const RunResult result = check(c.command, c.index);
            const std::string first = result.out.substr(0, result.out.find('\n'));
            EXPECT_EQ(result.status, expect.exit)
                << what << ": " << c.command << " " << c.index << ": " << result.out << result.err;
            EXPECT_NE(first.find(expect.text), std::string::npos)
                << what << ": " << c.command << " " << c.index << ": " << result.out;
        }
    }

    void kelpctl(const std::vector<std::vector<std::string>> &changes)
    {
        for (const auto &words : changes) {
            const RunResult result = agent.kelpctl(words);
            ASSERT_EQ(result.status, 0) << result.out << result.err;
        }
    }

    TempDir dir;
    AgentUnderTest agent;
    std::map<std::string, std::string> commands;
};

TEST_F(ContribNagiosChecks, EveryCommandIsTestedAndNamesOnlyMibObjects)
{
    std::set<std::string> tested;
    for (const CheckCase &c : kCases) {
        tested.insert(c.command);
    }
    for (const auto &[name, line] : commands) {
        EXPECT_TRUE(tested.contains(name)) << name << " has no case here";
        // Names, not numbers: the commands read as the MIB does.
        EXPECT_EQ(line.find("61234"), std::string::npos) << name;
        EXPECT_NE(line.find("KELP-STORAGE-MIB::"), std::string::npos) << name;
    }
}

TEST_F(ContribNagiosChecks, AHealthyServerIsOk)
{
    expectEach(&CheckCase::healthy, "healthy");
}

TEST_F(ContribNagiosChecks, AFailedDiskIsCriticalWhereItCounts)
{
    kelpctl(failDisk("300", "100", "20", "1"));
    expectEach(&CheckCase::failedDisk, "failed disk");
}

TEST_F(ContribNagiosChecks, AFailedFanAndATiredBatteryAreCriticalAndWarning)
{
    kelpctl(degrade());
    expectEach(&CheckCase::degraded, "degraded");
}

TEST_F(ContribNagiosChecks, ARowThatDoesNotExistIsUnknown)
{
    for (const char *command :
         {"check_kelp_controller_status", "check_kelp_disk_status", "check_kelp_vdisk_status",
          "check_kelp_battery_status", "check_kelp_enclosure_status"}) {
        const RunResult result = check(command, "99");
        EXPECT_EQ(result.status, kUnknownExit) << command << ": " << result.out << result.err;
    }
}

TEST(ContribNagiosCommandsFile, AFileThatIsNotCommandBlocksDoesNotRead)
{
    TempDir dir;
    for (const char *text : {"define host {\n}\n", "define command {\ncommand_name x\n",
                             "command_line y\n", "define command {\ncommand_line y\n}\n",
                             "define command {\ncommand_name x\ncommand_line y\n}\n"
                             "define command {\ncommand_name x\ncommand_line z\n}\n"}) {
        writeFile(dir / "commands.cfg", text);
        std::string bad;
        EXPECT_TRUE(readCommands(dir / "commands.cfg", &bad).empty()) << text;
        EXPECT_FALSE(bad.empty()) << text;
    }
}

} // namespace
} // namespace kelp::test
