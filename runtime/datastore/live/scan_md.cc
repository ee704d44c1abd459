// Linux software RAID: every md array is a virtual disk of one controller of
// its own ("Linux software RAID"), linked to its member disks, with its
// partitions. Array and member states come from md's sysfs directory.
#include <cctype>
#include <cstdio>

#include "datastore/live/scan_internal.h"

namespace kelp::live {
namespace {

// md levels and the model's layout codes.
struct LevelRow {
    const char *level;
    const char *layout;
    // Members that may fail before the array does. ~0u: all but one, as md
    // never fails the last disk of a mirror (of a RAID 1, or of one of a
    // RAID 10's sets, where "degraded" alone cannot tell whether a whole set
    // is gone: md then says "broken").
    unsigned redundancy;
};
constexpr LevelRow kLevels[] = {
    {"raid0", "2", 0},   {"raid1", "4", ~0u},    {"raid4", "32", 1}, {"raid5", "64", 1},
    {"raid6", "128", 2}, {"raid10", "512", ~0u}, {"linear", "1", 0},
};

struct Member {
    size_t disk;
    std::string state; // md's comma list
    bool inSlot;
};

std::optional<size_t> memberDisk(ScanState &s, const std::string &memberDir)
{
    auto block = s.root.follow(memberDir, "block");
    if (!block)
        return std::nullopt;
    // A whole disk (…/block/sdb) or one of its partitions (…/block/sdb/sdb1).
    for (std::string_view path : {std::string_view(*block), dirName(*block)}) {
        auto it = s.diskByBlock.find(std::string(baseName(path)));
        if (it != s.diskByBlock.end())
            return it->second;
    }
    // A device-mapper device whose devices are all paths to one disk (a
    // multipath map): that disk. One over several disks (a volume of LVM)
    // is no member disk.
    std::optional<size_t> disk;
    for (const std::string &slave : s.root.listIn(*block + "/slaves")) {
        auto it = s.diskByBlock.find(slave);
        if (it == s.diskByBlock.end() || (disk && *disk != it->second))
            return std::nullopt;
        disk = it->second;
    }
    return disk;
}

bool has(const std::string &list, std::string_view word)
{
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos)
            end = list.size();
        if (std::string_view(list).substr(start, end - start) == word)
            return true;
        start = end + 1;
    }
    return false;
}

// The percentage done of "DONE / TOTAL", or nullopt.
std::optional<unsigned> progressOf(const std::string &completed)
{
    unsigned long long done = 0, total = 0;
    if (std::sscanf(completed.c_str(), "%llu / %llu", &done, &total) != 2 || total == 0 ||
        done > total)
        return std::nullopt;
    return static_cast<unsigned>(done * 100 / total);
}

// Whether an md device is a container of external metadata (Intel's IMSM,
// SNIA's DDF): "external:imsm". It holds the metadata of its disks and
// stays "inactive" for as long as it exists; the arrays in it are md
// devices of their own ("external:/md127/0") and are served as such.
bool isContainer(std::string_view metadataVersion)
{
    constexpr std::string_view kExternal = "external:";
    if (!metadataVersion.starts_with(kExternal))
        return false;
    const std::string_view rest = metadataVersion.substr(kExternal.size());
    return !rest.starts_with('/') && !rest.starts_with('-');
}

size_t addSoftwareController(ScanState &s)
{
    ScanState::Controller c;
    c.number = static_cast<uint32_t>(s.controllers.size());
    c.name = "Linux software RAID";
    return addPlainController(s, std::move(c), "md", "Not Applicable",
                              driverVersion(s.root, "md_mod"));
}

