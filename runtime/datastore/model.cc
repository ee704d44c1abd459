// Validation and indexes of a storage model (see model.h): every check a
// model file must pass, and the look-ups the data-store queries and the
// location texts need (objects by id, by type and by nexus, the parent
// tree, links, precomputed answers).
#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>

#include "datastore/model.h"
#include "datastore/xml_text.h"
#include "xmlsup/flat_answer.h"

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

bool parseUint32(std::string_view text, uint32_t *out)
{
    const char *end = text.data() + text.size();
    auto [stop, ec] = std::from_chars(text.data(), end, *out);
    return !text.empty() && text[0] != '-' && ec == std::errc() && stop == end;
}

// The check shared by the attributes of <storage> and of objects: the
// plug-in copies every value into buffers sized for the XML library's
// longest answer. Empty when the value fits, else the message.
std::string valueTooLong(std::string_view name, std::string_view value)
{
    if (value.size() <= kMaxAttributeValueBytes)
        return std::string();
    return std::string(name) + " has " + std::to_string(value.size()) +
           " bytes, over the limit of " + std::to_string(kMaxAttributeValueBytes);
}

// A name a model file can spell: an XML name of UTF-8 text. Names set
// outside a file are held to it too, so that any model can be written to a
// file and read back.
bool isAttributeName(std::string_view name)
{
    return xml::isName(name) && xml::isXmlText(name);
}

