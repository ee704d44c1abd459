// Writing a storage model back as a model file: the text that parseModelText
// reads back as the same storage attributes, objects and links, in the same
// order. What it does not keep: comments, the layout of the file it came
// from, and the origins and lines of its parts.
#ifndef KELP_RUNTIME_DATASTORE_MODEL_WRITER_H
#define KELP_RUNTIME_DATASTORE_MODEL_WRITER_H

#include <string>

namespace kelp::ds {

struct ModelData; // datastore/model.h
class Model;

// The model file of data: an XML declaration, <storage> with its attributes
// in order, each object in order (id, type, parent when it has one, then
// its attributes as elements, repeats kept) and each link, every value
// escaped (xml::escapeValue). For data that Model::build accepts, parsing
// the text gives back equal storage attributes, objects and links; other
// data is written all the same, and may not read back.
std::string modelText(const ModelData &data);

// modelText of the model's data.
std::string modelText(const Model &model);

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_MODEL_WRITER_H
