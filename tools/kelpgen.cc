// kelpgen: writes a large, valid storage model for benchmarks, with N array disks and
// controllers, channels, enclosures, components, virtual disks and partitions in proportion.
// Every object carries the attribute set of its kind in data/models/sample.xml, so that a
// generated model runs the same code paths. Ids are consecutive in file order; the output
// depends on N alone.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// Proportions of the generated server. A controller holds up to kMaxDisksPerController disks
// (--disks-per-controller lowers it, to spread the same disks over more controllers).
constexpr uint32_t kMaxDisksPerController = 512;
constexpr uint32_t kChannelsPerController = 2;
constexpr uint32_t kSlotsPerEnclosure = 24;
constexpr uint32_t kDisksPerVirtualDisk = 8;
constexpr uint32_t kComponentsPerKind = 2; // fans, power supplies, probes and EMMs
// Every kDirectEvery-th disk is attached to its channel without an enclosure, as target
// kFirstDirectTarget + its place among the controller's enclosures' slots (the tape is 99).
constexpr uint32_t kDirectEvery = 16;
constexpr uint32_t kFirstDirectTarget = 100;
// Beyond this the file outgrows what the data store loads (256 MiB).
constexpr uint32_t kMaxDisks = 100000;
// Virtual disks never straddle controllers, and the tape's target (99) is not an enclosure's.
static_assert(kMaxDisksPerController % kDisksPerVirtualDisk == 0);
static_assert(kMaxDisksPerController / kSlotsPerEnclosure / kChannelsPerController < 99);

constexpr uint64_t kDiskBytes = 1200243695616; // every disk a 1.2 TB SAS hard disk
constexpr uint64_t kDiskUsable = kDiskBytes >> 20 << 20;
constexpr uint64_t kNvmeBytes = 3200631791616;
constexpr uint64_t kCacheLunBytes = 1600321314816;

// Layout codes of the data store.
constexpr uint32_t kRaid0 = 2, kRaid1 = 4, kRaid5 = 64, kRaid6 = 128, kRaid10 = 512;

using Attrs = std::vector<std::pair<std::string_view, std::string>>;

std::string num(uint64_t n)
{
    return std::to_string(n);
}

// A mask of 40 '0'/'1' characters with '1' at the given positions.
std::string mask(std::initializer_list<int> ones)
{
    std::string m(40, '0');
    for (int p : ones)
        m[static_cast<size_t>(p)] = '1';
    return m;
}

// Numbers joined with backslashes, as the data store writes a nexus.
std::string nexus(std::initializer_list<uint64_t> parts)
{
    std::string s;
    for (uint64_t p : parts) {
        if (!s.empty())
            s += '\\';
        s += num(p);
    }
    return s;
}

std::string printed(const char *format, uint32_t n)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, format, n);
    return buf;
}

// Block device name of the n-th disk the OS sees: sda..sdz, sdaa, ...
std::string blockDevice(uint32_t n)
{
    std::string letters;
    for (uint64_t i = uint64_t{n} + 1; i > 0; i = (i - 1) / 26)
        letters.insert(letters.begin(), static_cast<char>('a' + (i - 1) % 26));
    return "/dev/sd" + letters;
}

// Writes objects with consecutive ids from 1, in the order they are written.
class ModelWriter {
  public:
    explicit ModelWriter(FILE *out) : out_(out) {}

    // Writes one object under `parent` (0: none) and answers its id.
    uint32_t object(std::string_view type, uint32_t parent, const Attrs &attrs)
    {
        uint32_t id = nextId_++;
        text_ = "  <object id=\"" + num(id) + "\" type=\"" + std::string(type) + '"';
        if (parent != 0)
            text_ += " parent=\"" + num(parent) + '"';
        text_ += ">\n";
        for (const auto &[name, value] : attrs) {
            text_ += "    <" + std::string(name) + '>';
            appendEscaped(value);
            text_ += "</" + std::string(name) + ">\n";
        }
        text_ += "  </object>\n";
        put(text_);
        return id;
    }

    void link(uint32_t a, uint32_t b)
    {
        put("  <link a=\"" + num(a) + "\" b=\"" + num(b) + "\"/>\n");
    }

    void put(std::string_view s) { std::fwrite(s.data(), 1, s.size(), out_); }

