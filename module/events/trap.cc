// The trap sender: builds the variable bindings of one storage event and
// hands them to the framework's trap send; the object's row name in the live
// tables; the service tags of the base board and the chassis.
#include "events/trap.h"

#include <cstdio>
#include <cstring>

#include "events/trapnumbers.h"
#include "events/workers.h"
#include "frame/frame.h"
#include "frame/state.h"
#include "mib/registry.h"
#include "mpi/mpi.h"
#include "platform/evtmsg.h"
#include "platform/queue.h"
#include "platform/vcsgen.h"
#include "platform/vcsif.h"
#include "platform/vcsupt.h"
#include "platform/vscil.h"
#include "store/objlist.h"
#include "store/xmlvalue.h"

// The aggregation interval in minutes; the aggregation thread reads it from
// the ini store when it starts. No lock: only the aggregation thread writes
// and reads it (the trap sender names it in the repeats that thread sends).
uint32_t EventAggregateInteval = 0;

namespace {

// The trap variables 1.3.6.1.4.1.61234.20571.1.20.200: binding N is
// ...200.N.0, its value of the column's type.
constexpr uint32_t kTrapPrefixLength = 11;
// Not const only for the type of SMSnmpOID; never written, so no lock.
uint32_t g_trapPrefixArcs[kTrapPrefixLength] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};

constexpr uint32_t kTrapVariableCount = 12;
// column, declared kind, value type, declared lower, declared upper, last column
constexpr SMMibColumnDef kTrapColumns[kTrapVariableCount + 1] = {
    {0, 0, 0, 0, 0, 0},
    {1, 1, SM_ASN_INTEGER, 0, 0, 5},         // event number
    {2, 5, SM_ASN_OCTET_STRING, 1, 64, 1},   // alert message
    {3, 5, SM_ASN_OCTET_STRING, 0, 255, 1},  // first location
    {4, 5, SM_ASN_OCTET_STRING, 0, 255, 1},  // second location
    {5, 5, SM_ASN_OCTET_STRING, 1, 64, 1},   // row name
    {6, 5, SM_ASN_OCTET_STRING, 1, 64, 1},   // nexus
    {7, 1, SM_ASN_INTEGER, 1, 6, 5},         // current status
    {8, 1, SM_ASN_INTEGER, 1, 6, 5},         // previous status
    {9, 5, SM_ASN_OCTET_STRING, 0, 255, 1},  // extended message id
    {10, 5, SM_ASN_OCTET_STRING, 0, 255, 1}, // host name
    {11, 5, SM_ASN_OCTET_STRING, 0, 127, 1}, // base board service tag
    {12, 5, SM_ASN_OCTET_STRING, 0, 127, 1}, // chassis service tag
};

const SMMibGroupDef kTrapGroup = {
    0, nullptr,      0, kTrapPrefixLength, g_trapPrefixArcs, 0, 0, nullptr, kTrapVariableCount,
    0, kTrapColumns,
};

constexpr uint32_t kEnterpriseSpecific = 6;
constexpr uint32_t kOrdinaryBindings = 8;
constexpr uint32_t kShortBindings = 2;
constexpr uint32_t kExtendedBindings = 4;

constexpr uint32_t kMaxInserts = 10;
constexpr uint32_t kInsertSize = 256;
constexpr uint32_t kRowNameSize = 256;
constexpr uint32_t kFqdnSize = 256;
constexpr uint32_t kServiceTagSize = 128;

constexpr uint32_t kStatusNoMemory = 5;

// The events that carry only the event number and the message.
bool isShortEvent(uint32_t eventId)
{
    switch (eventId) {
    case 2135:
    case 2164:
    case 2167:
    case 2168:
    case 2287:
        return true;
    default:
        return false;
    }
}

// The events whose two status bindings are always 1.
bool hasFixedStatus(uint32_t eventId)
{
    switch (eventId) {
    case 2122:
    case 2123:
    case 2124:
    case 2053:
    case 2054:
        return true;
    default:
        return false;
    }
}

// The table an object type's rows live in.
struct TypeTable {
    uint32_t objType;
    uint32_t group;
    uint32_t table;
};

