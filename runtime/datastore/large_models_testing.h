// Model texts with very many attributes, for the tests and the benchmark of
// loading: on <storage>, on one object, or spread over many objects. Each
// attribute's name and value are numbered, so a test can check any of them.
#ifndef KELP_RUNTIME_DATASTORE_LARGE_MODELS_TESTING_H
#define KELP_RUNTIME_DATASTORE_LARGE_MODELS_TESTING_H

#include <cstddef>
#include <string>

namespace kelp::ds::testing {

// <storage ready="1" s0="v0" s1="v1" ...> with `count` numbered attributes,
// one a line (so line 1 + N holds sN), and one adapter.
inline std::string modelWithStorageAttributes(size_t count)
{
    std::string text = "<storage ready=\"1\"";
    text.reserve(count * 20 + 128);
    for (size_t i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        text += "\n s" + n + "=\"v" + n + "\"";
    }
    text += ">\n<object id=\"1\" type=\"adapters\"><Nexus>0</Nexus></object>\n</storage>\n";
    return text;
}

// One adapter (line 2) with `count` attributes <A0>v0</A0>..., one a line.
inline std::string modelWithOneObjectOfAttributes(size_t count)
{
    std::string text = "<storage ready=\"1\">\n<object id=\"1\" type=\"adapters\">\n";
    text.reserve(count * 24 + 128);
    for (size_t i = 0; i < count; ++i) {
        const std::string n = std::to_string(i);
        text += "<A" + n + ">v" + n + "</A" + n + ">\n";
    }
    text += "</object>\n</storage>\n";
    return text;
}

// `objects` array disks with ids 1, 2, ..., one a line, each with a Nexus
// and `attributesEach` - 1 more attributes <A0>vID.0</A0>...
inline std::string modelWithObjectsOfAttributes(size_t objects, size_t attributesEach)
{
    std::string text = "<storage ready=\"1\">\n";
    text.reserve(objects * (attributesEach * 24 + 64) + 64);
    for (size_t o = 1; o <= objects; ++o) {
        const std::string id = std::to_string(o);
        text += "<object id=\"" + id + "\" type=\"arraydisks\"><Nexus>0\\" + id + "</Nexus>";
        for (size_t i = 0; i + 1 < attributesEach; ++i) {
            const std::string n = std::to_string(i);
            text += "<A" + n + ">v" + id + "." + n + "</A" + n + ">";
        }
        text += "</object>\n";
    }
    text += "</storage>\n";
    return text;
}

} // namespace kelp::ds::testing

#endif // KELP_RUNTIME_DATASTORE_LARGE_MODELS_TESTING_H