void addArray(ScanState &s, const ScanState::Controller &c, size_t controller,
              const std::string &name, uint32_t number, const std::string &dir)
{
    const std::string md = dir + "/md";
    auto read = [&](const char *file) { return s.root.attr(md, file).value_or(""); };
    const std::string level = read("level");
    const std::string arrayState = read("array_state");
    const std::string action = read("sync_action");
    const auto raidDisks = parseNumber(read("raid_disks")).value_or(0);
    const auto degraded = parseNumber(read("degraded")).value_or(0);
    const LevelRow *row = nullptr;
    for (const LevelRow &l : kLevels) {
        if (level == l.level)
            row = &l;
    }

    std::vector<Member> members;
    for (const std::string &entry : s.root.listIn(md)) {
        if (!entry.starts_with("dev-"))
            continue;
        const std::string memberDir = md + "/" + entry;
        auto disk = memberDisk(s, memberDir);
        if (!disk) {
            s.note("md array " + name + ": member " + entry.substr(4) + " is not a served disk");
            continue;
        }
        auto slot = s.root.attr(memberDir, "slot");
        members.push_back({*disk, s.root.attr(memberDir, "state").value_or(""),
                           slot && parseNumber(*slot).has_value()});
    }

    const bool rebuilding = action == "recover" || action == "resync" || action == "reshape";
    // -1: not rebuilding, or md does not say how far
    const int progress =
        rebuilding ? static_cast<int>(progressOf(read("sync_completed")).value_or(~0u)) : -1;
    const unsigned redundancy = row ? row->redundancy : 0;
    const bool inactive = arrayState == "inactive" || arrayState == "clear" ||
                          arrayState == "broken" || arrayState.empty();
    const bool failed = inactive || (redundancy == ~0u ? degraded >= raidDisks && raidDisks > 0
                                                       : degraded > redundancy);
    uint64_t state = kStateOnline;
    int status = kStatusOk;
    if (failed) {
        state = kStateFailed;
        status = kStatusCritical;
    } else if (rebuilding && degraded > 0) {
        state = kStateRebuilding;
        status = kStatusNonCritical;
    } else if (degraded > 0) {
        state = kStateDegraded;
        status = kStatusNonCritical;
    }

    LiveObject o;
    o.type = "vdisks";
    o.nexus = std::to_string(c.number) + "\\128\\" + std::to_string(number);
    o.parent = controller;
    set(&o.attributes, "Name", name);
    set(&o.attributes, "ObjState", std::to_string(state));
    set(&o.attributes, "ObjStatus", std::to_string(status));
    set(&o.attributes, "TreeStatus", std::to_string(status));
    set(&o.attributes, "DeviceName", "/dev/" + name);
    set(&o.attributes, "LogicalDriveNum", std::to_string(number));
    set(&o.attributes, "Layout", row ? row->layout : "0");
    set(&o.attributes, "RAIDLevel", level.empty() ? "Not Available" : cleanValue(level));
    if (auto chunk = parseNumber(read("chunk_size")); chunk && *chunk > 0)
        set(&o.attributes, "StripeSize", std::to_string(*chunk / 512));
    if (auto size = parseNumber(s.root.attr(dir, "size").value_or("")))
        set(&o.attributes, "Length", std::to_string(*size * 512));
    set(&o.attributes, "RAIDDisks", std::to_string(raidDisks));
    set(&o.attributes, "DegradedDisks", std::to_string(degraded));
    set(&o.attributes, "ArrayState", arrayState.empty() ? "Not Available" : cleanValue(arrayState));
    set(&o.attributes, "SyncAction", action.empty() ? "Not Available" : cleanValue(action));
    if (progress >= 0)
        set(&o.attributes, "RebuildProgress", std::to_string(progress));
    const std::string protocol =
        members.empty() ? "0" : attrOf(s.scan.objects[members.front().disk], "BusProtocol");
    set(&o.attributes, "BusProtocol", protocol);
    set(&o.attributes, "IsSSC", "0");
    set(&o.attributes, "AttributesMask", kNoBits);
    const size_t vdisk = s.add(std::move(o));

    for (const Member &m : members) {
        s.scan.links.emplace_back(vdisk, m.disk);
        LiveObject &disk = s.scan.objects[m.disk];
        if (has(m.state, "faulty")) {
            set(&disk.attributes, "ObjState", std::to_string(kStateFailed));
            set(&disk.attributes, "ObjStatus", std::to_string(kStatusCritical));
        } else if (has(m.state, "in_sync")) {
            if (attrOf(disk, "ObjState") == std::to_string(kStateReady))
                set(&disk.attributes, "ObjState", std::to_string(kStateOnline));
        } else if (m.inSlot && rebuilding) {
            set(&disk.attributes, "ObjState", std::to_string(kStateRebuilding));
            if (progress >= 0)
                set(&disk.attributes, "RebuildProgress", std::to_string(progress));
        } else if (has(m.state, "spare")) {
            set(&disk.attributes, "HotSpare", "1");
        }
    }

    addPartitions(s, c, number, vdisk, dir, name);
}

} // namespace

void addPartitions(ScanState &s, const ScanState::Controller &c, uint32_t number, size_t vdisk,
                   const std::string &blockDir, const std::string &blockName)
{
    for (const std::string &entry : s.root.listIn(blockDir)) {
        // mdNpP, sdaP: the disk's name, a 'p' after a name ending in a
        // digit, the partition number.
        if (entry.size() <= blockName.size() || entry.rfind(blockName, 0) != 0)
            continue;
        std::string_view rest = std::string_view(entry).substr(blockName.size());
        const bool afterDigit = std::isdigit(static_cast<unsigned char>(blockName.back())) != 0;
        if (afterDigit) {
            if (rest.front() != 'p')
                continue;
            rest.remove_prefix(1);
        }
        const auto part = parseNumber(rest);
        if (rest.empty() || rest.find_first_not_of("0123456789") != std::string_view::npos ||
            !part || *part == 0 || *part > 0xffffffffu)
            continue;
        LiveObject p;
        p.type = "VDPartitionNode";
        p.nexus = std::to_string(c.number) + "\\129\\" + std::to_string(number) + "\\" +
                  std::to_string(*part);
        set(&p.attributes, "ObjState", std::to_string(kStateReady));
        set(&p.attributes, "ObjStatus", std::to_string(kStatusOk));
        set(&p.attributes, "PartitionPath", "/dev/" + cleanValue(entry));
        if (auto size = parseNumber(s.root.attr(blockDir + "/" + entry, "size").value_or("")))
            set(&p.attributes, "PartitionSize", std::to_string(*size * 512));
        set(&p.attributes, "PartitionState", "Not Available");
        const size_t partition = s.add(std::move(p));
        s.scan.links.emplace_back(partition, vdisk);
    }
}

void scanMd(ScanState &s)
{
    std::optional<size_t> controller;
    for (const std::string &name : s.root.list("/sys/block")) {
        unsigned number = 0;
        char end = 0;
        if (std::sscanf(name.c_str(), "md%u%c", &number, &end) != 1)
            continue;
        auto dir = s.root.resolve("/sys/block/" + name);
        if (!dir || !s.root.exists(*dir + "/md/level")) {
            s.note("md array " + name + ": no md directory");
            continue;
        }
        if (isContainer(s.root.attr(*dir + "/md", "metadata_version").value_or("")))
            continue;
        if (!controller)
            controller = addSoftwareController(s);
        addArray(s, s.controllers.back(), *controller, name, number, *dir);
    }
}

} // namespace kelp::live
