// The enclosure table (130.3): getEncl, its columns as rows of the generic
// column reader, and the columns with rules of their own: the name and model
// number from the enclosure type, the channel taken from the nexus, the
// service tag and its express service code, and the slot occupancy.
#include "tables/columns.h"
#include "tables/getters.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/vscil.h"
#include "store/tablelist.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr const char *kProductId = "ProductID";
constexpr const char *kMethodMask = "CurrentMethodMask";

constexpr uint32_t kBusSas = 8;
constexpr uint32_t kBusPcie = 9;

// ---- Name and model number ("EnclosureType") ---------------------------------

struct EnclosureModel {
    uint32_t type;
    std::string_view name;
    uint32_t model;
};

// Type 6 answers its own number as its model: it was never given a model
// number of its own, and the MIB has always shown it so.
constexpr EnclosureModel kEnclosureModels[] = {
    {1, "Backplane", 1},       {2, "Backplane", 1},       {3, "KV500S / KV501S", 2},
    {4, "KV510S / KV511S", 3}, {5, "KV520S / KV521S", 4}, {6, "KV515A / KV516A", 6},
};

// Enclosures of this type are named by their "ProductID", and that names
// their model number too.
constexpr uint32_t kNamedByProduct = 7;

struct ProductModel {
    std::string_view productId;
    uint32_t model;
};
constexpr ProductModel kProductModels[] = {
    {"JX3000", 8}, {"JX3110", 9}, {"JX3200", 10}, {"JX3210", 11}, {"JX3300", 12}, {"JX3310", 13},
};

const EnclosureModel *findEnclosureModel(uint32_t type)
{
    for (const EnclosureModel &model : kEnclosureModels) {
        if (model.type == type) {
            return &model;
        }
    }
    return nullptr;
}

// The whole text must match: "JX3210 " is no JX3210, and has model 0.
uint32_t productModel(std::string_view productId)
{
    for (const ProductModel &product : kProductModels) {
        if (product.productId == productId) {
            return product.model;
        }
    }
    return 0;
}

// The product is fetched with getValFromOID rather than taken from the
// cache: both type-7 columns read it so, and a store that changed since the
// row's priming read then shows its newest product.
int32_t fetchProduct(const Cell &cell, SMSnmpValue *record)
{
    record->type = SM_ASN_OCTET_STRING;
    uint64_t slot = 0;
    return getValFromOID(cell.objId, kProductId, record, &slot);
}

