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
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelp::rt::xml {
struct FlatElement;
} // namespace kelp::rt::xml

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

// An object as a reader that keeps the file's text hands it to
// Model::Builder: the views need to live only until the builder's add
// returns. The fields mean what ObjectData's do.
struct ObjectView {
    using Attribute = std::pair<std::string_view, std::string_view>;
    uint32_t id = 0;
    std::string_view type;
    uint32_t parent = 0;
    std::span<const Attribute> attributes;
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

class Model;

// A model file's text read straight into a model: what parseModelText and
// then Model::build answer, the same messages included, but each object is
// checked and stored as soon as it is read, so that neither the text's
// tree nor the model data is ever held whole. Null with *error.
std::shared_ptr<const Model> readModel(std::string_view text, const std::string &origin,
                                       std::string *error);

// readModel's quick way: the model of a text of the shape model files
// mostly have (a <storage> of <object>s whose attribute elements hold one
// run of text each, and <link>s; blanks, comments and processing
// instructions between them), read straight from views into the text.
// Null when the text holds anything else or is no good model: then
// readModel reads it the general way, which names the problem if there is
// one. What it answers is what the general way would.
std::shared_ptr<const Model> readQuickly(std::string_view text, const std::string &origin);

class Model {
  public:
    // Validates data as a model file is validated and indexes it. Null with
    // *error naming the origin and line of the first problem. The objects'
    // attributes are taken out of data as they are stored, so that the
    // model and data never both hold them whole.
    static std::shared_ptr<const Model> build(ModelData data, std::string *error);

    // Builds a model object by object, as a model file is read, with the
    // checks and the error messages of build(): start, then add each object
    // in file order and each link, then finish. After a false answer the
    // builder is spent.
    class Builder {
      public:
        Builder(std::vector<std::string> origins, Attributes storage, Where storageWhere);
        ~Builder();
        Builder(const Builder &) = delete;
        Builder &operator=(const Builder &) = delete;
        // Checks the attributes of <storage>; before any object is added.
        bool start(std::string *error);
        // Room for this many more objects and attributes (a hint).
        void reserve(size_t objects, size_t attributes);
        // Checks and stores the next object, taking its attributes out of it.
        bool add(ObjectData &object, std::string *error);
        // The same for an object given as views: a name or a value is
        // copied into the model only the first time it is met.
        bool add(const ObjectView &object, std::string *error);
        // Keeps a link; finish checks it.
        void addLink(const LinkData &link);
        // The checks across objects and the indexes: the model, or null with
        // *error naming the origin and line of the first problem.
        std::shared_ptr<const Model> finish(std::string *error);

      private:
        struct Tables;
        // add() of either form: Texts is ObjectData or ObjectView.
        template <class Texts> bool addObject(const Texts &object, std::string *error);
        std::shared_ptr<Model> model_;
        std::unique_ptr<Tables> tables_;
    };

    // The data the model was built from, made anew: building a model from
    // it gives the same model. For changes (which edit a copy) and writers.
    ModelData data() const;
    // A number no other model of this process has (the first is 1): what
    // was made from this model may be kept under it.
    uint64_t serial() const { return serial_; }
    // Where the model came from (ModelData::origins[0]).
    const std::string &origin() const { return origins_.front(); }
    bool ready() const { return ready_; }
    uint32_t thermalShutdown() const { return thermalShutdown_; }
    // The value of an attribute of <storage>, or nullopt. One hash look-up.
    std::optional<std::string> storageAttribute(std::string_view name) const;

