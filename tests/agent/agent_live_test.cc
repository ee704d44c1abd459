// kelpagent --live over the wire: this machine's storage and captured
// machines (tests/fixtures) walked with snmpwalk and checked against their
// trees, changes made to a copy of a tree becoming traps at a private
// snmptrapd with the tables following, and the errors of a bad start.
#include <dirent.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.h"
#include "walk_after_save.h"

namespace kelp::test {
namespace {

// Tables of the walk: array disks, controllers, virtual disks, enclosures.
const std::string kDisks = std::string(kRoot) + ".130.4.1";
const std::string kControllers = std::string(kRoot) + ".130.1.1";
constexpr const char *kTrapPrefix = "1.3.6.1.4.1.61234.20571.1.20.200";

// The rows of a table: the instance part (after the column) of every name of
// the table's entry in the walk.
std::set<std::string> rowsOf(const std::string &walk, const std::string &table)
{
    std::set<std::string> rows;
    std::istringstream lines(walk);
    const std::string prefix = "." + table + ".";
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) != 0)
            continue;
        const std::string name = line.substr(prefix.size(), line.find(' ') - prefix.size());
        const size_t dot = name.find('.');
        if (dot != std::string::npos)
            rows.insert(name.substr(dot + 1));
    }
    return rows;
}

// The values of one column, in row order.
std::vector<std::string> columnOf(const std::string &walk, const std::string &table, int column)
{
    std::vector<std::string> values;
    std::istringstream lines(walk);
    const std::string prefix = "." + table + "." + std::to_string(column) + ".";
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) == 0) {
            const size_t eq = line.find(" = ");
            values.push_back(eq == std::string::npos ? "" : line.substr(eq + 3));
        }
    }
    return values;
}

// The first line of a sysfs file, or "" when it cannot be read.
std::string firstLine(const std::string &path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

// Whether SCSI disk sdX is a RAID controller's volume, which the live source
// serves as a virtual disk: the kernel's RAID class, a Smart Array
// raid_level, a MegaRAID logical drive (channel 2 and up).
bool isRaidVolume(const std::string &name)
{
    const std::string device = "/sys/block/" + name + "/device";
    char target[4096] = {};
    const ssize_t n = ::readlink(device.c_str(), target, sizeof target - 1);
    const std::string link(target, n > 0 ? static_cast<size_t>(n) : 0);
    const std::string hctl = link.substr(link.rfind('/') + 1);
    if (std::ifstream("/sys/class/raid_devices/" + hctl).good())
        return true;
    const std::string level = firstLine(device + "/raid_level");
    if (!level.empty() && level != "N/A")
        return true;
    unsigned host = 0, channel = 0;
    return std::sscanf(hctl.c_str(), "%u:%u:", &host, &channel) == 2 && channel >= 2 &&
           firstLine("/sys/class/scsi_host/host" + std::to_string(host) + "/proc_name") ==
               "megaraid_sas";
}

// The whole disks of this machine as the live source counts them: a SCSI
// disk seen through several paths once, by its world wide name.
std::set<std::string> machineDisks()
{
    std::set<std::string> disks;
    DIR *d = opendir("/sys/block");
    if (d == nullptr)
        return disks;
    while (const dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        const bool scsi =
            name.rfind("sd", 0) == 0 && std::ifstream("/sys/block/" + name + "/device/type").good();
        if (scsi) {
            if (isRaidVolume(name))
                continue;
            const std::string wwid = firstLine("/sys/block/" + name + "/device/wwid");
            const bool named = std::regex_match(wwid, std::regex("(naa|eui|iqn)\\..*")) &&
                               wwid.find_first_not_of('0', wwid.find('.') + 1) != std::string::npos;
            disks.insert(named ? "wwid " + wwid : name);
            continue;
        }
        // virtio and Xen disks, NVMe namespaces, SD cards and eMMCs (not
        // their boot areas).
        if (name.rfind("vd", 0) == 0 || name.rfind("xvd", 0) == 0 ||
            std::regex_match(name, std::regex("nvme[0-9]+n[0-9]+|mmcblk[0-9]+")))
            disks.insert(name);
    }
    closedir(d);
    return disks;
}

TEST(AgentLiveStart, AMissingLiveRootIsExit1WithItsName)
{
    TempDir dir;
    const RunResult r =
        run({kelpagentPath(), "--allow-root", "--live-root", dir / "nowhere", "--state-dir",
             dir / "state", "--listen", "udp:127.0.0.1:" + std::to_string(freeUdpPort()),
             "--module", modulePath()},
            agentEnv(), dir);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("the live source does not start"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(dir / "nowhere"), std::string::npos) << r.err;
}

TEST(AgentLiveStart, ModelAndLiveExcludeEachOther)
{
    TempDir dir;
    const RunResult r = run({kelpagentPath(), "--allow-root", "--live", "--model",
                             sourcePath("data/models/sample.xml"), "--state-dir", dir / "state",
                             "--module", modulePath()},
                            agentEnv(), dir);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("exclude each other"), std::string::npos) << r.err;
}