  private:
    void appendEscaped(std::string_view v)
    {
        for (char c : v) {
            if (c == '&')
                text_ += "&amp;";
            else if (c == '<')
                text_ += "&lt;";
            else if (c == '>')
                text_ += "&gt;";
            else
                text_ += c;
        }
    }

    FILE *out_;
    uint32_t nextId_ = 1;
    std::string text_;
};

// "Nexus", "Name" when given, "ObjState", "ObjStatus" and, where read, "TreeStatus".
Attrs head(std::string nexusText, std::string state, bool tree = true, std::string name = {})
{
    Attrs a = {{"Nexus", std::move(nexusText)}};
    if (!name.empty())
        a.emplace_back("Name", std::move(name));
    a.insert(a.end(), {{"ObjState", std::move(state)}, {"ObjStatus", "2"}});
    if (tree)
        a.emplace_back("TreeStatus", "2");
    return a;
}

Attrs operator+(Attrs a, const Attrs &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The attribute sets below follow sample.xml kind by kind, in the same order. They are kept
// as packed rows of name/value pairs, hence the formatter is off.
// clang-format off

Attrs controller(uint32_t c)
{
    return head(nexus({c}), "1", true, "Vorn RX-240") + Attrs{
        {"BusProtocol", "8"}, {"PCISlot", num(c + 1)}, {"TargetID", "7"},
        {"Channels", num(kChannelsPerController)}, {"FirmwareVer", "4.8.2-0117"},
        {"RequiredFirmwareVersion", "4.8.0-0093"}, {"CurrentDriverVersion", "3.14.2.0"},
        {"RequiredDriverVersion", "3.12.0.0"}, {"CurrentStorPortDriverVersion", "Not Applicable"},
        {"RequiredStorPortDriverVersion", "Not Applicable"}, {"CacheSize", "8192"},
        {"BuffMemADAP", "8589934592"}, {"RebuildRate", "30"}, {"ReconstructRate", "30"},
        {"PatrolReadRate", "30"}, {"BGIRate", "30"}, {"CheckConsistencyRate", "30"},
        {"PatrolReadMode", mask({30, 31})}, {"PatrolReadState", "1"},
        {"PatrolReadIterations", "12"},
        {"AttributesMask", mask({1, 5, 7, 8})}, {"CurrentMethodMask", mask({22, 28})},
        {"ChangeControllerPropertyMask", mask({0, 1})},
        {"DimmerPropertyMask", mask({0, 21, 22, 24, 26})}, {"ClusterMode", mask({})},
        {"SpinDownTime", "30"}, {"DisableLDPSTime", "22:00"}, {"DisableLDPSInterval", "6"},
        {"SecurityMode", "1"}, {"CtrlPICapable", "1"}, {"PersonalityState", "1"},
        {"CtrlStashSlot", "1"}, {"CtrlStashInst", "0"}};
}

Attrs channel(uint32_t c, uint32_t h)
{
    return head(nexus({c, h}), "1") +
           Attrs{{"BusProtocol", "8"}, {"Termination", "0"}, {"SCSIRate", "12Gbps"}};
}

Attrs battery(uint32_t c)
{
    return head(nexus({c, 64, 0}), "1") + Attrs{
        {"BatteryID", "0"}, {"LSIRechargeCount", "47"}, {"MaxRechargeCount", "1100"},
        {"BatteryCapacityState", "1"}, {"BatteryLearnState", "0"}, {"LearnMode", "0"},
        {"NextLearnCycleTime", "1320"}, {"MaxLearnDelay", "168"}};
}

// Enclosure e (counted over the whole model) is number k on channel h of controller c.
Attrs enclosure(uint32_t e, uint32_t c, uint32_t h, uint32_t k)
{
    return head(nexus({c, h, k}), "1") + Attrs{
        {"EnclosureType", "7"}, {"ProductID", "JX3210"}, {"BusProtocol", "8"}, {"Channel", num(h)},
        {"ServiceTag", printed("E%06X", e)}, {"AssetTag", "Not Available"},
        {"AssetName", "Not Available"}, {"SplitBusPartNum", "Not Applicable"},
        {"BackPlanePartNum", "Not Applicable"}, {"EnclosurePartNum", "VN-JX3210"},
        {"EnclosureSerialNum", printed("JXE%07u", e)}, {"EnclosureConfig", "0"},
        {"EnclosureAlarm", "0"}, {"FirmwareVer", "1.07"}, {"SCSIRate", "12Gbps"},
        {"SASAddress", printed("500F1E71%08X", e)}, {"CurrentMethodMask", mask({22})},
        {"MaxNumOfPDSlots", num(kSlotsPerEnclosure)}};
}

// Component i of an enclosure: kind 1 fan, 2 power supply, 3 temperature probe, 4 EMM.
Attrs component(const std::string &enclosureNexus, uint32_t kind, uint32_t i)
{
    Attrs a = head(enclosureNexus + '\\' + num(kind) + '\\' + num(i), "1");
    if (kind == 1)
        return a + Attrs{{"PartNo", "VN-FN120"}, {"Revision", "A01"}, {"IsEnclosureJX33XX", "0"},
                         {"FanSpeed", num(3 + i % 2)}};
    if (kind == 2)
        return a + Attrs{{"PartNo", "VN-PS600"}, {"Revision", "A03"}, {"ProductVersion", "1.08"}};
    if (kind == 3)
        return a + Attrs{{"CurrentTemp", num(29 + i)}, {"MinWarning", "5"}, {"MinError", "0"},
                         {"MaxWarning", "55"}, {"MaxError", "60"}};
    return a + Attrs{{"PartNo", "VN-EM12G"}, {"Revision", "A02"}, {"FirmwareVer", "3.06"},
                     {"MaxSCSISpeed", "12Gbps"}};
}

// Disk d (counted over the whole model) in slot s of enclosure k on channel h of controller c.
Attrs disk(uint32_t d, uint32_t c, uint32_t h, uint32_t k, uint32_t s)
{
    return head(nexus({c, h, k, s}), "4") + Attrs{
        {"Vendor", "HALDEN"}, {"ProductID", "HS1200S12"},
        {"ModelNumber", "Halden HS1200 1.2TB SAS"},
        {"PartNo", "VN-2T43K"}, {"DeviceSerialNumber", printed("HAL%07u", d)}, {"Revision", "HV04"},
        {"BusProtocol", "8"}, {"MediaType", "1"}, {"Channel", num(h)}, {"TargetID", num(s)},
        {"SASAddress", printed("500F1E70%08X", d)}, {"Length", num(kDiskBytes)},
        {"UsedSpace", num(kDiskUsable)}, {"FreeSpace", num(kDiskBytes - kDiskUsable)},
        {"ContiguousFree", num(kDiskBytes - kDiskUsable)}, {"AttributesMask", mask({18, 19})},
        {"DeviceName", "Not Applicable"}, {"NegotiatedSpeed", "5"}, {"CapableSpeed", "5"},
        {"MaxLinkWidth", "1"}, {"NegotiatedLinkWidth", "1"}, {"ManufactureDay", num(1 + d % 7)},
        {"ManufactureWeek", num(1 + d * 7 % 52)}, {"ManufactureYear", d % 3 ? "2022" : "2023"},
        {"PDPowerState", "0"}, {"DriveWriteCacheEnabled", "0"}, {"DeviceLifeTimeRemaining", "255"},
        {"NoRatedWriteEndurance", "0"}, {"PdSectorSize", "512"}, {"PdPICapable", "1"},
        {"CurrentDriverVersion", "Not Applicable"}, {"PCIeSSDDeviceStatus", "0"},
        {"PCIeSSDDeviceWriteStatus", "0"}};
}

// Disk d straight on channel h of controller c, with target t.
Attrs directDisk(uint32_t d, uint32_t c, uint32_t h, uint32_t t)
{
    Attrs a = disk(d, c, h, 0, 0);
    for (auto &[name, value] : a) {
        if (name == "Nexus")
            value = nexus({c, h, t});
        else if (name == "TargetID")
            value = num(t);
    }
    return a;
}

// Virtual disk l of controller c over `disks` disks; v counts virtual disks over the model.
Attrs virtualDisk(uint32_t v, uint32_t c, uint32_t l, uint32_t disks)
{
    static constexpr uint32_t kFull[] = {kRaid5, kRaid6, kRaid10, kRaid0};
    static constexpr uint32_t kSmall[] = {0, kRaid0, kRaid1, kRaid5, kRaid6, kRaid6, kRaid6,
                                          kRaid6};
    uint32_t layout = disks == kDisksPerVirtualDisk ? kFull[l % 4] : kSmall[disks];
    uint64_t dataDisks = layout == kRaid0 ? disks : layout == kRaid1 ? 1
                       : layout == kRaid5 ? disks - 1 : layout == kRaid6 ? disks - 2 : disks / 2;
    return head(nexus({c, 128, l}), "4", true, "VD" + num(v)) + Attrs{
        {"DeviceName", blockDevice(v)}, {"LogicalDriveNum", num(l)},
        {"Layout", num(layout)}, {"StripeSize", layout == kRaid0 ? "2048" : "128"},
        {"Length", num(dataDisks * kDiskUsable)}, {"BusProtocol", "8"}, {"ReadPolicy", "2"},
        {"WritePolicy", "2"}, {"CachePolicy", "1"}, {"DiskCachePolicy", "4"},
        {"AttributesMask", mask({30})}, {"VDBadBlocksDetected", "0"}, {"IsSSC", "0"},
        {"PartOfCachePool", "0"}, {"VdPIEnabled", "0"}};
}

Attrs partition(uint32_t v, uint32_t c, uint32_t l)
{
    return head(nexus({c, 129, l, 1}), "1", false) + Attrs{
        {"PartitionPath", blockDevice(v) + "1"}, {"PartitionSize", num(kDiskUsable)},
        {"PartitionState", "Mounted"}};
}

Attrs tape()
{
    return head(nexus({0, 1, 99}), "1", false) + Attrs{
        {"Vendor", "KESWICK"}, {"ProductID", "KLT-9 HH"}, {"BusProtocol", "8"},
        {"SASAddress", "500F1E7200000080"}, {"MediaType", "1"}};
}

Attrs nvmeAdapter(uint32_t number)
{
    return head(nexus({number}), "1", false) + Attrs{
        {"ControllerNum", num(number)}, {"Channel", "0"}, {"DeviceName", "/dev/nvme0n1"},
        {"Vendor", "TESSALY"}, {"SubVendor", "VORN"}, {"ProductID", "TS3200N"},
        {"ModelNumber", "Tessaly TS3200 3.2TB NVMe"}, {"DeviceSerialNumber", "TES0000090"},
        {"Revision", "TN05"}, {"CurrentDriverVersion", "1.0"}, {"DeviceID", "41"},
        {"PCIBusNo", "101"}, {"PCIDeviceNum", "0"}, {"PCIFunctionNum", "0"}, {"BusProtocol", "9"},
        {"MediaType", "2"}, {"Length", num(kNvmeBytes)}, {"NegotiatedSpeed", "80"},
        {"CapableSpeed", "160"}, {"MaxLinkWidth", "4"}, {"NegotiatedLinkWidth", "4"},
        {"FormFactor", "2"}, {"NVMeSpecVerSupported", "1.3"},
        {"RemainingRatedWriteEndurance", "99"}};
}

// The Tidal Cache, its pool and two cache disks linked to the pool.
void writeCache(ModelWriter &w, uint32_t number)
{
    uint32_t cache = w.object("Tidal Cache", 0, head(nexus({number}), "1", false, "Tidal Cache") + Attrs{
        {"CachePoolLicenseState", "Licensed"},
        {"TidalCacheLicenseType", "Subscription"}, {"TidalCacheLicenseVendor", "Vorn"},
        {"TidalCacheLicenseProductID", "TC-100"},
        {"TidalCacheLicenseEntitlementID", "VRN-TC-2024-0A17F3"},
        {"TidalCacheLicenseFeatureID", "TDLC"},
        {"TidalCacheLicenseFeatureIDDesc", "Tidal Cache SSD read and write caching"},
        {"TidalCacheLicenseGeneration", "2"}, {"TidalCacheLicenseDateSold", "2024-03-18"},
        {"TidalCacheLicenseDuration", "3 years"}, {"TidalCacheLicenseCapacity", "4 TB"},
        {"TidalCacheLicenseRemaining", "692"}});
    uint32_t pool = w.object("Tidal Cache Pool", cache,
                             head(nexus({number, 0}), "1", false) + Attrs{
        {"CachePoolUUID", "6f1c2a9e-4b7d-4e21-9a3c-58d0e2b71f04"},
        {"CachePoolLicenseState", "Licensed"}, {"CachePoolSize", num(2 * kCacheLunBytes)},
        {"CacheStoreCount", "2"}, {"CachePoolISHA", "No"}});
    for (uint32_t i = 0; i < 2; i++) {
        uint32_t lun = w.object("CacheLunNode", 0, head(nexus({number, 0, i}), "1", false) + Attrs{
            {"CacheLunName", "CacheLun" + num(i)}, {"BackendObjType", "772"},
            {"CacheLunBackendPath", "/dev/nvme" + num(i + 1) + "n1"},
            {"PartitionSize", num(kCacheLunBytes)}, {"CacheLunOpMode", "1"},
            {"CacheLunMode", "2"}});
        w.link(lun, pool);
    }
}

// clang-format on

struct Enclosure {
    uint32_t id, c, h, k, firstDisk, disks;
};

void writeModel(FILE *out, uint32_t diskCount, uint32_t perController)
{
    ModelWriter w(out);
    uint32_t controllers = diskCount == 0 ? 1 : (diskCount - 1) / perController + 1;
    w.put("<!-- Generated by kelpgen (tools/kelpgen.cc): a benchmark storage model with " +
          num(diskCount) +
          " array disks. -->\n"
          "<storage ready=\"1\" thermalShutdown=\"0\" chassisServiceTag=\"7KQ3LM2\"\n"
          "         baseBoardServiceTag=\"7KQ3LM2\" url=\"https://localhost:1311\">\n");

    std::vector<uint32_t> ctrlIds, chanIds;
    for (uint32_t c = 0; c < controllers; c++)
        ctrlIds.push_back(w.object("adapters", 0, controller(c)));
    for (uint32_t c = 0; c < controllers; c++)
        for (uint32_t h = 0; h < kChannelsPerController; h++)
            chanIds.push_back(w.object("bus", ctrlIds[c], channel(c, h)));
    for (uint32_t c = 0; c < controllers; c++)
        w.object("batteries", ctrlIds[c], battery(c));

    // Each controller's disks fill its enclosures in turn, alternating between its channels.
    std::vector<Enclosure> enclosures;
    for (uint32_t c = 0; c < controllers; c++) {
        uint32_t first = c * perController;
        uint32_t disks = std::min(perController, diskCount - first);
        for (uint32_t j = 0; j * kSlotsPerEnclosure < disks; j++) {
            Enclosure e{0,
                        c,
                        j % kChannelsPerController,
                        j / kChannelsPerController,
                        first + j * kSlotsPerEnclosure,
                        std::min(kSlotsPerEnclosure, disks - j * kSlotsPerEnclosure)};
            auto index = static_cast<uint32_t>(enclosures.size());
            e.id = w.object("enclosures", chanIds[c * kChannelsPerController + e.h],
                            enclosure(index, c, e.h, e.k));
            enclosures.push_back(e);
        }
    }
    static constexpr std::string_view kComponentTypes[] = {"fans", "psupplies", "tempprobes",
                                                           "emms"};
    for (uint32_t kind = 1; kind <= 4; kind++)
        for (const Enclosure &e : enclosures)
            for (uint32_t i = 0; i < kComponentsPerKind; i++)
                w.object(kComponentTypes[kind - 1], e.id,
                         component(nexus({e.c, e.h, e.k}), kind, i));

    w.object("Tape", chanIds[1], tape());
    w.object("NVMeAdapter", 0, nvmeAdapter(controllers));

    // Virtual disks group each controller's disks by eight, in disk order; one partition each.
    struct Group {
        uint32_t c, l, members;
    };
    std::vector<Group> groups;
    for (uint32_t c = 0; c < controllers; c++) {
        uint32_t disks = std::min(perController, diskCount - c * perController);
        for (uint32_t l = 0; l * kDisksPerVirtualDisk < disks; l++)
            groups.push_back(
                {c, l, std::min(kDisksPerVirtualDisk, disks - l * kDisksPerVirtualDisk)});
    }
    std::vector<uint32_t> vdIds, partIds;
    for (uint32_t v = 0; v < groups.size(); v++)
        vdIds.push_back(w.object("vdisks", ctrlIds[groups[v].c],
                                 virtualDisk(v, groups[v].c, groups[v].l, groups[v].members)));
    for (uint32_t v = 0; v < groups.size(); v++)
        partIds.push_back(w.object("VDPartitionNode", 0, partition(v, groups[v].c, groups[v].l)));
    writeCache(w, controllers + 1);

    // One disk in kDirectEvery sits straight on its enclosure's channel instead of in the
    // enclosure, so that the disk-to-channel table has rows too.
    std::vector<uint32_t> diskIds;
    for (const Enclosure &e : enclosures)
        for (uint32_t s = 0; s < e.disks; s++) {
            uint32_t d = e.firstDisk + s;
            diskIds.push_back(
                d % kDirectEvery == kDirectEvery - 1
                    ? w.object("arraydisks", chanIds[e.c * kChannelsPerController + e.h],
                               directDisk(d, e.c, e.h,
                                          kFirstDirectTarget + e.k * kSlotsPerEnclosure + s))
                    : w.object("arraydisks", e.id, disk(d, e.c, e.h, e.k, s)));
        }

    // A controller's disks start on a multiple of eight, so groups never straddle controllers.
    for (uint32_t d = 0; d < diskCount; d++)
        w.link(diskIds[d], vdIds[d / kDisksPerVirtualDisk]);
    for (size_t i = 0; i < vdIds.size(); i++)
        w.link(vdIds[i], partIds[i]);
    w.put("</storage>\n");
}

void usage(FILE *to)
{
    std::fprintf(to,
                 "usage: kelpgen --disks N [--disks-per-controller M] [--out FILE]\n"
                 "Writes a valid storage model with N array disks (0 to %u) to FILE or\n"
                 "standard output. Each controller holds M of the disks (a multiple of %u,\n"
                 "up to and by default %u).\n",
                 kMaxDisks, kDisksPerVirtualDisk, kMaxDisksPerController);
}

// The number in `value`, or -1 if it is not a decimal number from `low` to `high`.
long numberArg(const char *value, long low, long high)
{
    char *end = nullptr;
    errno = 0;
    long n = std::strtol(value, &end, 10);
    if (*value == '\0' || *end != '\0' || errno != 0 || n < low || n > high)
        return -1;
    return n;
}

} // namespace

