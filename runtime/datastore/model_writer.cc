// Model files from model data (see model_writer.h). One object a few lines,
// laid out as the shipped models are, so that a saved model reads and diffs
// like a written one.
#include "datastore/model_writer.h"

#include "datastore/model.h"
#include "datastore/xml_text.h"

namespace kelp::ds {
namespace {

void appendAttribute(std::string *out, const std::string &name, const std::string &value)
{
    *out += ' ';
    *out += name;
    *out += "=\"";
    *out += xml::escapeValue(value);
    *out += '"';
}

void appendObject(std::string *out, const ObjectData &object)
{
    *out += "  <object";
    appendAttribute(out, "id", std::to_string(object.id));
    appendAttribute(out, "type", object.type);
    if (object.parent != 0)
        appendAttribute(out, "parent", std::to_string(object.parent));
    if (object.attributes.empty()) {
        *out += "/>\n";
        return;
    }
    *out += ">\n";
    for (const auto &[name, value] : object.attributes) {
        *out += "    <";
        *out += name;
        *out += '>';
        *out += xml::escapeValue(value);
        *out += "</";
        *out += name;
        *out += ">\n";
    }
    *out += "  </object>\n";
}

} // namespace

std::string modelText(const ModelData &data)
{
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<storage";
    for (const auto &[name, value] : data.storage)
        appendAttribute(&out, name, value);
    out += ">\n";
    for (const ObjectData &object : data.objects)
        appendObject(&out, object);
    for (const LinkData &link : data.links) {
        out += "  <link";
        appendAttribute(&out, "a", std::to_string(link.a));
        appendAttribute(&out, "b", std::to_string(link.b));
        out += "/>\n";
    }
    out += "</storage>\n";
    return out;
}

std::string modelText(const Model &model)
{
    return modelText(model.data());
}

} // namespace kelp::ds
