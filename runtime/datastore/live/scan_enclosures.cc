// What sits in and around enclosures: the slots of /sys/class/enclosure
// (which disk is in which slot), fans, power supplies, temperature probes and
// EMMs from the enclosure's SES pages, and temperature probes from hwmon
// (drivetemp, nvme) for disks whose enclosure gave none. The health scan
// adds a probe from the drive's own reading where hwmon gave none.
#include <algorithm>
#include <cstdio>

#include "datastore/live/scan_internal.h"
#include "datastore/live/ses.h"

namespace kelp::live {
namespace {

// Component kinds of the nexus scheme (C\H\E\K\I) and their model types.
struct ComponentKind {
    SesKind kind;
    const char *type;
    unsigned marker;
};
constexpr ComponentKind kComponentKinds[] = {
    {SesKind::kCooling, "fans", 1},
    {SesKind::kPowerSupply, "psupplies", 2},
    {SesKind::kTemperature, "tempprobes", 3},
    {SesKind::kEsm, "emms", 4},
};

// SES element status codes and what the model makes of them.
void sesStatus(const SesElement &e, uint64_t *state, int *status)
{
    switch (e.status) {
    case 1:
        *state = kStateReady, *status = kStatusOk;
        break;
    case 2:
        *state = kStateFailed, *status = kStatusCritical;
        break;
    case 3:
        *state = kStateReady, *status = kStatusNonCritical;
        break;
    case 4:
        *state = kStateFailed, *status = kStatusNonRecoverable;
        break;
    case 5:
        *state = kStateMissing, *status = kStatusNonCritical;
        break;
    default:
        *state = kStateReady, *status = kStatusUnknown;
        break;
    }
    if (e.predictedFailure && *status == kStatusOk)
        *status = kStatusNonCritical;
}

void setTemperatures(LiveObject *o, std::optional<int> current, std::optional<int> highWarning,
                     std::optional<int> highCritical, std::optional<int> lowWarning,
                     std::optional<int> lowCritical)
{
    auto put = [&](const char *name, std::optional<int> value) {
        if (value)
            set(&o->attributes, name, std::to_string(*value));
    };
    put("CurrentTemp", current);
    put("MinWarning", lowWarning);
    put("MinError", lowCritical);
    put("MaxWarning", highWarning);
    put("MaxError", highCritical);
}

// A probe's status from its reading and thresholds.
int temperatureStatus(std::optional<int> t, std::optional<int> highWarning,
                      std::optional<int> highCritical, std::optional<int> lowWarning,
                      std::optional<int> lowCritical)
{
    if (!t)
        return kStatusUnknown;
    if ((highCritical && *t >= *highCritical) || (lowCritical && *t <= *lowCritical))
        return kStatusCritical;
    if ((highWarning && *t >= *highWarning) || (lowWarning && *t <= *lowWarning))
        return kStatusNonCritical;
    return kStatusOk;
}

void addSesComponent(ScanState &s, size_t enclosure, const SesElement &e, const ComponentKind &kind)
{
    LiveObject o;
    o.type = kind.type;
    o.nexus = s.scan.objects[enclosure].nexus + "\\" + std::to_string(kind.marker) + "\\" +
              std::to_string(e.index);
    o.parent = enclosure;
    uint64_t state = kStateReady;
    int status = kStatusUnknown;
    sesStatus(e, &state, &status);
    if (e.kind == SesKind::kTemperature && e.status == 1) {
        status = std::max(status, temperatureStatus(e.temperatureC, e.highWarningC, e.highCriticalC,
                                                    e.lowWarningC, e.lowCriticalC));
    }
    set(&o.attributes, "ObjState", std::to_string(state));
    set(&o.attributes, "ObjStatus", std::to_string(status));
    set(&o.attributes, "TreeStatus", std::to_string(status));
    set(&o.attributes, "Name",
        e.descriptor.empty() ? std::string("Not Available") : cleanValue(e.descriptor));
    set(&o.attributes, "PartNo",
        cleanValue(e.product).empty() ? "Not Available" : cleanValue(e.product));
    set(&o.attributes, "Revision",
        cleanValue(e.revision).empty() ? "Not Available" : cleanValue(e.revision));
    switch (e.kind) {
    case SesKind::kCooling:
        // The enclosure reports the fan in RPM, not as a speed code.
        set(&o.attributes, "IsEnclosureJX33XX", e.fanRpm ? "1" : "0");
        set(&o.attributes, "FanSpeed",
            e.fanRpm ? std::to_string(*e.fanRpm) : std::to_string(e.speedCode));
        break;
    case SesKind::kTemperature:
        setTemperatures(&o, e.temperatureC, e.highWarningC, e.highCriticalC, e.lowWarningC,
                        e.lowCriticalC);
        break;
    case SesKind::kPowerSupply:
        set(&o.attributes, "ProductVersion",
            cleanValue(e.revision).empty() ? "Not Available" : cleanValue(e.revision));
        break;
    case SesKind::kEsm:
        set(&o.attributes, "FirmwareVer",
            cleanValue(e.revision).empty() ? "Not Available" : cleanValue(e.revision));
        break;
    }
    s.add(std::move(o));
}

} // namespace

// The bit of an enclosure's "CurrentMethodMask" that says it reports slots.
constexpr size_t kSlotReportingBit = 22;

namespace {

// Each disk linked from a slot of enclosure class directory `dir` sits in
// that slot of enclosure object `enclosure`, which `dir` is another path to
// when otherPath is set.
void mapSlots(ScanState &s, const std::string &dir, size_t enclosure, bool otherPath)
{
    const std::string nexus = s.scan.objects[enclosure].nexus;
    for (const std::string &component : s.root.listIn(dir)) {
        const std::string cdir = dir + "/" + component;
        auto slotText = s.root.attr(cdir, "slot");
        auto slot = slotText ? parseNumber(*slotText) : std::nullopt;
        if (!slot || *slot > 0xffffffffu)
            continue; // not a component directory
        auto disk = s.root.follow(cdir, "device");
        if (!disk)
            continue; // an empty slot
        s.slotOfDevice[*disk] = {enclosure, nexus, static_cast<uint32_t>(*slot), otherPath};
    }
}

} // namespace

void scanEnclosureSlots(ScanState &s)
{
    for (const std::string &name : s.root.list("/sys/class/enclosure")) {
        auto dir = s.root.resolve("/sys/class/enclosure/" + name);
        if (!dir) {
            s.note("enclosure " + name + ": link does not resolve");
            continue;
        }
        const std::string device(dirName(dirName(*dir)));
        auto found = s.enclosureByDevice.find(device);
        if (found == s.enclosureByDevice.end()) {
            // Another path to a served enclosure: its slots hold the same
            // disks, seen through this path's devices.
            if (auto other = s.enclosureByOtherPath.find(device);
                other != s.enclosureByOtherPath.end())
                mapSlots(s, *dir, other->second, true);
            else
                s.note("enclosure " + name + ": its SCSI device is not served");
            continue;
        }
        const size_t enclosure = found->second;
        LiveObject &o = s.scan.objects[enclosure];
        if (auto count = s.root.attr(*dir, "components"); count && parseNumber(*count)) {
            set(&o.attributes, "MaxNumOfPDSlots", cleanValue(*count));
            // The bit that says the enclosure reports its slots.
            set(&o.attributes, "CurrentMethodMask", maskWithBit(kSlotReportingBit));
        }
        if (auto id = s.root.attr(*dir, "id"))
            set(&o.attributes, "EnclosureSerialNum", cleanValue(*id));
        mapSlots(s, *dir, enclosure, false);
    }
}

void scanEnclosureComponents(ScanState &s)
{
    unsigned fromSes = 0, without = 0;
    std::string reason;
    for (const auto &[device, enclosure] : s.enclosureByDevice) {
        // Its own generic device, then those of its other paths: with one
        // EMM failed, the other still answers.
        std::vector<std::string> sgs;
        if (std::string sg = attrOf(s.scan.objects[enclosure], "DeviceName"); !sg.empty())
            sgs.push_back(std::move(sg));
        for (const auto &[other, index] : s.enclosureByOtherPath) {
            if (index != enclosure)
                continue;
            if (auto generic = s.root.listIn(other + "/scsi_generic"); !generic.empty())
                sgs.push_back("/dev/" + cleanValue(generic.front()));
        }
        if (sgs.empty()) {
            ++without;
            reason = "no SCSI generic device";
            continue;
        }
        SesEnclosure ses;
        bool read = false;
        std::string errors;
        for (const std::string &sg : sgs) {
            SesPages pages;
            std::string error;
            read = s.root.isSystemRoot()
                       ? readSesPagesSgIo(sg, &pages, &error)
                       : readSesPagesFiles(s.root.hostPath(sg + ".ses"), &pages, &error);
            if (read && !decodeSes(pages, &ses, &error))
                read = false;
            if (read)
                break;
            errors += (errors.empty() ? "" : "; ") + sg + ": " + error;
        }
        if (!read) {
            ++without;
            reason = errors;
            s.note("enclosure " + s.scan.objects[enclosure].nexus + ": no SES pages (" + reason +
                   ")");
            continue;
        }
        ++fromSes;
        s.sesEnclosures.insert(enclosure);
        LiveObject &o = s.scan.objects[enclosure];
        if (!ses.logicalId.empty())
            set(&o.attributes, "EnclosureSerialNum", ses.logicalId);
        for (const ComponentKind &kind : kComponentKinds) {
            for (const SesElement &e : ses.elements) {
                if (e.kind == kind.kind)
                    addSesComponent(s, enclosure, e, kind);
            }
        }
    }
    if (s.enclosureByDevice.empty())
        s.scan.components = "no enclosures";
    else if (without == 0)
        s.scan.components = "fans, power supplies, temperature probes and EMMs from SES pages";
    else
        s.scan.components = std::to_string(fromSes) + " of " + std::to_string(fromSes + without) +
                            " enclosures read through SES; fans, power supplies and EMMs of the "
                            "others not available (" +
                            reason + "), temperature probes from hwmon and the drives";
}

void scanHwmon(ScanState &s)
{
    for (const std::string &name : s.root.list("/sys/class/hwmon")) {
        auto dir = s.root.resolve("/sys/class/hwmon/" + name);
        if (!dir)
            continue;
        auto kind = s.root.attr(*dir, "name");
        if (!kind || (*kind != "drivetemp" && *kind != "nvme"))
            continue;
        auto device = s.root.follow(*dir, "device");
        auto disk = device ? s.diskByDevice.find(*device) : s.diskByDevice.end();
        if (disk == s.diskByDevice.end()) {
            s.note("hwmon " + name + ": not a served disk");
            continue;
        }
        auto milli = [&](const char *file) -> std::optional<int> {
            auto text = s.root.attr(*dir, file);
            if (!text || text->empty())
                return std::nullopt;
            char *end = nullptr;
            long value = std::strtol(text->c_str(), &end, 10);
            if (*end != '\0' || value < -1000000 || value > 1000000)
                return std::nullopt;
            return static_cast<int>(value / 1000);
        };
        auto alarm = s.root.attr(*dir, "temp1_alarm");
        addDiskProbe(s, disk->second,
                     DiskTemperatures{milli("temp1_input"), milli("temp1_max"), milli("temp1_crit"),
                                      milli("temp1_min"), milli("temp1_lcrit"),
                                      alarm && *alarm == "1"});
    }
}

void addDiskProbe(ScanState &s, size_t diskIndex, const DiskTemperatures &temps)
{
    const LiveObject &d = s.scan.objects[diskIndex];
    auto parentOf = d.parent;
    if (parentOf && s.sesEnclosures.count(*parentOf))
        return; // its enclosure's own probes stand for it
    // A disk's probe: in a slot, the enclosure's probe numbered by the
    // slot (the enclosure gave none of its own); on a channel, the channel
    // and target in place of an enclosure.
    LiveObject o;
    o.type = "tempprobes";
    const size_t slash = d.nexus.rfind('\\');
    const bool inSlot = parentOf && s.scan.objects[*parentOf].type == "enclosures";
    o.nexus =
        inSlot ? d.nexus.substr(0, slash) + "\\3" + d.nexus.substr(slash) : d.nexus + "\\3\\0";
    o.parent = inSlot ? *parentOf : diskIndex;
    if (s.taken(o.type, o.nexus))
        return;
    int status = temperatureStatus(temps.current, temps.highWarning, temps.highCritical,
                                   temps.lowWarning, temps.lowCritical);
    if (temps.alarm)
        status = std::max(status, kStatusNonCritical);
    set(&o.attributes, "ObjState", std::to_string(kStateReady));
    set(&o.attributes, "ObjStatus", std::to_string(status));
    set(&o.attributes, "TreeStatus", std::to_string(status));
    set(&o.attributes, "Name", "Temperature of " + attrOf(d, "DeviceName"));
    setTemperatures(&o, temps.current, temps.highWarning, temps.highCritical, temps.lowWarning,
                    temps.lowCritical);
    s.add(std::move(o));
}

} // namespace kelp::live