int main(int argc, char **argv)
{
    long disks = -1;
    long perController = kMaxDisksPerController;
    const char *outPath = nullptr;
    for (int i = 1; i < argc; i++) {
        std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if (i + 1 >= argc ||
            (arg != "--disks" && arg != "--disks-per-controller" && arg != "--out")) {
            usage(stderr);
            return 2;
        }
        const char *value = argv[++i];
        if (arg == "--out") {
            outPath = value;
        } else if (arg == "--disks") {
            if ((disks = numberArg(value, 0, kMaxDisks)) < 0) {
                std::fprintf(stderr, "kelpgen: --disks takes a number from 0 to %u\n", kMaxDisks);
                return 2;
            }
        } else {
            perController = numberArg(value, kDisksPerVirtualDisk, kMaxDisksPerController);
            if (perController < 0 || perController % kDisksPerVirtualDisk != 0) {
                std::fprintf(stderr,
                             "kelpgen: --disks-per-controller takes a multiple of %u from %u "
                             "to %u\n",
                             kDisksPerVirtualDisk, kDisksPerVirtualDisk, kMaxDisksPerController);
                return 2;
            }
        }
    }
    if (disks < 0) {
        usage(stderr);
        return 2;
    }

    FILE *out = stdout;
    if (outPath != nullptr && (out = std::fopen(outPath, "w")) == nullptr) {
        std::fprintf(stderr, "kelpgen: cannot write %s: %s\n", outPath, std::strerror(errno));
        return 1;
    }
    writeModel(out, static_cast<uint32_t>(disks), static_cast<uint32_t>(perController));
    bool failed = std::ferror(out) != 0;
    if (out != stdout)
        failed = std::fclose(out) != 0 || failed;
    else
        failed = std::fflush(out) != 0 || failed;
    if (failed) {
        std::fprintf(stderr, "kelpgen: write failed\n");
        return 1;
    }
    return 0;
}