int32_t enclosureName(const Cell &cell, const ColumnSpec &column)
{
    uint32_t type = 0;
    const int32_t typed = readNumber(cell, column.attribute, &type);
    if (typed != SM_SNMP_NOERROR) {
        return typed;
    }
    if (const EnclosureModel *model = findEnclosureModel(type)) {
        return answerText(cell, model->name);
    }
    if (type != kNamedByProduct) {
        // A type without a name: the cell exists and has no value.
        return SM_SNMP_NOERROR;
    }
    if (cell.reply->buffer == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    const int32_t status = fetchProduct(cell, cell.reply);
    if (status != SM_SNMP_NOERROR) {
        cell.reply->buffer = nullptr;
        cell.reply->value = 0;
        VscilDebugPrint("getEncl():getValFromOID() returned error\n");
    }
    return status;
}

int32_t modelNumber(const Cell &cell, const ColumnSpec &column)
{
    uint32_t type = 0;
    const int32_t typed = readNumber(cell, column.attribute, &type);
    if (typed != SM_SNMP_NOERROR) {
        return typed;
    }
    if (const EnclosureModel *model = findEnclosureModel(type)) {
        answerNumber(cell, model->model);
        return SM_SNMP_NOERROR;
    }
    if (type != kNamedByProduct) {
        answerNumber(cell, type);
        return SM_SNMP_NOERROR;
    }
    ValueBuffer product{};
    SMSnmpValue record{};
    record.buffer = product.data();
    // No product matches no model; the failed read stays the result.
    const int32_t status = fetchProduct(cell, &record);
    answerNumber(cell,
                 status == SM_SNMP_NOERROR ? productModel({product.data(), record.value}) : 0);
    return status;
}

// ---- Channel -------------------------------------------------------------------

// SAS and PCIe enclosures show where they sit as the part of their nexus
// after the controller's number, separators written as colons ("0\2\1"
// shows "2:1"). The controller's number is at least one character long, so
// the separator is looked for from the second character on. A nexus
// without a separator there has no controller part to cut off; it is
// answered whole, as the nearest thing to a channel it names (such a nexus
// is not expected from the data store).
void channelFromNexus(const Cell &cell)
{
    auto *text = static_cast<char *>(cell.reply->buffer);
    const uint32_t length = cell.reply->value;
    std::replace(text, text + length, '\\', ':');
    if (length < 2) {
        return;
    }
    const auto *colon = static_cast<const char *>(std::memchr(text + 1, ':', length - 1));
    if (colon == nullptr) {
        return;
    }
    const auto start = static_cast<uint32_t>(colon - text) + 1;
    // The rest moves with its NUL; the bytes behind it stay as they were.
    std::memmove(text, text + start, length - start + 1);
    cell.reply->value = length - start;
}

int32_t channel(const Cell &cell, const ColumnSpec &column)
{
    cell.reply->type = SM_ASN_OCTET_STRING;
    uint32_t protocol = 0;
    const int32_t read = readNumber(cell, "BusProtocol", &protocol);
    if (read != SM_SNMP_NOERROR || (protocol != kBusSas && protocol != kBusPcie)) {
        // The channel's number, read into the reply.
        cell.reply->type = SM_ASN_INTEGER;
        uint32_t number = 0;
        const int32_t status = readNumber(cell, column.attribute, &number);
        if (status == SM_SNMP_NOERROR) {
            answerNumberWithoutBuffer(cell, number);
        }
        return status;
    }
    const int32_t status = readText(cell, "Nexus");
    if (status == SM_SNMP_NOERROR) {
        channelFromNexus(cell);
    }
    return status;
}

// ---- Service tag and express service code ---------------------------------------
// The express service code is the service tag read as a number in base 36
// ('0' to '9', then 'A' to 'Z' in either case). Column 8 shows the tag
// without its blanks at the end, column 34 the code in decimal. A tag with
// any character but letters, digits and white space has no code: both
// columns then show the tag as read.

enum class TagAnswer { kTag, kCode };

constexpr double kTwoTo64 = 18446744073709551616.0;

// digit * 36^power, computed in double precision and reduced modulo 2^64 as
// the sum of the terms is. A term of 2^64 or more is a whole number in a
// double; fmod gives its remainder exactly, where converting it unreduced
// would be undefined. The largest power a tag can reach (158) stays finite.
uint64_t codeTerm(uint32_t digit, uint32_t power)
{
    const double term = static_cast<double>(digit) * std::pow(36.0, static_cast<double>(power));
    const double reduced = std::fmod(term, kTwoTo64);
    return std::isfinite(reduced) ? static_cast<uint64_t>(reduced) : 0;
}

// The code of `tag` (letters, digits and white space only), which has
// `alphanumerics` letters and digits. The powers count from the number of
// letters and digits, and the first white-space character ends the sum: a
// tag with a blank inside has a code that is not its letters' base-36
// value, and that code is the one the MIB has always given. Every character
// before position i is a letter or digit, so the power is never negative.
uint64_t expressServiceCode(std::string_view tag, uint32_t alphanumerics)
{
    uint64_t code = 0;
    for (uint32_t i = 0; i < tag.size(); i++) {
        const auto c = static_cast<unsigned char>(tag[i]);
        VscilDebugPrint("getEncl: service tag character is %c\n", c);
        if (std::isspace(c) != 0) {
            break;
        }
        const auto digit =
            static_cast<uint32_t>(std::isalpha(c) != 0 ? std::toupper(c) - 'A' + 10 : c - '0');
        code += codeTerm(digit, alphanumerics - i - 1);
    }
    return code;
}

// Letters and digits of `tag`, or false when it has a character that is
// neither one nor white space.
bool countAlphanumerics(std::string_view tag, uint32_t *count)
{
    *count = 0;
    for (const char c : tag) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) != 0) {
            (*count)++;
        } else if (std::isspace(u) == 0) {
            return false;
        }
    }
    return true;
}

