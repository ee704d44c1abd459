// scanMachine and what every reader shares: the objects found so far, the
// controllers (one per PCI storage function, numbered in PCI address order,
// plus one for Linux software RAID when md arrays exist) and their channels.
#include <algorithm>
#include <charconv>
#include <set>

#include "datastore/live/scan_internal.h"

namespace kelp::live {

std::optional<size_t> LiveScan::find(std::string_view type, std::string_view nexus) const
{
    for (size_t i = 0; i < objects.size(); ++i) {
        if (objects[i].type == type && objects[i].nexus == nexus)
            return i;
    }
    return std::nullopt;
}

void set(ds::Attributes *attributes, std::string name, std::string value)
{
    if (value.size() > ds::kMaxAttributeValueBytes)
        value.resize(ds::kMaxAttributeValueBytes);
    for (auto &[key, old] : *attributes) {
        if (key == name) {
            old = std::move(value);
            return;
        }
    }
    attributes->emplace_back(std::move(name), std::move(value));
}

std::string lastNexusPart(const std::string &nexus)
{
    const size_t cut = nexus.rfind('\\');
    return cut == std::string::npos ? nexus : nexus.substr(cut + 1);
}

uint32_t targetNumber(const std::array<uint32_t, 4> &hctl)
{
    return hctl[3] == 0 ? hctl[2] : (hctl[2] << 8) | hctl[3];
}

// Spare numbers have bit 30 set, the lun in bits 16 to 29 and the target
// in bits 0 to 15: (target << 8) | lun reaches them only for a target of
// 2^22 or more, and they stay below 2^31 (a positive Integer32).
std::optional<uint32_t> spareTargetNumber(const std::array<uint32_t, 4> &hctl)
{
    if (hctl[2] >= (uint32_t{1} << 16) || hctl[3] >= (uint32_t{1} << 14))
        return std::nullopt;
    return (uint32_t{1} << 30) | (hctl[3] << 16) | hctl[2];
}

std::string maskWithBit(size_t bit)
{
    std::string mask = kNoBits;
    if (bit < mask.size())
        mask[bit] = '1';
    return mask;
}

std::string attrOf(const LiveObject &o, std::string_view name)
{
    for (const auto &[key, value] : o.attributes) {
        if (key == name)
            return value;
    }
    return std::string();
}

bool isPciAddress(std::string_view name)
{
    // dddd:bb:dd.f, hexadecimal; domains above ffff (those of a VMD or
    // Hyper-V's virtual PCI) have more digits: 10000:e1:00.0.
    const size_t colon = name.find(':');
    if (colon < 4 || colon > 8 || name.size() != colon + 8 || name[colon + 3] != ':' ||
        name[colon + 6] != '.')
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        if (i != colon && i != colon + 3 && i != colon + 6 &&
            !std::isxdigit(static_cast<unsigned char>(name[i])))
            return false;
    }
    return true;
}

bool pciAddressBefore(std::string_view a, std::string_view b)
{
    // A longer domain is a larger one; within a length, the text orders.
    const size_t da = a.find(':'), db = b.find(':');
    return da != db ? da < db : a < b;
}

std::string pciAddressIn(std::string_view path)
{
    while (path.size() > 1) {
        std::string_view base = baseName(path);
        if (isPciAddress(base))
            return std::string(base);
        path = dirName(path);
    }
    return std::string();
}

std::optional<uint64_t> parseNumber(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    uint64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (ec != std::errc() || end == text.data())
        return std::nullopt;
    std::string_view rest(end, static_cast<size_t>(text.data() + text.size() - end));
    if (rest.find_first_not_of(" \t") != std::string_view::npos)
        return std::nullopt;
    return value;
}

