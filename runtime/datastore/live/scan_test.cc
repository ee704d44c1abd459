// scanMachine on small trees written by the test: what each reader makes of
// a device, and of files that are missing, empty, garbage, unreadable or
// gone between listing and reading.
#include "datastore/live/scan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "datastore/live/health_testing.h"
#include "datastore/live/machine_testing.h"
#include "datastore/live/sysroot.h"
#include "datastore/live/tree_testing.h"

namespace kelp::live {
namespace {

using testing::TempTree;

std::string attrOf(const LiveObject &o, const std::string &name)
{
    for (const auto &[key, value] : o.attributes) {
        if (key == name)
            return value;
    }
    return "<none>";
}

// A virtio-blk disk `name` on PCI function bdf (virtioN below it).
void addVirtioDisk(const TempTree &t, const std::string &bdf, const std::string &virtio,
                   const std::string &name, const std::string &sectors)
{
    const std::string pci = "sys/devices/pci0000:00/" + bdf;
    t.file(pci + "/class", "0x018000\n");
    t.file(pci + "/vendor", "0x1af4\n");
    t.file(pci + "/device", "0x1042\n");
    t.dir("sys/bus/pci/drivers/virtio-pci");
    t.link(pci + "/driver", "../../../bus/pci/drivers/virtio-pci");
    t.link("sys/bus/pci/devices/" + bdf, "../../../devices/pci0000:00/" + bdf);
    const std::string block = pci + "/" + virtio + "/block/" + name;
    t.file(pci + "/" + virtio + "/vendor", "0x1af4\n");
    t.file(block + "/size", sectors + "\n");
    t.file(block + "/queue/rotational", "1\n");
    t.file(block + "/serial", "SER-" + name + "\n");
    t.link(block + "/device", "../../../" + virtio);
    t.link("sys/block/" + name, "../devices/pci0000:00/" + bdf + "/" + virtio + "/block/" + name);
}

// A SCSI disk H:C:T:L named sdX on an AHCI function.
void addSataDisk(const TempTree &t, const std::string &bdf, unsigned host, const std::string &sd)
{
    const std::string pci = "sys/devices/pci0000:00/" + bdf;
    t.file(pci + "/class", "0x010601\n");
    t.dir("sys/bus/pci/drivers/ahci");
    t.link(pci + "/driver", "../../../bus/pci/drivers/ahci");
    t.link("sys/bus/pci/devices/" + bdf, "../../../devices/pci0000:00/" + bdf);
    const std::string h = std::to_string(host);
    const std::string hostDir = pci + "/ata" + std::to_string(host + 1) + "/host" + h;
    const std::string hctl = h + ":0:0:0";
    const std::string dev = hostDir + "/target" + h + ":0:0/" + hctl;
    t.file(hostDir + "/scsi_host/host" + h + "/proc_name", "ahci\n");
    t.link("sys/class/scsi_host/host" + h, "../../devices/pci0000:00/" + bdf + "/ata" +
                                               std::to_string(host + 1) + "/host" + h +
                                               "/scsi_host/host" + h);
    t.file(dev + "/type", "0\n");
    t.file(dev + "/vendor", "ATA     \n");
    t.file(dev + "/model", "KV-SSD480       \n");
    t.file(dev + "/rev", "1.02\n");
    t.file(dev + "/state", "running\n");
    t.file(dev + "/vpd_pg80", std::string("\0\x80\0\x08SN-", 7) + sd + "0");
    t.file(dev + "/block/" + sd + "/size", "937703088\n");
    t.file(dev + "/block/" + sd + "/queue/rotational", "0\n");
    t.link(dev + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
    t.link("sys/class/scsi_device/" + hctl, "../../devices/pci0000:00/" + bdf + "/ata" +
                                                std::to_string(host + 1) + "/host" + h + "/target" +
                                                h + ":0:0/" + hctl + "/scsi_device/" + hctl);
    t.link("sys/block/" + sd, "../devices/pci0000:00/" + bdf + "/ata" + std::to_string(host + 1) +
                                  "/host" + h + "/target" + h + ":0:0/" + hctl + "/block/" + sd);
}

LiveScan scanOf(const TempTree &t)
{
    SysRoot root;
    std::string error;
    EXPECT_TRUE(root.open(t.root(), &error)) << error;
    LiveScan scan;
    scanMachine(root, &scan);
    return scan;
}

const LiveObject &only(const LiveScan &scan, const std::string &type, const std::string &nexus)
{
    static const LiveObject none;
    auto pos = scan.find(type, nexus);
    EXPECT_TRUE(pos) << type << " " << nexus << " not found";
    return pos ? scan.objects[*pos] : none;
}

size_t countOf(const LiveScan &scan, const std::string &type)
{
    return static_cast<size_t>(std::count_if(scan.objects.begin(), scan.objects.end(),
                                             [&](const LiveObject &o) { return o.type == type; }));
}

TEST(ScanTest, AnEmptyRootServesNothingAndSaysWhy)
{
    TempTree t;
    LiveScan scan = scanOf(t);
    EXPECT_TRUE(scan.objects.empty());
    ASSERT_FALSE(scan.notes.empty());
    EXPECT_NE(scan.notes.front().find("no /sys"), std::string::npos);
    EXPECT_EQ(attrOf(LiveObject{"", "", {}, scan.storage}, "ready"), "1");
}

TEST(ScanTest, VirtioDisksAreDisksOfTheirOwnControllers)
{
    TempTree t;
    addVirtioDisk(t, "0000:00:03.0", "virtio2", "vdb", "41943040");
    addVirtioDisk(t, "0000:00:02.0", "virtio1", "vda", "536870912");
    LiveScan scan = scanOf(t);
    // Numbered in PCI address order: 00:02.0 is controller 0.
    const LiveObject &c0 = only(scan, "adapters", "0");
    EXPECT_EQ(attrOf(c0, "PCIAddress"), "0000:00:02.0");
    EXPECT_EQ(attrOf(c0, "DriverName"), "virtio-pci");
    const LiveObject &vda = only(scan, "arraydisks", "0\\0\\0");
    EXPECT_EQ(attrOf(vda, "DeviceName"), "/dev/vda");
    EXPECT_EQ(attrOf(vda, "Length"), "274877906944");
    EXPECT_EQ(attrOf(vda, "DeviceSerialNumber"), "SER-vda");
    EXPECT_EQ(attrOf(vda, "MediaType"), "1");
    const LiveObject &vdb = only(scan, "arraydisks", "1\\0\\0");
    EXPECT_EQ(attrOf(vdb, "DeviceName"), "/dev/vdb");
    EXPECT_EQ(attrOf(vdb, "Length"), std::to_string(41943040ull * 512));
    ASSERT_TRUE(vda.parent);
    EXPECT_EQ(scan.objects[*vda.parent].type, "bus");
}

TEST(ScanTest, SataDisksCarryTheirIdentity)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "BusProtocol"), "7");
    // One channel per port (SCSI host).
    const LiveObject &sda = only(scan, "arraydisks", "0\\0\\0");
    const LiveObject &sdb = only(scan, "arraydisks", "0\\1\\0");
    EXPECT_EQ(attrOf(sda, "DeviceName"), "/dev/sda");
    EXPECT_EQ(attrOf(sdb, "DeviceName"), "/dev/sdb");
    EXPECT_EQ(attrOf(sda, "DeviceSerialNumber"), "SN-sda0");
    EXPECT_EQ(attrOf(sda, "Vendor"), "ATA");
    EXPECT_EQ(attrOf(sda, "ProductID"), "KV-SSD480");
    EXPECT_EQ(attrOf(sda, "ModelNumber"), "KV-SSD480");
    EXPECT_EQ(attrOf(sda, "BusProtocol"), "7");
    EXPECT_EQ(attrOf(sda, "MediaType"), "2");
    EXPECT_EQ(attrOf(sda, "ObjStatus"), "2");
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Channels"), "2");
}

// Each bad file: the object is served with what could be read, or left out,
// never with another device's values.
TEST(ScanTest, BadFilesLeaveValuesOutNotRowsMixedUp)
{
    struct Case {
        const char *what;
        std::function<void(const TempTree &)> spoil;
        std::function<void(const LiveScan &)> check;
    };
    const std::string sdaDir = "sys/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0";
    const std::vector<Case> cases = {
        {"size missing", [&](const TempTree &t) { t.remove(sdaDir + "/block/sda/size"); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "Length"), "<none>");
         }},
        {"size garbage", [&](const TempTree &t) { t.file(sdaDir + "/block/sda/size", "12ab\n"); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "Length"), "<none>");
         }},
        {"vendor empty", [&](const TempTree &t) { t.file(sdaDir + "/vendor", ""); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "Vendor"), "Not Available");
         }},
        {"serial page truncated",
         [&](const TempTree &t) { t.file(sdaDir + "/vpd_pg80", std::string("\0\x80\0", 3)); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "DeviceSerialNumber"),
                       "Not Available");
         }},
        {"serial length past the page",
         [&](const TempTree &t) {
             t.file(sdaDir + "/vpd_pg80", std::string("\0\x80\xff\xffSN", 6));
         },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "DeviceSerialNumber"), "SN");
         }},
        {"serial padded with blanks and NULs",
         [&](const TempTree &t) {
             t.file(sdaDir + "/vpd_pg80", std::string("\0\x80\0\x0d"
                                                      "  AB 12\0 \0\0\0\0",
                                                      17));
         },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "DeviceSerialNumber"), "AB 12");
         }},
        {"type garbage", [&](const TempTree &t) { t.file(sdaDir + "/type", "disk\n"); },
         [](const LiveScan &s) { EXPECT_FALSE(s.find("arraydisks", "0\\0\\0")); }},
        {"device gone after listing", [&](const TempTree &t) { t.remove(sdaDir); },
         [](const LiveScan &s) { EXPECT_FALSE(s.find("arraydisks", "0\\0\\0")); }},
        {"state unknown", [&](const TempTree &t) { t.file(sdaDir + "/state", "weird\n"); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "ObjStatus"), "1");
         }},
        {"state offline", [&](const TempTree &t) { t.file(sdaDir + "/state", "offline\n"); },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "ObjState"), "8");
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "ObjStatus"), "4");
         }},
        {"control characters",
         [&](const TempTree &t) {
             t.file(sdaDir + "/model", "A\x01\xff"
                                       "B\n");
         },
         [](const LiveScan &s) {
             EXPECT_EQ(attrOf(only(s, "arraydisks", "0\\0\\0"), "ProductID"), "A??B");
         }},
        {"class link loops",
         [&](const TempTree &t) { t.link("sys/class/scsi_device/0:0:0:0", "0:0:0:0"); },
         [](const LiveScan &s) { EXPECT_FALSE(s.find("arraydisks", "0\\0\\0")); }},
        {"class link points out of the tree",
         [&](const TempTree &t) { t.link("sys/class/scsi_device/0:0:0:0", "/../../../../etc"); },
         [](const LiveScan &s) { EXPECT_FALSE(s.find("arraydisks", "0\\0\\0")); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempTree t;
        addSataDisk(t, "0000:00:17.0", 0, "sda");
        addSataDisk(t, "0000:00:17.0", 1, "sdb");
        c.spoil(t);
        LiveScan scan = scanOf(t);
        c.check(scan);
        // The other disk is always whole and itself.
        const LiveObject &sdb = only(scan, "arraydisks", "0\\1\\0");
        EXPECT_EQ(attrOf(sdb, "DeviceName"), "/dev/sdb");
        EXPECT_EQ(attrOf(sdb, "DeviceSerialNumber"), "SN-sdb0");
        EXPECT_EQ(attrOf(sdb, "Length"), std::to_string(937703088ull * 512));
    }
}

// md array mdN (sys/devices/virtual/block/mdN, returned) with the files of
// its md directory as given ("level", "raid_disks" ...), over disks of
// addSataDisk, each member {disk, md state, slot}.
struct MdMember {
    const char *disk, *state, *slot;
};
std::string addMdArray(const TempTree &t, unsigned n,
                       std::initializer_list<std::pair<const char *, std::string>> files,
                       std::initializer_list<MdMember> members)
{
    const std::string name = "md" + std::to_string(n);
    const std::string md = "sys/devices/virtual/block/" + name;
    t.link("sys/block/" + name, "../devices/virtual/block/" + name);
    for (const auto &[file, text] : files)
        t.file(md + "/md/" + file, text + "\n");
    for (const MdMember &m : members) {
        const std::string dev = md + "/md/dev-" + m.disk;
        t.file(dev + "/state", std::string(m.state) + "\n");
        t.file(dev + "/slot", std::string(m.slot) + "\n");
        t.link(dev + "/block", std::string("../../../../../../block/") + m.disk);
    }
    return md;
}

