// Controllers: the PCI functions of class "mass storage" (SAS and SATA HBAs,
// RAID HBAs, NVMe controllers, virtio-blk and virtio-scsi), and any other PCI
// function a SCSI host hangs from. Numbered in PCI address order, so that a
// controller keeps its number while the hardware stays; after them SCSI
// hosts, NVMe controllers, MMC hosts and Xen block devices on no PCI
// function, each a controller of its own.
#include <set>

#include "datastore/live/scan_internal.h"

namespace kelp::live {
namespace {

constexpr uint64_t kMassStorageClass = 0x01;

// What the PCI class says the function is, and the bus protocol code of the
// model format (7 SATA, 8 SAS, 9 PCIe, 0 unknown).
struct ClassInfo {
    const char *kind;
    const char *protocol;
};

// A function of another class that a SCSI host or an SD card hangs from:
// named by its class, of no bus protocol the model format knows.
ClassInfo otherClassInfo(uint64_t baseClass, uint64_t subclass)
{
    switch (baseClass) {
    case 0x02:
        return {"Network controller", "0"}; // iSCSI or FCoE offload
    case 0x08:
        if (subclass == 0x05)
            return {"SD host controller", "0"};
        break;
    case 0x0c:
        switch (subclass) {
        case 0x00:
            return {"FireWire controller", "0"};
        case 0x03:
            return {"USB controller", "0"};
        case 0x04:
            return {"Fibre Channel controller", "0"};
        case 0x06:
            return {"InfiniBand controller", "0"};
        default:
            break;
        }
        break;
    default:
        break;
    }
    return {"Storage controller", "0"};
}

ClassInfo classInfo(uint64_t pciClass, const std::string &driver)
{
    if (driver == "virtio-pci")
        return {"Virtio storage controller", "0"};
    const uint64_t baseClass = (pciClass >> 16) & 0xff;
    if (baseClass != kMassStorageClass)
        return otherClassInfo(baseClass, (pciClass >> 8) & 0xff);
    switch ((pciClass >> 8) & 0xff) {
    case 0x00:
        return {"SCSI controller", "0"};
    case 0x01:
        return {"IDE controller", "0"};
    case 0x04:
        return {"RAID controller", "8"};
    case 0x05:
        return {"ATA controller", "7"};
    case 0x06:
        return {"SATA controller", "7"};
    case 0x07:
        return {"SAS controller", "8"};
    case 0x08:
        return {"NVMe controller", "9"};
    default:
        return {"Storage controller", "0"};
    }
}

std::string driverOf(const SysRoot &root, const std::string &dir)
{
    auto target = root.follow(dir, "driver");
    return target ? std::string(baseName(*target)) : std::string();
}

// Whether an MMC host (its directory) serves storage: a slot with no card,
// or a card that is not SDIO alone (an SDIO card is a device on the bus,
// such as a Wi-Fi chip).
bool storageMmcHost(const SysRoot &root, const std::string &hostDir)
{
    bool cards = false;
    for (const std::string &entry : root.listIn(hostDir)) {
        if (!entry.starts_with("mmc") || entry.find(':') == std::string::npos)
            continue;
        cards = true;
        if (cleanValue(root.attr(hostDir + "/" + entry, "type").value_or("")) != "SDIO")
            return true;
    }
    return !cards;
}

// The PCI functions scanMachine serves as controllers: storage by class, and
// the parents of SCSI hosts, NVMe controllers and storage MMC hosts whatever
// their class.
std::set<std::string> controllerFunctions(ScanState &s)
{
    std::set<std::string> dirs;
    for (const std::string &name : s.root.list("/sys/bus/pci/devices")) {
        auto dir = s.root.resolve("/sys/bus/pci/devices/" + name);
        if (!dir) {
            s.note("PCI function " + name + ": link does not resolve");
            continue;
        }
        auto cls = s.root.attr(*dir, "class");
        auto value = cls ? parseNumber(*cls) : std::nullopt;
        if (value && (*value >> 16) == kMassStorageClass)
            dirs.insert(*dir);
    }
    for (const char *cls : {"/sys/class/scsi_host", "/sys/class/nvme", "/sys/class/mmc_host"}) {
        const std::string base = cls;
        for (const std::string &name : s.root.list(base)) {
            auto dir = s.root.resolve(base + "/" + name);
            if (!dir || (base == "/sys/class/mmc_host" && !storageMmcHost(s.root, *dir)))
                continue;
            std::string_view path = *dir;
            while (path.size() > 1 && !isPciAddress(baseName(path)))
                path = dirName(path);
            if (path.size() > 1)
                dirs.insert(std::string(path));
        }
    }
    return dirs;
}

void addController(ScanState &s, const std::string &dir)
{
    const SysRoot &root = s.root;
    ScanState::Controller c;
    c.pciDir = dir;
    c.bdf = std::string(baseName(dir));
    c.number = static_cast<uint32_t>(s.controllers.size());
    const std::string driver = driverOf(root, dir);
    auto cls = root.attr(dir, "class");
    const ClassInfo info = classInfo(cls ? parseNumber(*cls).value_or(0) : 0, driver);

    LiveObject o;
    o.type = "adapters";
    o.nexus = std::to_string(c.number);
    auto hex = [&](const char *name) {
        auto text = root.attr(dir, name);
        auto n = text ? parseNumber(*text) : std::nullopt;
        return n ? std::to_string(*n) : std::string("Not Available");
    };
    unsigned bus = 0, device = 0, function = 0;
    std::sscanf(c.bdf.c_str(), "%*x:%x:%x.%x", &bus, &device, &function);
    c.name = std::string(info.kind) + " " + c.bdf + (driver.empty() ? "" : " (" + driver + ")");
    set(&o.attributes, "Name", c.name);
    set(&o.attributes, "ObjState", std::to_string(driver.empty() ? kStateOffline : kStateReady));
    set(&o.attributes, "ObjStatus",
        std::to_string(driver.empty() ? kStatusNonCritical : kStatusOk));
    set(&o.attributes, "TreeStatus", std::to_string(kStatusOk));
    set(&o.attributes, "BusProtocol", info.protocol);
    set(&o.attributes, "PCISlot", std::to_string(device));
    set(&o.attributes, "PCIBusNo", std::to_string(bus));
    set(&o.attributes, "PCIDeviceNum", std::to_string(device));
    set(&o.attributes, "PCIFunctionNum", std::to_string(function));
    set(&o.attributes, "Channels", "0");
    set(&o.attributes, "AttributesMask", kNoBits);
    set(&o.attributes, "CurrentMethodMask", kNoBits);
    set(&o.attributes, "FirmwareVer", "Not Available");
    set(&o.attributes, "CurrentDriverVersion", driverVersion(root, driver));
    set(&o.attributes, "DriverName", driver.empty() ? "none" : driver);
    set(&o.attributes, "VendorID", hex("vendor"));
    set(&o.attributes, "DeviceID", hex("device"));
    set(&o.attributes, "SubVendorID", hex("subsystem_vendor"));
    set(&o.attributes, "SubDeviceID", hex("subsystem_device"));
    set(&o.attributes, "PCIAddress", c.bdf);
    if (auto speed = root.attr(dir, "current_link_speed"))
        set(&o.attributes, "LinkSpeed", cleanValue(*speed));
    if (auto width = root.attr(dir, "current_link_width"))
        set(&o.attributes, "LinkWidth", cleanValue(*width));
    if (driver.empty())
        s.note("controller " + c.bdf + ": no driver bound");
    c.object = s.add(std::move(o));
    s.controllerByPci.emplace(c.bdf, s.controllers.size());
    s.controllers.push_back(std::move(c));
}

// A SCSI host that hangs from no PCI function (iSCSI, Hyper-V's VMBus,
// scsi_debug): a controller of its own, named by its driver.
void addHostController(ScanState &s, const std::string &hostDir, const std::string &name)
{
    ScanState::Controller c;
    c.hostDir = hostDir;
    c.number = static_cast<uint32_t>(s.controllers.size());
    const std::string driver =
        cleanValue(s.root.readText(hostDir + "/scsi_host/" + name + "/proc_name").value_or(""));
    c.name = (driver.empty() ? std::string("SCSI") : driver) + " " + name;
    addPlainController(s, std::move(c), driver, "Not Available", driverVersion(s.root, driver));
}

// An NVMe controller that hangs from no PCI function (NVMe over TCP, RDMA,
// Fibre Channel, or the loop target): a controller of its own, driven by
// its transport's module. scanNvme names it and adds its adapter and
// namespaces.
void addFabricController(ScanState &s, const std::string &dir, const std::string &name)
{
    ScanState::Controller c;
    c.hostDir = dir;
    c.number = static_cast<uint32_t>(s.controllers.size());
    const std::string transport = cleanValue(s.root.attr(dir, "transport").value_or(""));
    const std::string driver = transport.empty() ? std::string() : "nvme-" + transport;
    c.name = name + (driver.empty() ? std::string() : " (" + driver + ")");
    const size_t object =
        addPlainController(s, std::move(c), driver, "Not Available", driverVersion(s.root, driver));
    set(&s.scan.objects[object].attributes, "BusProtocol", "9");
}

// An MMC host on no PCI function (an SoC's SD or eMMC controller): a
// controller of its own, named by the driver of the device it belongs to.
void addMmcHostController(ScanState &s, const std::string &hostDir, const std::string &name)
{
    ScanState::Controller c;
    c.hostDir = hostDir;
    c.number = static_cast<uint32_t>(s.controllers.size());
    const std::string driver = driverOf(s.root, std::string(dirName(dirName(hostDir))));
    c.name = (driver.empty() ? std::string("MMC") : driver) + " " + name;
    addPlainController(s, std::move(c), driver, "Not Available", driverVersion(s.root, driver));
}

// A Xen guest's block device: its frontend device (vbd-N, on no PCI
// function) is a controller of its own, as a virtio-blk function is.
void addXenController(ScanState &s, const std::string &deviceDir)
{
    ScanState::Controller c;
    c.hostDir = deviceDir;
    c.number = static_cast<uint32_t>(s.controllers.size());
    c.name = "Xen virtual block device " + std::string(baseName(deviceDir));
    addPlainController(s, std::move(c), driverOf(s.root, deviceDir), "Not Available",
                       driverVersion(s.root, "xen_blkfront"));
}

} // namespace

void scanControllers(ScanState &s)
{
    // The set is ordered by path; number by PCI address instead.
    std::vector<std::string> dirs;
    for (const std::string &dir : controllerFunctions(s))
        dirs.push_back(dir);
    std::sort(dirs.begin(), dirs.end(), [](const std::string &a, const std::string &b) {
        return pciAddressBefore(baseName(a), baseName(b));
    });
    for (const std::string &dir : dirs) {
        if (s.controllerByPci.count(std::string(baseName(dir))) == 0)
            addController(s, dir);
    }
    for (const std::string &name : s.root.list("/sys/class/scsi_host")) {
        auto classDir = s.root.resolve("/sys/class/scsi_host/" + name);
        if (classDir && pciAddressIn(*classDir).empty())
            addHostController(s, std::string(dirName(dirName(*classDir))), name);
    }
    for (const std::string &name : s.root.list("/sys/class/nvme")) {
        auto dir = s.root.resolve("/sys/class/nvme/" + name);
        if (dir && pciAddressIn(*dir).empty())
            addFabricController(s, *dir, name);
    }
    for (const std::string &name : s.root.list("/sys/class/mmc_host")) {
        auto dir = s.root.resolve("/sys/class/mmc_host/" + name);
        if (dir && pciAddressIn(*dir).empty() && storageMmcHost(s.root, *dir))
            addMmcHostController(s, *dir, name);
    }
    for (const std::string &name : s.root.list("/sys/block")) {
        if (!name.starts_with("xvd"))
            continue;
        auto blockDir = s.root.resolve("/sys/block/" + name);
        auto device = blockDir ? s.root.follow(*blockDir, "device") : std::nullopt;
        if (device && pciAddressIn(*device).empty() && s.controllerByHost.count(*device) == 0)
            addXenController(s, *device);
    }
}

} // namespace kelp::live