template <TagAnswer answer> int32_t serviceTag(const Cell &cell, const ColumnSpec &column)
{
    auto *text = static_cast<char *>(cell.reply->buffer);
    if (text == nullptr) {
        return SM_SNMP_NOSUCHNAME;
    }
    // The tag's length is measured in the buffer, not taken from the reply:
    // a failed read leaves the reply's length as the caller had it, and the
    // cleared start then reads as an empty tag.
    std::memset(text, 0, 8);
    const int32_t read = readText(cell, column.attribute);
    const auto length = static_cast<uint32_t>(strnlen(text, kValueBufferSize - 1));
    VscilDebugPrint("getEncl: Service Tag is %s - %d\n", text, static_cast<int32_t>(length));
    VscilDebugPrint("getEncl: Querying ENCL_EXPRESS_SERVICE_CODE_OID\n");
    // The tag as read, kept while the reply's copy is cut.
    ValueBuffer tag{};
    uint32_t alphanumerics = 0;
    uint64_t code = 0;
    if (length >= 2) {
        std::memcpy(tag.data(), text, length);
        if (!countAlphanumerics({tag.data(), length}, &alphanumerics)) {
            VscilDebugPrint("getEncl: Service Tag has non alphanumeric character - exit\n");
            return read;
        }
        VscilDebugPrint("getEncl: Service Tag(Encl) is %s length:%d\n", tag.data(),
                        static_cast<int32_t>(length));
        code = expressServiceCode({tag.data(), length}, alphanumerics);
    }
    VscilDebugPrint("getEncl: ENCL_EXPRESS_SERVICE_CODE is %llu",
                    static_cast<unsigned long long>(code));
    cell.reply->type = SM_ASN_OCTET_STRING;
    if constexpr (answer == TagAnswer::kTag) {
        // As many characters as the tag has letters and digits: the blanks
        // at its end go, and a tag too short for a code shows nothing.
        std::memset(text + alphanumerics, 0, length - alphanumerics);
        cell.reply->value = alphanumerics;
        // The tag as answered and its length, the tag as read and its length
        // (empty when too short to be copied), its letters and digits, the
        // code.
        VscilDebugPrint("getEncl: After change EST %s length %d Service Tag is %s - %d actual "
                        "count - %d final is : %llu\n",
                        text, static_cast<int32_t>(alphanumerics), tag.data(),
                        static_cast<int32_t>(length), static_cast<int32_t>(alphanumerics),
                        static_cast<unsigned long long>(code));
    } else {
        // 20 digits at most; the cleared 30 bytes hold them and their NUL.
        constexpr size_t kCodeText = 30;
        std::memset(text, 0, kCodeText);
        const int written =
            std::snprintf(text, kCodeText, "%llu", static_cast<unsigned long long>(code));
        cell.reply->value = static_cast<uint32_t>(written);
    }
    return SM_SNMP_NOERROR;
}

// ---- Slot occupancy -----------------------------------------------------------------
// Position 22 of "CurrentMethodMask" says whether the controller reports
// slots; without it the three columns are not valid (9999). They never
// fail once the row exists.

enum class SlotCount { kOccupied, kTotal, kEmpty };

// The occupied count when the store gives none: -1 as the MIB shows it.
constexpr uint32_t kNoCount = 0xFFFFFFFF;

uint32_t occupiedSlots(const Cell &cell)
{
    uint32_t status = 0;
    StoreText answer(GetAssociatedPhyDevCount(&status, "arraydisks", cell.objId));
    VscilDebugPrint("getEncl: GetAssociatedPhyDevCount() returns %s\n",
                    answer != nullptr ? answer.get() : "(null)");
    // No answer at all is logged as an answer without a count: both leave
    // the store's count unknown.
    HeapText count(getValFromXML(answer.get(), "objectCount", 0));
    if (count == nullptr) {
        VscilDebugPrint("getEncl: getValFromXML() not able to find ObjectCount\n");
        return kNoCount;
    }
    const uint32_t disks = decimalPrefix(count.get());
    // The log shows one more than the store counts, as the controller's
    // disk count does.
    VscilDebugPrint("getEncl: getValFromXML() returns %d devices\n",
                    static_cast<int32_t>(disks + 1));
    return disks;
}