std::string cleanValue(std::string_view text)
{
    std::string out;
    for (char c : text)
        out += (c >= 0x20 && c < 0x7f) ? c : '?';
    size_t first = out.find_first_not_of(' ');
    if (first == std::string::npos)
        return std::string();
    out = out.substr(first, out.find_last_not_of(' ') - first + 1);
    if (out.size() > ds::kMaxAttributeValueBytes)
        out.resize(ds::kMaxAttributeValueBytes);
    return out;
}

std::string textOr(const SysRoot &root, const std::string &dir, const char *name)
{
    auto value = root.attr(dir, name);
    std::string v = value ? cleanValue(*value) : std::string();
    return v.empty() ? std::string("Not Available") : v;
}

std::string driverVersion(const SysRoot &root, std::string module)
{
    for (char &c : module) {
        if (c == '-')
            c = '_';
    }
    return module.empty() ? std::string("Not Available")
                          : textOr(root, "/sys/module/" + module, "version");
}

size_t addPlainController(ScanState &s, ScanState::Controller c, const std::string &driver,
                          const std::string &firmware, const std::string &version)
{
    LiveObject o;
    o.type = "adapters";
    o.nexus = std::to_string(c.number);
    set(&o.attributes, "Name", c.name);
    set(&o.attributes, "ObjState", std::to_string(kStateReady));
    set(&o.attributes, "ObjStatus", std::to_string(kStatusOk));
    set(&o.attributes, "TreeStatus", std::to_string(kStatusOk));
    set(&o.attributes, "BusProtocol", "0");
    set(&o.attributes, "Channels", "0");
    set(&o.attributes, "AttributesMask", kNoBits);
    set(&o.attributes, "CurrentMethodMask", kNoBits);
    set(&o.attributes, "FirmwareVer", firmware);
    set(&o.attributes, "CurrentDriverVersion", version);
    set(&o.attributes, "DriverName", driver.empty() ? "none" : driver);
    c.object = s.add(std::move(o));
    if (!c.hostDir.empty())
        s.controllerByHost.emplace(c.hostDir, s.controllers.size());
    s.controllers.push_back(std::move(c));
    return s.controllers.back().object;
}

size_t ScanState::add(LiveObject object)
{
    keys.emplace(object.type, object.nexus);
    scan.objects.push_back(std::move(object));
    return scan.objects.size() - 1;
}

ScanState::Controller *ScanState::controllerOf(std::string_view deviceDir)
{
    const std::string pci = pciAddressIn(deviceDir);
    if (!pci.empty()) {
        auto it = controllerByPci.find(pci);
        return it == controllerByPci.end() ? nullptr : &controllers[it->second];
    }
    // A host on no PCI function: the host directory on the device's path.
    for (std::string_view path = deviceDir; path.size() > 1; path = dirName(path)) {
        auto it = controllerByHost.find(std::string(path));
        if (it != controllerByHost.end())
            return &controllers[it->second];
    }
    return nullptr;
}

size_t ScanState::channelOf(Controller &c, uint32_t host, uint32_t channel,
                            const std::string &protocol)
{
    auto key = std::make_pair(host, channel);
    if (auto it = c.channels.find(key); it != c.channels.end())
        return it->second;
    LiveObject bus;
    bus.type = "bus";
    bus.nexus = std::to_string(c.number) + "\\" + std::to_string(c.nextChannel++);
    bus.parent = c.object;
    set(&bus.attributes, "ObjState", std::to_string(kStateReady));
    set(&bus.attributes, "ObjStatus", std::to_string(kStatusOk));
    set(&bus.attributes, "TreeStatus", std::to_string(kStatusOk));
    set(&bus.attributes, "BusProtocol", protocol);
    set(&bus.attributes, "SCSIHost", std::to_string(host));
    if (channel >= kSasPortKey)
        set(&bus.attributes, "SASPort", std::to_string(channel - kSasPortKey));
    else
        set(&bus.attributes, "SCSIChannel", std::to_string(channel));
    size_t index = add(std::move(bus));
    c.channels.emplace(key, index);
    set(&scan.objects[c.object].attributes, "Channels", std::to_string(c.channels.size()));
    return index;
}

