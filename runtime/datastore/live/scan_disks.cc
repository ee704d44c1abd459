// Array disks and tape drives: SCSI, SATA and SAS disks on SCSI hosts,
// virtio-blk, MMC (SD and eMMC) and Xen disks, NVMe namespaces. A disk in
// an enclosure slot is named by its slot (C\H\E\S), any other by its channel
// and target (C\H\T).
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>

#include "datastore/live/scan_internal.h"

namespace kelp::live {
namespace {

// SCSI device states (sdev_state) and what the model makes of them.
struct StateRow {
    const char *text;
    uint64_t state;
    int status;
};
constexpr StateRow kScsiStates[] = {
    {"running", kStateReady, kStatusOk},
    {"created", kStateReady, kStatusOk},
    {"quiesce", kStateOffline, kStatusNonCritical},
    {"blocked", kStateOffline, kStatusNonCritical},
    {"created-blocked", kStateOffline, kStatusNonCritical},
    {"offline", kStateOffline, kStatusCritical},
    {"transport-offline", kStateOffline, kStatusCritical},
    {"cancel", kStateFailed, kStatusCritical},
    {"deleted", kStateFailed, kStatusCritical},
};

// The unit serial number of VPD page 0x80: a 4-byte header, then ASCII.
std::string vpdSerial(ScanState &s, const std::string &dir)
{
    auto page = s.root.attrBytes(dir, "vpd_pg80");
    if (!page || page->size() < 4 || static_cast<unsigned char>((*page)[1]) != 0x80)
        return std::string();
    const size_t length = static_cast<size_t>(static_cast<unsigned char>((*page)[2])) << 8 |
                          static_cast<unsigned char>((*page)[3]);
    // Drives pad the serial number with blanks or NULs.
    std::string serial = page->substr(4, length);
    serial.erase(serial.find_last_not_of(std::string_view(" \0", 2)) + 1);
    return cleanValue(serial);
}

// A write cache setting as sysfs words it (the block layer's `write_cache`,
// sd's `cache_type`: "write back", "write through, no read (daft)" ...):
// "1" for write back, "0" for write through, "" for anything else.
const char *writeCacheFlag(const std::optional<std::string> &text)
{
    if (!text)
        return "";
    const std::string words = cleanValue(*text);
    if (words.starts_with("write back"))
        return "1";
    if (words.starts_with("write through"))
        return "0";
    return "";
}

// Size, medium, name, write cache and (where the device is formatted with
// it) protection information of a block device directory.
void fillBlock(ScanState &s, const std::string &blockDir, LiveObject *o)
{
    const std::string name(baseName(blockDir));
    set(&o->attributes, "DeviceName", "/dev/" + cleanValue(name));
    auto size = s.root.attr(blockDir, "size");
    auto sectors = size ? parseNumber(*size) : std::nullopt;
    if (sectors)
        set(&o->attributes, "Length", std::to_string(*sectors * 512));
    else
        s.note("block device " + name + ": no readable size");
    auto rotational = s.root.attr(blockDir, "queue/rotational");
    if (rotational)
        set(&o->attributes, "MediaType", *rotational == "0" ? "2" : "1");
    // Kernels before logical_block_size give only hw_sector_size.
    auto sector = s.root.attr(blockDir, "queue/logical_block_size");
    if (!sector)
        sector = s.root.attr(blockDir, "queue/hw_sector_size");
    if (sector)
        set(&o->attributes, "PdSectorSize", cleanValue(*sector));
    if (const char *flag = writeCacheFlag(s.root.attr(blockDir, "queue/write_cache")); *flag)
        set(&o->attributes, "DriveWriteCacheEnabled", flag);
    // A device formatted without protection information may still take it,
    // so only a format that carries it says anything.
    if (auto format = s.root.attr(blockDir, "integrity/format")) {
        const std::string carried = cleanValue(*format);
        if (carried.starts_with("T10-DIF") || carried.starts_with("EXT-DIF"))
            set(&o->attributes, "PdPICapable", "1");
    }
}

// What a SCSI disk says of itself over what its block device says: its own
// write cache setting (sd's `cache_type`; the block layer's may have been
// overridden by hand), and whether it takes protection information (the
// PROTECT bit, byte 5 bit 0, of its standard INQUIRY data).
void fillScsiDisk(ScanState &s, const std::string &dir, LiveObject *o)
{
    if (auto entries = s.root.listIn(dir + "/scsi_disk"); !entries.empty()) {
        const char *flag =
            writeCacheFlag(s.root.attr(dir + "/scsi_disk/" + entries.front(), "cache_type"));
        if (*flag)
            set(&o->attributes, "DriveWriteCacheEnabled", flag);
    }
    auto inquiry = s.root.attrBytes(dir, "inquiry");
    if (inquiry && inquiry->size() > 5)
        set(&o->attributes, "PdPICapable", ((*inquiry)[5] & 0x01) != 0 ? "1" : "0");
}

void addStatus(LiveObject *o, uint64_t state, int status)
{
    set(&o->attributes, "ObjState", std::to_string(state));
    set(&o->attributes, "ObjStatus", std::to_string(status));
    set(&o->attributes, "TreeStatus", std::to_string(status));
}

// A SCSI device's world wide name when it names one device wherever it is
// seen: an NAA, EUI-64 or SCSI name string id ("naa.5000c500a1b2c301"),
// else "". A T10 vendor id ("t10.ATA ...") does not count, as bridges give
// one such id to different disks, and neither does an id of zeros.
std::string worldWideName(ScanState &s, const std::string &dir)
{
    auto text = s.root.attr(dir, "wwid");
    if (!text)
        return std::string();
    std::string id = cleanValue(*text);
    const size_t dot = id.find('.');
    if (dot == std::string::npos || id.find_first_not_of('0', dot + 1) == std::string::npos)
        return std::string();
    const std::string_view kind = std::string_view(id).substr(0, dot);
    return kind == "naa" || kind == "eui" || kind == "iqn" ? id : std::string();
}

// A further path to `disk`, in `state` and `status`: the disk takes the
// state of its best path, with status non-critical while one of its paths
// works and another does not.
void addPathState(LiveObject *disk, uint64_t state, int status)
{
    const int kept = static_cast<int>(
        parseNumber(attrOf(*disk, "ObjStatus")).value_or(static_cast<uint64_t>(kStatusUnknown)));
    if (status == kStatusOk && kept > kStatusOk) {
        addStatus(disk, state, kStatusNonCritical);
    } else if (kept == kStatusOk && status > kStatusOk) {
        set(&disk->attributes, "ObjStatus", std::to_string(kStatusNonCritical));
        set(&disk->attributes, "TreeStatus", std::to_string(kStatusNonCritical));
    } else if (kept == kStatusCritical && status == kStatusNonCritical) {
        addStatus(disk, state, status); // a path that may come back beats a dead one
    }
}

// SCSI device `dir` is a further path to disk `index`: its device and block
// device name that disk, and its state counts as addPathState says.
void addPath(ScanState &s, const std::string &dir, size_t index)
{
    s.diskByDevice.emplace(dir, index);
    auto blocks = s.root.listIn(dir + "/block");
    if (!blocks.empty())
        s.diskByBlock.emplace(blocks.front(), index);
    const auto [state, status] = scsiState(s, dir);
    addPathState(&s.scan.objects[index], state, status);
}

// "VENDOR MODEL", or the model alone for an ATA disk (whose vendor is the
// translation layer's). A part that could not be read (a bridge's blank
// vendor) is left out; with neither, "Not Available".
std::string modelNumber(const std::string &vendor, const std::string &model)
{
    const std::string none = "Not Available";
    if (vendor == "ATA" || vendor == none)
        return model;
    return model == none ? vendor : vendor + " " + model;
}

} // namespace

std::pair<uint64_t, int> scsiState(ScanState &s, const std::string &dir)
{
    const std::string sdevState = textOr(s.root, dir, "state");
    for (const StateRow &row : kScsiStates) {
        if (sdevState == row.text)
            return {row.state, row.status};
    }
    return {kStateReady, kStatusUnknown};
}

void addScsiDisk(ScanState &s, const std::string &dir, const std::array<uint32_t, 4> &hctl,
                 size_t channel, bool tape)
{
    const std::string wwid = worldWideName(s, dir);
    if (auto first = s.diskByWwid.find(wwid); first != s.diskByWwid.end()) {
        addPath(s, dir, first->second);
        return;
    }
    LiveObject o;
    o.type = tape ? "Tape" : "arraydisks";
    uint32_t target = targetNumber(hctl);
    const std::string &busNexus = s.scan.objects[channel].nexus;
    auto slot = s.slotOfDevice.find(dir);
    if (!tape && slot != s.slotOfDevice.end()) {
        o.nexus = slot->second.enclosureNexus + "\\" + std::to_string(slot->second.slot);
        o.parent = slot->second.enclosure;
        // Seen through another path, the slot holds a disk of another name:
        // two enclosures share one logical id without being one. The disk
        // stays on its channel rather than being lost.
        if (slot->second.otherPath && s.taken(o.type, o.nexus)) {
            s.note("SCSI device " + dir + ": slot " + o.nexus + " holds another disk though its " +
                   "enclosure has the same logical id; served on its channel");
            o.nexus = busNexus + "\\" + std::to_string(target);
            o.parent = channel;
        }
    } else {
        o.nexus = busNexus + "\\" + std::to_string(target);
        o.parent = channel;
        // Target 0 lun 1 took the number of target 1 lun 0 (or the like).
        auto spare = spareTargetNumber(hctl);
        if (s.taken(o.type, o.nexus) && spare &&
            !s.taken(o.type, busNexus + "\\" + std::to_string(*spare))) {
            target = *spare;
            o.nexus = busNexus + "\\" + std::to_string(target);
        }
    }
    if (s.taken(o.type, o.nexus)) {
        s.note("SCSI device " + dir + ": a second device at " + o.nexus + ", left out");
        return;
    }
    const std::string vendor = textOr(s.root, dir, "vendor");
    const std::string model = textOr(s.root, dir, "model");
    const auto [state, status] = scsiState(s, dir);
    addStatus(&o, state, status);
    set(&o.attributes, "AttributesMask", kNoBits);
    set(&o.attributes, "Vendor", vendor);
    set(&o.attributes, "ProductID", model);
    set(&o.attributes, "ModelNumber", modelNumber(vendor, model));
    set(&o.attributes, "Revision", textOr(s.root, dir, "rev"));
    std::string serial = vpdSerial(s, dir);
    set(&o.attributes, "DeviceSerialNumber", serial.empty() ? "Not Available" : serial);
    std::string protocol = attrOf(s.scan.objects[channel], "BusProtocol");
    auto sas = s.root.attr(dir, "sas_address");
    if (sas) {
        set(&o.attributes, "SASAddress", cleanValue(*sas));
        if (vendor != "ATA")
            protocol = "8";
    }
    if (vendor == "ATA")
        protocol = "7";
    set(&o.attributes, "BusProtocol", protocol);
    set(&o.attributes, "Channel", lastNexusPart(busNexus));
    set(&o.attributes, "TargetID", std::to_string(target));
    set(&o.attributes, "SCSIAddress", hctlText(hctl));
    std::string blockName;
    if (tape) {
        auto tapes = s.root.listIn(dir + "/scsi_tape");
        if (!tapes.empty())
            set(&o.attributes, "DeviceName", "/dev/" + cleanValue(tapes.front()));
        set(&o.attributes, "MediaType", "1");
    } else {
        auto blocks = s.root.listIn(dir + "/block");
        if (!blocks.empty()) {
            blockName = blocks.front();
            fillBlock(s, dir + "/block/" + blockName, &o);
            fillScsiDisk(s, dir, &o);
        } else {
            set(&o.attributes, "DeviceName", "Not Applicable");
            s.note("SCSI disk " + o.nexus + ": no block device");
        }
    }
    const bool ata = vendor == "ATA";
    size_t index = s.add(std::move(o));
    s.diskByDevice.emplace(dir, index);
    if (!blockName.empty())
        s.diskByBlock.emplace(blockName, index);
    if (!wwid.empty())
        s.diskByWwid.emplace(wwid, index);
    // The disk is asked for its health through its generic device, else its
    // block device (both take SG_IO). Not a disk behind a USB bridge:
    // bridges answer pass-through commands and log pages badly, some by
    // resetting.
    if (tape || dir.find("/usb") != std::string::npos)
        return;
    std::string node;
    if (auto generic = s.root.listIn(dir + "/scsi_generic"); !generic.empty())
        node = "/dev/" + cleanValue(generic.front());
    else if (!blockName.empty())
        node = "/dev/" + cleanValue(blockName);
    if (!node.empty())
        s.healthQueries.push_back(
            {ata ? HealthKind::kAta : HealthKind::kScsi, std::move(node), {index}, std::nullopt});
}

namespace {

// What a disk that names no SCSI identity says of itself.
struct DiskIdentity {
    std::string vendor;
    std::string product;
    std::string revision;
    std::string serial;
};

// Adds the one disk of controller c (C\0\0 on its channel 0): a virtio-blk,
// MMC or Xen disk, block device `name` at blockDir, its device at `device`.
// `kind` names such a disk in notes.
void addOnlyDisk(ScanState &s, const char *kind, const std::string &name,
                 const std::string &blockDir, const std::string &device, ScanState::Controller &c,
                 DiskIdentity id)
{
    size_t channel = s.channelOf(c, 0, 0, "0");
    LiveObject o;
    o.type = "arraydisks";
    o.nexus = s.scan.objects[channel].nexus + "\\0";
    o.parent = channel;
    if (s.taken(o.type, o.nexus)) {
        s.note(std::string(kind) + " disk " + name + ": a second disk on controller " + c.name);
        return;
    }
    addStatus(&o, kStateReady, kStatusOk);
    set(&o.attributes, "AttributesMask", kNoBits);
    set(&o.attributes, "Vendor", std::move(id.vendor));
    set(&o.attributes, "ProductID", id.product);
    set(&o.attributes, "ModelNumber", std::move(id.product));
    set(&o.attributes, "Revision", std::move(id.revision));
    set(&o.attributes, "DeviceSerialNumber", std::move(id.serial));
    set(&o.attributes, "BusProtocol", "0");
    set(&o.attributes, "Channel", "0");
    set(&o.attributes, "TargetID", "0");
    fillBlock(s, blockDir, &o);
    // virtio-blk, MMC and Xen disks carry no protection information.
    set(&o.attributes, "PdPICapable", "0");
    size_t index = s.add(std::move(o));
    s.diskByBlock.emplace(name, index);
    s.diskByDevice.emplace(device, index);
}

// The disks /sys/block lists under names `accept` takes, each the one disk
// of the controller its block device hangs from, described by `identify`
// (the block directory and the device directory).
template <typename Accept, typename Identify>
void scanOnlyDisks(ScanState &s, const char *kind, Accept accept, Identify identify)
{
    for (const std::string &name : s.root.list("/sys/block")) {
        if (!accept(name))
            continue;
        auto blockDir = s.root.resolve("/sys/block/" + name);
        if (!blockDir)
            continue;
        auto device = s.root.follow(*blockDir, "device");
        ScanState::Controller *c = s.controllerOf(*blockDir);
        if (!device || c == nullptr) {
            s.note(std::string(kind) + " disk " + name + ": no device or controller");
            continue;
        }
        addOnlyDisk(s, kind, name, *blockDir, *device, *c, identify(*blockDir, *device));
    }
}

} // namespace

void scanVirtio(ScanState &s)
{
    scanOnlyDisks(
        s, "virtio", [](const std::string &name) { return name.starts_with("vd"); },
        [&](const std::string &blockDir, const std::string &) {
            return DiskIdentity{"Virtio", "Virtio Block Device", "Not Available",
                                textOr(s.root, blockDir, "serial")};
        });
}

void scanMmc(ScanState &s)
{
    // mmcblkN alone: mmcblkNbootM and mmcblkNrpmb are areas of the same
    // device.
    auto whole = [](const std::string &name) {
        unsigned n = 0;
        char end = 0;
        return std::sscanf(name.c_str(), "mmcblk%u%c", &n, &end) == 1;
    };
    scanOnlyDisks(s, "MMC", whole, [&](const std::string &, const std::string &card) {
        // A card names its maker by number only (manfid).
        return DiskIdentity{textOr(s.root, card, "manfid"), textOr(s.root, card, "name"),
                            textOr(s.root, card, "fwrev"), textOr(s.root, card, "serial")};
    });
}

void scanXen(ScanState &s)
{
    scanOnlyDisks(
        s, "Xen", [](const std::string &name) { return name.starts_with("xvd"); },
        [](const std::string &, const std::string &) {
            return DiskIdentity{"Xen", "Xen Virtual Block Device", "Not Available",
                                "Not Available"};
        });
}

namespace {

// NVMe controller states (nvme_ctrl_state).
constexpr StateRow kNvmeStates[] = {
    {"live", kStateReady, kStatusOk},
    {"new", kStateReady, kStatusOk},
    {"connecting", kStateOffline, kStatusNonCritical},
    {"resetting", kStateOffline, kStatusNonCritical},
    {"deleting", kStateFailed, kStatusCritical},
    {"deleting (no IO)", kStateFailed, kStatusCritical},
    {"dead", kStateFailed, kStatusCritical},
};

// A PCIe link speed as sysfs words it ("8.0 GT/s PCIe", "2.5 GT/s", and
// "5 GT/s" from older kernels) in tenths of GT/s, or "" ("Unknown").
std::string linkSpeedTenths(const std::optional<std::string> &text)
{
    if (!text)
        return std::string();
    std::string_view rest(*text);
    uint64_t tenths = 0;
    size_t digits = 0;
    for (; !rest.empty() && rest.front() >= '0' && rest.front() <= '9'; rest.remove_prefix(1)) {
        if (++digits > 6)
            return std::string();
        tenths = tenths * 10 + static_cast<uint64_t>(rest.front() - '0');
    }
    if (digits == 0)
        return std::string();
    tenths *= 10;
    if (rest.starts_with('.')) {
        rest.remove_prefix(1);
        if (rest.empty() || rest.front() < '0' || rest.front() > '9')
            return std::string();
        tenths += static_cast<uint64_t>(rest.front() - '0');
        while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9')
            rest.remove_prefix(1);
    }
    return rest.starts_with(" GT/s") ? std::to_string(tenths) : std::string();
}

// A PCIe link width in lanes (1 to 32), or "" (0: the kernel cannot read it).
std::string linkWidth(const std::optional<std::string> &text)
{
    auto lanes = text ? parseNumber(cleanValue(*text)) : std::nullopt;
    return lanes && *lanes >= 1 && *lanes <= 32 ? std::to_string(*lanes) : std::string();
}

// The PCIe link of an NVMe drive's function: speeds for its adapter row,
// widths for its adapter and disk rows.
struct PcieLink {
    std::string speed, maxSpeed, width, maxWidth;
};

PcieLink pcieLinkOf(const SysRoot &root, const std::string &pciDir)
{
    return {linkSpeedTenths(root.attr(pciDir, "current_link_speed")),
            linkSpeedTenths(root.attr(pciDir, "max_link_speed")),
            linkWidth(root.attr(pciDir, "current_link_width")),
            linkWidth(root.attr(pciDir, "max_link_width"))};
}

void setIfKnown(LiveObject *o, const char *name, const std::string &value)
{
    if (!value.empty())
        set(&o->attributes, name, value);
}

} // namespace

// The namespace number in the name nvmeXnY or nvmeXcZnY, or 0; the name of
// the block device the kernel serves it as, nvmeXnY, in *blockName.
uint32_t namespaceOf(const std::string &name, std::string *blockName)
{
    unsigned ctrl = 0, path = 0, ns = 0;
    char end = 0;
    if (std::sscanf(name.c_str(), "nvme%un%u%c", &ctrl, &ns, &end) == 2) {
        *blockName = name;
        return ns;
    }
    unsigned subsys = 0;
    if (std::sscanf(name.c_str(), "nvme%uc%un%u%c", &subsys, &path, &ns, &end) == 3) {
        *blockName = "nvme" + std::to_string(subsys) + "n" + std::to_string(ns);
        return ns;
    }
    return 0;
}

namespace {

// The NSID of the namespace of block device `blockDir` (the kernel's name
// counts the namespaces of a subsystem, its NSID is the drive's), or the
// number in its name.
uint32_t namespaceIdOf(ScanState &s, const std::string &blockDir, uint32_t fromName)
{
    auto nsid = parseNumber(s.root.attr(blockDir, "nsid").value_or(""));
    return nsid && *nsid > 0 && *nsid < 0xffffffffu ? static_cast<uint32_t>(*nsid) : fromName;
}

} // namespace

void scanNvme(ScanState &s)
{
    for (const std::string &name : s.root.list("/sys/class/nvme")) {
        auto dir = s.root.resolve("/sys/class/nvme/" + name);
        ScanState::Controller *c = dir ? s.controllerOf(*dir) : nullptr;
        if (c == nullptr) {
            s.note("NVMe controller " + name + ": no controller to hang from");
            continue;
        }
        const bool onPci = !c->bdf.empty();
        const std::string model = textOr(s.root, *dir, "model");
        const std::string serial = textOr(s.root, *dir, "serial");
        const std::string firmware = textOr(s.root, *dir, "firmware_rev");
        // NVMe names no vendor; its model number begins with one.
        const std::string vendor = model.substr(0, model.find(' '));
        uint64_t state = kStateReady;
        int status = kStatusUnknown;
        const std::string ctrlState = textOr(s.root, *dir, "state");
        for (const StateRow &row : kNvmeStates) {
            if (ctrlState == row.text) {
                state = row.state;
                status = row.status;
            }
        }
        {
            LiveObject &ctrl = s.scan.objects[c->object];
            // A controller on a fabric is named by its device and transport
            // (addFabricController), one on PCI by its address.
            c->name = model + " " + (onPci ? c->bdf : c->name);
            set(&ctrl.attributes, "Name", c->name);
            set(&ctrl.attributes, "FirmwareVer", firmware);
            set(&ctrl.attributes, "ObjState", std::to_string(state));
            set(&ctrl.attributes, "ObjStatus", std::to_string(status));
        }
        const size_t channel = s.channelOf(*c, 0, 0, "9");
        const LiveObject &ctrl = s.scan.objects[c->object]; // after channelOf: it may move

        LiveObject adapter;
        adapter.type = "NVMeAdapter";
        adapter.nexus = std::to_string(c->number);
        addStatus(&adapter, state, status);
        for (const char *copied : {"VendorID", "DeviceID", "CurrentDriverVersion"}) {
            if (std::string value = attrOf(ctrl, copied); !value.empty())
                set(&adapter.attributes, copied, std::move(value));
        }
        set(&adapter.attributes, "Vendor", vendor);
        if (std::string value = attrOf(ctrl, "SubVendorID"); !value.empty())
            set(&adapter.attributes, "SubVendor", std::move(value));
        set(&adapter.attributes, "ControllerNum", std::to_string(c->number));
        set(&adapter.attributes, "Channel", "0");
        set(&adapter.attributes, "ModelNumber", model);
        set(&adapter.attributes, "ProductID", model);
        set(&adapter.attributes, "DeviceSerialNumber", serial);
        set(&adapter.attributes, "Revision", firmware);
        if (onPci) {
            unsigned bus = 0, device = 0, function = 0;
            std::sscanf(c->bdf.c_str(), "%*x:%x:%x.%x", &bus, &device, &function);
            set(&adapter.attributes, "PCIBusNo", std::to_string(bus));
            set(&adapter.attributes, "PCIDeviceNum", std::to_string(device));
            set(&adapter.attributes, "PCIFunctionNum", std::to_string(function));
        }
        set(&adapter.attributes, "BusProtocol", "9");
        set(&adapter.attributes, "MediaType", "2");
        set(&adapter.attributes, "DeviceName", "/dev/" + name);
        const PcieLink link = onPci ? pcieLinkOf(s.root, c->pciDir) : PcieLink{};
        setIfKnown(&adapter, "NegotiatedSpeed", link.speed);
        setIfKnown(&adapter, "CapableSpeed", link.maxSpeed);
        setIfKnown(&adapter, "NegotiatedLinkWidth", link.width);
        setIfKnown(&adapter, "MaxLinkWidth", link.maxWidth);

        ScanState::HealthQuery health{HealthKind::kNvme, "/dev/" + cleanValue(name), {}, {}};
        std::set<std::string> blocksHere;
        for (const std::string &entry : s.root.listIn(*dir)) {
            std::string blockName;
            uint32_t ns = namespaceOf(entry, &blockName);
            if (ns == 0)
                continue;
            auto blockDir = s.root.resolve("/sys/block/" + blockName);
            if (!blockDir) {
                s.note("NVMe namespace " + entry + ": no block device " + blockName);
                continue;
            }
            // A second path to the same namespace is the same disk. Through
            // another controller of its subsystem, that controller's state
            // is one path's (the same one listed twice adds nothing).
            const bool firstHere = blocksHere.insert(blockName).second;
            if (auto seen = s.diskByBlock.find(blockName); seen != s.diskByBlock.end()) {
                if (firstHere)
                    addPathState(&s.scan.objects[seen->second], state, status);
                continue;
            }
            ns = namespaceIdOf(s, *blockDir, ns);
            LiveObject disk;
            disk.type = "arraydisks";
            disk.nexus = s.scan.objects[channel].nexus + "\\" + std::to_string(ns);
            disk.parent = channel;
            if (s.taken(disk.type, disk.nexus))
                continue;
            addStatus(&disk, state, status);
            set(&disk.attributes, "AttributesMask", kNoBits);
            set(&disk.attributes, "Vendor", vendor);
            set(&disk.attributes, "ProductID", model);
            set(&disk.attributes, "ModelNumber", model);
            set(&disk.attributes, "DeviceSerialNumber", serial);
            set(&disk.attributes, "Revision", firmware);
            set(&disk.attributes, "BusProtocol", "9");
            set(&disk.attributes, "Channel", "0");
            set(&disk.attributes, "TargetID", std::to_string(ns));
            fillBlock(s, *blockDir, &disk);
            set(&disk.attributes, "MediaType", "2");
            setIfKnown(&disk, "NegotiatedLinkWidth", link.width);
            setIfKnown(&disk, "MaxLinkWidth", link.maxWidth);
            if (attrOf(adapter, "Length").empty())
                set(&adapter.attributes, "Length", attrOf(disk, "Length"));
            size_t index = s.add(std::move(disk));
            s.diskByBlock.emplace(blockName, index);
            s.diskByDevice.emplace(*dir, index);
            health.disks.push_back(index);
        }
        health.adapter = s.add(std::move(adapter));
        s.healthQueries.push_back(std::move(health));
    }
}

namespace {

// What the last scan of each live root read of each drive (by its device
// node and serial number), and when: used again while younger than the
// scan's health interval, and for the scans that cannot read a drive (an
// ATA disk in standby, or a read that failed once), where otherwise such a
// scan would clear a predicted failure and the next would raise it again.
struct KnownHealth {
    DriveHealth health;
    std::chrono::steady_clock::time_point read;
};
using HealthByDrive = std::map<std::string, KnownHealth>;
std::map<std::string, HealthByDrive> &lastHealth()
{
    static std::map<std::string, HealthByDrive> last;
    return last;
}
std::mutex &lastHealthLock()
{
    static std::mutex lock;
    return lock;
}

void applyHealth(ScanState &s, const ScanState::HealthQuery &q, const DriveHealth &h)
{
    for (size_t index : q.disks) {
        LiveObject &disk = s.scan.objects[index];
        if (h.lifeRemaining) {
            set(&disk.attributes, "DeviceLifeTimeRemaining", std::to_string(*h.lifeRemaining));
            set(&disk.attributes, "RemainingRatedWriteEndurance", std::to_string(*h.lifeRemaining));
        }
        // The read-only column answers "Yes" from 100 up.
        if (h.readOnly)
            set(&disk.attributes, "PCIeSSDDeviceWriteStatus", *h.readOnly ? "100" : "0");
        if (!h.failurePredicted)
            continue;
        set(&disk.attributes, "AttributesMask", maskWithBit(kPredictedFailureBit));
        if (attrOf(disk, "ObjStatus") == std::to_string(kStatusOk)) {
            set(&disk.attributes, "ObjStatus", std::to_string(kStatusNonCritical));
            set(&disk.attributes, "TreeStatus", std::to_string(kStatusNonCritical));
        }
        s.note("disk " + disk.nexus + " (" + q.node + ") predicts its failure: " + h.why);
    }
    if (q.adapter && h.lifeRemaining)
        set(&s.scan.objects[*q.adapter].attributes, "RemainingRatedWriteEndurance",
            std::to_string(*h.lifeRemaining));
    // The drive's own temperature stands for a probe hwmon did not give (a
    // SAS disk, an ATA disk without drivetemp, an NVMe drive on a fabric or
    // without the kernel's hwmon): one for the disk, or for an NVMe
    // controller's first namespace, as hwmon's would be.
    if (h.temperatureC && !q.disks.empty())
        addDiskProbe(
            s, q.disks.front(),
            DiskTemperatures{
                h.temperatureC, h.highWarningC, h.highCriticalC, {}, {}, h.temperatureAlarm});
}

} // namespace

void scanHealth(ScanState &s)
{
    HealthByDrive before, now;
    {
        std::lock_guard<std::mutex> hold(lastHealthLock());
        before = std::move(lastHealth()[s.root.root()]);
    }
    const auto start = std::chrono::steady_clock::now();
    const auto maxAge = std::chrono::duration<double>(s.options.healthMaxAgeSeconds);
    size_t unread = 0;
    std::string firstError;
    for (const ScanState::HealthQuery &q : s.healthQueries) {
        const std::string key =
            q.node + " " +
            (q.disks.empty() ? "" : attrOf(s.scan.objects[q.disks.front()], "DeviceSerialNumber"));
        auto last = before.find(key);
        KnownHealth known;
        if (last != before.end() && start - last->second.read < maxAge) {
            known = last->second;
        } else {
            std::string error;
            const HealthRead r = s.root.isSystemRoot()
                                     ? readHealthDevice(q.kind, q.node, &known.health, &error)
                                     : readHealthFiles(q.kind, s.root.hostPath(q.node + ".health"),
                                                       &known.health, &error);
            known.read = std::chrono::steady_clock::now();
            if (r == HealthRead::kUnsupported)
                continue;
            if (r == HealthRead::kFailed && unread++ == 0)
                firstError = error;
            if (r != HealthRead::kRead) {
                if (last == before.end())
                    continue;
                // Asked again at the next scan: only the answer is kept.
                known.health = last->second.health;
                known.read = last->second.read;
            }
        }
        applyHealth(s, q, known.health);
        now.emplace(key, std::move(known));
    }
    {
        std::lock_guard<std::mutex> hold(lastHealthLock());
        lastHealth()[s.root.root()] = std::move(now);
    }
    if (unread > 0)
        s.note("the health of " + std::to_string(unread) + " drive" + (unread == 1 ? "" : "s") +
               " was not read (" + firstError + ")");
}

} // namespace kelp::live