TEST(AgentLiveStart, BadIntervalsAreRefused)
{
    TempDir dir;
    for (const char *bad : {"0", "-1", "abc", "1e9", ""}) {
        const RunResult r = run({kelpagentPath(), "--allow-root", "--live", "--live-interval", bad,
                                 "--state-dir", dir / "state", "--module", modulePath()},
                                agentEnv(), dir);
        EXPECT_NE(r.status, 0) << bad;
        EXPECT_NE(r.err.find("--live-interval"), std::string::npos) << bad << ": " << r.err;
    }
}

// The machine the test runs on: every whole disk it has is a row, and the
// start-up log and kelpctl status say what is served.
TEST(AgentLive, ThisMachinesDisksAreServed)
{
    AgentUnderTest agent;
    std::string why;
    ASSERT_TRUE(agent.start("", {"--live"}, &why)) << why;
    const std::string err = agent.process()->err();
    EXPECT_NE(err.find("serving the storage of this machine: live /"), std::string::npos) << err;
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_NE(status.out.find("source: live /"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("model: live /"), std::string::npos) << status.out;
    // At the system root device events are heard: udevd's, or the kernel's where no
    // udevd runs.
    EXPECT_TRUE(status.out.find("udev on (udev events)") != std::string::npos ||
                status.out.find("udev on (kernel events)") != std::string::npos)
        << status.out;

    const RunResult walk = agent.snmp("snmpwalk", {kRoot});
    ASSERT_EQ(walk.status, 0) << walk.err;
    const std::set<std::string> disks = machineDisks();
    EXPECT_EQ(rowsOf(walk.out, kDisks).size(), disks.size()) << walk.out;
    if (disks.count("vda")) {
        // A VM: its virtio disk with its size in MiB.
        std::ifstream sizeFile("/sys/block/vda/size");
        unsigned long long sectors = 0;
        sizeFile >> sectors;
        const std::vector<std::string> sizes = columnOf(walk.out, kDisks, 11);
        EXPECT_NE(std::find(sizes.begin(), sizes.end(),
                            "INTEGER: " + std::to_string(sectors * 512 >> 20)),
                  sizes.end())
            << walk.out;
    }
    // Changes are refused: the machine is the source.
    const RunResult load = agent.kelpctl({"load", sourcePath("data/models/sample.xml")});
    EXPECT_NE(load.status, 0);
    EXPECT_NE((load.out + load.err).find("live source"), std::string::npos) << load.out << load.err;
}

} // namespace
} // namespace kelp::test

