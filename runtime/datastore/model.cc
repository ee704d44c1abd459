// Validation and indexes of a storage model (see model.h): every check a
// model file must pass, and the look-ups the data-store queries and the
// location texts need (objects by id, by type and by nexus, the parent
// tree, links, precomputed answers).
#include <algorithm>
#include <charconv>

#include "datastore/model.h"
#include "datastore/xml_text.h"

namespace kelp::ds {
namespace {

constexpr size_t kNone = static_cast<size_t>(-1);

std::string knownTypes()
{
    std::string out;
    for (const auto &t : kObjectTypes)
        out += (out.empty() ? "\"" : ", \"") + std::string(t.name) + "\"";
    return out;
}

bool parseUint32(const std::string &text, uint32_t *out)
{
    const char *end = text.data() + text.size();
    auto [stop, ec] = std::from_chars(text.data(), end, *out);
    return !text.empty() && text[0] != '-' && ec == std::errc() && stop == end;
}

// The check shared by the attributes of <storage> and of objects: the
// plug-in copies every value into buffers sized for the XML library's
// longest answer. Empty when the value fits, else the message.
std::string valueTooLong(const std::string &name, const std::string &value)
{
    if (value.size() <= kMaxAttributeValueBytes)
        return std::string();
    return name + " has " + std::to_string(value.size()) + " bytes, over the limit of " +
           std::to_string(kMaxAttributeValueBytes);
}

// A name a model file can spell: an XML name of UTF-8 text. Names set
// outside a file are held to it too, so that any model can be written to a
// file and read back.
bool isAttributeName(const std::string &name)
{
    return xml::isName(name) && xml::isXmlText(name);
}

} // namespace

int objectTypeIndex(std::string_view name)
{
    for (size_t i = 0; i < kObjectTypeCount; ++i) {
        if (kObjectTypes[i].name == name)
            return static_cast<int>(i);
    }
    return -1;
}

std::string objectAnswer(const ObjectData &object)
{
    std::string out = "<ObjID>" + std::to_string(object.id) + "</ObjID>";
    for (const auto &[name, value] : object.attributes) {
        out += '<';
        out += name;
        out += '>';
        out += xml::escapeText(value);
        out += "</";
        out += name;
        out += '>';
    }
    return out;
}

const std::string *firstAttribute(const ObjectData &object, std::string_view name)
{
    for (const auto &[key, value] : object.attributes) {
        if (key == name)
            return &value;
    }
    return nullptr;
}

std::shared_ptr<const Model> Model::build(ModelData data, std::string *error)
{
    std::shared_ptr<Model> model(new Model(std::move(data)));
    std::string message;
    if (!model->index(&message)) {
        if (error != nullptr)
            *error = std::move(message);
        return nullptr;
    }
    return model;
}

bool Model::index(std::string *error)
{
    auto fail = [&](const Where &where, const std::string &message) {
        *error = data_.at(where) + message;
        return false;
    };
    storageIndex_.reserve(data_.storage.size());
    for (size_t i = 0; i < data_.storage.size(); ++i) {
        const auto &[name, value] = data_.storage[i];
        if (!isAttributeName(name))
            return fail(data_.storageWhere, "\"" + name + "\" is not an attribute name");
        // A start tag cannot repeat an attribute.
        if (!storageIndex_.emplace(name, i).second)
            return fail(data_.storageWhere, "attribute " + name + " of <storage> repeated");
        if (std::string tooLong = valueTooLong(name, value); !tooLong.empty())
            return fail(data_.storageWhere, tooLong);
        if (!xml::isXmlText(value))
            return fail(data_.storageWhere, name + " is not UTF-8 text");
        if (name == "ready") {
            if (value != "0" && value != "1")
                return fail(data_.storageWhere, "ready=\"" + value + "\" is neither 0 nor 1");
            ready_ = value == "1";
        } else if (name == "thermalShutdown" && !parseUint32(value, &thermalShutdown_)) {
            return fail(data_.storageWhere,
                        "thermalShutdown=\"" + value + "\" is not a number from 0 to 4294967295");
        }
    }

    const size_t n = data_.objects.size();
    byId_.reserve(n);
    typeOf_.resize(n);
    nexus_.assign(n, nullptr);
    byType_.assign(kObjectTypeCount, {});
    byNexus_.assign(kObjectTypeCount, {});
    answers_.reserve(n);
    for (size_t pos = 0; pos < n; ++pos) {
        const ObjectData &o = data_.objects[pos];
        const std::string what = "object " + std::to_string(o.id) + ": ";
        if (o.id == 0)
            return fail(o.where, "object id 0 (ids run from 1 to 4294967295)");
        int type = objectTypeIndex(o.type);
        if (type < 0)
            return fail(o.where,
                        what + "unknown type \"" + o.type + "\" (known: " + knownTypes() + ")");
        auto [it, fresh] = byId_.emplace(o.id, pos);
        if (!fresh) {
            return fail(o.where, "duplicate object id " + std::to_string(o.id) + " (first at " +
                                     data_.place(data_.objects[it->second].where) + ")");
        }
        for (const auto &[name, value] : o.attributes) {
            if (name == "ObjID")
                return fail(o.where, what + "ObjID is no attribute: the id attribute gives it");
            if (!isAttributeName(name))
                return fail(o.where, what + "\"" + name + "\" is not an attribute name");
            if (std::string tooLong = valueTooLong(name, value); !tooLong.empty())
                return fail(o.where, what + tooLong);
            if (!xml::isXmlText(value))
                return fail(o.where, what + name + " is not UTF-8 text");
        }
        std::string answer = objectAnswer(o);
        if (answer.size() + 1 > kMaxObjectAnswerBytes) {
            return fail(o.where, what + "its text is " + std::to_string(answer.size() + 1) +
                                     " bytes, over the limit of 65536");
        }
        answers_.push_back(std::move(answer));
        typeOf_[pos] = type;
        byType_[static_cast<size_t>(type)].push_back(pos);
        if (const std::string *nexus = firstAttribute(o, "Nexus")) {
            nexus_[pos] = nexus;
            byNexus_[static_cast<size_t>(type)].emplace(*nexus, pos);
        }
    }

    parent_.assign(n, kNone);
    children_.assign(n, {});
    for (size_t pos = 0; pos < n; ++pos) {
        const ObjectData &o = data_.objects[pos];
        if (o.parent == 0)
            continue;
        auto it = byId_.find(o.parent);
        if (it == byId_.end()) {
            return fail(o.where, "object " + std::to_string(o.id) + ": parent " +
                                     std::to_string(o.parent) + " is not an object of the model");
        }
        parent_[pos] = it->second;
        children_[it->second].push_back(pos);
    }
    // A parent chain that loops would make ancestor walks endless: colour each
    // chain once (1 on the current walk, 2 known to end).
    std::vector<char> state(n, 0);
    std::vector<size_t> walk;
    for (size_t start = 0; start < n; ++start) {
        walk.clear();
        size_t p = start;
        while (p != kNone && state[p] == 0) {
            state[p] = 1;
            walk.push_back(p);
            p = parent_[p];
        }
        if (p != kNone && state[p] == 1) {
            const ObjectData &o = data_.objects[p];
            return fail(o.where, "object " + std::to_string(o.id) +
                                     " is its own ancestor (its parent chain loops)");
        }
        for (size_t w : walk)
            state[w] = 2;
    }

    linked_.assign(n, {});
    for (const auto &l : data_.links) {
        auto a = byId_.find(l.a);
        auto b = byId_.find(l.b);
        if (a == byId_.end() || b == byId_.end()) {
            return fail(l.where, "link of " + std::to_string(l.a) + " and " + std::to_string(l.b) +
                                     ": no object " + std::to_string(a == byId_.end() ? l.a : l.b));
        }
        if (l.a == l.b)
            return fail(l.where, "link of object " + std::to_string(l.a) + " to itself");
        linked_[a->second].push_back(b->second);
        linked_[b->second].push_back(a->second);
    }
    for (auto &list : linked_) {
        std::sort(list.begin(), list.end());
        list.erase(std::unique(list.begin(), list.end()), list.end());
    }
    return true;
}

std::optional<std::string> Model::storageAttribute(std::string_view name) const
{
    auto it = storageIndex_.find(name);
    if (it == storageIndex_.end())
        return std::nullopt;
    return data_.storage[it->second].second;
}

std::optional<size_t> Model::find(uint32_t id) const
{
    auto it = byId_.find(id);
    if (it == byId_.end())
        return std::nullopt;
    return it->second;
}

std::optional<size_t> Model::findByNexus(std::string_view type, std::string_view nexus) const
{
    const int t = objectTypeIndex(type);
    if (t < 0)
        return std::nullopt;
    const NexusIndex &index = byNexus_[static_cast<size_t>(t)];
    auto it = index.find(nexus);
    if (it == index.end())
        return std::nullopt;
    return it->second;
}

const std::vector<size_t> &Model::ofType(std::string_view type) const
{
    static const std::vector<size_t> kEmpty;
    int t = objectTypeIndex(type);
    return t < 0 ? kEmpty : byType_[static_cast<size_t>(t)];
}

std::optional<size_t> Model::parentOf(size_t pos) const
{
    if (parent_[pos] == kNone)
        return std::nullopt;
    return parent_[pos];
}

std::vector<size_t> Model::associated(std::string_view kind, size_t pos) const
{
    std::vector<size_t> out;
    const int t = objectTypeIndex(kind);
    if (t < 0)
        return out;
    auto take = [&](size_t p) {
        if (typeOf_[p] == t)
            out.push_back(p);
    };
    for (size_t p = parent_[pos]; p != kNone; p = parent_[p])
        take(p);
    std::vector<size_t> pending(children_[pos].begin(), children_[pos].end());
    while (!pending.empty()) {
        size_t p = pending.back();
        pending.pop_back();
        take(p);
        pending.insert(pending.end(), children_[p].begin(), children_[p].end());
    }
    for (size_t p : linked_[pos])
        take(p);
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

} // namespace kelp::ds