TEST(ScanTest, MdArraysAreVirtualDisksOverTheirMembers)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    const std::string md = addMdArray(t, 0,
                                      {{"level", "raid1"},
                                       {"raid_disks", "2"},
                                       {"chunk_size", "0"},
                                       {"array_state", "clean"},
                                       {"degraded", "1"},
                                       {"sync_action", "recover"},
                                       {"sync_completed", "250 / 1000"}},
                                      {{"sda", "in_sync", "0"}, {"sdb", "spare", "1"}});
    t.file(md + "/size", "1000\n");
    t.file(md + "/md0p1/partition", "1\n");
    t.file(md + "/md0p1/size", "500\n");
    LiveScan scan = scanOf(t);
    const LiveObject &ctrl = only(scan, "adapters", "1");
    EXPECT_EQ(attrOf(ctrl, "Name"), "Linux software RAID");
    const LiveObject &vd = only(scan, "vdisks", "1\\128\\0");
    EXPECT_EQ(attrOf(vd, "Layout"), "4");
    EXPECT_EQ(attrOf(vd, "ObjState"), std::to_string(kStateRebuilding));
    EXPECT_EQ(attrOf(vd, "ObjStatus"), "3");
    EXPECT_EQ(attrOf(vd, "RebuildProgress"), "25");
    EXPECT_EQ(attrOf(vd, "Length"), "512000");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "ObjState"),
              std::to_string(kStateOnline));
    const LiveObject &sdb = only(scan, "arraydisks", "0\\1\\0");
    EXPECT_EQ(attrOf(sdb, "ObjState"), std::to_string(kStateRebuilding));
    EXPECT_EQ(attrOf(sdb, "RebuildProgress"), "25");
    EXPECT_EQ(scan.links.size(), 3u); // two members, one partition
    const LiveObject &part = only(scan, "VDPartitionNode", "1\\129\\0\\1");
    EXPECT_EQ(attrOf(part, "PartitionSize"), "256000");
}

// md never fails the last disk of a RAID 10 mirror, so a running array has
// all its data however many disks it misses; one that lost a whole mirror
// says "broken".
TEST(ScanTest, ARaid10ArrayMissingADiskOfEachMirrorIsDegradedNotFailed)
{
    for (const char *arrayState : {"clean", "active", "broken"}) {
        SCOPED_TRACE(arrayState);
        TempTree t;
        addSataDisk(t, "0000:00:17.0", 0, "sda");
        addSataDisk(t, "0000:00:17.0", 1, "sdb");
        addMdArray(t, 1,
                   {{"level", "raid10"},
                    {"raid_disks", "4"},
                    {"array_state", arrayState},
                    {"degraded", "2"},
                    {"sync_action", "idle"}},
                   {{"sda", "in_sync", "0"}, {"sdb", "in_sync", "2"}});
        LiveScan scan = scanOf(t);
        const LiveObject &vd = only(scan, "vdisks", "1\\128\\1");
        const bool broken = std::string(arrayState) == "broken";
        EXPECT_EQ(attrOf(vd, "ObjState"), std::to_string(broken ? kStateFailed : kStateDegraded));
        EXPECT_EQ(attrOf(vd, "ObjStatus"),
                  std::to_string(broken ? kStatusCritical : kStatusNonCritical));
    }
}

TEST(ScanTest, MdArrayWithGarbageIsServedAsFailedNotDropped)
{
    TempTree t;
    const std::string md = "sys/devices/virtual/block/md5";
    t.link("sys/block/md5", "../devices/virtual/block/md5");
    t.file(md + "/md/level", "raid\x01\n");
    t.file(md + "/md/raid_disks", "many\n");
    t.file(md + "/md/array_state", "\n");
    t.link(md + "/md/dev-sdz/block", "../nowhere");
    LiveScan scan = scanOf(t);
    const LiveObject &vd = only(scan, "vdisks", "0\\128\\5");
    EXPECT_EQ(attrOf(vd, "ObjState"), std::to_string(kStateFailed));
    EXPECT_EQ(attrOf(vd, "Layout"), "0");
    EXPECT_TRUE(scan.links.empty());
}

TEST(ScanTest, TreeStatusIsTheWorstBelow)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    t.file("sys/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/state", "offline\n");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "TreeStatus"), "4");
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "ObjStatus"), "2");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

TEST(ScanTest, DisksInEnclosureSlotsAreNamedBySlot)
{
    TempTree t;
    testing::writeSasServer(t, 30); // two enclosures: 24 and 6 disks
    LiveScan scan = scanOf(t);
    const LiveObject &c = only(scan, "adapters", "0");
    EXPECT_EQ(attrOf(c, "FirmwareVer"), "16.00.12.00");
    EXPECT_EQ(attrOf(c, "CurrentDriverVersion"), "43.100.00.00");
    EXPECT_EQ(attrOf(c, "BusProtocol"), "8");
    const LiveObject &e1 = only(scan, "enclosures", "0\\0\\1");
    EXPECT_EQ(attrOf(e1, "ProductID"), "HJ2400-12G");
    EXPECT_EQ(attrOf(e1, "MaxNumOfPDSlots"), "24");
    // Disk 25 sits in slot 1 of the second enclosure.
    const LiveObject &d = only(scan, "arraydisks", "0\\0\\1\\1");
    EXPECT_EQ(attrOf(d, "DeviceName"), "/dev/sd25");
    EXPECT_EQ(attrOf(d, "DeviceSerialNumber"), "HAL0000025");
    EXPECT_EQ(attrOf(d, "SASAddress"), "0x5000c50000000019");
    EXPECT_EQ(attrOf(d, "BusProtocol"), "8");
    ASSERT_TRUE(d.parent);
    EXPECT_EQ(scan.objects[*d.parent].nexus, "0\\0\\1");
    size_t disks = 0;
    for (const LiveObject &o : scan.objects)
        disks += o.type == "arraydisks";
    EXPECT_EQ(disks, 30u);
    // No SES pages in this tree: the log line says so.
    EXPECT_NE(scan.components.find("not available"), std::string::npos) << scan.components;
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

TEST(ScanTest, AHostOnNoPciFunctionIsAControllerOfItsOwn)
{
    TempTree t;
    // A VMBus disk: host0 under a VMBus device, no PCI address on the path.
    const std::string vmbus = "sys/devices/LNXSYSTM:00/LNXSYBUS:00/ACPI0004:00/VMBUS:00/"
                              "f8b3781b-1e82-4818-a1c3-63d806ec15bb";
    const std::string host = vmbus + "/host0";
    const std::string dev = host + "/target0:0:0/0:0:0:0";
    t.file(host + "/scsi_host/host0/proc_name", "storvsc\n");
    t.link("sys/class/scsi_host/host0", "../../devices/LNXSYSTM:00/LNXSYBUS:00/ACPI0004:00/"
                                        "VMBUS:00/f8b3781b-1e82-4818-a1c3-63d806ec15bb/host0/"
                                        "scsi_host/host0");
    t.file(dev + "/type", "0\n");
    t.file(dev + "/vendor", "Msft    \n");
    t.file(dev + "/model", "Virtual Disk    \n");
    t.file(dev + "/state", "running\n");
    t.file(dev + "/block/sda/size", "62914560\n");
    t.link(dev + "/scsi_device/0:0:0:0/device", "../../../0:0:0:0");
    t.link("sys/class/scsi_device/0:0:0:0",
           "../../devices/LNXSYSTM:00/LNXSYBUS:00/ACPI0004:00/VMBUS:00/"
           "f8b3781b-1e82-4818-a1c3-63d806ec15bb/host0/target0:0:0/0:0:0:0/scsi_device/0:0:0:0");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Name"), "storvsc host0");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "DeviceName"), "/dev/sda");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

TEST(ScanTest, SasPortsAreChannelsOfTheirOwn)
{
    TempTree t;
    const std::string rel = "pci0000:00/0000:03:00.0";
    const std::string pci = "sys/devices/" + rel;
    t.file(pci + "/class", "0x010700\n");
    t.dir("sys/bus/pci/drivers/mpt3sas");
    t.link(pci + "/driver", "../../../bus/pci/drivers/mpt3sas");
    t.link("sys/bus/pci/devices/0000:03:00.0", "../../../devices/" + rel);
    t.file(pci + "/host0/scsi_host/host0/proc_name", "mpt3sas\n");
    t.link("sys/class/scsi_host/host0", "../../devices/" + rel + "/host0/scsi_host/host0");
    // Ports 0 and 1 with a disk each, port 2 empty.
    t.dir(pci + "/host0/port-0:2");
    for (unsigned port : {0u, 1u}) {
        const std::string p = std::to_string(port);
        const std::string hctl = "0:0:" + p + ":0";
        const std::string dev =
            rel + "/host0/port-0:" + p + "/end_device-0:" + p + "/target0:0:" + p + "/" + hctl;
        const std::string d = "sys/devices/" + dev;
        t.file(d + "/type", "0\n");
        t.file(d + "/vendor", "HALDEN\n");
        t.file(d + "/model", "HS1200S12\n");
        t.file(d + "/state", "running\n");
        t.file(d + "/sas_address", "0x5000c5000000000" + p + "\n");
        t.file(d + "/block/sd" + std::string(1, static_cast<char>('b' + port)) + "/size", "100\n");
        t.link(d + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
        t.link("sys/class/scsi_device/" + hctl, "../../devices/" + dev + "/scsi_device/" + hctl);
    }
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Channels"), "3");
    EXPECT_EQ(attrOf(only(scan, "bus", "0\\0"), "SASPort"), "0");
    EXPECT_EQ(attrOf(only(scan, "bus", "0\\2"), "SASPort"), "2");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "DeviceName"), "/dev/sdb");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\1\\1"), "DeviceName"), "/dev/sdc");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\1\\1"), "BusProtocol"), "8");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// NVMe controller nvmeN over a fabric (transport tcp), on no PCI function,
// holding `entries` (namespace path devices nvmeScNnM of subsystem S, or
// nvmeNnM itself).
void addFabricController(const TempTree &t, unsigned n, const std::vector<std::string> &entries)
{
    const std::string name = "nvme" + std::to_string(n);
    const std::string rel = "virtual/nvme-fabrics/ctl/" + name;
    const std::string ctl = "sys/devices/" + rel;
    t.file(ctl + "/transport", "tcp\n");
    t.file(ctl + "/address", "traddr=192.0.2.7,trsvcid=4420\n");
    t.file(ctl + "/model", "Linux\n");
    t.file(ctl + "/serial", "5f2c0a1b9e7d4c11\n");
    t.file(ctl + "/firmware_rev", "6.1.0-18\n");
    t.file(ctl + "/state", "live\n");
    for (const std::string &entry : entries)
        t.dir(ctl + "/" + entry);
    t.link("sys/class/nvme/" + name, "../../devices/" + rel);
}

// Block device `name` of `sectors` 512-byte sectors at sys/devices/`rel`.
void addNvmeBlock(const TempTree &t, const std::string &rel, const std::string &name,
                  const std::string &sectors)
{
    t.file("sys/devices/" + rel + "/size", sectors + "\n");
    t.file("sys/devices/" + rel + "/queue/rotational", "0\n");
    t.link("sys/block/" + name, "../devices/" + rel);
}

