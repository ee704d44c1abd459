// Stable ids and kept components (see live_model.h).
#include "datastore/live/live_model.h"

#include <set>

namespace kelp::live {
namespace {

constexpr std::string_view kKeptTypes[] = {"adapters",    "bus",        "enclosures", "fans",
                                           "psupplies",   "tempprobes", "emms",       "Tape",
                                           "NVMeAdapter", "batteries"};

const std::string *valueOf(const ds::Attributes &attributes, std::string_view name)
{
    for (const auto &[key, value] : attributes) {
        if (key == name)
            return &value;
    }
    return nullptr;
}

void setValue(ds::Attributes *attributes, const std::string &name, const std::string &value)
{
    for (auto &[key, old] : *attributes) {
        if (key == name) {
            old = value;
            return;
        }
    }
    attributes->emplace_back(name, value);
}

} // namespace

bool keptWhenGone(std::string_view type)
{
    for (std::string_view kept : kKeptTypes) {
        if (kept == type)
            return true;
    }
    return false;
}

uint32_t LiveModelMaker::idFor(const std::string &type, const std::string &nexus)
{
    auto [it, made] = ids_.try_emplace({type, nexus}, nextId_);
    if (made)
        ++nextId_;
    return it->second;
}

ds::ModelData LiveModelMaker::make(const LiveScan &scan, const ds::ModelData *previous,
                                   const std::string &origin)
{
    ds::ModelData data;
    data.origins.push_back(origin);
    data.storage = scan.storage;
    std::vector<uint32_t> idOf(scan.objects.size());
    std::set<uint32_t> present;
    for (size_t i = 0; i < scan.objects.size(); ++i) {
        const LiveObject &o = scan.objects[i];
        ds::ObjectData d;
        d.id = idOf[i] = idFor(o.type, o.nexus);
        d.type = o.type;
        d.parent = o.parent ? idOf[*o.parent] : 0;
        d.attributes.reserve(o.attributes.size() + 1);
        d.attributes.emplace_back("Nexus", o.nexus);
        d.attributes.insert(d.attributes.end(), o.attributes.begin(), o.attributes.end());
        present.insert(d.id);
        data.objects.push_back(std::move(d));
    }
    for (const auto &[a, b] : scan.links)
        data.links.push_back({idOf[a], idOf[b], {}});

    if (previous == nullptr)
        return data;
    // Kept objects that went away, parents first as the previous model had them.
    for (const ds::ObjectData &old : previous->objects) {
        if (present.count(old.id) || !keptWhenGone(old.type))
            continue;
        ds::ObjectData kept = old;
        if (kept.parent != 0 && !present.count(kept.parent))
            kept.parent = 0; // its parent was not kept either
        setValue(&kept.attributes, "ObjState", std::to_string(kStateMissing));
        const std::string *status = valueOf(kept.attributes, "ObjStatus");
        if (status == nullptr || *status == std::to_string(kStatusOk))
            setValue(&kept.attributes, "ObjStatus", std::to_string(kStatusNonCritical));
        present.insert(kept.id);
        data.objects.push_back(std::move(kept));
    }
    return data;
}

} // namespace kelp::live
