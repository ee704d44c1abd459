// The data-store answers read straight from model data (ModelData), object
// by object and attribute pair by attribute pair, with nothing shared or
// precomputed: the plain form the store's compact model must answer byte
// for byte (answers_compare_test.cc).
#ifndef KELP_RUNTIME_DATASTORE_PLAIN_ANSWERS_TESTING_H
#define KELP_RUNTIME_DATASTORE_PLAIN_ANSWERS_TESTING_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "datastore/model.h"

namespace kelp::ds::testing {

// An object's answer: <ObjID>id</ObjID>, then each attribute as an element
// in order, its value with '&', '<' and '>' as entities.
inline std::string plainObjectAnswer(const ObjectData &object)
{
    std::string out = "<ObjID>" + std::to_string(object.id) + "</ObjID>";
    for (const auto &[name, value] : object.attributes) {
        out += '<' + name + '>';
        for (char c : value) {
            if (c == '&')
                out += "&amp;";
            else if (c == '<')
                out += "&lt;";
            else if (c == '>')
                out += "&gt;";
            else
                out += c;
        }
        out += "</" + name + '>';
    }
    return out;
}

// Positions of the objects of `type`, in file order.
inline std::vector<size_t> plainOfType(const ModelData &data, std::string_view type)
{
    std::vector<size_t> out;
    for (size_t p = 0; p < data.objects.size(); ++p) {
        if (data.objects[p].type == type)
            out.push_back(p);
    }
    return out;
}

// Position of the object `id`, or data.objects.size().
inline size_t plainFind(const ModelData &data, uint32_t id)
{
    for (size_t p = 0; p < data.objects.size(); ++p) {
        if (data.objects[p].id == id)
            return p;
    }
    return data.objects.size();
}

// Whether the object at `of` has `ancestor` on its parent chain.
inline bool plainDescends(const ModelData &data, size_t of, size_t ancestor)
{
    for (uint32_t parent = data.objects[of].parent; parent != 0;) {
        const size_t p = plainFind(data, parent);
        if (p == ancestor)
            return true;
        parent = data.objects[p].parent;
    }
    return false;
}

// Positions of the objects of type `kind` that are ancestors or descendants
// of the object at pos or linked to it, in file order, each once.
inline std::vector<size_t> plainAssociated(const ModelData &data, std::string_view kind, size_t pos)
{
    std::vector<size_t> out;
    const uint32_t id = data.objects[pos].id;
    for (size_t p = 0; p < data.objects.size(); ++p) {
        if (data.objects[p].type != kind)
            continue;
        bool related = plainDescends(data, pos, p) || plainDescends(data, p, pos);
        for (const LinkData &l : data.links) {
            related = related || (l.a == id && l.b == data.objects[p].id) ||
                      (l.b == id && l.a == data.objects[p].id);
        }
        if (related)
            out.push_back(p);
    }
    return out;
}

// A list answer: the objects' answers inside <ObjList>.
inline std::string plainList(const ModelData &data, const std::vector<size_t> &positions)
{
    std::string out = "<ObjList>";
    for (size_t p : positions)
        out += plainObjectAnswer(data.objects[p]);
    return out + "</ObjList>";
}

} // namespace kelp::ds::testing

#endif // KELP_RUNTIME_DATASTORE_PLAIN_ANSWERS_TESTING_H
