// contrib/snmptrapd: snmptrapd with the snippet of snmptrapd.conf runs
// kelp-traphandle on the traps a kelpagent sends for queued storage events,
// and each trap becomes one line with its notification name, event number,
// severity, object and message, whether snmptrapd prints numbers or has the
// MIB loaded, for SNMPv2c notifications and SNMPv1 traps alike. Input that
// is no kelp trap gives no line.
#include <signal.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "contrib_kit.h"

namespace kelp::test {
namespace {

std::string handlerPath()
{
    return contribPath("snmptrapd/kelp-traphandle");
}

// The line of `text` holding `needle`, or "".
std::string lineWith(const std::string &text, const std::string &needle)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) {
            return line;
        }
    }
    return "";
}

// contrib's snmptrapd.conf with the handler taken from the checkout.
std::string snippet()
{
    std::string text = readFile(contribPath("snmptrapd/snmptrapd.conf"));
    const std::string installed = "/usr/local/lib/kelp/kelp-traphandle";
    const size_t at = text.find(installed);
    EXPECT_NE(at, std::string::npos) << "the snippet names no " << installed;
    if (at != std::string::npos) {
        text.replace(at, installed.size(), handlerPath());
    }
    return text;
}

// snmptrapd on a free loopback port with the snippet; the handler's lines
// are snmptrapd's standard output.
class HandlingReceiver {
  public:
    HandlingReceiver(const TempDir &dir, bool withMib) : dir_(dir), port_(freeUdpPort())
    {
        writeFile(dir / "snmptrapd.conf", snippet());
        std::vector<std::string> argv{
            "snmptrapd", "-f", "-Lf", dir / "trapd.log", "-C", "-c", dir / "snmptrapd.conf"};
        if (!withMib) {
            argv.push_back("-On");
        }
        argv.push_back("udp:127.0.0.1:" + std::to_string(port_));
        process_ = std::make_unique<Process>(argv, withMib ? mibEnv(dir) : snmpEnv(dir),
                                             dir / "handled.out", dir / "trapd.err");
        ready_ = waitFor(
            [&] {
                return readFile(dir / "trapd.log").find("NET-SNMP version") != std::string::npos;
            },
            20s);
    }
    ~HandlingReceiver()
    {
        process_->signal(SIGTERM);
        process_->wait(15s);
    }

    bool ready() const { return ready_; }
    std::string sink() const { return "udp:127.0.0.1:" + std::to_string(port_); }
    std::string lines() const { return process_->out(); }
    std::string log() const { return readFile(dir_ / "trapd.log") + process_->err(); }

  private:
    const TempDir &dir_;
    int port_;
    bool ready_ = false;
    std::unique_ptr<Process> process_;
};

// An event queued with kelpctl and the line its trap must give.
struct EventCase {
    std::vector<std::string> event; // kelpctl event's words
    const char *name;               // the notification
    const char *rest;               // the line after the name
};

// Events on the sample model: disk 302 (nexus 0\0\0\2), virtual disk 100,
// battery 70, controller 1. The messages are data/alerts.txt's.
const EventCase kEvents[] = {
    {{"2048", "--object", "302", "--parm", "0:0:2"},
     "arrayDiskCriticalAlert",
     " event=2048 severity=critical object=\"arrayDiskEntry.3\" nexus=\"0\\0\\0\\2\" "
     "location=\"Controller 0 (Vorn RX-240), Enclosure 0:0\" "
     "message=\"Physical disk 0:0:2 has failed.\""},
    {{"2049", "--object", "302", "--parm", "0:0:2"},
     "arrayDiskWarningAlert",
     " event=2049 severity=warning object=\"arrayDiskEntry.3\" nexus=\"0\\0\\0\\2\" "
     "location=\"Controller 0 (Vorn RX-240), Enclosure 0:0\" "
     "message=\"Physical disk 0:0:2 was removed.\""},
    {{"2057", "--object", "100", "--parm", "0:0"},
     "virtualDiskInfoAlert",
     " event=2057 severity=info object=\"virtualDiskEntry.1\" nexus=\"0\\128\\0\" "
     "location=\"Controller 0 (Vorn RX-240)\" message=\"Virtual disk 0:0 is optimal.\""},
    {{"2122", "--object", "1"},
     "monitoringStartedAlert",
     " event=2122 severity=info object=\"controllerEntry.1\" nexus=\"0\" "
     "location=\"Controller 0 (Vorn RX-240)\" message=\"Storage monitoring has started.\""},
    // A short alert: two bindings, no object.
    {{"2135", "--parm", "/var/lib/kelp/config.xml"},
     "configurationChangeAlert",
     " event=2135 severity=info message=\"The storage configuration was saved to "
     "/var/lib/kelp/config.xml.\""},
};

