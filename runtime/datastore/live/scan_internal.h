// The state one scan of a machine builds up while the readers of scan_*.cc
// add their objects: controllers by PCI function, channels by SCSI host and
// channel, and the devices found so far by their sysfs directory, so that a
// later reader can attach to them. Private to the live source.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SCAN_INTERNAL_H
#define KELP_RUNTIME_DATASTORE_LIVE_SCAN_INTERNAL_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "datastore/live/health.h"
#include "datastore/live/scan.h"
#include "datastore/live/sysroot.h"

namespace kelp::live {

struct ScsiDevice {
    std::array<uint32_t, 4> hctl{}; // host, channel, target, lun
    std::string dir;                // canonical device directory
    uint32_t type = 0;              // SCSI peripheral device type
};

// Keys of SAS ports among a host's channels: above any SCSI channel number.
inline constexpr uint32_t kSasPortKey = 0x10000;

struct ScanState {
    ScanState(const SysRoot &r, LiveScan &sc, const ScanOptions &o = {})
        : root(r), scan(sc), options(o)
    {
    }

    const SysRoot &root;
    LiveScan &scan;
    const ScanOptions options;

    struct Controller {
        std::string pciDir; // canonical directory of the PCI function ("" for md)
        // For a SCSI host on no PCI function (iSCSI, VMBus, scsi_debug): its
        // canonical host directory, which stands for the function; for an
        // NVMe controller on none (a fabric), its controller directory; for
        // an MMC host on none, the host's directory (mmc_host/mmcN); for a
        // Xen block device, its frontend device (vbd-N).
        std::string hostDir;
        std::string bdf;
        uint32_t number = 0;
        size_t object = 0;
        std::string name;
        // (SCSI host, SCSI channel) -> channel object, and the next channel number
        std::map<std::pair<uint32_t, uint32_t>, size_t> channels;
        uint32_t nextChannel = 0;
        uint32_t nextEnclosure = 0;
    };
    std::vector<Controller> controllers;            // sorted by PCI address once made
    std::map<std::string, size_t> controllerByPci;  // bdf -> index in controllers
    std::map<std::string, size_t> controllerByHost; // hostDir (no PCI) -> index

    // SCSI device directory (canonical) -> the enclosure slot a disk sits in
    struct Slot {
        size_t enclosure; // object index
        std::string enclosureNexus;
        uint32_t slot;
        bool otherPath = false; // seen through another path to the enclosure
    };
    std::map<std::string, Slot> slotOfDevice;
    // enclosure's SCSI device directory -> object index
    std::map<std::string, size_t> enclosureByDevice;
    // An enclosure seen through more than one path (the two EMMs of a
    // dual-domain JBOD, each behind its own HBA port) is one enclosure: its
    // logical id -> the object of the first path, and each further path's
    // SCSI device directory -> that object.
    std::map<std::string, size_t> enclosureById;
    std::map<std::string, size_t> enclosureByOtherPath;
    // block device name (sdb, nvme0n1, vda) -> array-disk object index
    std::map<std::string, size_t> diskByBlock;
    // SCSI device directory or NVMe controller directory -> disk object index
    std::map<std::string, size_t> diskByDevice;
    // A SCSI disk's world wide name (sysfs `wwid`) -> disk object index: a
    // disk seen through a second path (dual-domain SAS, multipath FC or
    // iSCSI) is the disk of its first path.
    std::map<std::string, size_t> diskByWwid;
    // enclosure objects whose SES pages were read (their probes stand for
    // their disks' hwmon probes)
    std::set<size_t> sesEnclosures;
    // The drives to ask for their health (scanHealth): the device node to
    // ask, and the disk objects (an NVMe controller's namespaces) and NVMe
    // adapter object its answer is for.
    struct HealthQuery {
        HealthKind kind;
        std::string node; // "/dev/sg3", "/dev/nvme0"
        std::vector<size_t> disks;
        std::optional<size_t> adapter;
    };
    std::vector<HealthQuery> healthQueries;

    std::optional<std::vector<ScsiDevice>> scsi;        // read once, by scsiDevices()
    std::set<std::string> scsiDirsUnread;               // SCSI devices of no readable type
    std::set<std::pair<std::string, std::string>> keys; // (type, nexus) of every object

    // Whether an object of type and nexus was added.
    bool taken(const std::string &type, const std::string &nexus) const
    {
        return keys.count({type, nexus}) != 0;
    }