constexpr TypeTable kTypeTables[] = {
    {769, 130, 1}, {770, 130, 2}, {771, 130, 15}, {772, 130, 4},  {773, 140, 1},  {774, 130, 17},
    {776, 130, 3}, {777, 130, 7}, {778, 130, 11}, {779, 130, 9},  {780, 130, 13}, {786, 140, 4},
    {789, 140, 5}, {791, 140, 2}, {792, 140, 6},  {793, 130, 18},
};

// The object type of a physical disk whose attribute mask marks it a tape.
constexpr uint32_t kArrayDiskType = 772;
constexpr uint32_t kTapeDiskType = 783;
constexpr size_t kTapeMaskPosition = 22;
constexpr uint32_t kControllerType = 769;

// What an event's insert strings and texts need freeing at the end.
struct Inserts {
    char *text[kMaxInserts] = {};
    uint32_t count = 0;

    void release()
    {
        for (uint32_t i = 0; i < count; i++) {
            SMFreeMem(text[i]);
            text[i] = nullptr;
        }
        count = 0;
    }
    ~Inserts() { release(); }
};

// The bindings array and every value it owns.
struct Bindings {
    SMSnmpValue *items = nullptr;
    uint32_t count = 0;

    ~Bindings()
    {
        if (items == nullptr) {
            return;
        }
        for (uint32_t i = 0; i < count; i++) {
            MPIVarBindFreeValue(&items[i]);
        }
        SMFreeMem(items);
    }
};

const char *orUnknown(const HeapText &text)
{
    return text ? text.get() : "UNKNOWN";
}

uint32_t length32(const char *text)
{
    return static_cast<uint32_t>(strnlen(text, UINT32_MAX - 1));
}

// Names binding `number` (1 to 12) at `binding`.
uint32_t nameBinding(SMSnmpValue *binding, uint32_t number)
{
    return MPIVarBindSetScalarName(binding, &kTrapGroup, number);
}

uint32_t setText(SMSnmpValue *binding, uint32_t number, const char *text)
{
    return MPIVarBindSetValueOctStr(binding, &kTrapColumns[number], text, length32(text), 1);
}

// Gives a binding that already holds a text another one.
uint32_t replaceText(SMSnmpValue *binding, uint32_t number, const char *text)
{
    if (binding->type == SM_ASN_OCTET_STRING) {
        SMFreeMem(binding->buffer);
    }
    binding->buffer = nullptr;
    binding->value = 0;
    return setText(binding, number, text);
}

uint32_t setNumber(SMSnmpValue *binding, uint32_t number, uint32_t value)
{
    return MPIVarBindSetValueInt(binding, &kTrapColumns[number], value);
}

// Reads "Parm01" to "Parm10" until the first missing one. False when memory
// ran out (nothing is then held).
bool readInserts(const char *eventXml, Inserts *inserts)
{
    for (uint32_t i = 0; i < kMaxInserts; i++) {
        char tag[8];
        std::snprintf(tag, sizeof tag, "Parm%02u", i + 1);
        HeapText value(getValFromXML(eventXml, tag, 0));
        if (!value) {
            break;
        }
        auto *copy = static_cast<char *>(SMAllocMem(kInsertSize));
        if (copy == nullptr) {
            VscilDebugPrint("KelpmibSendTrap: ERROR: no memory for insertstrings[]\n");
            inserts->release();
            return false;
        }
        std::strncpy(copy, value.get(), kInsertSize - 1);
        copy[kInsertSize - 1] = '\0';
        inserts->text[inserts->count++] = copy;
    }
    return true;
}

// "ObjStatus" or "PreviousStatus" + 1, or `fallback` when absent.
uint32_t statusValue(const char *eventXml, const char *tag, uint32_t fallback)
{
    HeapText value(getValFromXML(eventXml, tag, 0));
    return value ? decimalPrefix(value.get()) + 1 : fallback;
}