TEST(ScanTest, AnNvmeControllerOverAFabricIsAControllerOfItsOwn)
{
    TempTree t;
    addFabricController(t, 1, {"nvme1n1"});
    addNvmeBlock(t, "virtual/nvme-fabrics/ctl/nvme1/nvme1n1", "nvme1n1", "209715200");
    t.file("sys/module/nvme_tcp/version", "1.0\n");
    LiveScan scan = scanOf(t);
    const LiveObject &c = only(scan, "adapters", "0");
    EXPECT_EQ(attrOf(c, "Name"), "Linux nvme1 (nvme-tcp)");
    EXPECT_EQ(attrOf(c, "DriverName"), "nvme-tcp");
    EXPECT_EQ(attrOf(c, "CurrentDriverVersion"), "1.0");
    EXPECT_EQ(attrOf(c, "FirmwareVer"), "6.1.0-18");
    EXPECT_EQ(attrOf(c, "BusProtocol"), "9");
    EXPECT_EQ(attrOf(c, "PCIAddress"), "<none>");
    const LiveObject &adapter = only(scan, "NVMeAdapter", "0");
    EXPECT_EQ(attrOf(adapter, "DeviceName"), "/dev/nvme1");
    EXPECT_EQ(attrOf(adapter, "DeviceSerialNumber"), "5f2c0a1b9e7d4c11");
    // No PCI function: no PCI numbers, rather than zeros.
    EXPECT_EQ(attrOf(adapter, "PCIBusNo"), "<none>");
    EXPECT_EQ(attrOf(adapter, "DeviceID"), "<none>");
    const LiveObject &disk = only(scan, "arraydisks", "0\\0\\1");
    EXPECT_EQ(attrOf(disk, "DeviceName"), "/dev/nvme1n1");
    EXPECT_EQ(attrOf(disk, "Length"), std::to_string(209715200ull * 512));
    EXPECT_EQ(attrOf(disk, "BusProtocol"), "9");
    for (const std::string &note : scan.notes)
        EXPECT_EQ(note.find("NVMe controller"), std::string::npos) << note;
}

TEST(ScanTest, ASecondPathToANamespaceIsLeftOut)
{
    TempTree t;
    // Two controllers of subsystem 0, each a path to its namespace 1, which
    // the kernel serves as one block device, nvme0n1.
    addFabricController(t, 1, {"nvme0c1n1"});
    addFabricController(t, 2, {"nvme0c2n1"});
    addNvmeBlock(t, "virtual/nvme-subsystem/nvme-subsys0/nvme0n1", "nvme0n1", "1000");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 1u);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\1"), "DeviceName"), "/dev/nvme0n1");
    // Both controllers are served.
    EXPECT_EQ(attrOf(only(scan, "NVMeAdapter", "1"), "DeviceName"), "/dev/nvme2");
}

// The namespace the kernel serves through two controllers of its subsystem
// works while either path does: it takes the state of its best path, and is
// non-critical while one path works and the other does not.
TEST(ScanTest, AMultipathNamespaceTakesTheStateOfItsBestPath)
{
    struct Case {
        const char *first, *second;
        uint64_t state;
        int status;
    };
    const Case cases[] = {
        {"live", "live", kStateReady, kStatusOk},
        {"connecting", "live", kStateReady, kStatusNonCritical},
        {"dead", "live", kStateReady, kStatusNonCritical},
        {"live", "dead", kStateReady, kStatusNonCritical},
        {"live", "resetting", kStateReady, kStatusNonCritical},
        {"dead", "connecting", kStateOffline, kStatusNonCritical},
        {"dead", "dead", kStateFailed, kStatusCritical},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.first) + " and " + c.second);
        TempTree t;
        addFabricController(t, 1, {"nvme0c1n1"});
        addFabricController(t, 2, {"nvme0c2n1"});
        t.file("sys/devices/virtual/nvme-fabrics/ctl/nvme1/state", std::string(c.first) + "\n");
        t.file("sys/devices/virtual/nvme-fabrics/ctl/nvme2/state", std::string(c.second) + "\n");
        addNvmeBlock(t, "virtual/nvme-subsystem/nvme-subsys0/nvme0n1", "nvme0n1", "1000");
        LiveScan scan = scanOf(t);
        const LiveObject &disk = only(scan, "arraydisks", "0\\0\\1");
        EXPECT_EQ(attrOf(disk, "ObjState"), std::to_string(c.state));
        EXPECT_EQ(attrOf(disk, "ObjStatus"), std::to_string(c.status));
        EXPECT_EQ(attrOf(disk, "TreeStatus"), std::to_string(c.status));
    }
}

// Under native multipath the kernel lists each path of a namespace in
// /sys/block too (nvmeXcYnZ, hidden): no disk of its own, and no note.
TEST(ScanTest, TheHiddenPathDevicesOfANamespaceAreNoUnservedDisks)
{
    TempTree t;
    // A dual-port drive: PCI functions 3d:00.0 and .1, controllers nvme0
    // and nvme1 of subsystem 0, each holding its path to namespace 1.
    for (unsigned n : {0u, 1u}) {
        const std::string bdf = "0000:3d:00." + std::to_string(n);
        const std::string rel = "pci0000:00/0000:00:1b.0/" + bdf;
        t.file("sys/devices/" + rel + "/class", "0x010802\n");
        t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
        const std::string name = "nvme" + std::to_string(n);
        const std::string ctl = rel + "/nvme/" + name;
        t.file("sys/devices/" + ctl + "/model", "KV NV2000 2TB\n");
        t.file("sys/devices/" + ctl + "/state", "live\n");
        t.link("sys/class/nvme/" + name, "../../devices/" + ctl);
        const std::string path = "nvme0c" + std::to_string(n) + "n1";
        addNvmeBlock(t, ctl + "/" + path, path, "1000");
        t.file("sys/devices/" + ctl + "/" + path + "/hidden", "1\n");
    }
    addNvmeBlock(t, "virtual/nvme-subsystem/nvme-subsys0/nvme0n1", "nvme0n1", "1000");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 1u);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\1"), "DeviceName"), "/dev/nvme0n1");
    EXPECT_EQ(countOf(scan, "NVMeAdapter"), 2u);
    for (const std::string &note : scan.notes)
        EXPECT_EQ(note.find("nvme0c"), std::string::npos) << note;
}

// A namespace's number is its NSID, which the kernel's name (a count of the
// subsystem's namespaces) need not be; without an nsid file, the name's.
TEST(ScanTest, ANamespaceIsNumberedByItsNsid)
{
    TempTree t;
    addFabricController(t, 1, {"nvme1n1", "nvme1n2"});
    addNvmeBlock(t, "virtual/nvme-fabrics/ctl/nvme1/nvme1n1", "nvme1n1", "1000");
    addNvmeBlock(t, "virtual/nvme-fabrics/ctl/nvme1/nvme1n2", "nvme1n2", "2000");
    t.file("sys/devices/virtual/nvme-fabrics/ctl/nvme1/nvme1n2/nsid", "5\n");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 2u);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\1"), "DeviceName"), "/dev/nvme1n1");
    const LiveObject &second = only(scan, "arraydisks", "0\\0\\5");
    EXPECT_EQ(attrOf(second, "DeviceName"), "/dev/nvme1n2");
    EXPECT_EQ(attrOf(second, "TargetID"), "5");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// PCI function bdf of class `cls` bound to `driver`, with SCSI host hostN
// below it (or below the path `via` below it, a USB port's) holding disk
// N:0:0:0, block device `sd`.
void addScsiHostOn(const TempTree &t, const std::string &bdf, const std::string &cls,
                   const std::string &driver, unsigned n, const std::string &sd,
                   const std::string &via = "")
{
    const std::string rel = "pci0000:00/" + bdf;
    const std::string pci = "sys/devices/" + rel;
    t.file(pci + "/class", cls + "\n");
    t.dir("sys/bus/pci/drivers/" + driver);
    t.link(pci + "/driver", "../../../bus/pci/drivers/" + driver);
    t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
    const std::string h = std::to_string(n);
    const std::string hctl = h + ":0:0:0";
    const std::string host = rel + via + "/host" + h;
    const std::string dev = host + "/rport-" + h + ":0-0/target" + h + ":0:0/" + hctl;
    t.file("sys/devices/" + host + "/scsi_host/host" + h + "/proc_name", driver + "\n");
    t.link("sys/class/scsi_host/host" + h, "../../devices/" + host + "/scsi_host/host" + h);
    t.file("sys/devices/" + dev + "/type", "0\n");
    t.file("sys/devices/" + dev + "/vendor", "KESWICK\n");
    t.file("sys/devices/" + dev + "/model", "KA-4000\n");
    t.file("sys/devices/" + dev + "/state", "running\n");
    t.file("sys/devices/" + dev + "/block/" + sd + "/size", "2048\n");
    t.link("sys/devices/" + dev + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
    t.link("sys/class/scsi_device/" + hctl, "../../devices/" + dev + "/scsi_device/" + hctl);
    t.link("sys/block/" + sd, "../devices/" + dev + "/block/" + sd);
}

TEST(ScanTest, AControllerOutsideTheMassStorageClassIsNamedByItsOwnClass)
{
    TempTree t;
    // A Fibre Channel HBA (serial bus class 0x0c, subclass 0x04), and a USB
    // controller (0x0c03) with a USB disk: their subclasses must not be read
    // as mass storage subclasses (0x04 RAID, 0x03 none).
    addScsiHostOn(t, "0000:05:00.0", "0x0c0400", "qla2xxx", 0, "sdb");
    addScsiHostOn(t, "0000:00:14.0", "0x0c0330", "xhci_hcd", 1, "sdc");
    LiveScan scan = scanOf(t);
    const LiveObject &usb = only(scan, "adapters", "0");
    EXPECT_EQ(attrOf(usb, "Name"), "USB controller 0000:00:14.0 (xhci_hcd)");
    EXPECT_EQ(attrOf(usb, "BusProtocol"), "0");
    const LiveObject &fc = only(scan, "adapters", "1");
    EXPECT_EQ(attrOf(fc, "Name"), "Fibre Channel controller 0000:05:00.0 (qla2xxx)");
    EXPECT_EQ(attrOf(fc, "BusProtocol"), "0");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\0"), "DeviceName"), "/dev/sdb");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// MMC host mmcN at sys/devices/`parent`, holding card `card` of `kind` (SD
// or MMC) with block device mmcblkN (and, for `boots`, its boot areas
// mmcblkNboot0 and 1, which are block devices of their own).
void addMmcCard(const TempTree &t, const std::string &parent, unsigned n, const std::string &card,
                const std::string &kind, bool boots)
{
    const std::string host = parent + "/mmc_host/mmc" + std::to_string(n);
    const std::string dev = host + "/" + card;
    const std::string d = "sys/devices/" + dev;
    t.link("sys/class/mmc_host/mmc" + std::to_string(n), "../../devices/" + host);
    t.file(d + "/type", kind + "\n");
    t.file(d + "/name", kind == "SD" ? "SC64G\n" : "DG4016\n");
    t.file(d + "/serial", "0x9a1c2b3d\n");
    t.file(d + "/manfid", "0x000045\n");
    t.file(d + "/fwrev", "0x0\n");
    const std::string blk = "mmcblk" + std::to_string(n);
    std::vector<std::string> blocks{blk};
    if (boots) {
        blocks.push_back(blk + "boot0");
        blocks.push_back(blk + "boot1");
    }
    for (const std::string &b : blocks) {
        // The boot areas sit below the card's block device.
        const std::string rel = dev + "/block/" + (b == blk ? b : blk + "/" + b);
        t.file("sys/devices/" + rel + "/size", b == blk ? "30777344\n" : "8192\n");
        t.file("sys/devices/" + rel + "/queue/rotational", "0\n");
        t.link("sys/devices/" + rel + "/device", b == blk ? "../../../" + card : "../../" + blk);
        t.link("sys/block/" + b, "../devices/" + rel);
    }
}

TEST(ScanTest, AnEmmcOnAPlatformHostIsADiskOfItsOwnController)
{
    TempTree t;
    const std::string platform = "platform/fe340000.mmc";
    t.dir("sys/bus/platform/drivers/sdhci-iproc");
    t.link("sys/devices/" + platform + "/driver", "../../../bus/platform/drivers/sdhci-iproc");
    addMmcCard(t, platform, 0, "mmc0:0001", "MMC", true);
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Name"), "sdhci-iproc mmc0");
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "DriverName"), "sdhci-iproc");
    const LiveObject &disk = only(scan, "arraydisks", "0\\0\\0");
    EXPECT_EQ(attrOf(disk, "DeviceName"), "/dev/mmcblk0");
    EXPECT_EQ(attrOf(disk, "ProductID"), "DG4016");
    EXPECT_EQ(attrOf(disk, "DeviceSerialNumber"), "0x9a1c2b3d");
    EXPECT_EQ(attrOf(disk, "Length"), std::to_string(30777344ull * 512));
    EXPECT_EQ(attrOf(disk, "MediaType"), "2");
    // The boot areas are parts of the same device, not disks.
    EXPECT_EQ(countOf(scan, "arraydisks"), 1u);
}