    void note(std::string line) { scan.notes.push_back(std::move(line)); }
    size_t add(LiveObject object);
    // The controller of a device directory: the nearest PCI function on its
    // path, else the nearest hostDir of a controller on no PCI function;
    // nullptr when there is none or it was not made a controller.
    Controller *controllerOf(std::string_view deviceDir);
    // The channel object for (host, channel) of controller c, made on first
    // use. `channel` is the SCSI channel, or kSasPortKey plus the number of a
    // SAS port, which is a channel of a SAS HBA of its own.
    size_t channelOf(Controller &c, uint32_t host, uint32_t channel, const std::string &protocol);
};

// Sets (or adds) an attribute; a value over the model's limit of bytes is
// cut there, so that a value joined from two read ones stays within it.
void set(ds::Attributes *attributes, std::string name, std::string value);
// The last part of a nexus: the channel number H of a channel's C\H.
std::string lastNexusPart(const std::string &nexus);
// The number T of a SCSI device on its channel (C\H\T): its target, or
// (target << 8) | lun for a lun other than 0. Two devices may get the same
// one (target 0 lun 1 and target 1 lun 0); the second then takes
// spareTargetNumber, which no other device takes, when it has one.
uint32_t targetNumber(const std::array<uint32_t, 4> &hctl);
std::optional<uint32_t> spareTargetNumber(const std::array<uint32_t, 4> &hctl);
// A mask attribute of the model format with no bit set: 40 zeros. Not a
// std::string: a static that allocates would throw, while the library
// loads, under a limit of address space that leaves no heap.
inline constexpr char kNoBits[] = "0000000000000000000000000000000000000000";
static_assert(sizeof kNoBits == 41);
// The same with bit `bit` (counted from 0 at the left) set.
std::string maskWithBit(size_t bit);

// The value of an attribute of a live object, or "" when it has none.
std::string attrOf(const LiveObject &o, std::string_view name);
// "H:C:T:L", the name sysfs gives a SCSI device.
std::string hctlText(const std::array<uint32_t, 4> &hctl);
// The SCSI devices under /sys/class/scsi_device, in host:channel:target:lun order.
const std::vector<ScsiDevice> &scsiDevices(ScanState &s);
// The PCI address (dddd:bb:dd.f) nearest the end of a canonical path, or "".
std::string pciAddressIn(std::string_view path);
bool isPciAddress(std::string_view name);
// Whether PCI address a comes before b in address order (domains of more
// digits last).
bool pciAddressBefore(std::string_view a, std::string_view b);
// "0x1000" -> 4096; nullopt for text that is not such a number.
std::optional<uint64_t> parseNumber(std::string_view text);
// Text fit for a model value: printable ASCII, blanks trimmed, at most 159 bytes.
std::string cleanValue(std::string_view text);

// The text of dir/name fit for a model value, or "Not Available" when it is
// missing, unreadable or blank.
std::string textOr(const SysRoot &root, const std::string &dir, const char *name);
// The version of a kernel module (/sys/module/NAME/version, '-' read as
// '_'), or "Not Available".
std::string driverVersion(const SysRoot &root, std::string module);
// Adds controller c (its number, name and hostDir set) as an "adapters"
// object of no PCI function, with the driver, firmware and driver version
// given; answers its object index.
size_t addPlainController(ScanState &s, ScanState::Controller c, const std::string &driver,
                          const std::string &firmware, const std::string &version);
// The namespace number in an NVMe block device's name, nvmeXnY or the path
// device nvmeXcZnY, or 0; *blockName is then the namespace's own block
// device, nvmeXnY (scan_disks.cc).
uint32_t namespaceOf(const std::string &name, std::string *blockName);
// The state and status a SCSI device's `state` gives (scan_disks.cc).
std::pair<uint64_t, int> scsiState(ScanState &s, const std::string &dir);
// A disk or tape drive at SCSI address hctl, device directory dir, on the
// channel object `channel` (scan_disks.cc).
void addScsiDisk(ScanState &s, const std::string &dir, const std::array<uint32_t, 4> &hctl,
                 size_t channel, bool tape);

// The partitions of a virtual disk (md array, RAID volume) of controller
// c, numbered `number`, object `vdisk`, block device `blockName` at
// blockDir: each a "VDPartitionNode" C\129\N\P linked to it (scan_md.cc).
void addPartitions(ScanState &s, const ScanState::Controller &c, uint32_t number, size_t vdisk,
                   const std::string &blockDir, const std::string &blockName);

// The readers, in the order scanMachine calls them.
void scanControllers(ScanState &s);
void scanScsi(ScanState &s); // channels, enclosures, disks, tapes of SCSI hosts
void scanEnclosureSlots(ScanState &s);
void scanScsiDisks(ScanState &s);
void scanVirtio(ScanState &s);
void scanMmc(ScanState &s);
void scanXen(ScanState &s);
void scanNvme(ScanState &s);
void scanEnclosureComponents(ScanState &s);
void scanHwmon(ScanState &s);

// A disk's own temperatures in degrees Celsius (hwmon, or what the drive
// said when its health was read); unknown ones are left out. `alarm`: the
// drive itself says a temperature is past a threshold (hwmon's temp1_alarm,
// the health answer's temperature warning).
struct DiskTemperatures {
    std::optional<int> current, highWarning, highCritical, lowWarning, lowCritical;
    bool alarm = false;
};
// Adds the disk's temperature probe, unless the disk has one already or
// sits in an enclosure whose SES pages give its probes. Its status comes
// from the reading and thresholds, and is at least non-critical when the
// drive raises its alarm.
void addDiskProbe(ScanState &s, size_t diskIndex, const DiskTemperatures &temps);
void scanMd(ScanState &s);
void scanHealth(ScanState &s); // after every disk is made

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SCAN_INTERNAL_H