// "origin:line" of a place in a model of these origins (ModelData::place);
// the origin alone for a piece no line of it holds (line 0: set by a
// command).
std::string place(const std::vector<std::string> &origins, const Where &where)
{
    std::string origin = where.origin < origins.size() ? origins[where.origin] : "model";
    return where.line == 0 ? origin : origin + ":" + std::to_string(where.line);
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

const std::string *firstAttribute(const ObjectData &object, std::string_view name)
{
    for (const auto &[key, value] : object.attributes) {
        if (key == name)
            return &value;
    }
    return nullptr;
}

namespace {

// The value ids of a model being built, found by their text: an open
// table of ids with a part of each one's hash, whose texts are read from the
// model's value table, so that table may grow (and move) while this holds
// the ids. A model has a value per attribute or so, most of them distinct:
// a flat table costs no allocation per value and, as the hash is kept, a
// look-up reads a text only when its hash matches.
class ValueIds {
  public:
    ValueIds(const std::string &values, const std::vector<uint32_t> &starts)
        : values_(&values), starts_(&starts), slots_(64)
    {
    }
    static size_t hash(std::string_view text) { return std::hash<std::string_view>{}(text); }
    // The id of text, whose hash is h, or nullopt when it has none yet.
    std::optional<uint32_t> find(std::string_view text, size_t h) const
    {
        const size_t mask = slots_.size() - 1;
        for (size_t i = static_cast<uint32_t>(h) & mask;; i = (i + 1) & mask) {
            const Slot &slot = slots_[i];
            if (slot.id == kEmpty)
                return std::nullopt;
            if (slot.hash == static_cast<uint32_t>(h) && this->text(slot.id) == text)
                return slot.id;
        }
    }
    // Adds id, whose text is not in the table yet and has hash h.
    void add(uint32_t id, size_t h)
    {
        if (2 * (count_ + 1) > slots_.size())
            grow();
        place(Slot{id, static_cast<uint32_t>(h)});
        ++count_;
    }

  private:
    static constexpr uint32_t kEmpty = UINT32_MAX;
    struct Slot {
        uint32_t id = kEmpty;
        uint32_t hash = 0; // the hash's low 32 bits, which place a slot
    };
    std::string_view text(uint32_t id) const
    {
        return std::string_view(*values_).substr((*starts_)[id],
                                                 (*starts_)[id + 1] - (*starts_)[id]);
    }
    void place(Slot slot)
    {
        const size_t mask = slots_.size() - 1;
        size_t i = slot.hash & mask;
        while (slots_[i].id != kEmpty)
            i = (i + 1) & mask;
        slots_[i] = slot;
    }
    void grow()
    {
        std::vector<Slot> old(slots_.size() * 2);
        old.swap(slots_);
        for (const Slot &slot : old) {
            if (slot.id != kEmpty)
                place(slot);
        }
    }

    const std::string *values_;
    const std::vector<uint32_t> *starts_;
    std::vector<Slot> slots_; // a power of two of them, at most half used
    size_t count_ = 0;
};

// Bytes of a value written as element content (xml::escapeText).
size_t escapedSize(std::string_view value)
{
    size_t size = value.size();
    for (char c : value)
        size += c == '&' ? 4 : (c == '<' || c == '>') ? 3 : 0;
    return size;
}

// Copies n bytes from `from` to out and answers the end. Answers are made of
// many short pieces (tags and values of a few bytes): those are copied with
// fixed-size moves the compiler inlines, not a call to memcpy each.
inline char *copySmall(const char *from, size_t n, char *out)
{
    if (n >= 8 && n <= 16) {
        uint64_t head, tail;
        std::memcpy(&head, from, 8);
        std::memcpy(&tail, from + n - 8, 8);
        std::memcpy(out, &head, 8);
        std::memcpy(out + n - 8, &tail, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t head, tail;
        std::memcpy(&head, from, 4);
        std::memcpy(&tail, from + n - 4, 4);
        std::memcpy(out, &head, 4);
        std::memcpy(out + n - 4, &tail, 4);
    } else if (n < 4) {
        for (size_t i = 0; i < n; ++i)
            out[i] = from[i];
    } else {
        std::memcpy(out, from, n);
    }
    return out + n;
}

// Whether a and b are the same text. Names and values are mostly short:
// those are compared in one or two word loads each, not a call to memcmp.
inline bool sameText(std::string_view a, std::string_view b)
{
    const size_t n = a.size();
    if (n != b.size())
        return false;
    if (n >= 8 && n <= 16) {
        uint64_t a0, a1, b0, b1;
        std::memcpy(&a0, a.data(), 8);
        std::memcpy(&b0, b.data(), 8);
        std::memcpy(&a1, a.data() + n - 8, 8);
        std::memcpy(&b1, b.data() + n - 8, 8);
        return ((a0 ^ b0) | (a1 ^ b1)) == 0;
    }
    if (n < 8) {
        for (size_t i = 0; i < n; ++i) {
            if (a[i] != b[i])
                return false;
        }
        return true;
    }
    return std::memcmp(a.data(), b.data(), n) == 0;
}

// Writes value as element content (xml::escapeText) at out; answers the end.
char *writeEscaped(std::string_view value, char *out)
{
    for (char c : value) {
        switch (c) {
        case '&':
            out = std::copy_n("&amp;", 5, out);
            break;
        case '<':
            out = std::copy_n("&lt;", 4, out);
            break;
        case '>':
            out = std::copy_n("&gt;", 4, out);
            break;
        default:
            *out++ = c;
        }
    }
    return out;
}

} // namespace

// What a build needs only while it runs: the escaped size of each value id,
// the value ids by text, and the ids of the attribute names (each name and
// each value is checked once, when first seen).
struct Model::Builder::Tables {
    Tables(const std::string &values, const std::vector<uint32_t> &starts)
        : valueIds(values, starts)
    {
    }
    std::vector<uint32_t> escaped;
    ValueIds valueIds;
    std::unordered_map<std::string, uint32_t, TextHash, std::equal_to<>> nameIds;
    // The name and value ids at each attribute position of the object added
    // last: objects of a type mostly name their attributes alike, in one
    // order, often with the same values, and a compare costs less than a
    // look-up.
    std::vector<uint32_t> lastNames;
    std::vector<uint32_t> lastValues;
};

Model::Builder::Builder(std::vector<std::string> origins, Attributes storage, Where storageWhere)
    : model_(new Model())
{
    model_->origins_ = std::move(origins);
    model_->storage_ = std::move(storage);
    model_->storageWhere_ = storageWhere;
    model_->byType_.assign(kObjectTypeCount, {});
    model_->valueStart_.push_back(0);
    tables_ = std::make_unique<Tables>(model_->values_, model_->valueStart_);
}

Model::Builder::~Builder() = default;

bool Model::Builder::start(std::string *error)
{
    return model_->checkStorage(error);
}

void Model::Builder::reserve(size_t objects, size_t attributes)
{
    model_->objects_.reserve(model_->objects_.size() + objects);
    model_->attributes_.reserve(model_->attributes_.size() + attributes);
    model_->byId_.reserve(model_->byId_.size() + objects);
}

void Model::Builder::addLink(const LinkData &link)
{
    model_->links_.push_back(link);
}

bool Model::checkStorage(std::string *error)
{
    auto fail = [&](const Where &where, const std::string &message) {
        *error = place(origins_, where) + ": " + message;
        return false;
    };
    storageIndex_.reserve(storage_.size());
    for (size_t i = 0; i < storage_.size(); ++i) {
        const auto &[name, value] = storage_[i];
        if (!isAttributeName(name))
            return fail(storageWhere_, "\"" + name + "\" is not an attribute name");
        // A start tag cannot repeat an attribute.
        if (!storageIndex_.emplace(name, i).second)
            return fail(storageWhere_, "attribute " + name + " of <storage> repeated");
        if (std::string tooLong = valueTooLong(name, value); !tooLong.empty())
            return fail(storageWhere_, tooLong);
        if (!xml::isXmlText(value))
            return fail(storageWhere_, name + " is not UTF-8 text without control characters");
        if (name == "ready") {
            if (value != "0" && value != "1")
                return fail(storageWhere_, "ready=\"" + value + "\" is neither 0 nor 1");
            ready_ = value == "1";
        } else if (name == "thermalShutdown" && !parseUint32(value, &thermalShutdown_)) {
            return fail(storageWhere_,
                        "thermalShutdown=\"" + value + "\" is not a number from 0 to 4294967295");
        }
    }
    return true;
}

bool Model::Builder::add(ObjectData &object, std::string *error)
{
    if (!addObject(object, error))
        return false;
    // The model holds them now.
    Attributes().swap(object.attributes);
    return true;
}

bool Model::Builder::add(const ObjectView &object, std::string *error)
{
    return addObject(object, error);
}

template <class Texts> bool Model::Builder::addObject(const Texts &o, std::string *error)
{
    Model &m = *model_;
    const size_t pos = m.objects_.size();
    // Positions, attribute indexes and value offsets are held in 32 bits: a
    // model over that is refused, not wrapped.
    auto failAt = [&](const std::string &message) {
        *error = place(m.origins_, o.where) + ": " + message;
        return false;
    };
    if (pos >= UINT32_MAX || m.attributes_.size() + o.attributes.size() > UINT32_MAX)
        return failAt("too many objects or attributes");
    // Made for a message only: most objects need none.
    auto what = [&] { return "object " + std::to_string(o.id) + ": "; };
    if (o.id == 0)
        return failAt("object id 0 (ids run from 1 to 4294967295)");
    int type = objectTypeIndex(o.type);
    if (type < 0)
        return failAt(what() + "unknown type \"" + std::string(o.type) +
                      "\" (known: " + knownTypes() + ")");
    auto [it, fresh] = m.byId_.emplace(o.id, static_cast<uint32_t>(pos));
    if (!fresh) {
        return failAt("duplicate object id " + std::to_string(o.id) + " (first at " +
                      place(m.origins_, m.objects_[it->second].where) + ")");
    }
    Object stored{};
    stored.id = o.id;
    stored.parentId = o.parent;
    stored.where = o.where;
    stored.first = static_cast<uint32_t>(m.attributes_.size());
    stored.type = static_cast<uint8_t>(type);
    size_t answerSize = 15 + std::to_string(o.id).size(); // <ObjID>id</ObjID>
    std::vector<uint32_t> &lastNames = tables_->lastNames;
    for (size_t i = 0; i < o.attributes.size(); ++i) {
        const std::string_view name = o.attributes[i].first;
        const std::string_view value = o.attributes[i].second;
        uint32_t nameId;
        if (i < lastNames.size() && sameText(m.names_[lastNames[i]], name)) {
            nameId = lastNames[i];
        } else {
            auto nameIt = tables_->nameIds.find(name);
            if (nameIt == tables_->nameIds.end()) {
                if (name == "ObjID")
                    return failAt(what() + "ObjID is no attribute: the id attribute gives it");
                if (!isAttributeName(name))
                    return failAt(what() + "\"" + std::string(name) +
                                  "\" is not an attribute name");
                nameIt = tables_->nameIds
                             .emplace(std::string(name), static_cast<uint32_t>(m.names_.size()))
                             .first;
                m.names_.emplace_back(name);
            }
            nameId = nameIt->second;
            if (i >= lastNames.size()) {
                lastNames.resize(i + 1);
                tables_->lastValues.resize(i + 1, UINT32_MAX);
            }
            lastNames[i] = nameId;
        }
        uint32_t &lastValue = tables_->lastValues[i];
        std::optional<uint32_t> valueId;
        size_t valueHash = 0;
        if (lastValue != UINT32_MAX && sameText(m.value(lastValue), value))
            valueId = lastValue;
        else
            valueId = tables_->valueIds.find(value, valueHash = ValueIds::hash(value));
        if (!valueId) {
            if (std::string tooLong = valueTooLong(name, value); !tooLong.empty())
                return failAt(what() + tooLong);
            if (!xml::isXmlText(value))
                return failAt(what() + std::string(name) +
                              " is not UTF-8 text without control characters");
            if (m.values_.size() + value.size() > UINT32_MAX)
                return failAt(what() + "the model's values are over 4 GiB");
            valueId = static_cast<uint32_t>(tables_->escaped.size());
            m.values_ += value;
            m.valueStart_.push_back(static_cast<uint32_t>(m.values_.size()));
            const size_t escaped = escapedSize(value);
            tables_->escaped.push_back(static_cast<uint32_t>(escaped));
            m.escapes_.push_back(escaped != value.size());
            tables_->valueIds.add(*valueId, valueHash);
        }
        lastValue = *valueId;
        answerSize += 2 * name.size() + 5 + tables_->escaped[*valueId];
        m.attributes_.push_back(Attribute{nameId, *valueId});
        if (!stored.hasNexus && name == "Nexus") {
            stored.hasNexus = true;
            stored.nexus = *valueId;
        }
    }
    // The plug-in takes the answer with its terminating NUL in 64 KiB.
    if (answerSize + 1 > kMaxObjectAnswerBytes) {
        return failAt(what() + "its text is " + std::to_string(answerSize) +
                      " bytes, over the limit of " + std::to_string(kMaxObjectAnswerBytes - 1));
    }
    stored.answerSize = static_cast<uint32_t>(answerSize);
    stored.count = static_cast<uint16_t>(o.attributes.size());
    m.objects_.push_back(stored);
    m.byType_[static_cast<size_t>(type)].push_back(pos);
    return true;
}

std::shared_ptr<const Model> Model::Builder::finish(std::string *error)
{
    tables_.reset();
    if (!model_->indexAll(error))
        return nullptr;
    return std::move(model_);
}

std::shared_ptr<const Model> Model::build(ModelData data, std::string *error)
{
    std::string message;
    Builder builder(std::move(data.origins), std::move(data.storage), data.storageWhere);
    size_t attributes = 0;
    for (const ObjectData &o : data.objects)
        attributes += o.attributes.size();
    builder.reserve(data.objects.size(), attributes);
    bool ok = builder.start(&message);
    for (size_t i = 0; ok && i < data.objects.size(); ++i)
        ok = builder.add(data.objects[i], &message);
    for (const LinkData &l : data.links)
        builder.addLink(l);
    std::shared_ptr<const Model> model = ok ? builder.finish(&message) : nullptr;
    if (model == nullptr && error != nullptr)
        *error = std::move(message);
    return model;
}

bool Model::indexAll(std::string *error)
{
    auto fail = [&](const Where &where, const std::string &message) {
        *error = place(origins_, where) + ": " + message;
        return false;
    };
    const size_t n = objects_.size();
    objects_.shrink_to_fit();
    attributes_.shrink_to_fit();
    values_.shrink_to_fit();
    valueStart_.shrink_to_fit();
    escapes_.shrink_to_fit();
    names_.shrink_to_fit();
    tags_.reserve(names_.size());
    flatNames_ = true;
    for (const std::string &name : names_) {
        flatNames_ = flatNames_ && rt::xml::isFlatName(name);
        tags_.push_back(
            Tag{static_cast<uint32_t>(tagText_.size()), static_cast<uint32_t>(name.size())});
        tagText_.append("<").append(name).append("></").append(name).append(">");
    }
    // Views into values_ from here on: it does not change again.
    byNexus_.assign(kObjectTypeCount, {});
    for (size_t pos = 0; pos < n; ++pos) {
        const Object &o = objects_[pos];
        if (o.hasNexus)
            byNexus_[o.type].emplace(value(o.nexus), static_cast<uint32_t>(pos));
    }
    // Each name's last object, by position + 1: an object that meets its
    // own position there names an attribute twice.
    distinctNames_ = true;
    std::vector<uint32_t> seenIn(names_.size(), 0);
    for (size_t pos = 0; pos < n && distinctNames_; ++pos) {
        const Object &o = objects_[pos];
        const auto stamp = static_cast<uint32_t>(pos + 1);
        for (size_t i = 0; i < o.count; ++i) {
            uint32_t &seen = seenIn[attributes_[o.first + i].name];
            if (seen == stamp) {
                distinctNames_ = false;
                break;
            }
            seen = stamp;
        }
    }

    parent_.assign(n, kNone);
    children_.assign(n, {});
    for (size_t pos = 0; pos < n; ++pos) {
        const Object &o = objects_[pos];
        if (o.parentId == 0)
            continue;
        auto it = byId_.find(o.parentId);
        if (it == byId_.end()) {
            return fail(o.where, "object " + std::to_string(o.id) + ": parent " +
                                     std::to_string(o.parentId) + " is not an object of the model");
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
            const Object &o = objects_[p];
            return fail(o.where, "object " + std::to_string(o.id) +
                                     " is its own ancestor (its parent chain loops)");
        }
        for (size_t w : walk)
            state[w] = 2;
    }

    linked_.assign(n, {});
    for (const auto &l : links_) {
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
    return storage_[it->second].second;
}

ModelData Model::data() const
{
    ModelData data;
    data.origins = origins_;
    data.storage = storage_;
    data.storageWhere = storageWhere_;
    data.objects.reserve(objects_.size());
    for (size_t pos = 0; pos < objects_.size(); ++pos) {
        const Object &o = objects_[pos];
        ObjectData &d = data.objects.emplace_back();
        d.id = o.id;
        d.type = typeOf(pos);
        d.parent = o.parentId;
        d.where = o.where;
        d.attributes.reserve(o.count);
        for (size_t i = 0; i < o.count; ++i)
            d.attributes.emplace_back(attributeName(pos, i), attributeValue(pos, i));
    }
    data.links = links_;
    return data;
}

std::optional<std::string_view> Model::attribute(size_t pos, std::string_view name) const
{
    const Object &o = objects_[pos];
    for (size_t i = 0; i < o.count; ++i) {
        const Attribute &a = attributes_[o.first + i];
        if (names_[a.name] == name)
            return value(a.value);
    }
    return std::nullopt;
}

std::optional<std::string_view> Model::nexusOf(size_t pos) const
{
    const Object &o = objects_[pos];
    if (!o.hasNexus)
        return std::nullopt;
    return value(o.nexus);
}

uint64_t Model::nextSerial()
{
    static std::atomic<uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

void Model::writeAnswer(size_t pos, char *out, std::vector<rt::xml::FlatElement> *elements) const
{
    const Object &o = objects_[pos];
    char *const begin = out;
    char id[16];
    const auto idEnd = std::to_chars(id, id + sizeof id, o.id).ptr;
    out = std::copy_n("<ObjID>", 7, out);
    out = std::copy(id, idEnd, out);
    out = std::copy_n("</ObjID>", 8, out);
    // One element per attribute after <ObjID>, written in place.
    rt::xml::FlatElement *element = nullptr;
    if (elements != nullptr) {
        elements->resize(size_t{o.count} + 1);
        element = elements->data();
        *element++ = {1, 5, 7, static_cast<uint32_t>(idEnd - id)};
    }
    for (size_t i = 0; i < o.count; ++i) {
        const Attribute &a = attributes_[o.first + i];
        const Tag tag = tags_[a.name];
        const char *open = tagText_.data() + tag.start;
        out = copySmall(open, tag.nameSize + 2, out);
        char *const content = out;
        const std::string_view text = value(a.value);
        out =
            escapes_[a.value] ? writeEscaped(text, out) : copySmall(text.data(), text.size(), out);
        if (element != nullptr) {
            // An answer is at most kMaxObjectAnswerBytes long.
            const auto at = [begin](const char *p) { return static_cast<uint32_t>(p - begin); };
            *element++ = {at(content) - tag.nameSize - 1, tag.nameSize, at(content),
                          at(out) - at(content)};
        }
        out = copySmall(open + tag.nameSize + 2, tag.nameSize + 3, out);
    }
}

std::string Model::answer(size_t pos) const
{
    std::string text(answerSize(pos), '\0');
    writeAnswer(pos, text.data());
    return text;
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
        if (objects_[p].type == t)
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