namespace {

// Worst status of every object below an object, its own included.
void rollUpTreeStatus(LiveScan *scan)
{
    std::vector<int> worst(scan->objects.size(), kStatusOk);
    for (size_t i = 0; i < scan->objects.size(); ++i) {
        for (const auto &[name, value] : scan->objects[i].attributes) {
            if (name == "ObjStatus") {
                auto n = parseNumber(value);
                worst[i] = n && *n <= kStatusNonRecoverable ? static_cast<int>(*n) : kStatusOk;
            }
        }
    }
    // Parents come first, so walking backwards sees every child before its parent.
    for (size_t i = scan->objects.size(); i-- > 0;) {
        if (auto p = scan->objects[i].parent)
            worst[*p] = std::max(worst[*p], worst[i]);
    }
    for (size_t i = 0; i < scan->objects.size(); ++i) {
        for (auto &[name, value] : scan->objects[i].attributes) {
            if (name == "TreeStatus")
                value = std::to_string(worst[i]);
        }
    }
}

void scanStorageAttributes(ScanState &s)
{
    auto dmi = [&](const char *name) {
        auto text = s.root.readText(std::string("/sys/class/dmi/id/") + name);
        std::string value = text ? cleanValue(*text) : std::string();
        return value.empty() ? std::string("Not Available") : value;
    };
    set(&s.scan.storage, "ready", "1");
    set(&s.scan.storage, "thermalShutdown", "0");
    set(&s.scan.storage, "chassisServiceTag", dmi("chassis_serial"));
    set(&s.scan.storage, "baseBoardServiceTag", dmi("board_serial"));
}

// A note for each whole disk of /sys/block that no reader served and none
// passed over on purpose, so that a missing row has its reason: devices the
// kernel makes up (loop, zram, md, dm, nbd, under /sys/devices/virtual),
// SCSI devices (the SCSI reader takes or leaves them by their type), the
// areas of a served disk (an eMMC's boot areas) and the devices the kernel
// hides (the paths of a multipath NVMe namespace) are not named.
void noteUnservedDisks(ScanState &s)
{
    std::set<std::string> scsiDirs = s.scsiDirsUnread;
    for (const ScsiDevice &d : scsiDevices(s))
        scsiDirs.insert(d.dir);
    for (const std::string &name : s.root.list("/sys/block")) {
        if (s.diskByBlock.count(name) != 0)
            continue;
        auto blockDir = s.root.resolve("/sys/block/" + name);
        if (!blockDir || blockDir->starts_with("/sys/devices/virtual/"))
            continue;
        std::string head;
        if (parseNumber(s.root.attr(*blockDir, "hidden").value_or("")) == 1u ||
            (namespaceOf(name, &head) != 0 && s.diskByBlock.count(head) != 0))
            continue;
        const std::string_view parent = dirName(*blockDir);
        if (s.diskByBlock.count(std::string(baseName(parent))) != 0 ||
            scsiDirs.count(std::string(dirName(parent))) != 0)
            continue;
        s.note("block device " + cleanValue(name) +
               ": not a kind of disk the live source reads (SCSI, NVMe, virtio, Xen, MMC)");
    }
}

} // namespace

void scanMachine(const SysRoot &root, LiveScan *scan, const ScanOptions &options)
{
    *scan = LiveScan();
    ScanState s(root, *scan, options);
    if (!root.exists("/sys"))
        s.note("no /sys under " + root.root() + ": nothing to serve");
    scanStorageAttributes(s);
    scanControllers(s);
    scanScsi(s);
    scanEnclosureSlots(s);
    scanScsiDisks(s);
    scanVirtio(s);
    scanMmc(s);
    scanXen(s);
    scanNvme(s);
    scanEnclosureComponents(s);
    scanHwmon(s);
    scanMd(s);
    scanHealth(s);
    noteUnservedDisks(s);
    rollUpTreeStatus(scan);
}

} // namespace kelp::live
