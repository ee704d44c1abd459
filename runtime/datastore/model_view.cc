// What the rest of the runtime reads from the served model: the status the
// control socket reports, the fields an event about an object carries, the
// attributes of <storage> and the event interface's type codes.
#include "datastore/model.h"
#include "datastore/model_store.h"
#include "evtmsg.h"

namespace kelp::ds {
namespace {

bool fail(std::string *error, const std::string &message)
{
    if (error != nullptr)
        *error = message;
    return false;
}

// The controller that owns pos: the object itself, its nearest "adapters"
// ancestor, or the first adapter linked to it.
std::optional<size_t> owningController(const Model &m, size_t pos)
{
    auto isAdapter = [&](size_t p) { return m.typeOf(p) == "adapters"; };
    for (std::optional<size_t> p = pos; p; p = m.parentOf(*p)) {
        if (isAdapter(*p))
            return p;
    }
    for (size_t p : m.linkedTo(pos)) {
        if (isAdapter(p))
            return p;
    }
    return std::nullopt;
}

} // namespace

ModelStatus modelStatus()
{
    ModelStatus status;
    std::shared_ptr<const Model> m = servedModel();
    if (m == nullptr)
        return status;
    status.served = true;
    status.origin = m->origin();
    status.ready = m->ready();
    for (const auto &t : kObjectTypes)
        status.counts.emplace_back(std::string(t.name),
                                   static_cast<uint32_t>(m->ofType(t.name).size()));
    return status;
}

bool storageAttribute(const std::string &name, std::string *value)
{
    std::shared_ptr<const Model> m = servedModel();
    if (m == nullptr)
        return false;
    std::optional<std::string> found = m->storageAttribute(name);
    if (!found)
        return false;
    if (value != nullptr)
        *value = std::move(*found);
    return true;
}

void eventFieldsIn(const Model &m, size_t pos,
                   std::vector<std::pair<std::string, std::string>> *fields)
{
    fields->clear();
    if (uint32_t code = kObjectTypes[m.typeIndexOf(pos)].code; code != 0)
        fields->emplace_back("ObjType", std::to_string(code));
    for (const char *name : {"Nexus", "ObjStatus", "PreviousStatus", "AttributesMask"}) {
        if (std::optional<std::string_view> v = m.attribute(pos, name))
            fields->emplace_back(name, *v);
    }
    if (std::optional<size_t> ctrl = owningController(m, pos)) {
        if (std::optional<std::string_view> v = m.attribute(*ctrl, "Name"))
            fields->emplace_back("ControllerName", *v);
    }
    if (m.typeOf(pos) == "vdisks") {
        if (std::optional<std::string_view> v = m.attribute(pos, "Name"))
            fields->emplace_back("VirtualDiskName", *v);
    }
}

std::string eventInsertName(const Model &m, size_t pos)
{
    const uint32_t code = objectTypeCode(std::string(m.typeOf(pos)));
    const std::optional<std::string> nexus(m.nexusOf(pos));
    if (!nexus)
        return std::string();
    char location1[EVTMSG_TEXT_SIZE] = "", location2[EVTMSG_TEXT_SIZE] = "";
    char name[EVTMSG_TEXT_SIZE] = "", detail[EVTMSG_TEXT_SIZE] = "";
    if (code == 0 || evtmsg_getObjLocationStrings(code, nexus->c_str(), ",", "en", location1,
                                                  location2, name, detail, 0) != 0)
        return *nexus;
    const std::string_view display(name);
    const size_t blank = display.rfind(' ');
    return std::string(blank == std::string_view::npos ? display : display.substr(blank + 1));
}

bool eventFieldsOf(uint32_t id, std::vector<std::pair<std::string, std::string>> *fields,
                   std::string *error, std::string *insertName)
{
    std::shared_ptr<const Model> m = servedModel();
    if (m == nullptr)
        return fail(error, "no model is served");
    std::optional<size_t> pos = m->find(id);
    if (!pos)
        return fail(error, "no object " + std::to_string(id));
    eventFieldsIn(*m, *pos, fields);
    if (insertName != nullptr)
        *insertName = eventInsertName(*m, *pos);
    return true;
}

uint32_t objectTypeCode(const std::string &typeName)
{
    int t = objectTypeIndex(typeName);
    return t < 0 ? 0 : kObjectTypes[t].code;
}

} // namespace kelp::ds