// Sets bindings 3 to 8 of an ordinary event at positions 2 to 7, with `t`
// the object type for the location texts and the row name. 0 or the
// failing setter's status.
uint32_t setObjectBindings(SMSnmpValue *items, uint32_t eventId, const char *eventXml,
                           uint32_t *objType)
{
    HeapText nexusText(getValFromXML(eventXml, "Nexus", 0));
    const char *nexus = orUnknown(nexusText);
    HeapText typeText(getValFromXML(eventXml, "ObjType", 0));
    uint32_t t = typeText ? decimalPrefix(typeText.get()) : 0;
    // Held until the bindings are built, as the location texts may name them.
    HeapText controllerName(getValFromXML(eventXml, "ControllerName", 0));
    HeapText virtualDiskName(getValFromXML(eventXml, "VirtualDiskName", 0));

    if (t == kArrayDiskType) {
        HeapText mask(getValFromXML(eventXml, "AttributesMask", 0));
        if (mask && strnlen(mask.get(), kTapeMaskPosition + 1) > kTapeMaskPosition &&
            mask.get()[kTapeMaskPosition] == '1') {
            t = kTapeDiskType;
        }
    }
    *objType = t;

    char location1[EVTMSG_TEXT_SIZE] = {};
    char location2[EVTMSG_TEXT_SIZE] = {};
    char displayName[EVTMSG_TEXT_SIZE] = {};
    char detail[EVTMSG_TEXT_SIZE] = {};
    evtmsg_getObjLocationStrings(t, nexus, ",", "en", location1, location2, displayName, detail, 0);
    if (location1[0] == '\0') {
        std::snprintf(location1, sizeof location1, "%s",
                      t == kControllerType ? "system" : "UNKNOWN");
    }
    if (location2[0] == '\0') {
        std::snprintf(location2, sizeof location2, "UNKNOWN");
    }

    char *rowName = getObjectRowOID(nexusText.get(), t);
    const char *rowText = rowName != nullptr ? rowName : "UNKNOWN";

    uint32_t current = 1;
    uint32_t previous = 1;
    if (!hasFixedStatus(eventId)) {
        current = statusValue(eventXml, "ObjStatus", 2);
        previous = statusValue(eventXml, "PreviousStatus", current);
    }

    uint32_t status = 0;
    const char *texts[] = {location1, location2, rowText, nexus};
    for (uint32_t n = 3; n <= 6 && status == 0; n++) {
        status = nameBinding(&items[n - 1], n);
        if (status == 0) {
            status = setText(&items[n - 1], n, texts[n - 3]);
        }
    }
    const uint32_t numbers[] = {current, previous};
    for (uint32_t n = 7; n <= 8 && status == 0; n++) {
        status = nameBinding(&items[n - 1], n);
        if (status == 0) {
            status = setNumber(&items[n - 1], n, numbers[n - 7]);
        }
    }
    SMFreeMem(rowName);
    return status;
}