namespace kelp::test {
namespace {

std::string table(const char *arcs)
{
    return std::string(kRoot) + "." + arcs + ".1";
}

std::string binding(int n)
{
    return "." + std::string(kTrapPrefix) + "." + std::to_string(n) + ".0 = ";
}

// A captured machine served from a copy the test may change, with a private
// snmptrapd; SIGHUP makes the live source rescan at once.
class AgentLiveFixture : public ::testing::Test {
  protected:
    void start(const std::string &machine, const std::string &interval = "3600")
    {
        ASSERT_TRUE(receiver.ready());
        const RunResult copy =
            run({"/bin/cp", "-a", sourcePath("tests/fixtures/" + machine), dir / "root"}, {}, dir);
        ASSERT_EQ(copy.status, 0) << copy.err;
        std::string why;
        ASSERT_TRUE(agent.start("",
                                {"--live-root", dir / "root", "--live-interval", interval,
                                 "--trap-sink", receiver.sink()},
                                &why))
            << why;
    }
    std::string walk()
    {
        const RunResult r = agent.snmp("snmpwalk", {kRoot});
        EXPECT_EQ(r.status, 0) << r.err;
        return r.out;
    }
    size_t rows(const char *arcs) { return rowsOf(walk(), table(arcs)).size(); }
    void rescan() { agent.process()->signal(SIGHUP); }
    // Waits for a trap whose event number (binding 1) is `event`.
    bool trapOf(uint32_t event)
    {
        return waitFor(
            [&] {
                return receiver.log().find(binding(1) + "INTEGER: " + std::to_string(event)) !=
                       std::string::npos;
            },
            30s);
    }
    bool rowsBecome(const char *arcs, size_t n)
    {
        return waitFor([&] { return rows(arcs) == n; }, 30s);
    }
    // Sets byte `offset` of an SES page of the server's enclosure.
    void patchPage(const std::string &page, size_t offset, unsigned char value)
    {
        const std::string path = dir / ("root/dev/sg8.ses/" + page);
        std::string bytes = readFile(path);
        ASSERT_LT(offset, bytes.size());
        bytes[offset] = static_cast<char>(value);
        writeFile(path, bytes);
    }
    void write(const std::string &relative, const std::string &text)
    {
        writeFile(dir / ("root/" + relative), text);
    }

