// The alerts of KELP-STORAGE-MIB: a notification for exactly the trap
// numbers the event monitor can send and their x100 forms, each at
// kelpAlertsPrefix.N so that v1 traps and v2c notifications translate
// alike; and real traps from kelpagent, received by a snmptrapd with the
// module loaded, printed with their notification and binding names.
#include <cctype>
#include <memory>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "mib_model.h"
#include "testkit.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

const std::vector<std::string> kOrdinaryBindings = {
    "alertEventNumber", "alertMessage",     "alertLocation",      "alertSubLocation",
    "alertObjectRow",   "alertObjectNexus", "alertCurrentStatus", "alertPreviousStatus"};
const std::vector<std::string> kShortBindings = {"alertEventNumber", "alertMessage"};
const std::vector<std::string> kExtendedBindings = {
    "alertMessageId", "alertHostName", "alertBaseBoardServiceTag", "alertChassisServiceTag"};

TEST(MibAlerts, TheNotificationsAreExactlyTheTrapsTheMonitorCanSend)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    std::set<uint32_t> inMib;
    for (const auto &[number, name] : mib.notifications) {
        inMib.insert(number);
    }
    const std::set<uint32_t> sendable = sendableTrapNumbers();
    // 57 numbers and their x100 forms (events/trapnumbers.h).
    EXPECT_EQ(sendable.size(), 114u);
    EXPECT_EQ(inMib, sendable);
}

TEST(MibAlerts, TheAlertObjectsAreTheTwelveBindings)
{
    TempDir dir;
    const MibObjects mib = loadMib(dir);
    std::vector<std::string> names;
    for (uint32_t n = 1; n <= 12; n++) {
        ASSERT_TRUE(mib.alertObjects.contains(n)) << n;
        names.push_back(mib.alertObjects.at(n));
    }
    std::vector<std::string> expected = kOrdinaryBindings;
    expected.insert(expected.end(), kExtendedBindings.begin(), kExtendedBindings.end());
    EXPECT_EQ(names, expected);
    EXPECT_EQ(mib.alertObjects.size(), 12u);
}

TEST(MibAlerts, EverySendableNumberTranslatesToItsNotificationAndBack)
{
    TempDir dir;
    std::vector<std::string> oids;
    for (uint32_t number : sendableTrapNumbers()) {
        oids.push_back(std::string(kRoot) + ".200.0." + std::to_string(number));
    }
    const RunResult names = mibTool(dir, "snmptranslate", oids);
    ASSERT_EQ(names.status, 0) << names.err;
    EXPECT_EQ(names.err, "");
    std::vector<std::string> translated{"-On"};
    const std::regex shape(R"(^KELP-STORAGE-MIB::[a-z][A-Za-z0-9]*Alert(Ext)?$)");
    for (const std::string &line : linesOf(names.out)) {
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
        translated.push_back(line);
    }
    ASSERT_EQ(translated.size(), oids.size() + 1);
    const RunResult back = mibTool(dir, "snmptranslate", translated);
    ASSERT_EQ(back.status, 0) << back.err;
    std::vector<std::string> expected;
    for (const std::string &oid : oids) {
        expected.push_back("." + oid);
    }
    EXPECT_EQ(linesOf(back.out), expected);
}

// A snmptrapd with KELP-STORAGE-MIB added to net-snmp's list, as a manager
// runs it, writing one line per trap into traps.log.
class NamedTrapReceiver {
  public:
    explicit NamedTrapReceiver(const TempDir &dir) : dir_(dir), port_(freeUdpPort())
    {
        writeFile(dir / "snmptrapd.conf", "disableAuthorization yes\n");
        process_ = std::make_unique<Process>(
            std::vector<std::string>{"snmptrapd", "-f", "-Lf", dir / "traps.log", "-C", "-c",
                                     dir / "snmptrapd.conf", "-m", "+KELP-STORAGE-MIB", "-M",
                                     "+" + mibDirs(), "-F", "TRAP v=%s specific=%q vbs=%v\n",
                                     "udp:127.0.0.1:" + std::to_string(port_)},
            snmpEnv(dir), dir / "trapd.out", dir / "trapd.err");
        ready_ = waitFor([&] { return log().find("NET-SNMP version") != std::string::npos; }, 20s);
    }
    ~NamedTrapReceiver()
    {
        process_->signal(SIGTERM);
        process_->wait(15s);
    }
    bool ready() const { return ready_; }
    std::string sink() const { return "udp:127.0.0.1:" + std::to_string(port_); }
    std::string log() const { return readFile(dir_ / "traps.log"); }

  private:
    const TempDir &dir_;
    int port_;
    bool ready_ = false;
    std::unique_ptr<Process> process_;
};