    // The number of objects.
    size_t size() const { return objects_.size(); }
    // Position of an object in file order, or nullopt.
    std::optional<size_t> find(uint32_t id) const;
    // Position of the object of `type` whose first "Nexus" attribute is
    // `nexus` exactly (the first such object in file order when the model
    // repeats a nexus), or nullopt; nullopt for a type the model does not
    // know. Indexed when the model is built: one hash look-up, no copy.
    std::optional<size_t> findByNexus(std::string_view type, std::string_view nexus) const;
    // The id and the type name of the object at pos.
    uint32_t idOf(size_t pos) const { return objects_[pos].id; }
    std::string_view typeOf(size_t pos) const { return kObjectTypes[objects_[pos].type].name; }
    // The object's attributes in order, repeats included: count, and the
    // name and value of the i-th. Views into the model.
    size_t attributeCount(size_t pos) const { return objects_[pos].count; }
    std::string_view attributeName(size_t pos, size_t i) const
    {
        return names_[attributes_[objects_[pos].first + i].name];
    }
    std::string_view attributeValue(size_t pos, size_t i) const
    {
        return value(attributes_[objects_[pos].first + i].value);
    }
    // The value of the object's first attribute called `name` (the one a
    // reader of its answer finds), or nullopt. A view into the model.
    std::optional<std::string_view> attribute(size_t pos, std::string_view name) const;
    // What names an object to the plug-in: the kObjectTypes index of its
    // type, and the value of its first "Nexus" attribute (nullopt when it
    // has none). Indexed: no scan.
    int typeIndexOf(size_t pos) const { return objects_[pos].type; }
    std::optional<std::string_view> nexusOf(size_t pos) const;
    // The object's answer: <ObjID>id</ObjID> and its attribute elements,
    // made on each call. answerSize is its length, known without making it;
    // writeAnswer writes exactly that many bytes at out.
    // With `elements`, writeAnswer also puts there the answer's elements
    // (<ObjID> first), as offsets from out; the answer is a flat text
    // (xmlsup/flat_answer.h) when hasFlatNames().
    size_t answerSize(size_t pos) const { return objects_[pos].answerSize; }
    void writeAnswer(size_t pos, char *out,
                     std::vector<rt::xml::FlatElement> *elements = nullptr) const;
    // True when every attribute name is a flat name (rt::xml::isFlatName):
    // values are written escaped, so every answer is then a flat text.
    bool hasFlatNames() const { return flatNames_; }
    // True when no object names an attribute twice: each element name of an
    // answer is then that of one element.
    bool hasDistinctNames() const { return distinctNames_; }
    std::string answer(size_t pos) const;
    // Positions of the objects of a type, in file order; empty for an unknown type.
    const std::vector<size_t> &ofType(std::string_view type) const;
    // Positions of the objects of type `kind` that are ancestors or
    // descendants of the object at pos, or linked to it, in file order.
    std::vector<size_t> associated(std::string_view kind, size_t pos) const;
    // Position of the parent, or nullopt.
    std::optional<size_t> parentOf(size_t pos) const;
    // The links as the model data gives them, repeats included.
    const std::vector<LinkData> &links() const { return links_; }
    // Positions of the objects linked to pos, in file order.
    const std::vector<size_t> &linkedTo(size_t pos) const { return linked_[pos]; }
    // Positions of the direct children of pos, in file order.
    const std::vector<size_t> &childrenOf(size_t pos) const { return children_[pos]; }

  private:
    // Lets the indexes be searched with a string_view.
    struct TextHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const noexcept
        {
            return std::hash<std::string_view>{}(text);
        }
    };
    using NexusIndex = std::unordered_map<std::string_view, uint32_t, TextHash, std::equal_to<>>;
    using NameIndex = std::unordered_map<std::string_view, size_t, TextHash, std::equal_to<>>;

    // An object as stored: its attributes are attributes_[first, first + count).
    struct Object {
        uint32_t id;
        uint32_t parentId; // 0: none
        Where where;
        uint32_t first;
        uint32_t answerSize;
        uint16_t count;
        uint8_t type; // kObjectTypes index
        bool hasNexus;
        uint32_t nexus; // value id of the first "Nexus", when hasNexus
    };
    // One attribute: an index into names_ and a value id. A name or a value
    // that many objects share is stored once.
    struct Attribute {
        uint32_t name;
        uint32_t value;
    };

    Model() = default;
    // The indexes hold views into the tables.
    Model(const Model &) = delete;
    Model &operator=(const Model &) = delete;
    // The checks of <storage>'s attributes, and those across objects with
    // the indexes (Builder::start and Builder::finish).
    bool checkStorage(std::string *error);
    bool indexAll(std::string *error);
    std::string_view value(uint32_t id) const
    {
        return std::string_view(values_).substr(valueStart_[id],
                                                valueStart_[id + 1] - valueStart_[id]);
    }

    static uint64_t nextSerial();

    const uint64_t serial_ = nextSerial();
    std::vector<std::string> origins_;
    Attributes storage_;
    Where storageWhere_;
    std::vector<LinkData> links_;
    bool ready_ = true;
    uint32_t thermalShutdown_ = 0;
    NameIndex storageIndex_; // name (a view into storage_) -> its first position there
    std::vector<Object> objects_;
    std::vector<Attribute> attributes_;
    std::vector<std::string> names_;   // each attribute name once
    std::string values_;               // each distinct value once, end to end
    std::vector<uint32_t> valueStart_; // value id -> its offset in values_; one more at the end
    // Each name's tags, "<Name></Name>", end to end; name id -> where its
    // tags start and how long the name is. Answers are written from them.
    struct Tag {
        uint32_t start;
        uint32_t nameSize;
    };
    std::string tagText_;
    std::vector<Tag> tags_;
    bool flatNames_ = false;     // hasFlatNames()
    bool distinctNames_ = false; // hasDistinctNames()
    // value id -> whether its text holds a character that an answer writes
    // as an entity; the others are copied into answers as they stand.
    std::vector<bool> escapes_;
    std::unordered_map<uint32_t, uint32_t> byId_;
    std::vector<size_t> parent_; // position of the parent, or kNone
    std::vector<std::vector<size_t>> children_;
    std::vector<std::vector<size_t>> linked_;
    std::vector<std::vector<size_t>> byType_; // per kObjectTypes entry
    std::vector<NexusIndex> byNexus_;         // per kObjectTypes entry
};

// The value of the object's first attribute called `name`, or null. Points
// into `object`. For model data before it is built (the live source).
const std::string *firstAttribute(const ObjectData &object, std::string_view name);

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_MODEL_H