// Bindings 9 to 12 from position `first`. 0 or the status that ends the
// call; a value that cannot be set for 10 to 12 is only logged.
uint32_t setExtendedBindings(SMSnmpValue *items, uint32_t first, uint32_t objType, uint32_t eventId,
                             Inserts *inserts)
{
    char description[EVTMSG_DESCRIPTION_SIZE] = {};
    char messageId[EVTMSG_TEXT_SIZE] = {};
    VscilDebugPrint("KelpmibSendTrap: Calling getEEMItrap()\n");
    getEEMItrap(objType, inserts->count, eventId, inserts->text, description, messageId);
    VscilDebugPrint("KelpmibSendTrap: Returning description string:%s\n", description);
    uint32_t status = replaceText(&items[1], 2, description);
    if (status != 0) {
        return status;
    }

    SMSnmpValue *b9 = &items[first];
    status = nameBinding(b9, 9);
    if (status == 0) {
        status = setText(b9, 9, messageId);
    }
    inserts->release();
    if (status != 0) {
        return status;
    }

    SMSnmpValue *b10 = &items[first + 1];
    if ((status = nameBinding(b10, 10)) != 0) {
        return status;
    }
    char fqdn[kFqdnSize] = {};
    uint32_t fqdnSize = kFqdnSize;
    if (SMGetIPFQDN(fqdn, &fqdnSize) != 0) {
        fqdn[0] = '\0';
        VscilDebugPrint("KelpmibSendTrap: fqdnName not found\n");
    } else {
        VscilDebugPrint("KelpmibSendTrap: fqdnName: %s\n", fqdn);
    }
    if (setText(b10, 10, fqdn) != 0) {
        VscilDebugPrint(
            "KelpmibSendTrap: Error: MPIVarBindSetValueOctStr could not set fqdnName value\n");
    }

    SMSnmpValue *b11 = &items[first + 2];
    if ((status = nameBinding(b11, 11)) != 0) {
        return status;
    }
    char boardTag[kServiceTagSize] = {};
    if (getBaseBoardServiceTag(boardTag, kServiceTagSize) != 0) {
        boardTag[0] = '\0';
        VscilDebugPrint("KelpmibSendTrap: eemimesssageServiceTagEvent_ATTRIBUTE not found\n");
    } else {
        VscilDebugPrint("KelpmibSendTrap: eemimesssageServiceTagEvent_ATTRIBUTE: %s\n", boardTag);
    }
    if (setText(b11, 11, boardTag) != 0) {
        VscilDebugPrint("KelpmibSendTrap: Error: MPIVarBindSetValueOctStr could not set "
                        "eemimesssageServiceTagEvent_ATTRIBUTE value\n");
    }

    SMSnmpValue *b12 = &items[first + 3];
    if ((status = nameBinding(b12, 12)) != 0) {
        return status;
    }
    char chassisTag[kServiceTagSize] = {};
    if (getChassisServiceTag(chassisTag, kServiceTagSize) != 0) {
        chassisTag[0] = '\0';
        VscilDebugPrint(
            "KelpmibSendTrap: eemimesssageChassisServiceTagEvent_ATTRIBUTE not found\n");
    } else {
        VscilDebugPrint("KelpmibSendTrap: eemimesssageChassisServiceTagEvent_ATTRIBUTE: %s\n",
                        chassisTag);
    }
    if (setText(b12, 12, chassisTag) != 0) {
        VscilDebugPrint("KelpmibSendTrap: Error: MPIVarBindSetValueOctStr could not set "
                        "eemimesssageChassisServiceTagEvent_ATTRIBUTE value\n");
    }
    return 0;
}

// The UCS-2 service tag at `offset` of a platform object converted into
// buffer. 0, 5 for an offset past the object, or the conversion's status
// (logged with `failure`).
uint32_t serviceTagOf(const void *object, uint32_t objSize, uint32_t offset, char *buffer,
                      uint32_t size, const char *failure)
{
    if (offset == 0) {
        buffer[0] = '\0';
        return 0;
    }
    if (objSize < 2 || offset > objSize - 2) {
        return kStatusNoMemory;
    }
    // Copied out so that an odd offset is read safely and the text ends
    // inside the object whatever it holds.
    constexpr uint32_t kMaxUnits = 256;
    uint16_t text[kMaxUnits + 1] = {};
    const uint32_t available = (objSize - offset) / 2;
    const uint32_t units = available < kMaxUnits ? available : kMaxUnits;
    std::memcpy(text, static_cast<const unsigned char *>(object) + offset, size_t{units} * 2);
    text[units] = 0;
    uint32_t outSize = size;
    const uint32_t status = SMUCS2StrToUTF8Str(buffer, &outSize, text);
    if (status != 0) {
        VscilDebugPrint(failure, status);
        buffer[0] = '\0';
    }
    return status;
}

} // namespace

