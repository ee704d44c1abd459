// Model files and added fragments, from well-formed XML to ModelData: the
// shape of <storage>, <object> and <link> and the syntax of ids. Checks that
// span objects (duplicates, parents, links, sizes) belong to Model::build.
#include <charconv>
#include <optional>

#include "datastore/model.h"
#include "datastore/xml_reader.h"

namespace kelp::ds {
namespace {

// storage > object > attribute element, and one more level so that an
// attribute holding elements gets a message of its own.
constexpr uint32_t kModelDepth = 4;

class ItemParser {
  public:
    ItemParser(ModelData *data, uint32_t origin, std::string *error)
        : data_(data), origin_(origin), error_(error)
    {
    }

    // Appends one <object> or <link> element to the model data, taking the
    // texts out of e.
    bool item(xml::Element &e);

  private:
    bool fail(uint32_t line, const std::string &message);
    bool onlyAttributes(const xml::Element &e, std::initializer_list<std::string_view> known);
    bool id(const xml::Element &e, std::string_view name, bool required, uint32_t *out);
    bool object(xml::Element &e);
    bool link(const xml::Element &e);

    ModelData *data_;
    uint32_t origin_;
    std::string *error_;
};

bool ItemParser::fail(uint32_t line, const std::string &message)
{
    if (error_ != nullptr)
        *error_ = data_->at(Where{origin_, line}) + message;
    return false;
}

bool ItemParser::onlyAttributes(const xml::Element &e,
                                std::initializer_list<std::string_view> known)
{
    for (const auto &a : e.attributes) {
        bool isKnown = false;
        for (std::string_view k : known)
            isKnown = isKnown || a.name == k;
        if (!isKnown)
            return fail(e.line, "unknown attribute " + a.name + " of <" + e.name + ">");
    }
    return true;
}

// An object id: decimal digits only, 1 to 2^32-1.
bool ItemParser::id(const xml::Element &e, std::string_view name, bool required, uint32_t *out)
{
    const std::string *text = e.attribute(name);
    if (text == nullptr) {
        if (!required)
            return true;
        return fail(e.line, "<" + e.name + "> has no " + std::string(name) + " attribute");
    }
    uint32_t value = 0;
    const char *end = text->data() + text->size();
    auto [stop, ec] = std::from_chars(text->data(), end, value);
    if (text->empty() || (*text)[0] < '0' || (*text)[0] > '9' || ec != std::errc() || stop != end ||
        value == 0) {
        return fail(e.line, std::string(name) + "=\"" + *text +
                                "\" is not an object id (a number from 1 to 4294967295)");
    }
    *out = value;
    return true;
}

bool ItemParser::object(xml::Element &e)
{
    ObjectData o;
    o.where = Where{origin_, e.line};
    if (!onlyAttributes(e, {"id", "type", "parent"}) || !id(e, "id", true, &o.id) ||
        !id(e, "parent", false, &o.parent)) {
        return false;
    }
    const std::string *type = e.attribute("type");
    if (type == nullptr)
        return fail(e.line, "<object> has no type attribute");
    o.type = *type;
    if (e.textLine != 0) {
        return fail(e.textLine, "text directly inside <object> (an attribute is an element: "
                                "<Name>value</Name>)");
    }
    o.attributes.reserve(e.children.size());
    for (auto &a : e.children) {
        if (!a.attributes.empty()) {
            return fail(a.line, "attribute element <" + a.name +
                                    "> has XML attributes; its value is its text");
        }
        if (!a.children.empty()) {
            return fail(a.children.front().line,
                        "attribute element <" + a.name + "> holds elements; it holds text only");
        }
        o.attributes.emplace_back(std::move(a.name), std::move(a.text));
    }
    data_->objects.push_back(std::move(o));
    return true;
}

bool ItemParser::link(const xml::Element &e)
{
    LinkData l;
    l.where = Where{origin_, e.line};
    if (!onlyAttributes(e, {"a", "b"}) || !id(e, "a", true, &l.a) || !id(e, "b", true, &l.b))
        return false;
    if (e.textLine != 0 || !e.children.empty())
        return fail(e.line, "<link> holds something; write it as <link a=\"..\" b=\"..\"/>");
    data_->links.push_back(l);
    return true;
}

bool ItemParser::item(xml::Element &e)
{
    if (e.name == "object")
        return object(e);
    if (e.name == "link")
        return link(e);
    return fail(e.line, "unexpected <" + e.name + "> (a model holds <object> and <link>)");
}

// About how many objects a model text holds (its "<object" tags, counted
// in one fast pass), so that the model's tables are sized once instead of
// growing and rehashing object by object.
size_t objectsIn(std::string_view text)
{
    constexpr std::string_view kTag = "<object";
    size_t count = 0;
    for (size_t at = text.find(kTag); at != std::string_view::npos; at = text.find(kTag, at + 1))
        ++count;
    return count;
}

bool xmlFailure(const xml::Error &xmlError, const std::string &origin, std::string *error)
{
    if (error != nullptr)
        *error = origin + ":" + std::to_string(xmlError.line) + ": " + xmlError.message;
    return false;
}

} // namespace

std::string ModelData::place(const Where &where) const
{
    std::string origin = where.origin < origins.size() ? origins[where.origin] : "model";
    return origin + ":" + std::to_string(where.line);
}

bool parseModelText(std::string_view text, const std::string &origin, ModelData *data,
                    std::string *error)
{
    xml::Element root;
    xml::Error xmlError;
    if (!xml::parseDocument(text, &root, &xmlError, kModelDepth))
        return xmlFailure(xmlError, origin, error);
    ModelData parsed;
    parsed.origins.push_back(origin);
    parsed.storageWhere = Where{0, root.line};
    ItemParser items(&parsed, 0, error);
    if (root.name != "storage") {
        if (error != nullptr)
            *error = parsed.at(parsed.storageWhere) + "the root element is <" + root.name +
                     ">, not <storage>";
        return false;
    }
    if (root.textLine != 0) {
        if (error != nullptr)
            *error = parsed.at(Where{0, root.textLine}) + "text directly inside <storage>";
        return false;
    }
    parsed.storage.reserve(root.attributes.size());
    for (auto &a : root.attributes)
        parsed.storage.emplace_back(std::move(a.name), std::move(a.value));
    for (auto &e : root.children) {
        if (!items.item(e))
            return false;
    }
    *data = std::move(parsed);
    return true;
}

std::shared_ptr<const Model> readModel(std::string_view text, const std::string &origin,
                                       std::string *error)
{
    if (std::shared_ptr<const Model> model = readQuickly(text, origin))
        return model;
    // A problem is reported as parseModelText and build would find it:
    // one of the XML first, then of the root, then of an item (the first),
    // then of the model (the first). So the first problem of an item or of
    // the model is kept, and the text is read to its end regardless.
    ModelData items;
    items.origins.push_back(origin);
    std::string itemError, buildError;
    bool itemFailed = false, buildFailed = false;
    ItemParser parser(&items, 0, &itemError);
    std::optional<Model::Builder> builder;
    auto startBuilder = [&](const xml::Element &root) {
        Attributes storage;
        storage.reserve(root.attributes.size());
        for (const auto &a : root.attributes)
            storage.emplace_back(a.name, a.value);
        builder.emplace(items.origins, std::move(storage), Where{0, root.line});
        builder->reserve(objectsIn(text), 0);
        buildFailed = !builder->start(&buildError);
    };
    const xml::ChildSink sink = [&](const xml::Element &root, xml::Element &child) {
        if (itemFailed)
            return;
        if (!builder)
            startBuilder(root);
        if (!parser.item(child)) {
            itemFailed = true;
            return;
        }
        for (ObjectData &o : items.objects) {
            if (!buildFailed && !builder->add(o, &buildError))
                buildFailed = true;
        }
        for (const LinkData &l : items.links)
            builder->addLink(l);
        items.objects.clear();
        items.links.clear();
    };
    xml::Element root;
    xml::Error xmlError;
    if (!xml::parseDocument(text, &root, &xmlError, kModelDepth, sink)) {
        xmlFailure(xmlError, origin, error);
        return nullptr;
    }
    auto fail = [&](std::string message) -> std::shared_ptr<const Model> {
        if (error != nullptr)
            *error = std::move(message);
        return nullptr;
    };
    if (root.name != "storage")
        return fail(items.at(Where{0, root.line}) + "the root element is <" + root.name +
                    ">, not <storage>");
    if (root.textLine != 0)
        return fail(items.at(Where{0, root.textLine}) + "text directly inside <storage>");
    if (itemFailed)
        return fail(std::move(itemError));
    if (!builder)
        startBuilder(root);
    if (buildFailed)
        return fail(std::move(buildError));
    std::string message;
    std::shared_ptr<const Model> model = builder->finish(&message);
    return model != nullptr ? model : fail(std::move(message));
}

bool parseModelFragment(std::string_view text, const std::string &origin, ModelData *data,
                        std::string *error)
{
    std::vector<xml::Element> elements;
    xml::Error xmlError;
    if (!xml::parseFragment(text, &elements, &xmlError, kModelDepth - 1))
        return xmlFailure(xmlError, origin, error);
    if (elements.empty()) {
        if (error != nullptr)
            *error = origin + ": no <object> or <link> element";
        return false;
    }
    // Appended to a copy first so that a bad element leaves data as it was.
    ModelData added;
    added.origins = data->origins;
    added.origins.push_back(origin);
    const auto originIndex = static_cast<uint32_t>(added.origins.size() - 1);
    ItemParser items(&added, originIndex, error);
    for (auto &e : elements) {
        if (!items.item(e))
            return false;
    }
    data->origins = std::move(added.origins);
    for (auto &o : added.objects)
        data->objects.push_back(std::move(o));
    for (const auto &l : added.links)
        data->links.push_back(l);
    return true;
}

} // namespace kelp::ds