    TempDir dir;
    TrapReceiver receiver{dir};
    AgentUnderTest agent;
};

// The rows of every one of the 24 tables, for each captured machine: what its
// tree holds (tests/fixtures/README.md), a table not named having none.
TEST_F(AgentLiveFixture, EveryTableHasTheRowsItsTreeGives)
{
    struct Machine {
        const char *name;
        std::map<std::string, size_t> rows;
    };
    const Machine machines[] = {
        // SAS HBA (one port to the expander) and AHCI (three ports); six disks in
        // the enclosure's slots and the boot disk on a port; the SES enclosure's
        // fans, power supplies, probes and EMMs with their connection rows, and
        // the boot disk's probe from its SMART data; the tape.
        {"server",
         {{"130.1", 2},
          {"130.2", 4},
          {"130.3", 1},
          {"130.4", 7},
          {"130.5", 6},
          {"130.6", 1},
          {"130.7", 2},
          {"130.8", 2},
          {"130.9", 2},
          {"130.10", 2},
          {"130.11", 4},
          {"130.12", 4},
          {"130.13", 2},
          {"130.14", 2},
          {"130.17", 1}}},
        // Two NVMe controllers, AHCI, md; NVMe namespaces and SATA disks on
        // channels; nvme0's hwmon probe, nvme1's from its SMART log, two SATA
        // disks' from their SMART data; md0 (2 members) and md1 (3) with md1's
        // two partitions.
        {"workstation",
         {{"130.1", 4},
          {"130.2", 6},
          {"130.4", 6},
          {"130.6", 6},
          {"130.11", 4},
          {"130.12", 4},
          {"130.18", 2},
          {"140.1", 2},
          {"140.2", 2},
          {"140.3", 5}}},
        // vda, vdb, the virtio-scsi disk and the NVMe/TCP namespace, each on
        // its own controller; the NVMe/TCP controller's adapter.
        {"vm", {{"130.1", 4}, {"130.2", 4}, {"130.4", 4}, {"130.6", 4}, {"130.18", 1}}},
        // The eMMC, the SD card and the USB disk, each on its own controller.
        {"board", {{"130.1", 3}, {"130.2", 3}, {"130.4", 3}, {"130.6", 3}}},
        // Two Xen disks, each on its own frontend device.
        {"xen", {{"130.1", 2}, {"130.2", 2}, {"130.4", 2}, {"130.6", 2}}},
        // Two HBAs and md; one enclosure and four disks, each seen through
        // both HBAs; the enclosure's SES elements once; md0 over the four
        // multipath maps.
        {"jbod",
         {{"130.1", 3},
          {"130.2", 2},
          {"130.3", 1},
          {"130.4", 4},
          {"130.5", 4},
          {"130.7", 2},
          {"130.8", 2},
          {"130.9", 2},
          {"130.10", 2},
          {"130.11", 3},
          {"130.12", 3},
          {"130.13", 2},
          {"130.14", 2},
          {"140.1", 1},
          {"140.3", 4}}},
        // A MegaRAID with two logical drives and a disk passed through, a
        // SAS HBA with a RAID 1 volume: three virtual disks (the first with
        // two partitions), one disk.
        {"raid",
         {{"130.1", 2}, {"130.2", 2}, {"130.4", 1}, {"130.6", 1}, {"140.1", 3}, {"140.2", 2}}},
    };
    const char *const tables[] = {"130.1",  "130.2",  "130.3",  "130.4",  "130.5",  "130.6",
                                  "130.7",  "130.8",  "130.9",  "130.10", "130.11", "130.12",
                                  "130.13", "130.14", "130.15", "130.16", "130.17", "130.18",
                                  "140.1",  "140.2",  "140.3",  "140.4",  "140.5",  "140.6"};
    for (const Machine &m : machines) {
        SCOPED_TRACE(m.name);
        AgentUnderTest one;
        std::string why;
        ASSERT_TRUE(one.start(
            "", {"--live-root", sourcePath(std::string("tests/fixtures/") + m.name)}, &why))
            << why;
        const RunResult r = one.snmp("snmpwalk", {kRoot});
        ASSERT_EQ(r.status, 0) << r.err;
        for (const char *t : tables) {
            const auto want = m.rows.find(t);
            EXPECT_EQ(rowsOf(r.out, table(t)).size(), want == m.rows.end() ? 0 : want->second)
                << "table " << t;
        }
    }
}

TEST_F(AgentLiveFixture, ServerTablesFollowItsTree)
{
    start("server");
    const std::string w = walk();
    EXPECT_EQ(rowsOf(w, table("130.1")).size(), 2u) << "SAS HBA and AHCI";
    EXPECT_EQ(rowsOf(w, table("130.4")).size(), 7u) << "six in the enclosure, the boot disk";
    EXPECT_EQ(rowsOf(w, table("130.3")).size(), 1u);
    EXPECT_EQ(rowsOf(w, table("130.7")).size(), 2u) << "fans";
    EXPECT_EQ(rowsOf(w, table("130.9")).size(), 2u) << "power supplies";
    EXPECT_EQ(rowsOf(w, table("130.11")).size(), 4u) << "temperature probes";
    EXPECT_EQ(rowsOf(w, table("130.13")).size(), 2u) << "EMMs";
    EXPECT_EQ(rowsOf(w, table("130.17")).size(), 1u) << "the tape drive";
    EXPECT_NE(w.find("STRING: \"KLT-9 HH\""), std::string::npos) << w;
    // Every serial of the tree is a disk's, and the enclosure is named by its product.
    const std::vector<std::string> serials = columnOf(w, table("130.4"), 7);
    for (const char *serial :
         {"HZ0A1B2C0000C9270001", "HZ0A1B2C0000C9270004", "KV48A1000123", "KV48A1000124"}) {
        EXPECT_NE(
            std::find(serials.begin(), serials.end(), std::string("STRING: \"") + serial + "\""),
            serials.end())
            << serial << "\n"
            << w;
    }
    EXPECT_NE(w.find("STRING: \"HJ1200-12G\""), std::string::npos) << w;
    // The backplane probe's reading from the SES status page, and the boot
    // disk's (no drivetemp) from its SMART data.
    const std::vector<std::string> temps = columnOf(w, table("130.11"), 11);
    EXPECT_NE(std::find(temps.begin(), temps.end(), "INTEGER: 26"), temps.end()) << w;
    EXPECT_NE(std::find(temps.begin(), temps.end(), "INTEGER: 29"), temps.end()) << w;
    // The four SAS disks take protection information and have their write
    // cache off; the two SATA SSDs and the boot disk the other way round.
    const auto count = [](const std::vector<std::string> &column, const char *value) {
        return std::count(column.begin(), column.end(), value);
    };
    const std::vector<std::string> caches = columnOf(w, table("130.4"), 43);
    EXPECT_EQ(count(caches, "INTEGER: 0"), 4) << w;
    EXPECT_EQ(count(caches, "INTEGER: 1"), 3) << w;
    const std::vector<std::string> protection = columnOf(w, table("130.4"), 51);
    EXPECT_EQ(count(protection, "INTEGER: 1"), 4) << w;
    EXPECT_EQ(count(protection, "INTEGER: 0"), 3) << w;
}

TEST_F(AgentLiveFixture, WorkstationArraysAndNvme)
{
    start("workstation");
    const std::string w = walk();
    EXPECT_EQ(rowsOf(w, table("130.1")).size(), 4u) << "two NVMe, AHCI, software RAID";
    EXPECT_EQ(rowsOf(w, table("130.4")).size(), 6u);
    EXPECT_EQ(rowsOf(w, table("130.18")).size(), 2u) << "NVMe adapters";
    EXPECT_EQ(rowsOf(w, table("140.1")).size(), 2u) << "md0 and md1";
    EXPECT_EQ(rowsOf(w, table("140.3")).size(), 5u) << "2 + 3 members";
    EXPECT_NE(w.find("STRING: \"Linux software RAID\""), std::string::npos) << w;
    // Their PCIe links: 8 GT/s x4 of 8 GT/s x4, and 8 GT/s x2 of 16 GT/s x4.
    using Column = std::vector<std::string>;
    EXPECT_EQ(columnOf(w, table("130.18"), 21), (Column{"INTEGER: 8", "INTEGER: 8"})) << w;
    EXPECT_EQ(columnOf(w, table("130.18"), 22), (Column{"INTEGER: 8", "INTEGER: 16"})) << w;
    EXPECT_EQ(columnOf(w, table("130.18"), 26), (Column{"INTEGER: 4", "INTEGER: 4"})) << w;
    EXPECT_EQ(columnOf(w, table("130.18"), 27), (Column{"INTEGER: 4", "INTEGER: 2"})) << w;
    // The same widths on their namespaces' rows; the SATA disks have none.
    EXPECT_EQ(columnOf(w, table("130.4"), 53), (Column{"INTEGER: 4", "INTEGER: 2"})) << w;
    // nvme0's probe is its hwmon's; nvme1 has none, and its SMART log's
    // composite temperature (314 K) stands for it, with its Identify data's
    // warning and critical thresholds (348 and 358 K); sda and sdb give
    // theirs in their SMART data (attribute 194, and 190 alone), without
    // thresholds.
    EXPECT_EQ(columnOf(w, table("130.11"), 11),
              (Column{"INTEGER: 38", "INTEGER: 34", "INTEGER: 35", "INTEGER: 41"}))
        << w;
    EXPECT_EQ(columnOf(w, table("130.11"), 9), (Column{"INTEGER: 84", "INTEGER: 75"})) << w;
    EXPECT_EQ(columnOf(w, table("130.11"), 10), (Column{"INTEGER: 84", "INTEGER: 85"})) << w;
}

TEST_F(AgentLiveFixture, VmVirtioDisksWithTheirSizes)
{
    start("vm");
    const std::string w = walk();
    EXPECT_EQ(rowsOf(w, table("130.4")).size(), 4u);
    const std::vector<std::string> sizes = columnOf(w, table("130.4"), 11);
    for (const char *mib :
         {"INTEGER: 262144", "INTEGER: 20480", "INTEGER: 8192", "INTEGER: 102400"})
        EXPECT_NE(std::find(sizes.begin(), sizes.end(), mib), sizes.end()) << mib << "\n" << w;
}

TEST_F(AgentLiveFixture, VmVolumeOverNvmeTcpHasAControllerOfItsOwn)
{
    start("vm");
    const std::string w = walk();
    const std::vector<std::string> names = columnOf(w, table("130.1"), 2);
    EXPECT_NE(std::find(names.begin(), names.end(), "STRING: \"Linux nvme0 (nvme-tcp)\""),
              names.end())
        << w;
    const std::vector<std::string> devices = columnOf(w, table("130.18"), 5);
    EXPECT_EQ(devices, std::vector<std::string>{"STRING: \"/dev/nvme0\""}) << w;
    // The adapter hangs from no PCI function: its PCI bus column has no value.
    EXPECT_TRUE(columnOf(w, table("130.18"), 11).empty()) << w;
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_EQ(status.out.find("NVMe controller"), std::string::npos) << status.out;
}

TEST_F(AgentLiveFixture, BoardMmcCardsAndAUsbDiskAreServed)
{
    start("board");
    const std::string w = walk();
    const std::vector<std::string> names = columnOf(w, table("130.1"), 2);
    for (const char *name : {"sdhci-arasan mmc0", "dwmmc_rockchip mmc1", "uas host0"}) {
        EXPECT_NE(std::find(names.begin(), names.end(), std::string("STRING: \"") + name + "\""),
                  names.end())
            << name << "\n"
            << w;
    }
    // Three disks: the eMMC's boot areas are not disks of their own.
    EXPECT_EQ(rowsOf(w, table("130.4")).size(), 3u) << w;
    const std::vector<std::string> products = columnOf(w, table("130.4"), 6);
    for (const char *product : {"DG4016", "SC64G", "KU-500"}) {
        EXPECT_NE(
            std::find(products.begin(), products.end(), std::string("STRING: \"") + product + "\""),
            products.end())
            << product << "\n"
            << w;
    }
}

TEST_F(AgentLiveFixture, XenGuestDisksAreServedWithTheirSizes)
{
    start("xen");
    const std::string w = walk();
    EXPECT_EQ(columnOf(w, table("130.1"), 2),
              (std::vector<std::string>{"STRING: \"Xen virtual block device vbd-51712\"",
                                        "STRING: \"Xen virtual block device vbd-51792\""}))
        << w;
    const std::vector<std::string> sizes = columnOf(w, table("130.4"), 11);
    for (const char *mib : {"INTEGER: 8192", "INTEGER: 102400"})
        EXPECT_NE(std::find(sizes.begin(), sizes.end(), mib), sizes.end()) << mib << "\n" << w;
}

// A dual-domain JBOD: each disk and the enclosure once, by the first HBA's
// path; a disk with one path down is a warning, with both down offline.
TEST_F(AgentLiveFixture, JbodDisksSeenThroughTwoHbasAreServedOnce)
{
    start("jbod");
    const std::string w = walk();
    const std::vector<std::string> devices = columnOf(w, table("130.4"), 25);
    EXPECT_EQ(devices, (std::vector<std::string>{"STRING: \"/dev/sdb\"", "STRING: \"/dev/sdc\"",
                                                 "STRING: \"/dev/sdd\"", "STRING: \"/dev/sde\""}))
        << w;
    const std::string pathA = "sys/devices/pci0000:00/0000:00:01.0/0000:03:00.0/host0/port-0:0/"
                              "expander-0:0/port-0:0:0/end_device-0:0:0/target0:0:0/0:0:0:0/state";
    const std::string pathB = "sys/devices/pci0000:00/0000:00:02.0/0000:04:00.0/host1/port-1:0/"
                              "expander-1:0/port-1:0:0/end_device-1:0:0/target1:0:0/1:0:0:0/state";
    // Column 24 is the disk's status (stored + 1): 3 ok, 4 non-critical.
    auto statusBecomes = [&](const char *want) {
        return waitFor(
            [&] {
                const auto statuses = columnOf(walk(), table("130.4"), 24);
                return !statuses.empty() && statuses.front() == want;
            },
            10s);
    };
    ASSERT_EQ(columnOf(w, table("130.4"), 24).front(), "INTEGER: 3") << w;
    write(pathB, "transport-offline\n");
    rescan();
    EXPECT_TRUE(statusBecomes("INTEGER: 4")) << walk();
    write(pathA, "transport-offline\n");
    rescan();
    EXPECT_TRUE(trapOf(2051)) << receiver.log() << agent.process()->err();
    write(pathA, "running\n");
    write(pathB, "running\n");
    rescan();
    EXPECT_TRUE(trapOf(2052)) << receiver.log();
    EXPECT_TRUE(statusBecomes("INTEGER: 3")) << walk();
    EXPECT_EQ(rows("130.4"), 4u);
}

// RAID controller volumes are virtual disks, and the RAID class's state of
// an integrated RAID volume becomes the array events.
TEST_F(AgentLiveFixture, RaidControllerVolumesAreVirtualDisksWithTheirEvents)
{
    start("raid");
    const std::string w = walk();
    EXPECT_EQ(columnOf(w, table("140.1"), 3),
              (std::vector<std::string>{"STRING: \"/dev/sda\"", "STRING: \"/dev/sdb\"",
                                        "STRING: \"/dev/sdd\""}))
        << w;
    EXPECT_EQ(columnOf(w, table("130.4"), 25), std::vector<std::string>{"STRING: \"/dev/sdc\""})
        << w;
    const std::vector<std::string> layouts = columnOf(w, table("140.1"), 13);
    ASSERT_EQ(layouts.size(), 3u) << w;
    EXPECT_EQ(layouts[2], "INTEGER: 3") << "RAID 1";
    const std::string raidDevice = "sys/devices/pci0000:00/0000:00:02.0/0000:3b:00.0/host1/"
                                   "target1:1:0/1:1:0:0/raid_devices/1:1:0:0/";
    write(raidDevice + "state", "degraded\n");
    rescan();
    EXPECT_TRUE(trapOf(2056)) << receiver.log() << agent.process()->err();
    write(raidDevice + "state", "active\n");
    rescan();
    EXPECT_TRUE(trapOf(2057)) << receiver.log();
}

TEST_F(AgentLiveFixture, ARemovedDiskIsATrapAndLeavesTheTable)
{
    start("server");
    ASSERT_EQ(rows("130.4"), 7u);
    ASSERT_EQ(::unlink((dir / "root/sys/class/scsi_device/0:0:2:0").c_str()), 0);
    rescan();
    EXPECT_TRUE(trapOf(2049)) << receiver.log() << agent.process()->err();
    EXPECT_TRUE(rowsBecome("130.4", 6)) << walk();
}

// Without udev (a captured root has none) the period alone finds changes.
TEST_F(AgentLiveFixture, ThePeriodFindsAChangeWithoutASignal)
{
    start("vm", "1");
    ASSERT_EQ(rows("130.4"), 4u);
    ASSERT_EQ(::unlink((dir / "root/sys/block/vdb").c_str()), 0);
    EXPECT_TRUE(trapOf(2049)) << receiver.log() << agent.process()->err();
    EXPECT_TRUE(rowsBecome("130.4", 3)) << walk();
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_NE(status.out.find("udev off"), std::string::npos) << status.out;
}

TEST_F(AgentLiveFixture, APulledPowerSupplyIsATrapAndKeepsItsRow)
{
    start("server");
    // PSU 1 is element 15 of the status page (8-byte header, 4 bytes each):
    // status code 5, not installed.
    patchPage("page-02.bin", 8 + 4 * 15, 5);
    rescan();
    EXPECT_TRUE(trapOf(2161)) << receiver.log() << agent.process()->err();
    EXPECT_EQ(rows("130.9"), 2u) << "the row stays, as missing";
    // Back in: it works normally again.
    patchPage("page-02.bin", 8 + 4 * 15, 1);
    rescan();
    EXPECT_TRUE(trapOf(2162)) << receiver.log();
}

TEST_F(AgentLiveFixture, AHotProbeIsAWarningTrapAndTheColumnFollows)
{
    start("server");
    // The backplane probe is element 20; byte 2 is the reading plus 20.
    patchPage("page-02.bin", 8 + 4 * 20 + 2, 55 + 20);
    rescan();
    EXPECT_TRUE(trapOf(2156)) << receiver.log() << agent.process()->err();
    EXPECT_TRUE(waitFor(
        [&] {
            const auto temps = columnOf(walk(), table("130.11"), 11);
            return std::find(temps.begin(), temps.end(), "INTEGER: 55") != temps.end();
        },
        10s));
    patchPage("page-02.bin", 8 + 4 * 20 + 2, 65 + 20); // past the critical 60
    rescan();
    EXPECT_TRUE(trapOf(2155)) << receiver.log();
}

TEST_F(AgentLiveFixture, ADiskPredictingItsFailureIsATrapAndAWarning)
{
    start("server");
    // Every drive healthy: the predicted-failure column answers 1 (no).
    const std::vector<std::string> before = columnOf(walk(), table("130.4"), 31);
    EXPECT_EQ(before, std::vector<std::string>(7, "INTEGER: 1"));
    // The SAS disk in slot 1 (sg1) reports a failure prediction threshold
    // exceeded in its informational exceptions log page.
    std::string page = readFile(dir / "root/dev/sg1.health/log-2f.bin");
    ASSERT_GT(page.size(), 9u);
    page[8] = 0x5d;
    page[9] = 0x10;
    write("dev/sg1.health/log-2f.bin", page);
    rescan();
    EXPECT_TRUE(trapOf(2074)) << receiver.log() << agent.process()->err();
    EXPECT_TRUE(waitFor(
        [&] {
            const auto predicted = columnOf(walk(), table("130.4"), 31);
            return std::count(predicted.begin(), predicted.end(), "INTEGER: 2") == 1;
        },
        10s));
    const RunResult status = agent.kelpctl({"status"});
    EXPECT_NE(status.out.find("(/dev/sg1) predicts its failure: asc/ascq 0x5d/0x10"),
              std::string::npos)
        << status.out;
}

TEST_F(AgentLiveFixture, NvmeDrivesSayHowMuchOfTheirRatedLifeIsLeft)
{
    start("workstation");
    const std::string w = walk();
    using Column = std::vector<std::string>;
    EXPECT_EQ(columnOf(w, table("130.18"), 23), (Column{"INTEGER: 97", "INTEGER: 88"})) << w;
    EXPECT_EQ(columnOf(w, table("130.4"), 45), (Column{"INTEGER: 97", "INTEGER: 88"})) << w;
    // The same in the disks' endurance column, and neither's media is
    // read-only.
    const Column endurance = columnOf(w, table("130.4"), 49);
    EXPECT_EQ(std::count(endurance.begin(), endurance.end(), "STRING: \"97\""), 1) << w;
    EXPECT_EQ(std::count(endurance.begin(), endurance.end(), "STRING: \"88\""), 1) << w;
    const Column readOnly = columnOf(w, table("130.4"), 48);
    EXPECT_EQ(readOnly.size(), 2u) << "the NVMe disks alone say: " << w;
    EXPECT_EQ(std::count(readOnly.begin(), readOnly.end(), "STRING: \"No\""),
              static_cast<long>(readOnly.size()))
        << w;
}

TEST_F(AgentLiveFixture, AFailedMemberDegradesTheArrayAndARebuildRestoresIt)
{
    start("workstation");
    const std::string md0 = "sys/devices/virtual/block/md0/md/";
    write(md0 + "dev-sdb/state", "faulty\n");
    write(md0 + "degraded", "1\n");
    rescan();
    EXPECT_TRUE(trapOf(2048)) << receiver.log() << agent.process()->err();
    EXPECT_TRUE(trapOf(2056)) << receiver.log();

    write(md0 + "dev-sdb/state", "spare\n");
    write(md0 + "sync_action", "recover\n");
    write(md0 + "sync_completed", "100 / 1000\n");
    rescan();
    EXPECT_TRUE(trapOf(2070)) << receiver.log();
    write(md0 + "sync_completed", "550 / 1000\n");
    rescan();
    EXPECT_TRUE(trapOf(2077)) << receiver.log();

    write(md0 + "dev-sdb/state", "in_sync\n");
    write(md0 + "degraded", "0\n");
    write(md0 + "sync_action", "idle\n");
    write(md0 + "sync_completed", "none\n");
    rescan();
    EXPECT_TRUE(trapOf(2071)) << receiver.log();
    EXPECT_TRUE(trapOf(2057)) << receiver.log();
}

TEST(AgentLiveSave, EveryFixtureSavesToAModelThatWalksTheSame)
{
    for (const char *machine : {"server", "workstation", "vm", "board", "xen", "jbod", "raid"}) {
        SCOPED_TRACE(machine);
        expectIdenticalWalkAfterSave(
            {"--live-root", sourcePath(std::string("tests/fixtures/") + machine)});
    }
}

} // namespace
} // namespace kelp::test