TEST(ScanTest, AnMmcHostWithAnSdioCardAloneIsNoController)
{
    TempTree t;
    // The SoC's SDIO bus to a Wi-Fi chip: an MMC host whose one card is
    // SDIO, beside an eMMC.
    t.dir("sys/bus/platform/drivers/sdhci-arasan");
    t.link("sys/devices/platform/fe330000.mmc/driver",
           "../../../bus/platform/drivers/sdhci-arasan");
    addMmcCard(t, "platform/fe330000.mmc", 0, "mmc0:0001", "MMC", false);
    const std::string wifi = "platform/fe310000.mmc/mmc_host/mmc1";
    t.file("sys/devices/" + wifi + "/mmc1:0001/type", "SDIO\n");
    t.file("sys/devices/" + wifi + "/mmc1:0001/mmc1:0001:1/vendor", "0x02d0\n");
    t.link("sys/class/mmc_host/mmc1", "../../devices/" + wifi);
    // An SD slot with no card in it is still a storage controller.
    t.dir("sys/devices/platform/fe320000.mmc/mmc_host/mmc2");
    t.link("sys/class/mmc_host/mmc2", "../../devices/platform/fe320000.mmc/mmc_host/mmc2");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "adapters"), 2u);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Name"), "sdhci-arasan mmc0");
    EXPECT_EQ(attrOf(only(scan, "adapters", "1"), "Name"), "MMC mmc2");
    EXPECT_EQ(countOf(scan, "arraydisks"), 1u);
}

TEST(ScanTest, AnSdCardOnAPciHostIsADiskOfThatFunction)
{
    TempTree t;
    const std::string rel = "pci0000:00/0000:00:1e.6";
    t.file("sys/devices/" + rel + "/class", "0x080501\n");
    t.dir("sys/bus/pci/drivers/sdhci-pci");
    t.link("sys/devices/" + rel + "/driver", "../../../bus/pci/drivers/sdhci-pci");
    t.link("sys/bus/pci/devices/0000:00:1e.6", "../../../devices/" + rel);
    addMmcCard(t, rel, 1, "mmc1:aaaa", "SD", false);
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "adapters", "0"), "Name"),
              "SD host controller 0000:00:1e.6 (sdhci-pci)");
    const LiveObject &disk = only(scan, "arraydisks", "0\\0\\0");
    EXPECT_EQ(attrOf(disk, "DeviceName"), "/dev/mmcblk1");
    EXPECT_EQ(attrOf(disk, "ProductID"), "SC64G");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// Xen block device `name` (xvdX) of a guest, its frontend device vbd-`id`
// right under sys/devices, as blkfront makes it.
void addXenDisk(const TempTree &t, const std::string &name, const std::string &id,
                const std::string &sectors)
{
    const std::string vbd = "vbd-" + id;
    const std::string d = "sys/devices/" + vbd;
    t.file(d + "/devtype", "vbd\n");
    t.file(d + "/nodename", "device/vbd/" + id + "\n");
    t.dir("sys/bus/xen/drivers/vbd");
    t.link(d + "/driver", "../../bus/xen/drivers/vbd");
    t.file(d + "/block/" + name + "/size", sectors + "\n");
    t.file(d + "/block/" + name + "/queue/rotational", "0\n");
    t.link(d + "/block/" + name + "/device", "../../../" + vbd);
    t.link("sys/block/" + name, "../devices/" + vbd + "/block/" + name);
}

TEST(ScanTest, XenDisksAreDisksOfTheirOwnControllers)
{
    TempTree t;
    addXenDisk(t, "xvdf", "51792", "209715200");
    addXenDisk(t, "xvda", "51712", "16777216");
    t.file("sys/module/xen_blkfront/version", "0.3\n");
    LiveScan scan = scanOf(t);
    const LiveObject &c0 = only(scan, "adapters", "0");
    EXPECT_EQ(attrOf(c0, "Name"), "Xen virtual block device vbd-51712");
    EXPECT_EQ(attrOf(c0, "DriverName"), "vbd");
    EXPECT_EQ(attrOf(c0, "CurrentDriverVersion"), "0.3");
    const LiveObject &xvda = only(scan, "arraydisks", "0\\0\\0");
    EXPECT_EQ(attrOf(xvda, "DeviceName"), "/dev/xvda");
    EXPECT_EQ(attrOf(xvda, "Length"), std::to_string(16777216ull * 512));
    EXPECT_EQ(attrOf(xvda, "ProductID"), "Xen Virtual Block Device");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\0"), "DeviceName"), "/dev/xvdf");
    EXPECT_EQ(countOf(scan, "arraydisks"), 2u);
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

bool anyNoteHas(const LiveScan &scan, const std::string &text)
{
    return std::any_of(scan.notes.begin(), scan.notes.end(),
                       [&](const std::string &n) { return n.find(text) != std::string::npos; });
}

TEST(ScanTest, AWholeDiskNoReaderServesIsNamedInANote)
{
    TempTree t;
    // A persistent memory namespace: a whole disk of a kind the scan does
    // not read. Beside it a served eMMC with its boot areas, a loop device
    // and a SATA disk, which are not to be named.
    const std::string pmem = "LNXSYSTM:00/LNXSYBUS:00/ACPI0012:00/ndbus0/region0/namespace0.0";
    t.file("sys/devices/" + pmem + "/block/pmem0/size", "33554432\n");
    t.link("sys/block/pmem0", "../devices/" + pmem + "/block/pmem0");
    t.file("sys/devices/virtual/block/loop0/size", "0\n");
    t.link("sys/block/loop0", "../devices/virtual/block/loop0");
    addMmcCard(t, "platform/fe330000.mmc", 0, "mmc0:0001", "MMC", true);
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    // A DVD drive: a SCSI device the SCSI reader passes over by its type.
    addSataDisk(t, "0000:00:17.0", 1, "sr0");
    t.file("sys/devices/pci0000:00/0000:00:17.0/ata2/host1/target1:0:0/1:0:0:0/type", "5\n");
    LiveScan scan = scanOf(t);
    EXPECT_TRUE(anyNoteHas(scan, "block device pmem0: ")) << ::testing::PrintToString(scan.notes);
    for (const char *served : {"loop0", "mmcblk0", "mmcblk0boot0", "sda", "sr0"})
        EXPECT_FALSE(anyNoteHas(scan, std::string("block device ") + served + ":")) << served;
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// A dual-domain SAS JBOD: SAS HBAs 0000:03:00.0 (host0) and 0000:04:00.0
// (host1) each reach one EMM of the same enclosure (logical id
// 0x5000ccab0405f300, SES device H:0:8:0) and, through it, the dual-ported
// disks in slots `slots[H]`, each disk with its world wide name on both
// paths. Block devices are named sd<H><slot>.
void addDualDomainJbod(const TempTree &t, const std::vector<std::vector<unsigned>> &slots,
                       const std::string &enclosureId = "0x5000ccab0405f300", bool sameDisks = true)
{
    t.dir("sys/bus/pci/drivers/mpt3sas");
    for (unsigned h = 0; h < slots.size(); ++h) {
        const std::string hs = std::to_string(h);
        const std::string bdf = "0000:0" + std::to_string(3 + h) + ":00.0";
        const std::string rel = "pci0000:00/" + bdf;
        const std::string pci = "sys/devices/" + rel;
        t.file(pci + "/class", "0x010700\n");
        t.link(pci + "/driver", "../../../bus/pci/drivers/mpt3sas");
        t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
        const std::string host = rel + "/host" + hs;
        t.file("sys/devices/" + host + "/scsi_host/host" + hs + "/proc_name", "mpt3sas\n");
        t.link("sys/class/scsi_host/host" + hs, "../../devices/" + host + "/scsi_host/host" + hs);
        auto device = [&](unsigned phy, unsigned target) {
            const std::string hctl = hs + ":0:" + std::to_string(target) + ":0";
            return std::make_pair(hctl, host + "/port-" + hs + ":0/expander-" + hs + ":0/port-" +
                                            hs + ":0:" + std::to_string(phy) + "/end_device-" + hs +
                                            ":0:" + std::to_string(phy) + "/target" + hs +
                                            ":0:" + std::to_string(target) + "/" + hctl);
        };
        auto scsiDevice = [&](const std::string &hctl, const std::string &dev, const char *type) {
            const std::string d = "sys/devices/" + dev;
            t.file(d + "/type", std::string(type) + "\n");
            t.file(d + "/vendor", "HALDEN  \n");
            t.file(d + "/state", "running\n");
            t.link(d + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
            t.link("sys/class/scsi_device/" + hctl,
                   "../../devices/" + dev + "/scsi_device/" + hctl);
        };
        const auto [ehctl, edev] = device(24, 8);
        scsiDevice(ehctl, edev, "13");
        t.file("sys/devices/" + edev + "/model", "HJ2400-12G\n");
        t.file("sys/devices/" + edev + "/sas_address", "0x5000ccab0405f3" + hs + "d\n");
        const std::string enc = edev + "/enclosure/" + ehctl;
        t.file("sys/devices/" + enc + "/components", "4\n");
        t.file("sys/devices/" + enc + "/id", enclosureId + "\n");
        t.link("sys/class/enclosure/" + ehctl, "../../devices/" + enc);
        for (unsigned slot : slots[h]) {
            const auto [hctl, dev] = device(slot, slot);
            scsiDevice(hctl, dev, "0");
            const std::string d = "sys/devices/" + dev;
            const std::string s = std::to_string(slot);
            t.file(d + "/model", "HS1200S12\n");
            t.file(d + "/sas_address", "0x5000c500a1b2c3" + s + std::to_string(h + 1) + "\n");
            t.file(d + "/wwid",
                   "naa.5000c500a1b2c3" + s + (sameDisks ? "0" : std::to_string(h + 1)) + "\n");
            t.file(d + "/vpd_pg80", std::string("\0\x80\0\x06", 4) + "HZ000" + s);
            const std::string block = "sd" + hs + s;
            t.file(d + "/block/" + block + "/size", "2344225968\n");
            t.link("sys/block/" + block, "../devices/" + dev + "/block/" + block);
            const std::string comp = enc + "/Slot 0" + s;
            t.file("sys/devices/" + comp + "/slot", s + "\n");
            t.link("sys/devices/" + comp + "/device", testing::upFrom(comp) + dev);
        }
    }
}

TEST(ScanTest, ADiskAndEnclosureSeenThroughTwoPathsAreServedOnce)
{
    TempTree t;
    // Both HBAs see slots 0 and 1; slot 2's disk only through host1.
    addDualDomainJbod(t, {{0, 1}, {0, 1, 2}});
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "adapters"), 2u);
    EXPECT_EQ(countOf(scan, "enclosures"), 1u);
    EXPECT_EQ(countOf(scan, "arraydisks"), 3u);
    // Each disk by its first path, in the slot of the one enclosure.
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\0"), "DeviceName"), "/dev/sd00");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\1"), "DeviceName"), "/dev/sd01");
    const LiveObject &onlyB = only(scan, "arraydisks", "0\\0\\0\\2");
    EXPECT_EQ(attrOf(onlyB, "DeviceName"), "/dev/sd12");
    ASSERT_TRUE(onlyB.parent);
    EXPECT_EQ(scan.objects[*onlyB.parent].nexus, "0\\0\\0");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\0"), "ObjStatus"), "2");
    for (const std::string &note : scan.notes)
        ADD_FAILURE() << "note: " << note;
}

TEST(ScanTest, ADiskWithOnePathDownIsServedThroughTheOtherAsAWarning)
{
    const std::string firstPath = "sys/devices/pci0000:00/0000:03:00.0/host0/port-0:0/"
                                  "expander-0:0/port-0:0:0/end_device-0:0:0/target0:0:0/0:0:0:0";
    const std::string secondPath = "sys/devices/pci0000:00/0000:04:00.0/host1/port-1:0/"
                                   "expander-1:0/port-1:0:0/end_device-1:0:0/target1:0:0/1:0:0:0";
    for (const std::string &down : {firstPath, secondPath}) {
        SCOPED_TRACE(down);
        TempTree t;
        addDualDomainJbod(t, {{0}, {0}});
        t.file(down + "/state", "transport-offline\n");
        LiveScan scan = scanOf(t);
        ASSERT_EQ(countOf(scan, "arraydisks"), 1u);
        const LiveObject &disk = only(scan, "arraydisks", "0\\0\\0\\0");
        EXPECT_EQ(attrOf(disk, "ObjState"), std::to_string(kStateReady));
        EXPECT_EQ(attrOf(disk, "ObjStatus"), std::to_string(kStatusNonCritical));
    }
    // Both paths down: the disk is as its first path says.
    TempTree t;
    addDualDomainJbod(t, {{0}, {0}});
    t.file(firstPath + "/state", "offline\n");
    t.file(secondPath + "/state", "offline\n");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\0"), "ObjState"),
              std::to_string(kStateOffline));
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\0"), "ObjStatus"),
              std::to_string(kStatusCritical));
}

