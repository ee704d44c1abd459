// Location texts of storage objects (see location.h): one row per kind of
// object and one per nexus shape a type code may take, read by one matcher
// and one formatter. The only thing that comes from the served model is the
// top-level device of a nexus (a controller and its Name); everything else
// is made from the nexus alone, so a name never depends on attributes that
// change while the object lives, nor on whether the model still holds it.
#include "evtmsg/location.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "evtmsg/utf8.h"

namespace kelp::rt::evtmsg {
namespace {

constexpr size_t kMaxElements = 5;
constexpr std::string_view kLargestNumber = "4294967295";
// Five numbers of up to ten digits and the four backslashes between them.
constexpr size_t kLongestShapedNexus = 5 * kLargestNumber.size() + 4;

// What a type code names, and the top-level device the first element of
// its nexus numbers: location1 is "TOPNAME FIRST", with " (Name)" of the
// controller when the device is an `adapters` object.
struct Kind {
    uint32_t code;
    std::string_view name;      // the displayName of a nexus without a shape
    std::string_view modelType; // the model's object type of the code
    std::string_view topType;   // the model's object type of the top-level device
    std::string_view topName;
};

constexpr std::string_view kAdapters = "adapters";

constexpr Kind kKinds[] = {
    {769, "Controller", "adapters", kAdapters, "Controller"},
    {770, "Channel", "bus", kAdapters, "Controller"},
    {771, "Battery", "batteries", kAdapters, "Controller"},
    {772, "Physical Disk", "arraydisks", kAdapters, "Controller"},
    {773, "Virtual Disk", "vdisks", kAdapters, "Controller"},
    {774, "Tape Drive", "Tape", kAdapters, "Controller"},
    {776, "Enclosure", "enclosures", kAdapters, "Controller"},
    {777, "Fan", "fans", kAdapters, "Controller"},
    {778, "Temperature Probe", "tempprobes", kAdapters, "Controller"},
    {779, "Power Supply", "psupplies", kAdapters, "Controller"},
    {780, "EMM", "emms", kAdapters, "Controller"},
    {783, "Physical Disk", "arraydisks", kAdapters, "Controller"},
    {785, "PCIe SSD", "arraydisks", kAdapters, "Controller"},
    {786, "Tidal Cache", "Tidal Cache", "Tidal Cache", "Tidal Cache"},
    {789, "Cache Disk", "CacheLunNode", "Tidal Cache", "Tidal Cache"},
    {791, "Partition", "VDPartitionNode", kAdapters, "Controller"},
    {792, "Tidal Cache Pool", "Tidal Cache Pool", "Tidal Cache", "Tidal Cache"},
    {793, "NVMe Adapter", "NVMeAdapter", "NVMeAdapter", "NVMe Adapter"},
};

// One shape of nexus a type code may take and the texts made from it. A
// shape lists the nexus's elements as data/models/README.md writes them: a
// capital letter stands for any number, digits for a fixed marker. In the
// texts, {X} is the number the shape calls X. The first element is always
// the top-level device's number (location1).
struct NameRule {
    uint32_t code;
    std::string_view shape;
    std::string_view displayName;
    std::string_view location2;
};

// Disks, tapes, enclosures and channels carry the numbers the controller
// knows them by, so an administrator finds the drive from its name; the
// parts of an enclosure, a virtual disk or a cache pool are numbered within
// it, and location2 names it.
constexpr NameRule kRules[] = {
    {769, "C", "Controller {C}", ""},
    {770, "C\\H", "Channel {H}", ""},
    {771, "C\\64\\B", "Battery {B}", ""},
    {772, "C\\H\\E\\S", "Physical Disk {H}:{E}:{S}", "Enclosure {H}:{E}"},
    {772, "C\\H\\T", "Physical Disk {H}:{T}", "Channel {H}"},
    {783, "C\\H\\E\\S", "Physical Disk {H}:{E}:{S}", "Enclosure {H}:{E}"},
    {783, "C\\H\\T", "Physical Disk {H}:{T}", "Channel {H}"},
    {785, "C\\H\\E\\S", "PCIe SSD {H}:{E}:{S}", "Enclosure {H}:{E}"},
    {785, "C\\H\\T", "PCIe SSD {H}:{T}", "Channel {H}"},
    {773, "C\\128\\L", "Virtual Disk {L}", ""},
    {773, "C\\128\\L\\N", "Span {N}", "Virtual Disk {L}"},
    {774, "C\\H\\T", "Tape Drive {H}:{T}", "Channel {H}"},
    {776, "C\\H\\E", "Enclosure {H}:{E}", "Channel {H}"},
    {777, "C\\H\\E\\1\\I", "Fan {I}", "Enclosure {H}:{E}"},
    {778, "C\\H\\E\\3\\I", "Temperature Probe {I}", "Enclosure {H}:{E}"},
    {779, "C\\H\\E\\2\\I", "Power Supply {I}", "Enclosure {H}:{E}"},
    {780, "C\\H\\E\\4\\I", "EMM {I}", "Enclosure {H}:{E}"},
    {786, "X", "Tidal Cache {X}", ""},
    {789, "X\\P\\N", "Cache Disk {N}", "Tidal Cache Pool {P}"},
    {791, "C\\129\\L\\P", "Partition {P}", "Virtual Disk {L}"},
    {792, "X\\P", "Tidal Cache Pool {P}", ""},
    {793, "A", "NVMe Adapter {A}", ""},
};

// The elements of a nexus or shape: views into its text.
struct Elements {
    std::array<std::string_view, kMaxElements> at{};
    size_t count = 0;
};

// Splits text at each backslash. False when it has more than kMaxElements
// elements.
constexpr bool split(std::string_view text, Elements *out)
{
    out->count = 0;
    for (;;) {
        if (out->count == kMaxElements)
            return false;
        const size_t cut = text.find('\\');
        out->at[out->count++] = text.substr(0, cut);
        if (cut == std::string_view::npos)
            return true;
        text.remove_prefix(cut + 1);
    }
}

// A number as the models write one: decimal digits without a sign or a
// leading zero, at most 4294967295. Only one spelling per number, so a name
// stands for one object.
constexpr bool isNumber(std::string_view s)
{
    if (s.empty() || s.size() > kLargestNumber.size() || (s.size() > 1 && s[0] == '0'))
        return false;
    if (!std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return false;
    return s.size() < kLargestNumber.size() || s <= kLargestNumber;
}

constexpr bool isVariable(std::string_view s)
{
    return s.size() == 1 && s[0] >= 'A' && s[0] <= 'Z';
}

// Index of the shape's element called `letter`, or kMaxElements.
constexpr size_t variableIndex(const Elements &shape, char letter)
{
    for (size_t i = 0; i < shape.count; ++i) {
        if (isVariable(shape.at[i]) && shape.at[i][0] == letter)
            return i;
    }
    return kMaxElements;
}

// Whether every {X} of text names a variable of the shape and every brace
// belongs to one.
constexpr bool placeholdersAreKnown(std::string_view text, const Elements &shape)
{
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '}')
            return false;
        if (text[i] != '{')
            continue;
        if (i + 2 >= text.size() || text[i + 2] != '}' ||
            variableIndex(shape, text[i + 1]) == kMaxElements)
            return false;
        i += 2;
    }
    return true;
}

constexpr bool isModelType(std::string_view name)
{
    return std::any_of(std::begin(ds::kObjectTypes), std::end(ds::kObjectTypes),
                       [&](const ds::ObjectType &t) { return t.name == name; });
}

constexpr const Kind *kindOf(uint32_t code)
{
    for (const Kind &kind : kKinds) {
        if (kind.code == code)
            return &kind;
    }
    return nullptr;
}

// A kind the formatter can trust: one row per code, model types that exist,
// and a controller's Name only asked of controllers.
constexpr bool isSoundKind(const Kind &kind)
{
    return kindOf(kind.code) == &kind && !kind.name.empty() && !kind.topName.empty() &&
           isModelType(kind.modelType) && isModelType(kind.topType);
}

// A row the matcher and formatter can trust: a known code, a shape of
// distinct letters and canonical markers whose first element is a letter
// (the top-level device), and texts naming only its letters.
constexpr bool isSoundRule(const NameRule &rule)
{
    Elements shape;
    if (kindOf(rule.code) == nullptr || rule.shape.empty() || !split(rule.shape, &shape) ||
        !isVariable(shape.at[0]))
        return false;
    for (size_t i = 0; i < shape.count; ++i) {
        const std::string_view e = shape.at[i];
        if (isVariable(e) ? variableIndex(shape, e[0]) != i : !isNumber(e))
            return false;
    }
    return placeholdersAreKnown(rule.displayName, shape) &&
           placeholdersAreKnown(rule.location2, shape);
}

static_assert(std::all_of(std::begin(kKinds), std::end(kKinds), isSoundKind));
static_assert(std::all_of(std::begin(kRules), std::end(kRules), isSoundRule));

// Every kind has a shape, and its first shape's name is the kind's name and
// its numbers, so a nexus without a shape reads as one with.
static_assert(std::all_of(std::begin(kKinds), std::end(kKinds), [](const Kind &kind) {
    const NameRule *first = std::find_if(std::begin(kRules), std::end(kRules),
                                         [&](const NameRule &r) { return r.code == kind.code; });
    return first != std::end(kRules) && first->displayName.starts_with(kind.name) &&
           first->displayName.substr(kind.name.size()).starts_with(" {");
}));

// Every type the models hold is named under its own code.
static_assert(std::all_of(std::begin(ds::kObjectTypes), std::end(ds::kObjectTypes),
                          [](const ds::ObjectType &t) {
                              const Kind *kind = kindOf(t.code);
                              return kind != nullptr && kind->modelType == t.name;
                          }));

bool matches(const Elements &shape, const Elements &nexus)
{
    if (shape.count != nexus.count)
        return false;
    for (size_t i = 0; i < shape.count; ++i) {
        if (!isVariable(shape.at[i]) && shape.at[i] != nexus.at[i])
            return false;
    }
    return true;
}

// The rule of `code` whose shape the nexus has, or null.
const NameRule *ruleFor(uint32_t code, std::string_view nexus, Elements *elements, Elements *shape)
{
    if (nexus.size() > kLongestShapedNexus || !split(nexus, elements) ||
        !std::all_of(elements->at.begin(), elements->at.begin() + elements->count, isNumber))
        return nullptr;
    for (const NameRule &rule : kRules) {
        if (rule.code == code && split(rule.shape, shape) && matches(*shape, *elements))
            return &rule;
    }
    return nullptr;
}

// text with each {X} replaced by the nexus's number at X's place in shape.
std::string format(std::string_view text, const Elements &shape, const Elements &nexus)
{
    std::string out;
    out.reserve(text.size() + 16);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '{') {
            out += nexus.at[variableIndex(shape, text[i + 1])];
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// text with every control character and every byte that is not part of a
// well-formed UTF-8 character replaced by '?': a name is always text a
// manager can show, whatever bytes the nexus held.
std::string shown(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = utf8CharLength(text, i);
        if (length == 0 || (length == 1 && isControl(text[i]))) {
            out += '?';
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return out;
}

// text with each backslash replaced by the separator.
std::string joined(std::string_view text, std::string_view separator)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\')
            out += separator;
        else
            out += c;
    }
    return out;
}

// "TOPNAME FIRST", and " (Name)" when the device is a controller of the
// model with a Name. When `mustExist`, empty unless the model holds the
// device.
std::string topLocation(const Kind &kind, std::string_view first, const ds::Model *model,
                        bool mustExist)
{
    std::optional<size_t> pos;
    if (model != nullptr)
        pos = model->findByNexus(kind.topType, first);
    if (mustExist && !pos)
        return std::string();
    std::string text(kind.topName);
    text += ' ';
    text += shown(first);
    if (pos && kind.topType == kAdapters) {
        const std::optional<std::string_view> name = model->attribute(*pos, "Name");
        if (name && !name->empty()) {
            text += " (";
            text += *name;
            text += ')';
        }
    }
    return text;
}

} // namespace

bool objectLocation(uint32_t type, std::string_view nexus, std::string_view separator,
                    LocationTexts *texts)
{
    *texts = LocationTexts();
    const Kind *kind = kindOf(type);
    if (kind == nullptr)
        return false;

    const std::shared_ptr<const ds::Model> model = ds::servedModel();
    Elements elements, shape;
    if (const NameRule *rule = ruleFor(type, nexus, &elements, &shape)) {
        texts->displayName = format(rule->displayName, shape, elements);
        texts->location1 = topLocation(*kind, elements.at[0], model.get(), false);
        texts->location2 = format(rule->location2, shape, elements);
    } else {
        // A nexus without a shape names the object by its kind and the text
        // as given; only a top-level device the model holds is named.
        const std::string_view first = nexus.substr(0, nexus.find('\\'));
        texts->displayName = kind->name;
        if (!nexus.empty()) {
            texts->displayName += ' ';
            texts->displayName += shown(nexus);
        }
        if (!first.empty())
            texts->location1 = topLocation(*kind, first, model.get(), true);
    }
    texts->detail = joined(shown(nexus), separator);
    return true;
}

} // namespace kelp::rt::evtmsg
