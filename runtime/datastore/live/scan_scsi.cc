// SCSI hosts and devices: a channel per host (and per SCSI channel a host
// has devices on), enclosures (SES devices), disks and tape drives, with
// what their sysfs directories say about them.
#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <optional>
#include <system_error>
#include <vector>

#include "datastore/live/scan_internal.h"

namespace kelp::live {
namespace {

constexpr uint32_t kTypeDisk = 0;
constexpr uint32_t kTypeTape = 1;
constexpr uint32_t kTypeOpticalMemory = 7;
constexpr uint32_t kTypeEnclosure = 13;
constexpr uint32_t kTypeZonedDisk = 0x14;
constexpr uint32_t kTypeReducedBlock =
    0x0e; // RBC: sd takes it, as some USB and FireWire bridges give it

const char *const kSasDrivers[] = {"mpt3sas",        "mpt2sas", "megaraid_sas",
                                   "hisi_sas_v3_hw", "pm80xx",  "smartpqi",
                                   "aacraid",        "isci",    "mvsas"};

// Four decimal numbers joined by ':'. A number over 32 bits (a lun of the
// kernel's 64) is refused rather than cut, which would name another device.
bool parseHctl(std::string_view name, std::array<uint32_t, 4> *hctl)
{
    const char *at = name.data();
    const char *end = name.data() + name.size();
    for (size_t i = 0; i < 4; ++i) {
        if (i > 0) {
            if (at == end || *at != ':')
                return false;
            ++at;
        }
        if (at == end || *at < '0' || *at > '9')
            return false;
        auto [next, error] = std::from_chars(at, end, (*hctl)[i]);
        if (error != std::errc())
            return false;
        at = next;
    }
    return at == end;
}

} // namespace

std::string hctlText(const std::array<uint32_t, 4> &hctl)
{
    return std::to_string(hctl[0]) + ":" + std::to_string(hctl[1]) + ":" + std::to_string(hctl[2]) +
           ":" + std::to_string(hctl[3]);
}

const std::vector<ScsiDevice> &scsiDevices(ScanState &s)
{
    if (s.scsi)
        return *s.scsi;
    std::vector<ScsiDevice> &devices = s.scsi.emplace();
    for (const std::string &name : s.root.list("/sys/class/scsi_device")) {
        ScsiDevice d;
        if (!parseHctl(name, &d.hctl)) {
            s.note("SCSI device " + name + ": not a host:channel:target:lun name");
            continue;
        }
        auto dir = s.root.resolve("/sys/class/scsi_device/" + name + "/device");
        if (!dir) {
            s.note("SCSI device " + name + ": gone or its link does not resolve");
            continue;
        }
        auto type = s.root.attr(*dir, "type");
        auto value = type ? parseNumber(*type) : std::nullopt;
        if (!value) {
            s.note("SCSI device " + name + ": no readable type");
            s.scsiDirsUnread.insert(*dir);
            continue;
        }
        d.dir = *dir;
        d.type = static_cast<uint32_t>(*value);
        devices.push_back(std::move(d));
    }
    std::sort(devices.begin(), devices.end(),
              [](const ScsiDevice &a, const ScsiDevice &b) { return a.hctl < b.hctl; });
    return devices;
}

namespace {

std::string hostProtocol(ScanState &s, const std::string &hostDir, const ScanState::Controller &c)
{
    if (hostDir.find("/ata") != std::string::npos)
        return "7";
    if (auto proc = s.root.readText(hostDir + "/scsi_host/" + std::string(baseName(hostDir)) +
                                    "/proc_name")) {
        for (const char *driver : kSasDrivers) {
            if (*proc == driver)
                return "8";
        }
    }
    // Kernels before libata's transport class have no ataN in the path;
    // a SATA controller's class says it.
    const std::string pciClass = s.root.attr(c.pciDir, "class").value_or("");
    if (pciClass.starts_with("0x0106"))
        return "7";
    return pciClass.starts_with("0x0107") ? "8" : "0";
}

// The host directory (…/hostN) of a SCSI device directory.
std::string hostDirOf(std::string_view deviceDir, uint32_t host)
{
    const std::string want = "host" + std::to_string(host);
    std::string_view path = deviceDir;
    while (path.size() > 1 && baseName(path) != want)
        path = dirName(path);
    return std::string(path);
}

// SAS ports of a host (port-H:N directories right below it) are the
// channels of a SAS HBA: each is a connector of its own.
// The ports of a host directory, by number; empty for a host without SAS ports.
std::vector<uint32_t> sasPorts(ScanState &s, const std::string &hostDir, uint32_t host)
{
    std::vector<uint32_t> ports;
    const std::string prefix = "port-" + std::to_string(host) + ":";
    for (const std::string &entry : s.root.listIn(hostDir)) {
        unsigned number = 0;
        char end = 0;
        if (entry.rfind(prefix, 0) == 0 &&
            std::sscanf(entry.c_str() + prefix.size(), "%u%c", &number, &end) == 1)
            ports.push_back(number);
    }
    std::sort(ports.begin(), ports.end());
    return ports;
}

// The SAS port a device sits behind (the port-H:N right below its host), or
// nullopt for a device of a host without SAS ports.
std::optional<uint32_t> sasPortOf(const std::string &deviceDir, const std::string &hostDir,
                                  uint32_t host)
{
    if (deviceDir.size() <= hostDir.size() + 1 || deviceDir.rfind(hostDir + "/", 0) != 0)
        return std::nullopt;
    const std::string prefix = "port-" + std::to_string(host) + ":";
    const std::string rest = deviceDir.substr(hostDir.size() + 1);
    unsigned number = 0;
    char next = 0;
    if (rest.rfind(prefix, 0) != 0 ||
        std::sscanf(rest.c_str() + prefix.size(), "%u%c", &number, &next) != 2 || next != '/')
        return std::nullopt;
    return number;
}

void readHosts(ScanState &s)
{
    for (const std::string &name : s.root.list("/sys/class/scsi_host")) {
        auto classDir = s.root.resolve("/sys/class/scsi_host/" + name);
        if (!classDir)
            continue;
        ScanState::Controller *c = s.controllerOf(*classDir);
        uint32_t host = 0;
        if (c == nullptr || std::sscanf(name.c_str(), "host%u", &host) != 1)
            continue;
        LiveObject &o = s.scan.objects[c->object];
        for (const char *fw : {"version_fw", "fw_version", "firmware_revision"}) {
            if (auto v = s.root.attr(*classDir, fw); v && !cleanValue(*v).empty()) {
                set(&o.attributes, "FirmwareVer", cleanValue(*v));
                break;
            }
        }
        if (auto board = s.root.attr(*classDir, "board_name");
            board && !cleanValue(*board).empty()) {
            c->name = cleanValue(*board) + " " + c->bdf;
            set(&o.attributes, "Name", c->name);
        }
        const std::string hostDir(dirName(dirName(*classDir)));
        const std::string protocol = hostProtocol(s, hostDir, *c);
        const std::vector<uint32_t> ports = sasPorts(s, hostDir, host);
        if (ports.empty())
            s.channelOf(*c, host, 0, protocol);
        for (uint32_t port : ports)
            s.channelOf(*c, host, kSasPortKey + port, "8");
    }
}

// The controller and channel object of a SCSI device, the channel made on
// first use; null (with a note) when its controller is not served.
ScanState::Controller *placeOf(ScanState &s, const ScsiDevice &d, size_t *channel)
{
    ScanState::Controller *c = s.controllerOf(d.dir);
    if (c == nullptr) {
        s.note("SCSI device " + d.dir + ": no controller");
        return nullptr;
    }
    const std::string hostDir = hostDirOf(d.dir, d.hctl[0]);
    if (const auto port = sasPortOf(d.dir, hostDir, d.hctl[0]))
        *channel = s.channelOf(*c, d.hctl[0], kSasPortKey + *port, "8");
    else
        *channel = s.channelOf(*c, d.hctl[0], d.hctl[1], hostProtocol(s, hostDir, *c));
    return c;
}

// The logical id of the enclosure a SES device reports through the
// enclosure class (enclosure/NAME/id, "0x500..."), or "" when it reports
// none or a zero id, which names no enclosure.
std::string enclosureLogicalId(ScanState &s, const std::string &deviceDir)
{
    for (const std::string &name : s.root.listIn(deviceDir + "/enclosure")) {
        auto id = s.root.attr(deviceDir + "/enclosure/" + name, "id");
        auto value = id ? parseNumber(*id) : std::nullopt;
        if (value && *value != 0)
            return std::to_string(*value);
    }
    return std::string();
}

void addEnclosure(ScanState &s, const ScsiDevice &d, ScanState::Controller &c, size_t channel)
{
    // A second SES device of an enclosure already served (its other EMM,
    // reached through another HBA port) is another path to it.
    const std::string id = enclosureLogicalId(s, d.dir);
    if (auto first = s.enclosureById.find(id); first != s.enclosureById.end()) {
        s.enclosureByOtherPath.emplace(d.dir, first->second);
        return;
    }
    LiveObject o;
    o.type = "enclosures";
    const std::string &busNexus = s.scan.objects[channel].nexus;
    const uint32_t number = c.nextEnclosure++;
    o.nexus = busNexus + "\\" + std::to_string(number);
    o.parent = channel;
    auto value = [&](const char *name) { return textOr(s.root, d.dir, name); };
    set(&o.attributes, "EnclosureID", std::to_string(number));
    set(&o.attributes, "ObjState", std::to_string(kStateReady));
    set(&o.attributes, "ObjStatus", std::to_string(kStatusOk));
    set(&o.attributes, "TreeStatus", std::to_string(kStatusOk));
    // Type 7: named by its product id, which is what SES enclosures report.
    set(&o.attributes, "EnclosureType", "7");
    set(&o.attributes, "EnclosureConfig", "0");
    set(&o.attributes, "EnclosureAlarm", "0");
    set(&o.attributes, "ServiceTag", "Not Available");
    set(&o.attributes, "AssetTag", "Not Available");
    set(&o.attributes, "AssetName", "Not Available");
    set(&o.attributes, "CurrentMethodMask", kNoBits);
    set(&o.attributes, "Vendor", value("vendor"));
    set(&o.attributes, "ProductID", value("model"));
    set(&o.attributes, "FirmwareVer", value("rev"));
    set(&o.attributes, "BusProtocol", attrOf(s.scan.objects[channel], "BusProtocol"));
    set(&o.attributes, "Channel", lastNexusPart(busNexus));
    if (auto sas = s.root.attr(d.dir, "sas_address"))
        set(&o.attributes, "SASAddress", cleanValue(*sas));
    auto generic = s.root.listIn(d.dir + "/scsi_generic");
    if (!generic.empty())
        set(&o.attributes, "DeviceName", "/dev/" + cleanValue(generic.front()));
    set(&o.attributes, "SCSIAddress", hctlText(d.hctl));
    size_t index = s.add(std::move(o));
    s.enclosureByDevice.emplace(d.dir, index);
    if (!id.empty())
        s.enclosureById.emplace(id, index);
}

} // namespace

void scanScsi(ScanState &s)
{
    readHosts(s);
    for (const ScsiDevice &d : scsiDevices(s)) {
        if (d.type != kTypeEnclosure)
            continue;
        size_t channel = 0;
        if (ScanState::Controller *c = placeOf(s, d, &channel))
            addEnclosure(s, d, *c, channel);
    }
}

namespace {

// Layout codes of the model format for RAID level texts: the kernel's RAID
// class ("raid5", "raid10"), the Smart Array drivers' ("RAID 5",
// "RAID 1(+0)", "RAID 6", whose "ADG" is RAID 6 too) and aacraid's
// container types ("Mirror", "Stripe", "RAID5", "Volume": concatenated).
struct VolumeLevel {
    const char *level; // after "raid", blanks and case dropped
    const char *layout;
};
constexpr VolumeLevel kVolumeLevels[] = {
    {"0", "2"},        {"1", "4"},     {"1e", "4"},         {"10", "512"},   {"1(+0)", "512"},
    {"1(1+0)", "512"}, {"1+0", "512"}, {"1(+0)adm", "512"}, {"4", "32"},     {"5", "64"},
    {"6", "128"},      {"adg", "128"}, {"mirror", "4"},     {"stripe", "2"}, {"volume", "1"},
};

const char *volumeLayout(const std::string &level)
{
    std::string key;
    for (char c : level) {
        if (c != ' ')
            key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (key.rfind("raid", 0) == 0)
        key.erase(0, 4);
    for (const VolumeLevel &row : kVolumeLevels) {
        if (key == row.level)
            return row.layout;
    }
    return "0";
}

// What says that a SCSI disk is a logical volume of a RAID controller, not
// a disk: the RAID class (/sys/class/raid_devices, Fusion-MPT integrated
// RAID), a `raid_level` other than "N/A" (Smart Array: hpsa, smartpqi), an
// aacraid `level` that names a container type (its disks say "Hidden",
// "JBOD" or nothing), or a MegaRAID logical drive, which that driver puts
// on channel 2 and up.
struct Volume {
    std::string level;   // as the driver gives it, "" when it gives none
    std::string raidDir; // the RAID class directory, "" without one
};

std::optional<Volume> logicalVolume(ScanState &s, const ScsiDevice &d)
{
    if (auto raid = s.root.resolve("/sys/class/raid_devices/" + hctlText(d.hctl))) {
        return Volume{cleanValue(s.root.attr(*raid, "level").value_or("")), *raid};
    }
    if (auto level = s.root.attr(d.dir, "raid_level")) {
        const std::string text = cleanValue(*level);
        if (!text.empty() && text != "N/A")
            return Volume{text, ""};
        return std::nullopt;
    }
    const std::string hostDir = hostDirOf(d.dir, d.hctl[0]);
    const std::string proc = cleanValue(
        s.root.readText(hostDir + "/scsi_host/" + std::string(baseName(hostDir)) + "/proc_name")
            .value_or(""));
    if (proc == "aacraid") {
        const std::string level = cleanValue(s.root.attr(d.dir, "level").value_or(""));
        if (!level.empty() && level != "Hidden" && level != "JBOD")
            return Volume{level, ""};
    }
    if (proc == "megaraid_sas" && d.hctl[1] >= 2)
        return Volume{"", ""};
    return std::nullopt;
}

// A logical volume as a virtual disk of its controller (C\128\L, L its
// target, its lun on target 0, else (target << 8) | lun), with its
// partitions.
void addVolume(ScanState &s, const ScsiDevice &d, const Volume &v)
{
    ScanState::Controller *c = s.controllerOf(d.dir);
    if (c == nullptr) {
        s.note("SCSI volume " + d.dir + ": no controller");
        return;
    }
    uint32_t number = d.hctl[3] == 0   ? d.hctl[2]
                      : d.hctl[2] == 0 ? d.hctl[3]
                                       : (d.hctl[2] << 8) | d.hctl[3];
    LiveObject o;
    o.type = "vdisks";
    const std::string prefix = std::to_string(c->number) + "\\128\\";
    o.nexus = prefix + std::to_string(number);
    o.parent = c->object;
    // Target 0 lun 1 took the number of target 1 lun 0 (or the like).
    auto spare = spareTargetNumber(d.hctl);
    if (s.taken(o.type, o.nexus) && spare && !s.taken(o.type, prefix + std::to_string(*spare))) {
        number = *spare;
        o.nexus = prefix + std::to_string(number);
    }
    if (s.taken(o.type, o.nexus)) {
        s.note("SCSI volume " + d.dir + ": a second volume at " + o.nexus + ", left out");
        return;
    }
    // The SCSI device's state, a working volume online; the RAID class's,
    // where there is one, says more.
    auto [state, status] = scsiState(s, d.dir);
    if (state == kStateReady)
        state = kStateOnline;
    std::optional<unsigned> progress;
    if (!v.raidDir.empty()) {
        const std::string raidState = textOr(s.root, v.raidDir, "state");
        if (raidState == "degraded") {
            state = kStateDegraded;
            status = kStatusNonCritical;
        } else if (raidState == "resyncing") {
            state = kStateRebuilding;
            status = kStatusNonCritical;
            if (auto resync = parseNumber(textOr(s.root, v.raidDir, "resync"));
                resync && *resync <= 100)
                progress = static_cast<unsigned>(*resync);
        } else if (raidState == "offline") {
            state = kStateFailed;
            status = kStatusCritical;
        }
    }
    set(&o.attributes, "Name", "Virtual Disk " + std::to_string(number));
    set(&o.attributes, "ObjState", std::to_string(state));
    set(&o.attributes, "ObjStatus", std::to_string(status));
    set(&o.attributes, "TreeStatus", std::to_string(status));
    set(&o.attributes, "LogicalDriveNum", std::to_string(number));
    set(&o.attributes, "Layout", volumeLayout(v.level));
    set(&o.attributes, "RAIDLevel", v.level.empty() ? "Not Available" : v.level);
    if (progress)
        set(&o.attributes, "RebuildProgress", std::to_string(*progress));
    const std::string hostDir = hostDirOf(d.dir, d.hctl[0]);
    set(&o.attributes, "BusProtocol", hostProtocol(s, hostDir, *c));
    set(&o.attributes, "IsSSC", "0");
    set(&o.attributes, "AttributesMask", kNoBits);
    set(&o.attributes, "Vendor", textOr(s.root, d.dir, "vendor"));
    set(&o.attributes, "ProductID", textOr(s.root, d.dir, "model"));
    set(&o.attributes, "SCSIAddress", hctlText(d.hctl));
    std::string block;
    if (auto blocks = s.root.listIn(d.dir + "/block"); !blocks.empty())
        block = blocks.front();
    if (block.empty()) {
        set(&o.attributes, "DeviceName", "Not Applicable");
        s.add(std::move(o));
        return;
    }
    const std::string blockDir = d.dir + "/block/" + block;
    set(&o.attributes, "DeviceName", "/dev/" + cleanValue(block));
    if (auto size = parseNumber(s.root.attr(blockDir, "size").value_or("")))
        set(&o.attributes, "Length", std::to_string(*size * 512));
    const size_t vdisk = s.add(std::move(o));
    addPartitions(s, *c, number, vdisk, blockDir, block);
}

} // namespace

void scanScsiDisks(ScanState &s)
{
    for (const ScsiDevice &d : scsiDevices(s)) {
        const bool tape = d.type == kTypeTape;
        if (!tape && d.type != kTypeDisk && d.type != kTypeZonedDisk &&
            d.type != kTypeOpticalMemory && d.type != kTypeReducedBlock)
            continue;
        if (d.type == kTypeDisk) {
            if (auto volume = logicalVolume(s, d)) {
                addVolume(s, d, *volume);
                continue;
            }
        }
        size_t channel = 0;
        if (placeOf(s, d, &channel) != nullptr)
            addScsiDisk(s, d.dir, d.hctl, channel, tape);
    }
}

} // namespace kelp::live