TEST(ScanTest, OnlyANameOfOneDiskJoinsPaths)
{
    // Ids that do not name one disk: a T10 vendor id (bridges give several
    // disks the same), zeros, none. Each path is then a disk of its own, as
    // are two enclosures of a zero logical id.
    for (const char *wwid : {"t10.ATA     KV-SSD480", "naa.0000000000000000", ""}) {
        SCOPED_TRACE(wwid);
        TempTree t;
        addDualDomainJbod(t, {{0}, {0}}, "0x0");
        for (const char *dev : {"pci0000:00/0000:03:00.0/host0/port-0:0/expander-0:0/port-0:0:0/"
                                "end_device-0:0:0/target0:0:0/0:0:0:0",
                                "pci0000:00/0000:04:00.0/host1/port-1:0/expander-1:0/port-1:0:0/"
                                "end_device-1:0:0/target1:0:0/1:0:0:0"}) {
            t.file(std::string("sys/devices/") + dev + "/wwid", std::string(wwid) + "\n");
        }
        LiveScan scan = scanOf(t);
        EXPECT_EQ(countOf(scan, "enclosures"), 2u);
        EXPECT_EQ(countOf(scan, "arraydisks"), 2u);
    }
}

TEST(ScanTest, TwoEnclosuresOfOneLogicalIdLoseNoDisk)
{
    // Firmware that gives two JBODs one logical id: their disks differ.
    TempTree t;
    addDualDomainJbod(t, {{0, 1}, {0, 1}}, "0x5000ccab0405f300", false);
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "enclosures"), 1u);
    EXPECT_EQ(countOf(scan, "arraydisks"), 4u);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0\\1"), "DeviceName"), "/dev/sd01");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\0"), "DeviceName"), "/dev/sd10");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\1"), "DeviceName"), "/dev/sd11");
    EXPECT_EQ(scan.notes.size(), 2u);
}

TEST(ScanTest, AnMdMemberOnAMultipathMapIsTheDiskBelowIt)
{
    TempTree t;
    addDualDomainJbod(t, {{0, 1}, {0, 1}});
    const std::string md = "sys/devices/virtual/block/md0";
    t.link("sys/block/md0", "../devices/virtual/block/md0");
    t.file(md + "/md/level", "raid1\n");
    t.file(md + "/md/raid_disks", "3\n");
    t.file(md + "/md/array_state", "clean\n");
    t.file(md + "/md/degraded", "0\n");
    // dm-0 and dm-1 are the maps of slots 0 and 1; dm-2 is a volume over
    // both disks, which is no one member disk.
    const std::vector<std::vector<std::string>> maps = {
        {"sd00", "sd10"}, {"sd01", "sd11"}, {"sd00", "sd01"}};
    for (size_t n = 0; n < maps.size(); ++n) {
        const std::string dm = "dm-" + std::to_string(n);
        const std::string dir = "sys/devices/virtual/block/" + dm;
        t.link("sys/block/" + dm, "../devices/virtual/block/" + dm);
        for (const std::string &path : maps[n])
            t.link(dir + "/slaves/" + path, "../../../../../block/" + path);
        t.file(md + "/md/dev-" + dm + "/state", "in_sync\n");
        t.file(md + "/md/dev-" + dm + "/slot", std::to_string(n) + "\n");
        t.link(md + "/md/dev-" + dm + "/block", "../../../" + dm);
    }
    LiveScan scan = scanOf(t);
    const auto vd = scan.find("vdisks", "2\\128\\0");
    ASSERT_TRUE(vd);
    const auto slot0 = scan.find("arraydisks", "0\\0\\0\\0");
    const auto slot1 = scan.find("arraydisks", "0\\0\\0\\1");
    ASSERT_TRUE(slot0 && slot1);
    std::vector<std::pair<size_t, size_t>> want = {{*vd, *slot0}, {*vd, *slot1}};
    EXPECT_EQ(scan.links, want);
    EXPECT_EQ(attrOf(scan.objects[*slot0], "ObjState"), std::to_string(kStateOnline));
    const size_t volumeNotes = static_cast<size_t>(
        std::count(scan.notes.begin(), scan.notes.end(),
                   std::string("md array md0: member dm-2 is not a served disk")));
    EXPECT_EQ(volumeNotes, 1u);
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// The jbod fixture (an enclosure behind two HBAs, SES pages through sg4 and
// sg9) copied to a tree the test may spoil.
void copyJbod(const TempTree &t)
{
    std::filesystem::copy(KELP_SOURCE_DIR "/tests/fixtures/jbod", t.root(),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::copy_symlinks |
                              std::filesystem::copy_options::overwrite_existing);
}

TEST(ScanTest, AnEnclosureWhoseFirstPathGivesNoSesPagesIsReadThroughTheOther)
{
    TempTree t;
    copyJbod(t);
    t.remove("dev/sg4.ses/page-02.bin");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "enclosures"), 1u);
    EXPECT_EQ(countOf(scan, "fans"), 2u);
    EXPECT_EQ(countOf(scan, "psupplies"), 2u);
    EXPECT_EQ(scan.components, "fans, power supplies, temperature probes and EMMs from SES pages");
    for (const std::string &note : scan.notes)
        ADD_FAILURE() << "note: " << note;

    // Neither path: the note names both.
    t.remove("dev/sg9.ses/page-02.bin");
    scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "fans"), 0u);
    ASSERT_EQ(scan.notes.size(), 1u);
    EXPECT_NE(scan.notes[0].find("/dev/sg4: "), std::string::npos) << scan.notes[0];
    EXPECT_NE(scan.notes[0].find("; /dev/sg9: "), std::string::npos) << scan.notes[0];
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// RAID controller `bdf` (class 0x0104xx, driver `driver`) with SCSI host
// `host`; answers the host's path below sys/devices.
std::string addRaidController(const TempTree &t, const std::string &bdf, unsigned host,
                              const std::string &driver)
{
    const std::string rel = "pci0000:00/" + bdf;
    t.file("sys/devices/" + rel + "/class", "0x010400\n");
    t.dir("sys/bus/pci/drivers/" + driver);
    t.link("sys/devices/" + rel + "/driver", "../../../bus/pci/drivers/" + driver);
    t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
    const std::string h = "host" + std::to_string(host);
    t.file("sys/devices/" + rel + "/" + h + "/scsi_host/" + h + "/proc_name", driver + "\n");
    t.link("sys/class/scsi_host/" + h, "../../devices/" + rel + "/" + h + "/scsi_host/" + h);
    return rel + "/" + h;
}

// SCSI device hctl of type `type` below host path `host` (from
// addRaidController), with block device `block` ("" for none) and the
// files given; answers its path below sys/devices.
std::string addScsiDevice(const TempTree &t, const std::string &host, const std::string &hctl,
                          const std::string &type, const std::string &block,
                          const std::vector<std::pair<std::string, std::string>> &files)
{
    const std::string target = "target" + hctl.substr(0, hctl.rfind(':'));
    const std::string dev = host + "/" + target + "/" + hctl;
    const std::string d = "sys/devices/" + dev;
    t.file(d + "/type", type + "\n");
    t.file(d + "/state", "running\n");
    for (const auto &[name, text] : files)
        t.file(d + "/" + name, text + "\n");
    t.link(d + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
    t.link("sys/class/scsi_device/" + hctl, "../../devices/" + dev + "/scsi_device/" + hctl);
    if (!block.empty()) {
        t.file(d + "/block/" + block + "/size", "1000\n");
        t.link("sys/block/" + block, "../devices/" + dev + "/block/" + block);
    }
    return dev;
}

TEST(ScanTest, RaidControllerVolumesAreVirtualDisksNotDisks)
{
    TempTree t;
    // MegaRAID: a logical drive on channel 2 with two partitions, and a
    // disk passed through (JBOD) on channel 0.
    const std::string mr = addRaidController(t, "0000:02:00.0", 0, "megaraid_sas");
    const std::string ld =
        addScsiDevice(t, mr, "0:2:0:0", "0", "sda", {{"vendor", "AVAGO"}, {"model", "MR9361-8i"}});
    t.file("sys/devices/" + ld + "/block/sda/sda1/partition", "1\n");
    t.file("sys/devices/" + ld + "/block/sda/sda1/size", "400\n");
    t.file("sys/devices/" + ld + "/block/sda/sda2/partition", "2\n");
    addScsiDevice(t, mr, "0:0:5:0", "0", "sdb", {{"vendor", "ATA"}, {"model", "KV-SSD480"}});
    // A logical drive being deleted.
    const std::string gone = addScsiDevice(t, mr, "0:2:1:0", "0", "sdf", {{"vendor", "AVAGO"}});
    t.file("sys/devices/" + gone + "/state", "deleted\n");
    // Smart Array: a RAID 1+0 volume at lun 1, the controller itself
    // (type 12), and a disk of no volume ("N/A").
    const std::string sa = addRaidController(t, "0000:03:00.0", 1, "hpsa");
    addScsiDevice(t, sa, "1:1:0:1", "0", "sdc",
                  {{"vendor", "HP"}, {"model", "LOGICAL VOLUME"}, {"raid_level", "RAID 1(+0)"}});
    addScsiDevice(t, sa, "1:3:0:0", "12", "", {{"vendor", "HP"}, {"model", "P440ar"}});
    addScsiDevice(t, sa, "1:0:2:0", "0", "sdd", {{"vendor", "HP"}, {"raid_level", "N/A"}});
    // Integrated RAID of a SAS HBA: the kernel's RAID class, resyncing.
    const std::string ir = addRaidController(t, "0000:04:00.0", 2, "mpt3sas");
    const std::string vol = addScsiDevice(t, ir, "2:1:3:0", "0", "sde",
                                          {{"vendor", "LSI"}, {"model", "Logical Volume"}});
    t.file("sys/devices/" + vol + "/raid_devices/2:1:3:0/level", "raid1\n");
    t.file("sys/devices/" + vol + "/raid_devices/2:1:3:0/state", "resyncing\n");
    t.file("sys/devices/" + vol + "/raid_devices/2:1:3:0/resync", "37\n");
    t.link("sys/class/raid_devices/2:1:3:0", "../../devices/" + vol + "/raid_devices/2:1:3:0");

    // Adaptec: a RAID 5 container on channel 0, a hidden member disk and a
    // disk passed through on channel 1.
    const std::string aac = addRaidController(t, "0000:05:00.0", 3, "aacraid");
    addScsiDevice(t, aac, "3:0:0:0", "0", "sdg", {{"vendor", "ASR8405"}, {"level", "RAID5"}});
    addScsiDevice(t, aac, "3:1:0:0", "0", "", {{"vendor", "ATA"}, {"level", "Hidden"}});
    addScsiDevice(t, aac, "3:1:1:0", "0", "sdh", {{"vendor", "ATA"}, {"level", "JBOD"}});

    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "vdisks"), 5u);
    EXPECT_EQ(countOf(scan, "arraydisks"), 4u);
    EXPECT_EQ(attrOf(only(scan, "vdisks", "3\\128\\0"), "Layout"), "64");
    EXPECT_TRUE(scan.find("arraydisks", "3\\1\\0"));
    EXPECT_TRUE(scan.find("arraydisks", "3\\1\\1"));
    EXPECT_TRUE(scan.find("arraydisks", "0\\0\\5"));
    EXPECT_TRUE(scan.find("arraydisks", "1\\0\\2"));
    EXPECT_EQ(countOf(scan, "bus"), 5u) << "no channel for the volumes alone";

    const LiveObject &megaraid = only(scan, "vdisks", "0\\128\\0");
    EXPECT_EQ(attrOf(megaraid, "DeviceName"), "/dev/sda");
    EXPECT_EQ(attrOf(megaraid, "Layout"), "0");
    EXPECT_EQ(attrOf(megaraid, "RAIDLevel"), "Not Available");
    EXPECT_EQ(attrOf(megaraid, "ObjState"), std::to_string(kStateOnline));
    EXPECT_EQ(attrOf(megaraid, "Length"), "512000");
    ASSERT_TRUE(megaraid.parent);
    EXPECT_EQ(scan.objects[*megaraid.parent].nexus, "0");
    EXPECT_EQ(attrOf(only(scan, "VDPartitionNode", "0\\129\\0\\1"), "PartitionSize"), "204800");
    EXPECT_EQ(attrOf(only(scan, "VDPartitionNode", "0\\129\\0\\2"), "PartitionPath"), "/dev/sda2");

    EXPECT_EQ(attrOf(only(scan, "vdisks", "0\\128\\1"), "ObjState"), std::to_string(kStateFailed));

    const LiveObject &smartArray = only(scan, "vdisks", "1\\128\\1");
    EXPECT_EQ(attrOf(smartArray, "Layout"), "512");
    EXPECT_EQ(attrOf(smartArray, "RAIDLevel"), "RAID 1(+0)");

    const LiveObject &integrated = only(scan, "vdisks", "2\\128\\3");
    EXPECT_EQ(attrOf(integrated, "Layout"), "4");
    EXPECT_EQ(attrOf(integrated, "ObjState"), std::to_string(kStateRebuilding));
    EXPECT_EQ(attrOf(integrated, "ObjStatus"), std::to_string(kStatusNonCritical));
    EXPECT_EQ(attrOf(integrated, "RebuildProgress"), "37");
    EXPECT_EQ(attrOf(integrated, "BusProtocol"), "8");
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

