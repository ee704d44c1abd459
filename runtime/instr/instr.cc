// The instrumentation object layer: the system (object 2) has one chassis
// object (type 33, id 3) and one base-board object (type 259, id 4, the
// system board), whose service tags are the served storage model's
// <storage> attributes "chassisServiceTag" and "baseBoardServiceTag".
//
// An object exists while a model is served and has its attribute: no model,
// or a model without the attribute, lists no child of that type and fetches
// no object. An empty attribute gives an object without a tag (offset 0).
// Every call reads the model served at that moment, so a list and a later
// fetch may disagree when the model changes between them; each answer is a
// heap copy that stays valid until SMILFreeGeneric, whatever the model does.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "instr/service_tag.h"
#include "vcsgen.h"

namespace kelp::instr {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool isContinuation(unsigned char c)
{
    return (c & 0xC0) == 0x80;
}

// The length of the well-formed sequence at s[0] (1 to 4, its code point in
// *cp), or 0 when it is malformed.
size_t decodeOne(std::string_view s, char32_t *cp)
{
    const auto b0 = static_cast<unsigned char>(s[0]);
    if (b0 < 0x80) {
        *cp = b0;
        return 1;
    }
    size_t len;
    char32_t value;
    unsigned char lo = 0x80, hi = 0xBF; // the range of the second byte
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
        value = b0 & 0x1Fu;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        value = b0 & 0x0Fu;
        if (b0 == 0xE0)
            lo = 0xA0; // no overlong form
        else if (b0 == 0xED)
            hi = 0x9F; // no surrogate
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        value = b0 & 0x07u;
        if (b0 == 0xF0)
            lo = 0x90; // no overlong form
        else if (b0 == 0xF4)
            hi = 0x8F; // nothing beyond U+10FFFF
    } else {
        return 0;
    }
    if (s.size() < len)
        return 0;
    const auto b1 = static_cast<unsigned char>(s[1]);
    if (b1 < lo || b1 > hi)
        return 0;
    value = (value << 6) | (b1 & 0x3Fu);
    for (size_t i = 2; i < len; ++i) {
        const auto b = static_cast<unsigned char>(s[i]);
        if (!isContinuation(b))
            return 0;
        value = (value << 6) | (b & 0x3Fu);
    }
    *cp = value;
    return len;
}

// One object kind of the layer.
struct Kind {
    SMILObjID id;
    uint16_t type;
    const char *attribute;
};

constexpr Kind kKinds[] = {
    {kChassisId, SMIL_OBJTYPE_CHASSIS_PROPS2, "chassisServiceTag"},
    {kBaseBoardId, SMIL_OBJTYPE_BASE_BOARD, "baseBoardServiceTag"},
};

const Kind *kindOfType(uint16_t type)
{
    for (const Kind &k : kKinds) {
        if (k.type == type)
            return &k;
    }
    return nullptr;
}

const Kind *kindOfId(SMILObjID id)
{
    for (const Kind &k : kKinds) {
        if (k.id == id)
            return &k;
    }
    return nullptr;
}

// The kind's service tag in the model served now, or nullopt when the object
// does not exist (no model, no attribute, or a value over the limit) or
// memory ran out.
std::optional<std::string> currentTag(const Kind &kind) noexcept
{
    try {
        std::shared_ptr<const kelp::ds::Model> model = kelp::ds::servedModel();
        if (model == nullptr)
            return std::nullopt;
        std::optional<std::string> tag = model->storageAttribute(kind.attribute);
        if (!tag || tag->size() > kMaxServiceTagBytes)
            return std::nullopt;
        return tag;
    } catch (...) {
        return std::nullopt;
    }
}

// A zeroed heap block of `size` bytes for SMILFreeGeneric, or null.
void *allocate(size_t size)
{
    return std::calloc(1, size);
}

// The object of `kind` with `tag`: the record, then (for a non-empty tag)
// the UCS-2 text and its NUL right after it. Null when out of memory.
void *buildObject(const Kind &kind, const std::string &tag)
{
    const size_t fixed = kind.type == SMIL_OBJTYPE_BASE_BOARD ? sizeof(SMILBaseBoardObj)
                                                              : sizeof(SMILChassisProps2Obj);
    const std::u16string text = utf8ToUcs2(tag);
    // At most kMaxServiceTagBytes + 1 code units: the size fits any type.
    const size_t size = text.empty() ? fixed : fixed + (text.size() + 1) * sizeof(char16_t);
    auto *block = static_cast<unsigned char *>(allocate(size));
    if (block == nullptr)
        return nullptr;
    const uint32_t offset = text.empty() ? 0 : static_cast<uint32_t>(fixed);
    if (!text.empty()) // the NUL is already there: the block is zeroed
        std::memcpy(block + fixed, text.data(), text.size() * sizeof(char16_t));
    SMILObjHeader header{};
    header.objSize = static_cast<uint32_t>(size);
    header.objType = kind.type;
    header.objId = kind.id;
    if (kind.type == SMIL_OBJTYPE_BASE_BOARD) {
        SMILBaseBoardObj obj{};
        obj.hdr = header;
        obj.baseBoardType = kSystemBoardType;
        obj.offsetServiceTag = offset;
        std::memcpy(block, &obj, sizeof obj);
    } else {
        SMILChassisProps2Obj obj{};
        obj.hdr = header;
        obj.offsetServiceTag = offset;
        std::memcpy(block, &obj, sizeof obj);
    }
    return block;
}

} // namespace

std::u16string utf8ToUcs2(std::string_view utf8)
{
    std::u16string out;
    out.reserve(utf8.size());
    while (!utf8.empty()) {
        char32_t cp = 0;
        size_t len = decodeOne(utf8, &cp);
        if (len == 0) {
            out.push_back(kReplacement);
            len = 1;
        } else if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        utf8.remove_prefix(len);
    }
    return out;
}

} // namespace kelp::instr

extern "C" {

// The system is the only parent; each type has at most one child. Null for
// a null or unknown parent, an unknown type, a child that does not exist
// now, or no memory.
SMILObjIDList *SMILListChildOIDByType(const SMILObjID *parent, uint16_t objType)
{
    using namespace kelp::instr;
    if (parent == nullptr || *parent != kSystemId)
        return nullptr;
    const Kind *kind = kindOfType(objType);
    if (kind == nullptr || !currentTag(*kind))
        return nullptr;
    auto *list = static_cast<SMILObjIDList *>(allocate(sizeof(SMILObjIDList)));
    if (list == nullptr)
        return nullptr;
    list->count = 1;
    list->ids[0] = kind->id;
    return list;
}

// Null for a null id, the system itself (it has no record), an unknown id,
// an object that does not exist now, or no memory.
void *SMILGetObjByOID(const SMILObjID *id)
{
    using namespace kelp::instr;
    if (id == nullptr)
        return nullptr;
    const Kind *kind = kindOfId(*id);
    if (kind == nullptr)
        return nullptr;
    std::optional<std::string> tag = currentTag(*kind);
    if (!tag)
        return nullptr;
    try {
        return buildObject(*kind, *tag);
    } catch (...) { // out of memory while converting: no object
        return nullptr;
    }
}

// Lists and objects are heap blocks; null is ignored.
void SMILFreeGeneric(void *p)
{
    std::free(p);
}

} // extern "C"
