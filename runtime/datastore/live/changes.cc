// Change detection: objects are matched by type and nexus (the live source
// gives an object the same id for as long as it is there, but matching by
// identity keeps this independent of ids), and each type's rules turn the
// difference of state, status or presence into events.
#include "datastore/live/changes.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "datastore/live/scan.h"

namespace kelp::live {
namespace {

struct View {
    const ds::Model &m;
    size_t pos;
    std::string get(std::string_view name) const
    {
        return std::string(m.attribute(pos, name).value_or(std::string_view()));
    }
    // The character at `position` of a mask attribute, or 0.
    char maskBit(std::string_view name, size_t position) const
    {
        const std::optional<std::string_view> mask = m.attribute(pos, name);
        return mask && position < mask->size() ? (*mask)[position] : '\0';
    }
    uint64_t state() const { return number("ObjState"); }
    uint64_t status() const { return number("ObjStatus"); }
    uint64_t number(std::string_view name) const
    {
        const std::string text = get(name);
        uint64_t value = 0;
        for (char c : text) {
            if (c < '0' || c > '9')
                return 0;
            value = value * 10 + static_cast<uint64_t>(c - '0');
        }
        return value;
    }
};

bool bad(uint64_t status)
{
    return status >= kStatusCritical;
}

// Events of an object that is in both models.
void changed(const View &was, const View &now, std::vector<Change> *out)
{
    const std::string_view type = now.m.typeOf(now.pos);
    auto emit = [&](uint32_t event, std::vector<std::string> parms = {}) {
        out->push_back({event, false, now.pos, std::move(parms)});
    };
    const uint64_t s0 = was.status(), s1 = now.status();
    const uint64_t st0 = was.state(), st1 = now.state();
    if (type == "arraydisks") {
        if (st1 == kStateFailed && st0 != kStateFailed)
            emit(kDiskFailed);
        // Offline: present but serving nothing (every path to it down).
        if (st1 == kStateOffline && st0 != kStateOffline)
            emit(kDiskOffline);
        else if (st0 == kStateOffline && st1 != kStateOffline && st1 != kStateFailed)
            emit(kDiskOnline);
        // The disk's own failure prediction (its health log or SMART status).
        if (was.maskBit("AttributesMask", kPredictedFailureBit) == '0' &&
            now.maskBit("AttributesMask", kPredictedFailureBit) == '1')
            emit(kDiskPredictedFailure);
        if (st1 == kStateRebuilding && st0 != kStateRebuilding)
            emit(kRebuildStarted);
        if (st0 == kStateRebuilding && st1 == kStateOnline)
            emit(kRebuildCompleted);
        if (st1 == kStateRebuilding && st0 == kStateRebuilding) {
            const uint64_t p0 = was.number("RebuildProgress") / kProgressStep;
            const uint64_t p1 = now.number("RebuildProgress") / kProgressStep;
            if (p1 > p0)
                emit(kRebuildProgress, {now.get("RebuildProgress")});
        }
    } else if (type == "vdisks") {
        if (st1 == kStateFailed && st0 != kStateFailed)
            emit(kArrayFailed);
        else if ((st1 == kStateDegraded || st1 == kStateRebuilding) && st0 != kStateDegraded &&
                 st0 != kStateRebuilding)
            emit(kArrayDegraded);
        else if (s1 == kStatusOk && s0 != kStatusOk)
            emit(kArrayOptimal);
    } else if (type == "tempprobes") {
        // A probe that went away reads nothing: its kept status says so, not
        // a temperature.
        if (s1 == s0 || st1 == kStateMissing)
            return;
        const std::string t = now.get("CurrentTemp");
        if (s1 == kStatusCritical)
            emit(kTemperatureCritical, {t, now.get("MaxError")});
        else if (s1 == kStatusNonCritical)
            emit(kTemperatureWarning, {t, now.get("MaxWarning")});
        else if (s1 == kStatusOk)
            emit(kTemperatureNormal, {t});
    } else {
        struct Rule {
            const char *type;
            uint32_t failed, removed, normal;
        };
        static constexpr Rule kRules[] = {
            {"fans", kFanFailed, kFanFailed, kFanNormal},
            {"psupplies", kPowerSupplyFailed, kPowerSupplyRemoved, kPowerSupplyNormal},
            {"emms", kEmmFailed, kEmmRemoved, kEmmNormal},
            {"enclosures", kEnclosureFailed, kEnclosureGone, kEnclosureConnected},
            {"adapters", kControllerFailed, kControllerFailed, 0},
            {"NVMeAdapter", kNvmeFailed, kNvmeFailed, 0},
        };
        for (const Rule &r : kRules) {
            if (type != r.type)
                continue;
            if (st1 == kStateMissing && st0 != kStateMissing) {
                // "Controller %2 no longer reaches enclosure %1."
                const std::string nexus = now.get("Nexus");
                emit(r.removed, {nexus.substr(0, nexus.find('\\'))});
            } else if (bad(s1) && !bad(s0))
                emit(r.failed);
            else if (r.normal != 0 && s1 == kStatusOk && s0 != kStatusOk)
                emit(r.normal);
        }
    }
}

// The associations of a model by id: links both ways and parents.
std::vector<std::pair<uint32_t, uint32_t>> associations(const ds::Model &m)
{
    std::vector<std::pair<uint32_t, uint32_t>> pairs;
    for (const ds::LinkData &l : m.links())
        pairs.emplace_back(std::min(l.a, l.b), std::max(l.a, l.b));
    for (size_t pos = 0; pos < m.size(); ++pos) {
        if (std::optional<size_t> parent = m.parentOf(pos))
            pairs.emplace_back(m.idOf(pos), m.idOf(*parent));
    }
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

} // namespace

ChangeSet findChanges(const ds::Model &before, const ds::Model &after)
{
    ChangeSet set;
    std::vector<bool> matched(before.size(), false);
    for (size_t pos = 0; pos < after.size(); ++pos) {
        const std::string_view type = after.typeOf(pos);
        const std::optional<std::string_view> nexus = after.nexusOf(pos);
        std::optional<size_t> old = nexus ? before.findByNexus(type, *nexus) : std::nullopt;
        if (!old) {
            set.setChanged = true;
            if (type == "arraydisks")
                set.changes.push_back({kDiskInserted, false, pos, {}});
            else if (type == "vdisks")
                set.changes.push_back({kArrayCreated, false, pos, {}});
            else if (type == "enclosures")
                set.changes.push_back({kEnclosureConnected, false, pos, {}});
            continue;
        }
        matched[*old] = true;
        changed(View{before, *old}, View{after, pos}, &set.changes);
    }
    for (size_t pos = 0; pos < matched.size(); ++pos) {
        if (matched[pos])
            continue;
        set.setChanged = true;
        const std::string_view type = before.typeOf(pos);
        if (type == "arraydisks")
            set.changes.push_back({kDiskRemoved, true, pos, {}});
        else if (type == "vdisks")
            set.changes.push_back({kArrayDeleted, true, pos, {}});
    }
    if (!set.setChanged && associations(before) != associations(after))
        set.setChanged = true;
    return set;
}

} // namespace kelp::live