TEST(ScanTest, NvmeDrivesBehindAVmdAreControllersOfTheirOwn)
{
    // Intel VMD puts its drives in a PCI domain of its own, numbered above
    // ffff: 10000:e1:00.0. Each drive is a controller of its own, after the
    // VMD function itself, and each namespace is served.
    TempTree t;
    const std::string vmd = "pci0000:00/0000:00:0e.0";
    t.file("sys/devices/" + vmd + "/class", "0x010400\n");
    t.link("sys/bus/pci/devices/0000:00:0e.0", "../../../devices/" + vmd);
    for (unsigned n : {0u, 1u}) {
        const std::string bdf = "10000:e" + std::to_string(n + 1) + ":00.0";
        const std::string rel =
            vmd + "/pci10000:e0/10000:e0:0" + std::to_string(6 + n) + ".0/" + bdf;
        const std::string pci = "sys/devices/" + rel;
        t.file(pci + "/class", "0x010802\n");
        t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
        const std::string name = "nvme" + std::to_string(n);
        const std::string ctl = pci + "/nvme/" + name;
        t.file(ctl + "/model", "KV NV1000 1TB\n");
        t.file(ctl + "/serial", "KVNV01000000004" + std::to_string(n) + "\n");
        t.file(ctl + "/state", "live\n");
        t.link("sys/class/nvme/" + name, "../../devices/" + rel + "/nvme/" + name);
        t.file(ctl + "/" + name + "n1/size", "1953525168\n");
        t.link("sys/block/" + name + "n1",
               "../devices/" + rel + "/nvme/" + name + "/" + name + "n1");
    }
    // An address of domain ffff sorts before the VMD's.
    t.file("sys/devices/pci0000:00/ffff:00:01.0/class", "0x010601\n");
    t.link("sys/bus/pci/devices/ffff:00:01.0", "../../../devices/pci0000:00/ffff:00:01.0");

    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "adapters"), 4u);
    EXPECT_EQ(countOf(scan, "arraydisks"), 2u);
    EXPECT_NE(attrOf(only(scan, "adapters", "1"), "Name").find("ffff:00:01.0"), std::string::npos);
    EXPECT_EQ(attrOf(only(scan, "adapters", "2"), "Name"), "KV NV1000 1TB 10000:e1:00.0");
    EXPECT_EQ(attrOf(only(scan, "adapters", "3"), "Name"), "KV NV1000 1TB 10000:e2:00.0");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "2\\0\\1"), "DeviceName"), "/dev/nvme0n1");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "3\\0\\1"), "DeviceName"), "/dev/nvme1n1");
    EXPECT_EQ(attrOf(only(scan, "NVMeAdapter", "3"), "PCIBusNo"), std::to_string(0xe2));
}

TEST(ScanTest, DisksSayTheirWriteCacheAndProtectionInformation)
{
    TempTree t;
    const std::string ports = "sys/devices/pci0000:00/0000:00:17.0";
    // sda: the disk's own cache setting (sd's cache_type) outranks the
    // block layer's, which an administrator may have overridden; its
    // INQUIRY data sets no PROTECT bit.
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    const std::string sda = ports + "/ata1/host0/target0:0:0/0:0:0:0";
    t.file(sda + "/scsi_disk/0:0:0:0/cache_type", "write back\n");
    t.file(sda + "/block/sda/queue/write_cache", "write through\n");
    t.file(sda + "/inquiry", std::string("\0\0\x06\x02\x5b\0\0\x02", 8));
    // sdb: write through, and PROTECT set (byte 5, bit 0).
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    const std::string sdb = ports + "/ata2/host1/target1:0:0/1:0:0:0";
    t.file(sdb + "/scsi_disk/1:0:0:0/cache_type", "write through, no read (daft)\n");
    t.file(sdb + "/inquiry", std::string("\0\0\x06\x02\x5b\x01\0\x02", 8));
    // sdc: no cache_type, so the block layer's; INQUIRY data cut short.
    addSataDisk(t, "0000:00:17.0", 2, "sdc");
    const std::string sdc = ports + "/ata3/host2/target2:0:0/2:0:0:0";
    t.file(sdc + "/block/sdc/queue/write_cache", "write back\n");
    t.file(sdc + "/inquiry", std::string("\0\0\x06\x02\x5b", 5));
    // sdd: neither says, or says nonsense.
    addSataDisk(t, "0000:00:17.0", 3, "sdd");
    const std::string sdd = ports + "/ata4/host3/target3:0:0/3:0:0:0";
    t.file(sdd + "/scsi_disk/3:0:0:0/cache_type", "None\n");
    // A virtio disk: its cache from the block layer; virtio carries no
    // protection information.
    addVirtioDisk(t, "0000:00:04.0", "virtio1", "vda", "2048");
    t.file("sys/devices/pci0000:00/0000:00:04.0/virtio1/block/vda/queue/write_cache",
           "write back\n");

    LiveScan scan = scanOf(t);
    const LiveObject &a = only(scan, "arraydisks", "1\\0\\0");
    const LiveObject &b = only(scan, "arraydisks", "1\\1\\0");
    const LiveObject &c = only(scan, "arraydisks", "1\\2\\0");
    const LiveObject &d = only(scan, "arraydisks", "1\\3\\0");
    const LiveObject &vda = only(scan, "arraydisks", "0\\0\\0");
    EXPECT_EQ(attrOf(a, "DriveWriteCacheEnabled"), "1");
    EXPECT_EQ(attrOf(b, "DriveWriteCacheEnabled"), "0");
    EXPECT_EQ(attrOf(c, "DriveWriteCacheEnabled"), "1");
    EXPECT_EQ(attrOf(d, "DriveWriteCacheEnabled"), "<none>");
    EXPECT_EQ(attrOf(vda, "DriveWriteCacheEnabled"), "1");
    EXPECT_EQ(attrOf(a, "PdPICapable"), "0");
    EXPECT_EQ(attrOf(b, "PdPICapable"), "1");
    EXPECT_EQ(attrOf(c, "PdPICapable"), "<none>");
    EXPECT_EQ(attrOf(d, "PdPICapable"), "<none>");
    EXPECT_EQ(attrOf(vda, "PdPICapable"), "0");
}

// NVMe drive nvmeN with namespace 1 (nvmeNn1) on PCI function 0000:0N:00.0
// behind root port 00:1c.N, with its link as sysfs words it (null: no file)
// and the namespace's integrity format.
struct NvmeLink {
    const char *current, *max, *width, *maxWidth, *integrity;
};
void addNvmeDrive(const TempTree &t, unsigned n, const NvmeLink &link)
{
    const std::string bdf = "0000:0" + std::to_string(n + 1) + ":00.0";
    const std::string rel = "pci0000:00/0000:00:1c." + std::to_string(n) + "/" + bdf;
    const std::string pci = "sys/devices/" + rel;
    t.file(pci + "/class", "0x010802\n");
    const std::pair<const char *, const char *> files[] = {{"current_link_speed", link.current},
                                                           {"max_link_speed", link.max},
                                                           {"current_link_width", link.width},
                                                           {"max_link_width", link.maxWidth}};
    for (const auto &[file, text] : files) {
        if (text != nullptr)
            t.file(pci + "/" + file, std::string(text) + "\n");
    }
    t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
    const std::string name = "nvme" + std::to_string(n);
    const std::string ctl = pci + "/nvme/" + name;
    t.file(ctl + "/model", "KV NV1000 1TB\n");
    t.file(ctl + "/state", "live\n");
    t.link("sys/class/nvme/" + name, "../../devices/" + rel + "/nvme/" + name);
    t.file(ctl + "/" + name + "n1/size", "1953525168\n");
    if (link.integrity != nullptr)
        t.file(ctl + "/" + name + "n1/integrity/format", std::string(link.integrity) + "\n");
    t.link("sys/block/" + name + "n1", "../devices/" + rel + "/nvme/" + name + "/" + name + "n1");
}

// The nvme hwmon (hwmonN in /sys/class/hwmon) of controller nvmeN as
// addNvmeDrive makes it, with the given files beside its name.
void addNvmeHwmon(const TempTree &t, unsigned n, unsigned hwmon,
                  std::initializer_list<std::pair<const char *, const char *>> files)
{
    const std::string rel = "pci0000:00/0000:00:1c." + std::to_string(n) + "/0000:0" +
                            std::to_string(n + 1) + ":00.0/nvme/nvme" + std::to_string(n) +
                            "/hwmon" + std::to_string(hwmon);
    t.file("sys/devices/" + rel + "/name", "nvme\n");
    for (const auto &[file, text] : files)
        t.file("sys/devices/" + rel + "/" + file, std::string(text) + "\n");
    t.link("sys/devices/" + rel + "/device", "..");
    t.link("sys/class/hwmon/hwmon" + std::to_string(hwmon), "../../devices/" + rel);
}

TEST(ScanTest, NvmeAdaptersAndDrivesSayTheirPcieLink)
{
    // Three drives: one at 8 GT/s x2 of 16 GT/s x4 with a namespace
    // formatted with protection information, one in the older kernels'
    // format without a decimal, one whose link the kernel cannot read.
    TempTree t;
    addNvmeDrive(t, 0, {"8.0 GT/s PCIe", "16.0 GT/s PCIe", "2", "4", "T10-DIF-TYPE1-CRC"});
    addNvmeDrive(t, 1, {"5 GT/s", "2.5 GT/s PCIe", "1", "1", "none"});
    addNvmeDrive(t, 2, {"Unknown", "Unknown speed", "0", "x4", nullptr});

    LiveScan scan = scanOf(t);
    const LiveObject &fast = only(scan, "NVMeAdapter", "0");
    EXPECT_EQ(attrOf(fast, "NegotiatedSpeed"), "80"); // tenths of GT/s
    EXPECT_EQ(attrOf(fast, "CapableSpeed"), "160");
    EXPECT_EQ(attrOf(fast, "NegotiatedLinkWidth"), "2");
    EXPECT_EQ(attrOf(fast, "MaxLinkWidth"), "4");
    const LiveObject &fastDisk = only(scan, "arraydisks", "0\\0\\1");
    EXPECT_EQ(attrOf(fastDisk, "NegotiatedLinkWidth"), "2");
    EXPECT_EQ(attrOf(fastDisk, "MaxLinkWidth"), "4");
    EXPECT_EQ(attrOf(fastDisk, "PdPICapable"), "1");

    const LiveObject &old = only(scan, "NVMeAdapter", "1");
    EXPECT_EQ(attrOf(old, "NegotiatedSpeed"), "50");
    EXPECT_EQ(attrOf(old, "CapableSpeed"), "25");
    EXPECT_EQ(attrOf(old, "MaxLinkWidth"), "1");
    // A namespace without protection information may still be on a drive
    // that could be formatted with it: not said.
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\1"), "PdPICapable"), "<none>");

    const LiveObject &unknown = only(scan, "NVMeAdapter", "2");
    for (const char *name :
         {"NegotiatedSpeed", "CapableSpeed", "NegotiatedLinkWidth", "MaxLinkWidth"})
        EXPECT_EQ(attrOf(unknown, name), "<none>") << name;
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "2\\0\\1"), "MaxLinkWidth"), "<none>");
}