class MibTraps : public ::testing::Test {
  protected:
    void start(const std::vector<std::string> &extra, const std::string &ini = "")
    {
        ASSERT_TRUE(receiver.ready()) << receiver.log();
        std::vector<std::string> args{"--trap-sink", receiver.sink()};
        if (!ini.empty()) {
            writeFile(dir / "kelp.ini", ini);
            args.insert(args.end(), {"--ini", dir / "kelp.ini"});
        }
        args.insert(args.end(), extra.begin(), extra.end());
        std::string why;
        ASSERT_TRUE(
            agent.start(sourcePath("data/models/sample.xml"), args, &why, {"KELP_TIME_SCALE=20"}))
            << why;
    }

    void event(const std::vector<std::string> &words)
    {
        std::vector<std::string> command{"event"};
        command.insert(command.end(), words.begin(), words.end());
        const RunResult result = agent.kelpctl(command);
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }

    // The trap lines received so far.
    std::vector<std::string> traps() const
    {
        std::vector<std::string> lines;
        std::istringstream in(receiver.log());
        for (std::string line; std::getline(in, line);) {
            if (line.starts_with("TRAP ")) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    // The trap line that names `notification` right after `marker` (the
    // snmpTrapOID value "OID: ", or "specific=" of a v1 trap), waited for.
    std::string trapNamed(const std::string &notification, const std::string &marker)
    {
        const std::string needle = marker + "KELP-STORAGE-MIB::" + notification;
        std::string found;
        waitFor(
            [&] {
                for (const std::string &line : traps()) {
                    const size_t at = line.find(needle);
                    const size_t end = at + needle.size();
                    if (at != std::string::npos &&
                        (end == line.size() || !std::isalnum(line[end]))) {
                        found = line;
                        return true;
                    }
                }
                return false;
            },
            20s);
        return found;
    }

    // The names of the module in `line` are the notification (or, for a v1
    // trap, its specific number), the enterprise kelpAlerts and exactly
    // `bindings`, in that order, each with nothing but .0 after it: no object
    // of the trap is left without a name.
    static void expectBindings(const std::string &line, const std::string &notification,
                               const std::vector<std::string> &bindings)
    {
        static const std::regex name(R"(KELP-STORAGE-MIB::([A-Za-z0-9]+)((\.[0-9]+)*))");
        std::vector<std::string> named;
        bool sawNotification = false;
        for (auto it = std::sregex_iterator(line.begin(), line.end(), name);
             it != std::sregex_iterator(); ++it) {
            const std::string object = (*it)[1];
            const std::string arcs = (*it)[2];
            if (object == notification || object == "kelpAlerts") {
                sawNotification = sawNotification || object == notification;
                EXPECT_EQ(arcs, "") << line;
                continue;
            }
            EXPECT_EQ(arcs, ".0") << object << " in " << line;
            named.push_back(object);
        }
        EXPECT_TRUE(sawNotification) << line;
        EXPECT_EQ(named, bindings) << line;
    }

    TempDir dir;
    NamedTrapReceiver receiver{dir};
    AgentUnderTest agent;
};

struct TrapCase {
    std::vector<std::string> event; // kelpctl event words
    std::string notification;
    std::vector<std::string> bindings;
};

TEST_F(MibTraps, NotificationsPrintWithTheirNamesAndBindingNames)
{
    start({});
    // A representative set: each kind of number (severity, state change,
    // fixed, extra) and objects of physical, component and logical tables.
    const std::vector<TrapCase> cases = {
        {{"2048", "--object", "302"}, "arrayDiskCriticalAlert", kOrdinaryBindings},
        {{"2049", "--object", "302"}, "arrayDiskWarningAlert", kOrdinaryBindings},
        {{"2050", "--object", "316"}, "arrayDiskInfoAlert", kOrdinaryBindings},
        {{"2121", "--object", "1"}, "controllerNormalAlert", kOrdinaryBindings},
        {{"2122", "--object", "1"}, "monitoringStartedAlert", kOrdinaryBindings},
        {{"2124", "--object", "1"}, "monitoringLostContactAlert", kOrdinaryBindings},
        {{"2164", "--object", "1"}, "versionUnsupportedAlert", kShortBindings},
        {{"2135", "--object", "1"}, "configurationChangeAlert", kShortBindings},
        {{"2155", "--object", "50"}, "temperatureProbeCriticalAlert", kOrdinaryBindings},
        {{"2141", "--object", "70"}, "batteryWarningAlert", kOrdinaryBindings},
        {{"2057", "--object", "100"}, "virtualDiskInfoAlert", kOrdinaryBindings},
        {{"2190", "--object", "200"}, "tidalCacheWarningAlert", kOrdinaryBindings},
        {{"2121", "--object", "40"}, "powerSupplyNormalAlert", kOrdinaryBindings},
    };
    for (const TrapCase &c : cases) {
        event(c.event);
    }
    for (const TrapCase &c : cases) {
        SCOPED_TRACE(c.notification);
        const std::string line = trapNamed(c.notification, "OID: ");
        ASSERT_FALSE(line.empty()) << receiver.log() << agent.process()->err();
        EXPECT_NE(line.find("TRAP v=1 "), std::string::npos) << line;
        EXPECT_NE(line.find("KELP-STORAGE-MIB::alertEventNumber.0 = INTEGER: " + c.event[0]),
                  std::string::npos)
            << line;
        expectBindings(line, c.notification, c.bindings);
    }
    // 2164 on a controller also sends its own warning, after the extra one.
    const std::string warning = trapNamed("controllerWarningAlert", "OID: ");
    EXPECT_NE(warning.find("alertEventNumber.0 = INTEGER: 2164"), std::string::npos) << warning;
    expectBindings(warning, "controllerWarningAlert", kShortBindings);
}

// The OBJECTS of `notification` as the MIB lists them (snmptranslate -Td).
std::vector<std::string> objectsOf(const TempDir &dir, const std::string &notification)
{
    const RunResult td =
        mibTool(dir, "snmptranslate", {"-Td", "KELP-STORAGE-MIB::" + notification});
    std::smatch list;
    if (!std::regex_search(td.out, list, std::regex(R"(OBJECTS\s*\{([^}]*)\})")))
        return {};
    std::vector<std::string> names;
    const std::string text = list[1];
    static const std::regex word("[A-Za-z0-9]+");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), word);
         it != std::sregex_iterator(); ++it) {
        names.push_back(it->str());
    }
    return names;
}

