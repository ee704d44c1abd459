// A storage model: the objects, their attributes and their associations as
// a model file gives them (ModelData), and the validated, indexed, immutable
// form the data store answers from (Model). Runtime-private.
//
// A Model is only ever built from data that passed every check of a model
// file, so an answer built from it can be trusted to fit the plug-in's
// buffers. Changes copy the data, edit the copy and build a new Model.
#ifndef KELP_RUNTIME_DATASTORE_MODEL_H
#define KELP_RUNTIME_DATASTORE_MODEL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelp::ds {

// Limits of the plug-in's buffers: an object's answer with its NUL, and one
// attribute value without its NUL.
constexpr size_t kMaxObjectAnswerBytes = 65536;
constexpr size_t kMaxAttributeValueBytes = 159;
// Bytes of a model file read at most; a larger file is refused, not cut.
constexpr size_t kMaxModelFileBytes = 256u << 20;

// The object types of the model, in the order status reports them, with the
// event interface's numeric code of each.
struct ObjectType {
    std::string_view name;
    uint32_t code;
};
inline constexpr ObjectType kObjectTypes[] = {
    {"adapters", 769},    {"bus", 770},          {"arraydisks", 772},
    {"Tape", 774},        {"enclosures", 776},   {"fans", 777},
    {"psupplies", 779},   {"tempprobes", 778},   {"emms", 780},
    {"batteries", 771},   {"vdisks", 773},       {"VDPartitionNode", 791},
    {"Tidal Cache", 786}, {"CacheLunNode", 789}, {"Tidal Cache Pool", 792},
    {"NVMeAdapter", 793},
};
constexpr size_t kObjectTypeCount = sizeof kObjectTypes / sizeof kObjectTypes[0];

// Index of a type name in kObjectTypes (exact, case-sensitive), or -1.
int objectTypeIndex(std::string_view name);

// Where a piece of the model was written: an index into ModelData::origins
// (the file, or a fragment added later) and a line there.
struct Where {
    uint32_t origin = 0;
    uint32_t line = 0;
};

using Attributes = std::vector<std::pair<std::string, std::string>>;

struct ObjectData {
    uint32_t id = 0;
    std::string type;
    uint32_t parent = 0;   // 0: none
    Attributes attributes; // in order, repeats allowed; values decoded
    Where where;
};

struct LinkData {
    uint32_t a = 0;
    uint32_t b = 0;
    Where where;
};

struct ModelData {
    std::vector<std::string> origins; // [0]: where the model came from
    Attributes storage;               // the attributes of <storage>
    Where storageWhere;
    std::vector<ObjectData> objects; // in file order
    std::vector<LinkData> links;

    // "origin:line" for messages, and at() that with ": " for a prefix.
    std::string place(const Where &where) const;
    std::string at(const Where &where) const { return place(where) + ": "; }
};

// Parses a model file's text. False with *error ("origin:line: message")
// when the text is not well-formed or not a model; nothing is validated
// across objects yet (Model::build does that).
bool parseModelText(std::string_view text, const std::string &origin, ModelData *data,
                    std::string *error);

// Parses <object> and <link> elements written as inside <storage> and
// appends them to data, under a new origin named `origin`.
bool parseModelFragment(std::string_view text, const std::string &origin, ModelData *data,
                        std::string *error);

class Model {
  public:
    // Validates data as a model file is validated and indexes it. Null with
    // *error naming the origin and line of the first problem.
    static std::shared_ptr<const Model> build(ModelData data, std::string *error);

    const ModelData &data() const { return data_; }
    bool ready() const { return ready_; }
    uint32_t thermalShutdown() const { return thermalShutdown_; }
    // The value of an attribute of <storage>, or nullopt. One hash look-up.
    std::optional<std::string> storageAttribute(std::string_view name) const;

    // Position of an object in file order, or nullopt.
    std::optional<size_t> find(uint32_t id) const;
    // Position of the object of `type` whose first "Nexus" attribute is
    // `nexus` exactly (the first such object in file order when the model
    // repeats a nexus), or nullopt; nullopt for a type the model does not
    // know. Indexed when the model is built: one hash look-up, no copy.
    std::optional<size_t> findByNexus(std::string_view type, std::string_view nexus) const;
    const ObjectData &object(size_t pos) const { return data_.objects[pos]; }
    // What names an object to the plug-in: the kObjectTypes index of its
    // type, and the value of its first "Nexus" attribute (null when it has
    // none, pointing into the model otherwise). Indexed: no scan.
    int typeIndexOf(size_t pos) const { return typeOf_[pos]; }
    const std::string *nexusOf(size_t pos) const { return nexus_[pos]; }
    // The object's answer: <ObjID>id</ObjID> and its attribute elements.
    const std::string &answer(size_t pos) const { return answers_[pos]; }
    // Positions of the objects of a type, in file order; empty for an unknown type.
    const std::vector<size_t> &ofType(std::string_view type) const;
    // Positions of the objects of type `kind` that are ancestors or
    // descendants of the object at pos, or linked to it, in file order.
    std::vector<size_t> associated(std::string_view kind, size_t pos) const;
    // Position of the parent, or nullopt.
    std::optional<size_t> parentOf(size_t pos) const;
    // Positions of the objects linked to pos, in file order.
    const std::vector<size_t> &linkedTo(size_t pos) const { return linked_[pos]; }
    // Positions of the direct children of pos, in file order.
    const std::vector<size_t> &childrenOf(size_t pos) const { return children_[pos]; }

  private:
    // Lets the nexus index be searched with a string_view.
    struct TextHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const noexcept
        {
            return std::hash<std::string_view>{}(text);
        }
    };
    using NexusIndex = std::unordered_map<std::string, size_t, TextHash, std::equal_to<>>;
    using NameIndex = std::unordered_map<std::string_view, size_t, TextHash, std::equal_to<>>;

    explicit Model(ModelData data) : data_(std::move(data)) {}
    // The indexes hold views into data_.
    Model(const Model &) = delete;
    Model &operator=(const Model &) = delete;
    bool index(std::string *error);

    ModelData data_;
    bool ready_ = true;
    uint32_t thermalShutdown_ = 0;
    NameIndex storageIndex_; // name (a view into data_.storage) -> its first position there
    std::unordered_map<uint32_t, size_t> byId_;
    std::vector<size_t> parent_; // position of the parent, or kNone
    std::vector<std::vector<size_t>> children_;
    std::vector<std::vector<size_t>> linked_;
    std::vector<std::vector<size_t>> byType_; // per kObjectTypes entry
    std::vector<int> typeOf_;                 // kObjectTypes index of each object
    std::vector<const std::string *> nexus_;  // first "Nexus" of each object, or null
    std::vector<NexusIndex> byNexus_;         // per kObjectTypes entry
    std::vector<std::string> answers_;
};

// The attribute-element run of an object's answer, <ObjID> first.
std::string objectAnswer(const ObjectData &object);

// The value of the object's first attribute called `name` (the one a reader
// of its answer finds), or null. Points into `object`.
const std::string *firstAttribute(const ObjectData &object, std::string_view name);

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_MODEL_H