// A mask too short to have position 22 shows a blank in the log rather
// than a NUL character.
void logUnsupported(char reporting)
{
    VscilDebugPrint("Unsupported functionality for OccupancySlotReport on controller: %c\n",
                    reporting != '\0' ? reporting : ' ');
}

template <SlotCount count> int32_t slots(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getCtrl: Retrieving SLOT reporting OID's\n");
    LocalText methods;
    methods.read(cell, column.attribute);
    const char reporting = methods.at(22);
    const bool reported = reporting == '1';
    uint32_t occupied = 0;
    if constexpr (count != SlotCount::kTotal) {
        occupied = occupiedSlots(cell);
        answerNumberWithoutBuffer(cell, occupied);
        if (!reported) {
            logUnsupported(reporting);
            answerNumber(cell, kNotValid);
        }
    }
    if constexpr (count != SlotCount::kOccupied) {
        // Read into the reply: a failed read leaves the number as it stands.
        cell.reply->type = SM_ASN_INTEGER;
        uint32_t total = 0;
        if (readNumber(cell, "MaxNumOfPDSlots", &total) == SM_SNMP_NOERROR) {
            answerNumberWithoutBuffer(cell, total);
        }
        VscilDebugPrint("getEncl: Total Number of slots:%d",
                        static_cast<int32_t>(cell.reply->value));
        if constexpr (count == SlotCount::kEmpty) {
            answerNumber(cell, cell.reply->value - occupied);
            VscilDebugPrint("getEncl: Total Number of Empty slots:%d",
                            static_cast<int32_t>(cell.reply->value));
        }
        if (!reported) {
            logUnsupported(reporting);
            answerNumber(cell, kNotValid);
        }
    }
    return SM_SNMP_NOERROR;
}

// ---- The table ---------------------------------------------------------------
// Columns 5, 7, 13 to 15 and 17 are not served.

constexpr ColumnSpec kEnclColumns[] = {
    {1, nullptr, kRowIndex},
    {2, "EnclosureType", kSpecial, {.special = enclosureName}},
    {3, nullptr, kConstText, {.text = "VORN"}},
    {4, "ObjState", kLowestBitOrUnset},
    {6, "Channel", kSpecial, {.special = channel}},
    {8, "ServiceTag", kSpecial, {.special = serviceTag<TagAnswer::kTag>}},
    {9, "AssetTag", kText},
    {10, "AssetName", kText},
    {11, "SplitBusPartNum", kText},
    {12, kProductId, kText},
    {16, "EnclosureType", kSpecial, {.special = modelNumber}},
    {18, "EnclosureConfig", kInteger},
    {19, "Channel", kInteger},
    {20, "EnclosureAlarm", kPlusOne},
    {21, "BackPlanePartNum", kText},
    {22, "TargetID", kAssociatedNumber, {.association = "adapters"}},
    {23, "TreeStatus", kPlusOne},
    {24, "ObjStatus", kPlusOne},
    {25, "Nexus", kText},
    {26, "FirmwareVer", kText},
    {27, "SCSIRate", kText},
    {28, "EnclosurePartNum", kText},
    {29, "EnclosureSerialNum", kText},
    {30, "SASAddress", kText},
    {31, kMethodMask, kSpecial, {.special = slots<SlotCount::kOccupied>}},
    {32, kMethodMask, kSpecial, {.special = slots<SlotCount::kTotal>}},
    {33, kMethodMask, kSpecial, {.special = slots<SlotCount::kEmpty>}},
    {34, "ServiceTag", kSpecial, {.special = serviceTag<TagAnswer::kCode>}},
};
static_assert(validColumns(kEnclColumns));

constexpr TableSpec kEnclTable{.list = &enclList,
                               .columns = kEnclColumns,
                               .entry = {"getEncl(): Entry\n", nullptr},
                               .exitLine = "getEncl: Exit\n"};

} // namespace
} // namespace tables

int32_t getEncl(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kEnclTable, request, reply, position);
}