TEST(ScanTest, DrivesThatPredictTheirFailureAreWarnings)
{
    TempTree t;
    // ATA disks, asked through their block devices (no generic device).
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0xf4, 0x2c));
    t.file("dev/sdb.health/ata-status.bin", testing::ataStatus(0x4f, 0xc2));
    // A SAS disk, asked through its generic device rather than sdc.
    addScsiHostOn(t, "0000:02:00.0", "0x010700", "mpt3sas", 3, "sdc");
    const std::string sas =
        "sys/devices/pci0000:00/0000:02:00.0/host3/rport-3:0-0/target3:0:0/3:0:0:0";
    t.link(sas + "/scsi_generic/sg5/device", "../../../3:0:0:0");
    t.file("dev/sg5.health/log-2f.bin", testing::iePage(0x5d, 0x10));
    t.file("dev/sdc.health/log-2f.bin", testing::iePage(0, 0));
    // An NVMe drive with its spare below threshold, 7% of its life used.
    addNvmeDrive(t, 0, {"8.0 GT/s PCIe", "8.0 GT/s PCIe", "4", "4", nullptr});
    t.file("dev/nvme0.health/smart-log.bin", testing::smartLog(0x01, 7));
    // A disk behind a USB bridge is not asked: bridges answer pass-through
    // commands and log pages badly, some by resetting.
    addScsiHostOn(t, "0000:03:00.0", "0x0c0330", "xhci_hcd", 6, "sdd", "/usb2/2-1/2-1:1.0");
    t.file("dev/sdd.health/log-2f.bin", testing::iePage(0x5d, 0x10));

    LiveScan scan = scanOf(t);
    auto predicts = [](const LiveObject &disk) {
        const std::string mask = attrOf(disk, "AttributesMask");
        return mask.size() == 40 && mask[kPredictedFailureBit] == '1';
    };
    const LiveObject &sda = only(scan, "arraydisks", "0\\0\\0");
    const LiveObject &sdb = only(scan, "arraydisks", "0\\1\\0");
    const LiveObject &sdc = only(scan, "arraydisks", "2\\0\\0");
    const LiveObject &nvme = only(scan, "arraydisks", "1\\0\\1");
    EXPECT_TRUE(predicts(sda));
    EXPECT_EQ(attrOf(sda, "ObjStatus"), "3");
    EXPECT_EQ(attrOf(sda, "TreeStatus"), "3");
    EXPECT_FALSE(predicts(sdb));
    EXPECT_EQ(attrOf(sdb, "ObjStatus"), "2");
    EXPECT_TRUE(predicts(sdc));
    EXPECT_TRUE(predicts(nvme));
    EXPECT_EQ(attrOf(nvme, "DeviceLifeTimeRemaining"), "93");
    EXPECT_EQ(attrOf(nvme, "RemainingRatedWriteEndurance"), "93");
    EXPECT_EQ(attrOf(nvme, "PCIeSSDDeviceWriteStatus"), "0");
    EXPECT_EQ(attrOf(sda, "PCIeSSDDeviceWriteStatus"), "<none>") << "an ATA disk does not say";
    EXPECT_EQ(attrOf(only(scan, "NVMeAdapter", "1"), "RemainingRatedWriteEndurance"), "93");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "3\\0\\0"), "DeviceName"), "/dev/sdd");
    EXPECT_FALSE(predicts(only(scan, "arraydisks", "3\\0\\0"))) << "the USB disk";
    // Each prediction is named in a note with what the drive said.
    size_t notes = 0;
    for (const std::string &note : scan.notes)
        notes += note.find("predicts its failure") != std::string::npos;
    EXPECT_EQ(notes, 3u);
    EXPECT_NE(std::find_if(scan.notes.begin(), scan.notes.end(),
                           [](const std::string &n) {
                               return n.find("/dev/sg5") != std::string::npos &&
                                      n.find("0x5d/0x10") != std::string::npos;
                           }),
              scan.notes.end());
}

TEST(ScanTest, DrivesWithoutAHwmonProbeGiveTheirOwnTemperature)
{
    TempTree t;
    // SAS disks on channels (no enclosure): one at 38 C of a 65 C trip
    // point, one past it, one that reports no temperature.
    addScsiHostOn(t, "0000:0a:00.0", "0x010700", "mpt3sas", 3, "sdc");
    addScsiHostOn(t, "0000:0b:00.0", "0x010700", "mpt3sas", 4, "sde");
    addScsiHostOn(t, "0000:0c:00.0", "0x010700", "mpt3sas", 5, "sdf");
    t.file("dev/sdc.health/log-2f.bin", testing::iePage(0, 0));
    t.file("dev/sde.health/log-2f.bin", testing::iePage(0x0b, 0x01, 70, 65));
    t.file("dev/sdf.health/log-2f.bin", testing::iePage(0, 0, 0xff, 0xff));
    // A fourth gives its temperature page too, which stands.
    addScsiHostOn(t, "0000:0d:00.0", "0x010700", "mpt3sas", 6, "sdg");
    t.file("dev/sdg.health/log-2f.bin", testing::iePage(0, 0, 0xff, 0xff));
    t.file("dev/sdg.health/log-0d.bin", testing::temperaturePage(35, 0xff));
    // NVMe: nvme0 has no hwmon and says 316 K in its SMART log, and its
    // thresholds in its Identify data; nvme1's hwmon probe stands for it.
    addNvmeDrive(t, 0, {"8.0 GT/s PCIe", "8.0 GT/s PCIe", "4", "4", nullptr});
    addNvmeDrive(t, 1, {"8.0 GT/s PCIe", "8.0 GT/s PCIe", "4", "4", nullptr});
    t.file("dev/nvme0.health/smart-log.bin", testing::smartLog(0, 3));
    t.file("dev/nvme0.health/id-ctrl.bin", testing::identifyController(343, 358));
    t.file("dev/nvme1.health/smart-log.bin", testing::smartLog(0, 3));
    addNvmeHwmon(t, 1, 3, {{"temp1_input", "51850"}});
    // ATA disks without drivetemp: sda gives its SMART data (attribute
    // 194), sdb its status alone.
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0x4f, 0xc2));
    t.file("dev/sda.health/ata-smart-data.bin", testing::ataSmartData({{9, 1}, {194, 36}}));
    t.file("dev/sdb.health/ata-status.bin", testing::ataStatus(0x4f, 0xc2));

    LiveScan scan = scanOf(t);
    const LiveObject &cool = only(scan, "tempprobes", "3\\0\\0\\3\\0");
    EXPECT_EQ(attrOf(cool, "Name"), "Temperature of /dev/sdc");
    EXPECT_EQ(attrOf(cool, "CurrentTemp"), "38");
    EXPECT_EQ(attrOf(cool, "MaxWarning"), "65");
    EXPECT_EQ(attrOf(cool, "MaxError"), "<none>");
    EXPECT_EQ(attrOf(cool, "ObjStatus"), "2");
    ASSERT_TRUE(cool.parent);
    EXPECT_EQ(scan.objects[*cool.parent].nexus, "3\\0\\0") << "the disk's own probe";
    const LiveObject &hot = only(scan, "tempprobes", "4\\0\\0\\3\\0");
    EXPECT_EQ(attrOf(hot, "CurrentTemp"), "70");
    EXPECT_EQ(attrOf(hot, "ObjStatus"), "3") << "past the drive's trip point";
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "4\\0\\0"), "TreeStatus"), "3");
    EXPECT_FALSE(scan.find("tempprobes", "5\\0\\0\\3\\0")) << "sdf reports none";
    const LiveObject &paged = only(scan, "tempprobes", "6\\0\\0\\3\\0");
    EXPECT_EQ(attrOf(paged, "CurrentTemp"), "35") << "from sdg's temperature page";
    EXPECT_EQ(attrOf(paged, "MaxWarning"), "<none>");
    const LiveObject &nvme0 = only(scan, "tempprobes", "1\\0\\1\\3\\0");
    EXPECT_EQ(attrOf(nvme0, "Name"), "Temperature of /dev/nvme0n1");
    EXPECT_EQ(attrOf(nvme0, "CurrentTemp"), "43");
    EXPECT_EQ(attrOf(nvme0, "MaxWarning"), "70");
    EXPECT_EQ(attrOf(nvme0, "MaxError"), "85");
    EXPECT_EQ(attrOf(nvme0, "ObjStatus"), "2");
    EXPECT_EQ(attrOf(only(scan, "tempprobes", "2\\0\\1\\3\\0"), "CurrentTemp"), "51")
        << "hwmon's reading";
    const LiveObject &sda = only(scan, "tempprobes", "0\\0\\0\\3\\0");
    EXPECT_EQ(attrOf(sda, "Name"), "Temperature of /dev/sda");
    EXPECT_EQ(attrOf(sda, "CurrentTemp"), "36");
    EXPECT_EQ(attrOf(sda, "ObjStatus"), "2");
    size_t probes = 0;
    for (const LiveObject &o : scan.objects)
        probes += o.type == "tempprobes";
    EXPECT_EQ(probes, 6u) << "none for sdb nor a second for nvme1";
}

TEST(ScanTest, ADrivesOwnTemperatureAlarmMakesItsProbeAWarning)
{
    TempTree t;
    // Each below its thresholds, and each saying a temperature is past
    // one: an NVMe drive's SMART log (critical warning bit 1), another's
    // hwmon (temp1_alarm), a SAS disk's exception 0x0b/0x01. A SAS disk
    // without the exception is the control.
    addNvmeDrive(t, 0, {"8.0 GT/s PCIe", "8.0 GT/s PCIe", "4", "4", nullptr});
    addNvmeDrive(t, 1, {"8.0 GT/s PCIe", "8.0 GT/s PCIe", "4", "4", nullptr});
    t.file("dev/nvme0.health/smart-log.bin", testing::smartLog(0x02, 3));
    t.file("dev/nvme0.health/id-ctrl.bin", testing::identifyController(343, 358));
    addNvmeHwmon(t, 1, 3, {{"temp1_input", "51850"}, {"temp1_max", "84850"}, {"temp1_alarm", "1"}});
    addScsiHostOn(t, "0000:0a:00.0", "0x010700", "mpt3sas", 3, "sdc");
    addScsiHostOn(t, "0000:0b:00.0", "0x010700", "mpt3sas", 4, "sdd");
    t.file("dev/sdc.health/log-2f.bin", testing::iePage(0x0b, 0x01, 40, 65));
    t.file("dev/sdd.health/log-2f.bin", testing::iePage(0, 0, 40, 65));

    const LiveScan scan = scanOf(t);
    auto probeOf = [&](const std::string &device) -> const LiveObject * {
        for (const LiveObject &o : scan.objects) {
            if (o.type == "tempprobes" && attrOf(o, "Name") == "Temperature of " + device)
                return &o;
        }
        return nullptr;
    };
    for (const char *device : {"/dev/nvme0n1", "/dev/nvme1n1", "/dev/sdc"}) {
        const LiveObject *probe = probeOf(device);
        ASSERT_NE(probe, nullptr) << device;
        EXPECT_EQ(attrOf(*probe, "ObjStatus"), "3") << device;
        EXPECT_EQ(attrOf(*probe, "TreeStatus"), "3") << device;
    }
    EXPECT_EQ(attrOf(*probeOf("/dev/nvme0n1"), "CurrentTemp"), "43") << "below 70";
    EXPECT_EQ(attrOf(*probeOf("/dev/nvme1n1"), "CurrentTemp"), "51") << "below 84";
    EXPECT_EQ(attrOf(*probeOf("/dev/sdc"), "CurrentTemp"), "40") << "below 65";
    ASSERT_NE(probeOf("/dev/sdd"), nullptr);
    EXPECT_EQ(attrOf(*probeOf("/dev/sdd"), "ObjStatus"), "2");
    // A temperature warning is no failure prediction.
    for (const LiveObject &o : scan.objects) {
        const std::string mask = attrOf(o, "AttributesMask");
        if (o.type == "arraydisks") {
            EXPECT_TRUE(mask.size() <= kPredictedFailureBit || mask[kPredictedFailureBit] != '1')
                << attrOf(o, "DeviceName") << " " << mask;
        }
    }
}