class ContribTrapHandler : public ::testing::TestWithParam<bool> {
  protected:
    void start(const std::vector<std::string> &extra)
    {
        ASSERT_TRUE(receiver.ready()) << receiver.log();
        std::vector<std::string> args{"--trap-sink", receiver.sink()};
        args.insert(args.end(), extra.begin(), extra.end());
        std::string why;
        ASSERT_TRUE(
            agent.start(sourcePath("data/models/sample.xml"), args, &why, {"KELP_TIME_SCALE=20"}))
            << why;
    }

    // Queues every event of kEvents and checks the line of each.
    void expectLines()
    {
        for (const EventCase &c : kEvents) {
            std::vector<std::string> words{"event"};
            words.insert(words.end(), c.event.begin(), c.event.end());
            const RunResult result = agent.kelpctl(words);
            ASSERT_EQ(result.status, 0) << result.out << result.err;
        }
        // The traps go out one a second (faster with KELP_TIME_SCALE).
        waitFor([&] { return lineCount() >= std::size(kEvents); }, 20s);
        for (const EventCase &c : kEvents) {
            const std::string needle = std::string(" ") + c.name + " event=" + c.event[0] + " ";
            EXPECT_EQ(lineWith(receiver.lines(), needle),
                      "localhost " + std::string(c.name) + c.rest)
                << receiver.lines() << receiver.log();
        }
        // One line per trap, and none for the agent's coldStart.
        EXPECT_EQ(lineCount(), std::size(kEvents)) << receiver.lines();
    }

    size_t lineCount()
    {
        std::istringstream lines(receiver.lines());
        size_t count = 0;
        for (std::string line; std::getline(lines, line);) {
            count++;
        }
        return count;
    }

    TempDir dir;
    HandlingReceiver receiver{dir, GetParam()};
    AgentUnderTest agent;
};

TEST_P(ContribTrapHandler, EachNotificationIsOneLine)
{
    start({});
    expectLines();
}

TEST_P(ContribTrapHandler, EachVersionOneTrapIsOneLine)
{
    start({"--trap-version", "1"});
    expectLines();
}

INSTANTIATE_TEST_SUITE_P(Snmptrapd, ContribTrapHandler, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool> &param) {
                             return param.param ? "WithTheMib" : "Numeric";
                         });

// The handler alone, on what snmptrapd could hand it.
RunResult handle(const TempDir &dir, const std::string &input,
                 const std::vector<std::string> &args = {})
{
    writeFile(dir / "input", input);
    std::string command = "'" + handlerPath() + "'";
    for (const std::string &arg : args) {
        command += " '" + arg + "'";
    }
    return run({"/bin/sh", "-c", command + " < '" + (dir / "input") + "'"}, {}, dir, 10s);
}