// Most events of the version alert carry the eight bindings of an ordinary
// alert, and its notification lists them as its OBJECTS (a manager may read
// the bindings by position); events 2164 and 2287 carry the first two.
TEST_F(MibTraps, TheVersionAlertOfAFirmwareEventCarriesItsNotificationsObjects)
{
    start({});
    event({"2448", "--object", "302", "--parm", "E", "--parm", "F"});
    std::string line;
    waitFor(
        [&] {
            for (const std::string &trap : traps()) {
                if (trap.find("OID: KELP-STORAGE-MIB::versionUnsupportedAlert") !=
                        std::string::npos &&
                    trap.find("alertEventNumber.0 = INTEGER: 2448") != std::string::npos) {
                    line = trap;
                    return true;
                }
            }
            return false;
        },
        20s);
    ASSERT_FALSE(line.empty()) << receiver.log() << agent.process()->err();
    expectBindings(line, "versionUnsupportedAlert", kOrdinaryBindings);
    EXPECT_EQ(objectsOf(dir, "versionUnsupportedAlert"), kOrdinaryBindings);
    std::vector<std::string> all = kOrdinaryBindings;
    all.insert(all.end(), kExtendedBindings.begin(), kExtendedBindings.end());
    EXPECT_EQ(objectsOf(dir, "versionUnsupportedAlertExt"), all);
    // The alert of the configuration events is short for all of them.
    EXPECT_EQ(objectsOf(dir, "configurationChangeAlert"), kShortBindings);
}

TEST_F(MibTraps, ExtendedVersionOneTrapsPrintWithTheirNames)
{
    start({"--trap-version", "1"}, "[vcsipe]\nExtendedSNMPMessages=On\n");
    event({"2048", "--object", "302"});
    event({"2164", "--object", "1"});
    // snmptrapd names a v1 trap's specific number by the notification at
    // enterprise.0.specific (RFC 3584).
    std::vector<std::string> all = kOrdinaryBindings;
    all.insert(all.end(), kExtendedBindings.begin(), kExtendedBindings.end());
    const std::string disk = trapNamed("arrayDiskCriticalAlertExt", "specific=");
    ASSERT_FALSE(disk.empty()) << receiver.log() << agent.process()->err();
    EXPECT_NE(disk.find("TRAP v=0 "), std::string::npos) << disk;
    expectBindings(disk, "arrayDiskCriticalAlertExt", all);
    std::vector<std::string> shortExtended = kShortBindings;
    shortExtended.insert(shortExtended.end(), kExtendedBindings.begin(), kExtendedBindings.end());
    const std::string version = trapNamed("versionUnsupportedAlertExt", "specific=");
    ASSERT_FALSE(version.empty()) << receiver.log();
    expectBindings(version, "versionUnsupportedAlertExt", shortExtended);
}

} // namespace
} // namespace kelp::test