TEST(ScanTest, AnUnreadableHealthKeepsWhatTheDriveLastSaid)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0xf4, 0x2c));
    const std::string mask = attrOf(only(scanOf(t), "arraydisks", "0\\0\\0"), "AttributesMask");
    ASSERT_EQ(mask.size(), 40u);
    EXPECT_EQ(mask[kPredictedFailureBit], '1');
    // A read that fails once does not clear the prediction (nor raise it
    // again on the read after), and says so in a note.
    t.file("dev/sda.health/ata-status.bin", "garbage");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "AttributesMask"), mask);
    EXPECT_NE(std::find_if(scan.notes.begin(), scan.notes.end(),
                           [](const std::string &n) {
                               return n.find("the health of 1 drive was not read") !=
                                      std::string::npos;
                           }),
              scan.notes.end());
    // A drive that no longer keeps a status: nothing to go by.
    std::filesystem::remove(t.root() + "/dev/sda.health/ata-status.bin");
    EXPECT_EQ(attrOf(only(scanOf(t), "arraydisks", "0\\0\\0"), "AttributesMask"),
              std::string(40, '0'));
}

TEST(ScanTest, AHealthAnswerStandsForTheHealthInterval)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0x4f, 0xc2));
    SysRoot root;
    std::string error;
    ASSERT_TRUE(root.open(t.root(), &error)) << error;
    auto predicts = [&](double maxAge) {
        LiveScan scan;
        scanMachine(root, &scan, ScanOptions{maxAge});
        const std::string mask = attrOf(only(scan, "arraydisks", "0\\0\\0"), "AttributesMask");
        return mask.size() == 40 && mask[kPredictedFailureBit] == '1';
    };
    EXPECT_FALSE(predicts(3600));
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0xf4, 0x2c));
    EXPECT_FALSE(predicts(3600)) << "the answer of the scan before stands";
    EXPECT_TRUE(predicts(0)) << "asked again";
    t.file("dev/sda.health/ata-status.bin", testing::ataStatus(0x4f, 0xc2));
    EXPECT_TRUE(predicts(3600));
    EXPECT_FALSE(predicts(0));
}

} // namespace
} // namespace kelp::live

namespace kelp::live {
namespace {

// SCSI device hctl (type `type`) with block device sd below the host of
// addScsiHostOn(t, bdf, ...), whose host number is hctl's first.
void addLunOn(const TempTree &t, const std::string &bdf, const std::string &hctl,
              const std::string &sd, const std::string &type = "0")
{
    const std::string h = hctl.substr(0, hctl.find(':'));
    const std::string target = hctl.substr(0, hctl.rfind(':'));
    const std::string dev =
        "pci0000:00/" + bdf + "/host" + h + "/rport-" + h + ":0-0/target" + target + "/" + hctl;
    t.file("sys/devices/" + dev + "/type", type + "\n");
    t.file("sys/devices/" + dev + "/vendor", "KESWICK\n");
    t.file("sys/devices/" + dev + "/model", "KA-4000\n");
    t.file("sys/devices/" + dev + "/state", "running\n");
    t.file("sys/devices/" + dev + "/block/" + sd + "/size", "2048\n");
    t.link("sys/devices/" + dev + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
    t.link("sys/class/scsi_device/" + hctl, "../../devices/" + dev + "/scsi_device/" + hctl);
    t.link("sys/block/" + sd, "../devices/" + dev + "/block/" + sd);
}

bool hasNoteWith(const LiveScan &scan, const std::string &text)
{
    return std::any_of(scan.notes.begin(), scan.notes.end(),
                       [&](const std::string &n) { return n.find(text) != std::string::npos; });
}

TEST(ScanTest, ADiskOrEnclosureChannelIsTheChannelNumberOfItsNexus)
{
    TempTree t;
    addVirtioDisk(t, "0000:00:02.0", "virtio1", "vda", "2048"); // controller 0
    addSataDisk(t, "0000:00:17.0", 0, "sda");                   // controller 1
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\0\\0"), "Channel"), "0");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "1\\1\\0"), "Channel"), "1");

    TempTree jbod;
    addDualDomainJbod(jbod, {{0}});
    EXPECT_EQ(attrOf(only(scanOf(jbod), "enclosures", "0\\0\\0"), "Channel"), "0");
}

TEST(ScanTest, DevicesWhoseTargetAndLunGiveOneNumberAreAllServed)
{
    TempTree t;
    // An FC port with one array's luns 0 and 1 at target 0 and another
    // array at target 1: target 0 lun 1 and target 1 lun 0 would both be 1.
    addScsiHostOn(t, "0000:05:00.0", "0x0c0400", "qla2xxx", 0, "sdb");
    addLunOn(t, "0000:05:00.0", "0:0:0:1", "sdc");
    addLunOn(t, "0000:05:00.0", "0:0:1:0", "sdd");
    addLunOn(t, "0000:05:00.0", "0:0:1:1", "sde");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 4u);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "DeviceName"), "/dev/sdb");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\1"), "DeviceName"), "/dev/sdc");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\257"), "DeviceName"), "/dev/sde");
    // The second to want 1 takes a spare number: bit 30, lun 0, target 1.
    const LiveObject &sdd = only(scan, "arraydisks", "0\\0\\1073741825");
    EXPECT_EQ(attrOf(sdd, "DeviceName"), "/dev/sdd");
    EXPECT_EQ(attrOf(sdd, "TargetID"), "1073741825");
    EXPECT_EQ(attrOf(sdd, "SCSIAddress"), "0:0:1:0");
    EXPECT_FALSE(hasNoteWith(scan, "left out"));
}

TEST(ScanTest, ALunOverThirtyTwoBitsIsNotReadAsAnotherDevice)
{
    TempTree t;
    addScsiHostOn(t, "0000:05:00.0", "0x0c0400", "qla2xxx", 0, "sdb");
    // 4294967297 is 2^32 + 1: cut to 32 bits it would read as lun 1.
    addLunOn(t, "0000:05:00.0", "0:0:0:4294967297", "sdc");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 1u);
    EXPECT_FALSE(scan.find("arraydisks", "0\\0\\1"));
    EXPECT_TRUE(hasNoteWith(scan, "SCSI device 0:0:0:4294967297: not a host:channel:target:lun"));
}

TEST(ScanTest, AReducedBlockCommandDiskIsADisk)
{
    TempTree t;
    // Some USB and FireWire bridges give type 0x0e; sd takes it as a disk.
    addScsiHostOn(t, "0000:00:14.0", "0x0c0330", "usb-storage", 0, "sdb");
    t.file("sys/devices/pci0000:00/0000:00:14.0/host0/rport-0:0-0/target0:0:0/0:0:0:0/type",
           "14\n");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "DeviceName"), "/dev/sdb");
    EXPECT_FALSE(hasNoteWith(scan, "block device sdb"));
}

TEST(ScanTest, AModelNumberLeavesOutTheVendorOrModelItCouldNotRead)
{
    const std::string dev = "sys/devices/pci0000:00/0000:00:14.0/host0/rport-0:0-0/target0:0:0/"
                            "0:0:0:0";
    TempTree blankVendor;
    addScsiHostOn(blankVendor, "0000:00:14.0", "0x0c0330", "usb-storage", 0, "sdb");
    blankVendor.file(dev + "/vendor", "        \n");
    blankVendor.file(dev + "/model", "USB Flash Drive \n");
    EXPECT_EQ(attrOf(only(scanOf(blankVendor), "arraydisks", "0\\0\\0"), "ModelNumber"),
              "USB Flash Drive");

    TempTree blankModel;
    addScsiHostOn(blankModel, "0000:00:14.0", "0x0c0330", "usb-storage", 0, "sdb");
    blankModel.file(dev + "/model", "");
    EXPECT_EQ(attrOf(only(scanOf(blankModel), "arraydisks", "0\\0\\0"), "ModelNumber"), "KESWICK");

    TempTree neither;
    addScsiHostOn(neither, "0000:00:14.0", "0x0c0330", "usb-storage", 0, "sdb");
    neither.remove(dev + "/vendor");
    neither.remove(dev + "/model");
    EXPECT_EQ(attrOf(only(scanOf(neither), "arraydisks", "0\\0\\0"), "ModelNumber"),
              "Not Available");
}

TEST(ScanTest, AValueJoinedFromLongPartsStaysWithinTheModelLimit)
{
    TempTree t;
    addScsiHostOn(t, "0000:00:14.0", "0x0c0330", "usb-storage", 0, "sdb");
    const std::string dev = "sys/devices/pci0000:00/0000:00:14.0/host0/rport-0:0-0/target0:0:0/"
                            "0:0:0:0";
    t.file(dev + "/vendor", std::string(150, 'V') + "\n");
    t.file(dev + "/model", std::string(150, 'M') + "\n");
    LiveScan scan = scanOf(t);
    const std::string model = attrOf(only(scan, "arraydisks", "0\\0\\0"), "ModelNumber");
    EXPECT_EQ(model, std::string(150, 'V') + " " + std::string(8, 'M'));
    for (const LiveObject &o : scan.objects) {
        for (const auto &[name, value] : o.attributes)
            EXPECT_LE(value.size(), ds::kMaxAttributeValueBytes) << o.nexus << " " << name;
    }
}

TEST(ScanTest, AnExternalMetadataContainerIsNoArrayButItsArraysAre)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    addSataDisk(t, "0000:00:17.0", 1, "sdb");
    // An IMSM container (always inactive) and a raid1 volume in it.
    const std::string container = "sys/devices/virtual/block/md127";
    t.link("sys/block/md127", "../devices/virtual/block/md127");
    t.file(container + "/size", "0\n");
    t.file(container + "/md/level", "\n");
    t.file(container + "/md/array_state", "inactive\n");
    t.file(container + "/md/metadata_version", "external:imsm\n");
    t.file(container + "/md/raid_disks", "0\n");
    const std::string volume = "sys/devices/virtual/block/md126";
    t.link("sys/block/md126", "../devices/virtual/block/md126");
    t.file(volume + "/size", "1000\n");
    t.file(volume + "/md/level", "raid1\n");
    t.file(volume + "/md/array_state", "active\n");
    t.file(volume + "/md/metadata_version", "external:/md127/0\n");
    t.file(volume + "/md/raid_disks", "2\n");
    t.file(volume + "/md/degraded", "0\n");
    for (const std::string sd : {"sda", "sdb"}) {
        for (const std::string &md : {container, volume}) {
            t.file(md + "/md/dev-" + sd + "/state", md == volume ? "in_sync\n" : "\n");
            t.link(md + "/md/dev-" + sd + "/block", "../../../../../../block/" + sd);
        }
    }
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "vdisks"), 1u);
    EXPECT_FALSE(scan.find("vdisks", "1\\128\\127"));
    const LiveObject &vd = only(scan, "vdisks", "1\\128\\126");
    EXPECT_EQ(attrOf(vd, "ObjState"), std::to_string(kStateOnline));
    EXPECT_EQ(attrOf(vd, "ObjStatus"), "2");
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "ObjState"),
              std::to_string(kStateOnline));
}

TEST(ScanTest, ADiskOfUnreadableTypeIsNotCalledAnotherKindOfDisk)
{
    TempTree t;
    addSataDisk(t, "0000:00:17.0", 0, "sda");
    t.file("sys/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/type", "");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(countOf(scan, "arraydisks"), 0u);
    EXPECT_TRUE(hasNoteWith(scan, "SCSI device 0:0:0:0: no readable type"));
    EXPECT_FALSE(hasNoteWith(scan, "block device sda"));
}

TEST(ScanTest, OlderKernelsSectorSizeAndSataChannelsAreRead)
{
    TempTree t;
    // Before logical_block_size and libata's ataN directories: a SATA
    // controller's host right below its PCI function.
    addScsiHostOn(t, "0000:00:1f.2", "0x010601", "ahci", 0, "sda");
    const std::string block =
        "sys/devices/pci0000:00/0000:00:1f.2/host0/rport-0:0-0/target0:0:0/0:0:0:0/block/sda";
    t.file(block + "/queue/hw_sector_size", "4096\n");
    LiveScan scan = scanOf(t);
    EXPECT_EQ(attrOf(only(scan, "arraydisks", "0\\0\\0"), "PdSectorSize"), "4096");
    EXPECT_EQ(attrOf(only(scan, "bus", "0\\0"), "BusProtocol"), "7");
}

} // namespace
} // namespace kelp::live