extern "C" {

uint32_t KelpmibSendTrap(uint32_t trapNumber, uint32_t eventId, const char *eventXml,
                         uint32_t count)
{
    VscilDebugPrint("KelpmibSendTrap: entry; trapID: %d\n", static_cast<int>(trapNumber));
    uint32_t extended = 0;
    if (geteemisnmpmsgpref(&extended) != 0) {
        extended = 0;
    }
    const bool shortEvent = isShortEvent(eventId);

    Bindings bindings;
    const uint32_t bindingCount =
        (shortEvent ? kShortBindings : kOrdinaryBindings) + (extended != 0 ? kExtendedBindings : 0);
    bindings.items =
        static_cast<SMSnmpValue *>(SMAllocMem(bindingCount * uint32_t{sizeof(SMSnmpValue)}));
    if (bindings.items == nullptr) {
        VscilDebugPrint("KelpmibSendTrap: ERROR: no memory for VarBinds\n");
        return kStatusNoMemory;
    }
    std::memset(bindings.items, 0, bindingCount * sizeof(SMSnmpValue));
    bindings.count = bindingCount;
    SMSnmpValue *items = bindings.items;

    uint32_t status = nameBinding(&items[0], 1);
    if (status == 0) {
        status = setNumber(&items[0], 1, eventId);
    }
    Inserts inserts;
    if (status == 0 && !readInserts(eventXml, &inserts)) {
        status = kStatusNoMemory;
    }
    if (status != 0) {
        VscilDebugPrint("KelpmibSendTrap: exit\n");
        return status;
    }

    // Room for the aggregation sentence after the longest message.
    char message[EVTMSG_MESSAGE_SIZE + 128] = {};
    char level[EVTMSG_TEXT_SIZE] = {};
    if (evtmsg_getAlertMsg(eventId, level, message, inserts.count, inserts.text) != 0) {
        std::snprintf(message, sizeof message, "UNKNOWN");
    }
    if (extended == 0) {
        inserts.release();
    }

    status = nameBinding(&items[1], 2);
    HeapText nexusText(getValFromXML(eventXml, "Nexus", 0));
    const char *nexus = orUnknown(nexusText);

    if (status == 0 && g_bAggregateEvents != 0) {
        if (count != 0) {
            const size_t used = strnlen(message, sizeof message);
            std::snprintf(message + used, sizeof message - used,
                          "This has been logged %d times in the last %d minutes.",
                          static_cast<int>(count), static_cast<int>(EventAggregateInteval));
        } else if (std::strcmp(nexus, "UNKNOWN") != 0 &&
                   InsertEventinQueue(eventId, nexus, message, eventXml != nullptr ? eventXml : "",
                                      trapNumber) != 0) {
            VscilDebugPrint("KelpmibSendTrap: exit\n");
            return 0;
        }
    }
    if (status == 0) {
        status = setText(&items[1], 2, message);
    }

    uint32_t objType = 0;
    if (status == 0 && !shortEvent) {
        status = setObjectBindings(items, eventId, eventXml, &objType);
    }

    uint32_t specific = trapNumber;
    if (status == 0 && extended != 0) {
        status = setExtendedBindings(items, shortEvent ? kShortBindings : kOrdinaryBindings,
                                     objType, eventId, &inserts);
        specific = trapNumber * events::kExtendedTrapFactor;
    }

    if (status == 0) {
        SMSnmpOID enterprise = {kTrapPrefixLength, 0, g_trapPrefixArcs};
        status = MPITrapSend(&enterprise, kEnterpriseSpecific, specific, bindingCount, items);
    }
    VscilDebugPrint("KelpmibSendTrap: exit\n");
    return status;
}

char *getObjectRowOID(const char *nexus, uint32_t objType)
{
    uint32_t group = kEndMark;
    uint32_t table = kEndMark;
    for (const TypeTable &row : kTypeTables) {
        if (row.objType == objType) {
            group = row.group;
            table = row.table;
        }
    }
    if (nexus == nullptr) {
        return nullptr;
    }
    const TableRegistryEntry *entry = findTableEntry(group, table);
    if (entry == nullptr || entry->list == nullptr) {
        return nullptr;
    }
    // The live lists are read without dataMutex, beside a rebuild.
    const UnlockedListRead unlocked;
    const uint32_t row = rowOfNexusUnlocked(unlocked, entry->list, nexus);
    if (row == 0) {
        return nullptr;
    }
    auto *text = static_cast<char *>(SMAllocMem(kRowNameSize));
    if (text == nullptr) {
        return nullptr;
    }
    const uint32_t arcs[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, group, table, 1, 1};
    size_t used = 0;
    for (uint32_t arc : arcs) {
        used += static_cast<size_t>(
            std::snprintf(text + used, kRowNameSize - used, "%d.", static_cast<int>(arc)));
    }
    std::snprintf(text + used, kRowNameSize - used, "%d", static_cast<int>(row));
    return text;
}

uint32_t getBaseBoardServiceTag(char *buffer, uint32_t size)
{
    VscilDebugPrint("getBaseBoardServiceTag: entry \n");
    if (buffer == nullptr || size == 0) {
        VscilDebugPrint("getBaseBoardServiceTag: exit: status: %d\n", 5);
        return kStatusNoMemory;
    }
    buffer[0] = '\0';
    uint32_t status = 0;
    const SMILObjID parent = 2;
    SMILObjIDList *children = SMILListChildOIDByType(&parent, SMIL_OBJTYPE_BASE_BOARD);
    if (children == nullptr || children->count == 0) {
        VscilDebugPrint("getBaseBoardServiceTag: SMILListChildOIDByType failed on OID: "
                        "%08X\nobjType: BASE_BOARD_OBJ_TYPE\n",
                        parent);
        SMILFreeGeneric(children);
        status = SM_SNMP_NOSUCHNAME;
        VscilDebugPrint("getBaseBoardServiceTag: exit: status: %d\n", static_cast<int>(status));
        return status;
    }
    for (uint32_t i = 0; i < children->count; i++) {
        void *object = SMILGetObjByOID(&children->ids[i]);
        if (object == nullptr) {
            VscilDebugPrint("GetBaseBoardServiceTag: SMILGetObjByOID failed.\n");
            status = kStatusNoMemory;
            break;
        }
        SMILBaseBoardObj board;
        std::memcpy(&board.hdr, object, sizeof board.hdr);
        if (board.hdr.objSize < sizeof board) {
            SMILFreeGeneric(object);
            status = kStatusNoMemory;
            break;
        }
        std::memcpy(&board, object, sizeof board);
        VscilDebugPrint("GetBaseBoardServiceTag: SMILGetObjByOID baseBoardType =  %u\n",
                        board.baseBoardType);
        if (board.baseBoardType != 13 && i + 1 < children->count) {
            SMILFreeGeneric(object);
            continue;
        }
        VscilDebugPrint("getBaseBoardServiceTag: offsetServiceTag = %d\n",
                        static_cast<int>(board.offsetServiceTag));
        status = serviceTagOf(object, board.hdr.objSize, board.offsetServiceTag, buffer, size,
                              "getBaseBoardServiceTag: SMUCS2StrToUTF8Str failed with status %d\n");
        SMILFreeGeneric(object);
        break;
    }
    SMILFreeGeneric(children);
    VscilDebugPrint("getBaseBoardServiceTag: exit: status: %d\n", static_cast<int>(status));
    return status;
}

uint32_t getChassisServiceTag(char *buffer, uint32_t size)
{
    VscilDebugPrint("getChassisServiceTag: entry\n");
    if (buffer == nullptr || size == 0) {
        VscilDebugPrint("getChassisServiceTag: exit: status: %d\n", 5);
        return kStatusNoMemory;
    }
    buffer[0] = '\0';
    uint32_t status = 0;
    const SMILObjID parent = 2;
    SMILObjIDList *children = SMILListChildOIDByType(&parent, SMIL_OBJTYPE_CHASSIS_PROPS2);
    if (children == nullptr || children->count == 0) {
        VscilDebugPrint("getChassisServiceTag: SMILListChildOIDByType failed on OID: "
                        "%08X\nobjType: CHASSIS_PROPS2_OBJ_TYPE\n",
                        parent);
        SMILFreeGeneric(children);
        status = SM_SNMP_NOSUCHNAME;
        VscilDebugPrint("getChassisServiceTag: exit: status: %d\n", static_cast<int>(status));
        return status;
    }
    void *object = SMILGetObjByOID(&children->ids[0]);
    if (object == nullptr) {
        VscilDebugPrint("getChassisServiceTag: SMILGetObjByOID failed.\n");
        status = kStatusNoMemory;
    } else {
        SMILChassisProps2Obj chassis;
        std::memcpy(&chassis.hdr, object, sizeof chassis.hdr);
        if (chassis.hdr.objSize < sizeof chassis) {
            status = kStatusNoMemory;
        } else {
            std::memcpy(&chassis, object, sizeof chassis);
            VscilDebugPrint("getChassisServiceTag: offsetServiceTag = %d\n",
                            static_cast<int>(chassis.offsetServiceTag));
            status =
                serviceTagOf(object, chassis.hdr.objSize, chassis.offsetServiceTag, buffer, size,
                             "getChassisServiceTag: SMUCS2StrToUTF8Str failed with status %d\n");
        }
        SMILFreeGeneric(object);
    }
    SMILFreeGeneric(children);
    VscilDebugPrint("getChassisServiceTag: exit: status: %d\n", static_cast<int>(status));
    return status;
}

} // extern "C"
