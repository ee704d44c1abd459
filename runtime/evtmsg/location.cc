// Location texts of storage objects (see location.h): one row per nexus
// shape a type code may take, read by one matcher and one formatter. Only
// two things come from the served model: whether the object exists, and its
// controller's Name; everything else is made from the nexus alone, so a
// name never depends on attributes that change while the object lives.
#include "evtmsg/location.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include "datastore/model.h"
#include "datastore/model_store.h"

namespace kelp::rt::evtmsg {
namespace {

constexpr size_t kMaxElements = 5;
constexpr std::string_view kLargestNumber = "4294967295";

// One shape of nexus a type code may take and the texts made from it. A
// shape lists the nexus's elements as data/models/README.md writes them: a
// capital letter stands for any number, digits for a fixed marker. In the
// texts, {X} is the number the shape calls X.
struct NameRule {
    uint32_t code;
    std::string_view modelType; // the model's object type of the code
    std::string_view shape;
    std::string_view displayName;
    std::string_view location1;
    bool withControllerName; // location1 adds " (Name)" of the controller {C}
    std::string_view location2;
};

constexpr std::string_view kController = "Controller {C}";

// Disks, tapes, enclosures and channels carry the numbers the controller
// knows them by, so an administrator finds the drive from its name; the
// parts of an enclosure, a virtual disk or a cache pool are numbered within
// it, and location2 names it.
constexpr NameRule kRules[] = {
    {769, "adapters", "C", "Controller {C}", kController, true, ""},
    {770, "bus", "C\\H", "Channel {H}", kController, true, ""},
    {771, "batteries", "C\\64\\B", "Battery {B}", kController, true, ""},
    {772, "arraydisks", "C\\H\\E\\S", "Physical Disk {H}:{E}:{S}", kController, true,
     "Enclosure {H}:{E}"},
    {772, "arraydisks", "C\\H\\T", "Physical Disk {H}:{T}", kController, true, "Channel {H}"},
    {783, "arraydisks", "C\\H\\E\\S", "Physical Disk {H}:{E}:{S}", kController, true,
     "Enclosure {H}:{E}"},
    {783, "arraydisks", "C\\H\\T", "Physical Disk {H}:{T}", kController, true, "Channel {H}"},
    {785, "arraydisks", "C\\H\\E\\S", "PCIe SSD {H}:{E}:{S}", kController, true,
     "Enclosure {H}:{E}"},
    {785, "arraydisks", "C\\H\\T", "PCIe SSD {H}:{T}", kController, true, "Channel {H}"},
    {773, "vdisks", "C\\128\\L", "Virtual Disk {L}", kController, true, ""},
    {773, "vdisks", "C\\128\\L\\N", "Span {N}", kController, true, "Virtual Disk {L}"},
    {774, "Tape", "C\\H\\T", "Tape Drive {H}:{T}", kController, true, "Channel {H}"},
    {776, "enclosures", "C\\H\\E", "Enclosure {H}:{E}", kController, true, "Channel {H}"},
    {777, "fans", "C\\H\\E\\1\\I", "Fan {I}", kController, true, "Enclosure {H}:{E}"},
    {778, "tempprobes", "C\\H\\E\\3\\I", "Temperature Probe {I}", kController, true,
     "Enclosure {H}:{E}"},
    {779, "psupplies", "C\\H\\E\\2\\I", "Power Supply {I}", kController, true, "Enclosure {H}:{E}"},
    {780, "emms", "C\\H\\E\\4\\I", "EMM {I}", kController, true, "Enclosure {H}:{E}"},
    {786, "Tidal Cache", "X", "Tidal Cache {X}", "Tidal Cache {X}", false, ""},
    {789, "CacheLunNode", "X\\P\\N", "Cache Disk {N}", "Tidal Cache {X}", false,
     "Tidal Cache Pool {P}"},
    {791, "VDPartitionNode", "C\\129\\L\\P", "Partition {P}", kController, true,
     "Virtual Disk {L}"},
    {792, "Tidal Cache Pool", "X\\P", "Tidal Cache Pool {P}", "Tidal Cache {X}", false, ""},
    {793, "NVMeAdapter", "A", "NVMe Adapter {A}", "NVMe Adapter {A}", false, ""},
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
// leading zero, at most 4294967295. Only one spelling per number, so the
// index finds an object by the text the caller gives.
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

// A row the matcher and formatter can trust: a model type, a shape of
// distinct letters and canonical markers, texts naming only its letters, and
// a controller {C} first wherever its Name is asked for.
constexpr bool isSound(const NameRule &rule)
{
    Elements shape;
    if (!isModelType(rule.modelType) || rule.shape.empty() || !split(rule.shape, &shape))
        return false;
    for (size_t i = 0; i < shape.count; ++i) {
        const std::string_view e = shape.at[i];
        if (isVariable(e) ? variableIndex(shape, e[0]) != i : !isNumber(e))
            return false;
    }
    if (rule.withControllerName && variableIndex(shape, 'C') != 0)
        return false;
    return placeholdersAreKnown(rule.displayName, shape) &&
           placeholdersAreKnown(rule.location1, shape) &&
           placeholdersAreKnown(rule.location2, shape);
}

static_assert(std::all_of(std::begin(kRules), std::end(kRules), isSound));

// Every type the models hold has a name under its own code.
static_assert(std::all_of(std::begin(ds::kObjectTypes), std::end(ds::kObjectTypes),
                          [](const ds::ObjectType &t) {
                              return std::any_of(
                                  std::begin(kRules), std::end(kRules), [&](const NameRule &r) {
                                      return r.code == t.code && r.modelType == t.name;
                                  });
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

// The rule of `type` whose shape the nexus has, or null.
const NameRule *ruleFor(uint32_t type, const Elements &nexus, Elements *shape)
{
    for (const NameRule &rule : kRules) {
        if (rule.code == type && split(rule.shape, shape) && matches(*shape, nexus))
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

std::string join(const Elements &nexus, std::string_view separator)
{
    std::string out(nexus.at[0]);
    for (size_t i = 1; i < nexus.count; ++i) {
        out += separator;
        out += nexus.at[i];
    }
    return out;
}

// The Name of the controller whose nexus is `controller`, or null.
const std::string *controllerName(const ds::Model *model, std::string_view controller)
{
    if (model == nullptr)
        return nullptr;
    std::optional<size_t> pos = model->findByNexus("adapters", controller);
    return pos ? ds::firstAttribute(model->object(*pos), "Name") : nullptr;
}

} // namespace

uint32_t objectLocation(uint32_t type, std::string_view nexus, std::string_view separator,
                        LocationTexts *texts)
{
    *texts = LocationTexts();
    Elements elements, shape;
    if (nexus.size() > kLongestNexus || !split(nexus, &elements) ||
        !std::all_of(elements.at.begin(), elements.at.begin() + elements.count, isNumber))
        return kLocationMalformed;
    const NameRule *rule = ruleFor(type, elements, &shape);
    if (rule == nullptr)
        return kLocationMalformed;

    // One snapshot for both look-ups, so they see the same model.
    const std::shared_ptr<const ds::Model> model = ds::servedModel();
    texts->displayName = format(rule->displayName, shape, elements);
    texts->location1 = format(rule->location1, shape, elements);
    if (rule->withControllerName) {
        const std::string *name = controllerName(model.get(), elements.at[0]);
        if (name != nullptr && !name->empty())
            texts->location1 += " (" + *name + ")";
    }
    texts->location2 = format(rule->location2, shape, elements);
    texts->detail = join(elements, separator);
    const bool found = model != nullptr && model->findByNexus(rule->modelType, nexus).has_value();
    return found ? kLocationFound : kLocationNotFound;
}

} // namespace kelp::rt::evtmsg