TEST(ContribTrapHandlerInput, AnythingButAKelpTrapGivesNoLine)
{
    TempDir dir;
    const std::string head = "host\nUDP: [127.0.0.1]:1->[127.0.0.1]:162\n"
                             ".1.3.6.1.2.1.1.3.0 0:0:00:01.00\n";
    for (const std::string &input : {
             std::string(),
             std::string("host\n"),
             head,
             head + ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.6.3.1.1.5.1\n",
             head + ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.4.1.61234.20571.1.20.200.0.x\n",
             head + ".1.3.6.1.4.1.61234.20571.1.20.200.1.0 2048\n",
             std::string("\xff\xfe\x00garbage\n\n\n", 13),
         }) {
        const RunResult result = handle(dir, input);
        EXPECT_EQ(result.status, 1) << input << result.err;
        EXPECT_EQ(result.out, "") << input;
        EXPECT_TRUE(result.err.starts_with("kelp-traphandle: ")) << input << result.err;
    }
}

TEST(ContribTrapHandlerInput, ExtendedTrapNumbersAndUnknownNumbersStillGiveALine)
{
    TempDir dir;
    const std::string head = "host\nUDP: [127.0.0.1]:1->[127.0.0.1]:162\n"
                             ".1.3.6.1.2.1.1.3.0 0:0:00:01.00\n"
                             ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.4.1.61234.20571.1.20.200.0.";
    const std::string tail = "\n.1.3.6.1.4.1.61234.20571.1.20.200.1.0 2048\n"
                             ".1.3.6.1.4.1.61234.20571.1.20.200.2.0 \"Disk \\\"a\\\" failed.\"\n";
    RunResult result = handle(dir, head + "90400" + tail);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "host arrayDiskCriticalAlertExt event=2048 severity=critical "
                          "message=\"Disk 'a' failed.\"\n");
    result = handle(dir, head + "77" + tail);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "host alert77 event=2048 severity=unknown "
                          "message=\"Disk 'a' failed.\"\n");
    // --log appends with a time stamp instead.
    result = handle(dir, head + "904" + tail, {"--log", dir / "kelp.log"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    const std::string logged = readFile(dir / "kelp.log");
    EXPECT_NE(logged.find(" host arrayDiskCriticalAlert event=2048 "), std::string::npos) << logged;
    EXPECT_EQ(handle(dir, head + "904" + tail, {"--frobnicate"}).status, 2);
    // A log that cannot be written loses no line without a word.
    result = handle(dir, head + "904" + tail, {"--log", dir / "no/such/dir/kelp.log"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("cannot append to"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("arrayDiskCriticalAlert event=2048"), std::string::npos)
        << result.err;
}

TEST(ContribTrapHandlerInput, NamesOfAFullMibSetGiveTheSameLine)
{
    // snmptrapd with SNMPv2-MIB and KELP-STORAGE-MIB loaded, strings unquoted.
    TempDir dir;
    const RunResult result =
        handle(dir, "storage1\nUDP: [10.0.0.5]:1->[10.0.0.1]:162\n"
                    "DISMAN-EVENT-MIB::sysUpTimeInstance 0:0:00:01.00\n"
                    "SNMPv2-MIB::snmpTrapOID.0 KELP-STORAGE-MIB::virtualDiskWarningAlertExt\n"
                    "KELP-STORAGE-MIB::alertEventNumber.0 2058\n"
                    "KELP-STORAGE-MIB::alertMessage.0 Virtual disk 0:1 is degraded.\n"
                    "KELP-STORAGE-MIB::alertLocation.0 Controller 0 (Vorn RX-240)\n"
                    "KELP-STORAGE-MIB::alertSubLocation.0 UNKNOWN\n"
                    "KELP-STORAGE-MIB::alertObjectRow.0 1.3.6.1.4.1.61234.20571.1.20.140.1.1.1.2\n"
                    "KELP-STORAGE-MIB::alertObjectNexus.0 0\\128\\1\n"
                    "KELP-STORAGE-MIB::alertCurrentStatus.0 nonCritical\n"
                    "KELP-STORAGE-MIB::alertMessageId.0 KLP2058\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "storage1 virtualDiskWarningAlertExt event=2058 severity=warning "
                          "object=\"virtualDiskEntry.2\" nexus=\"0\\128\\1\" "
                          "location=\"Controller 0 (Vorn RX-240)\" "
                          "message=\"Virtual disk 0:1 is degraded.\"\n");
}

} // namespace
} // namespace kelp::test
