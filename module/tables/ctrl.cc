// The controller table (130.1): getCtrl, its columns as rows of the generic
// column reader, and the columns with rules of their own: the disk counts,
// the PCI slot, cluster capability, the capability masks, the spin-down
// settings and preserved cache.
#include "tables/columns.h"
#include "tables/getters.h"

#include <array>
#include <cstring>
#include <string_view>

#include "platform/vscil.h"
#include "store/tablelist.h"

namespace tables {
namespace {

using enum ColumnKind;

constexpr const char *kAttributesMask = "AttributesMask";
constexpr const char *kDimmerPropertyMask = "DimmerPropertyMask";

constexpr uint32_t kBusSas = 8;
constexpr uint32_t kBusPcie = 9;
constexpr uint32_t kPersonalityHba = 2;

// The controller's bus protocol as the MIB numbers it; 6 and unknown numbers
// are answered as stored.
constexpr ValuePair kBusProtocolPairs[] = {{1, 1}, {2, 4}, {3, 3}, {4, 0},
                                           {5, 0}, {7, 5}, {8, 6}, {9, 9}};
constexpr ValueMap kBusProtocol{kBusProtocolPairs, true, 0};

// ---- Counts of associated objects ---------------------------------------

int32_t arrayDiskCount(const Cell &cell, const ColumnSpec &)
{
    uint32_t status = 0;
    StoreText answer(GetAssociatedPhyDevCount(&status, "arraydisks", cell.objId));
    VscilDebugPrint("getCtrl: GetAssociatedPhyDevCount() returns %s\n",
                    answer != nullptr ? answer.get() : "(null)");
    uint32_t disks = 0;
    if (answer != nullptr) {
        HeapText count(getValFromXML(answer.get(), "objectCount", 0));
        if (count != nullptr) {
            // One more than the store counts, deliberately: the column has
            // always been answered so.
            disks = decimalPrefix(count.get()) + 1;
            VscilDebugPrint("getCtrl: getValFromXML() returns %d devices\n",
                            static_cast<int32_t>(disks));
        } else {
            VscilDebugPrint("getCtrl: getValFromXML() not able to find ObjectCount\n");
        }
    }
    answerNumber(cell, disks);
    return SM_SNMP_NOERROR;
}

// The spans of a spanned virtual disk are virtual disks of the controller
// too, but they carry their parent's id and are not counted. A disk the
// store cannot return shows no parent either, and counts.
int32_t topLevelVirtualDiskCount(const Cell &cell, const ColumnSpec &)
{
    uint32_t status = 0;
    StoreText answer(GetAssociated(&status, "vdisks", cell.objId));
    uint32_t count = 0;
    if (answer != nullptr) {
        const auto length = static_cast<uint32_t>(std::strlen(answer.get()));
        for (uint32_t n = 0;; n++) {
            HeapText id(getValFromXMLOfLength(answer.get(), length, "ObjID", n));
            if (id == nullptr) {
                break;
            }
            uint32_t fetched = 0;
            StoreText disk(GetSingleObject(&fetched, 0, decimalPrefix(id.get())));
            HeapText parent(getValFromXML(disk.get(), "ParentVDID", 0));
            if (parent == nullptr) {
                count++;
            }
        }
    }
    answerNumberWithoutBuffer(cell, count);
    return SM_SNMP_NOERROR;
}

// ---- Columns read from the controller's own attributes --------------------

int32_t currentMethod(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    answerNumber(cell, mask.isSet(28) ? 1 : mask.isSet(29) ? 2 : 3);
    return SM_SNMP_NOERROR;
}

int32_t pciSlot(const Cell &cell, const ColumnSpec &column)
{
    uint32_t protocol = 0;
    if (readNumber(cell, "BusProtocol", &protocol) == SM_SNMP_NOERROR && protocol == kBusPcie) {
        return answerText(cell, "NotApplicable");
    }
    const int32_t status = readText(cell, column.attribute);
    // Slot 0 is the controller on the system board; "00" is a real slot name.
    if (status == SM_SNMP_NOERROR &&
        std::strcmp(static_cast<char *>(cell.reply->buffer), "0") == 0) {
        return answerText(cell, "embedded");
    }
    return status;
}

int32_t clusterCapability(const Cell &cell, const ColumnSpec &)
{
    uint32_t protocol = 0;
    const int32_t status = readNumber(cell, "BusProtocol", &protocol);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    // The protocol is read into the binding, so a SAS controller whose
    // cluster mode says nothing answers its protocol.
    answerNumberWithoutBuffer(cell, protocol);
    LocalText mask;
    if (protocol != kBusSas) {
        mask.read(cell, kAttributesMask);
        answerNumber(cell, mask.isSet(31) ? 1 : kNotApplicable);
        return SM_SNMP_NOERROR;
    }
    if (mask.read(cell, "ClusterMode") != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
    } else if (mask.isSet(31)) {
        answerNumber(cell, 3);
    } else if (mask.isSet(30)) {
        answerNumber(cell, 1);
    } else if (mask.at(29) == '0') {
        answerNumber(cell, 2);
    }
    return SM_SNMP_NOERROR;
}

int32_t patrolReadMode(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    switch (mask.at(31)) {
    case '1':
        answerNumber(cell, mask.isSet(30) ? 1 : 2);
        break;
    case '0':
        answerNumber(cell, 3);
        break;
    default:
        answerUnset(cell);
        break;
    }
    return SM_SNMP_NOERROR;
}

int32_t personality(const Cell &cell, const ColumnSpec &column)
{
    uint32_t state = 0;
    const int32_t status = readNumber(cell, column.attribute, &state);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    return answerText(cell, state == kPersonalityHba ? "HBA" : "RAID");
}

// ---- Capabilities: a failed read ends the column before its closing line --
// The closing line of columns 57 and 58 prints the number answered; a
// failed read answers none (the value stays unset), so there is nothing for
// it to print and the column returns at once. The spin rule, by contrast,
// answers 99 on every path and ends every path with its closing line.

int32_t sedCapable(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    uint32_t capable = kNotApplicable;
    if (mask.isSet(8)) {
        VscilDebugPrint("getCtrl: controller is SED capable\n");
        capable = 1;
    }
    answerNumber(cell, capable);
    VscilDebugPrint("getCtrl: CTRL_SED_CAPABLE: %d\n", static_cast<int32_t>(capable));
    return SM_SNMP_NOERROR;
}

int32_t sedLockKeyPresent(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getCtrl: Retrieving CTRL_SED_LOCKKEY_PRESENT\n");
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        return status;
    }
    uint32_t present = kNotApplicable;
    if (mask.isSet(8)) {
        if (mask.isSet(7)) {
            VscilDebugPrint("getCtrl: controller key present\n");
            present = 1;
        } else {
            VscilDebugPrint("getCtrl: controllerkey not present\n");
            present = 0;
        }
    }
    answerNumber(cell, present);
    VscilDebugPrint("getCtrl: CTRL_SED_LOCKKEY_PRESENT: %d\n", static_cast<int32_t>(present));
    return SM_SNMP_NOERROR;
}

int32_t persistentHotSlot(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    uint32_t slot = kNotApplicable;
    if (mask.read(cell, column.attribute) != SM_SNMP_NOERROR) {
        // No property mask: the setting does not apply.
    } else if (!mask.isSet(0)) {
        VscilDebugPrint("getCtrl: Persistent HotSlot Not applicable\n");
    } else if (mask.isSet(1)) {
        VscilDebugPrint("getCtrl: Persistent HotSlot enabled\n");
        slot = 1;
    } else if (mask.isSet(2)) {
        VscilDebugPrint("getCtrl: Persistent HotSlot disabled\n");
        slot = 0;
    } else {
        VscilDebugPrint("getCtrl: Persistent HotSlot not applicable\n");
    }
    answerNumber(cell, slot);
    return SM_SNMP_NOERROR;
}

int32_t enhancedCache(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    uint32_t enhanced = kNotApplicable;
    if (mask.read(cell, column.attribute) == SM_SNMP_NOERROR) {
        enhanced = 0;
        if (mask.isSet(1)) {
            VscilDebugPrint("getCtrl: controller is EC capable\n");
            enhanced = 1;
        }
    }
    answerNumber(cell, enhanced);
    VscilDebugPrint("getCtrl: CTRL_ENHANCED_CACHE: %d\n", static_cast<int32_t>(enhanced));
    return SM_SNMP_NOERROR;
}

// Software-RAID controllers have no cache to preserve; they are known by
// their model in the name. The first model is listed twice, as the model
// list has always had it. The name is tested against every model, each
// test logged, and the verdict taken after the last: a match does not cut
// the list short, so the log always shows all four comparisons.
constexpr std::array<const char *, 4> kSoftwareRaidModels = {"Q330", "Q310", "q330", "Q330"};

bool isSoftwareRaid(const char *name)
{
    bool found = false;
    for (const char *model : kSoftwareRaidModels) {
        VscilDebugPrint("getCtrl: checking haystack = %s needle = %s", name, model);
        if (std::strstr(name, model) != nullptr) {
            VscilDebugPrint("getCtrl: position not NULL");
            found = true;
        } else {
            VscilDebugPrint("getCtrl: position is NULL");
        }
    }
    return found;
}

int32_t preservedCache(const Cell &cell, const ColumnSpec &column)
{
    LocalText name;
    const int32_t named = name.read(cell, "Name");
    VscilDebugPrint("getCtrl: Controller Name: %s\n", name.c_str());
    if (named == SM_SNMP_NOERROR) {
        if (isSoftwareRaid(name.c_str())) {
            VscilDebugPrint("getCtrl: Controller detected as a swraid controller");
            VscilDebugPrint("getCtrl: preserved cache not applicable for swraid controller \n");
            answerNumber(cell, kNotApplicable);
            return SM_SNMP_NOERROR;
        }
        VscilDebugPrint("getCtrl: swarid controller not detected moving on \n");
    }
    VscilDebugPrint("getCtrl: might be a ZARC or PCIeSSD virtual controller checking..  \n");
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    if (status != SM_SNMP_NOERROR) {
        answerNumber(cell, kNotApplicable);
        VscilDebugPrint("getCtrl: controller some error\n");
        return status;
    }
    uint32_t preserved = 0;
    if (mask.isSet(5)) {
        VscilDebugPrint("getCtrl:  controller has Preserved Cache\n");
        preserved = 1;
    } else {
        VscilDebugPrint("getCtrl:  controller has no Preserved Cache\n");
    }
    answerNumber(cell, preserved);
    VscilDebugPrint("getCtrl: CTRL_PRESERVED_CACHE: %d\n", static_cast<int32_t>(preserved));
    return SM_SNMP_NOERROR;
}

// ---- Spin-down ("DimmerPropertyMask") --------------------------------------
// Position 0 says whether the firmware has the feature at all; each setting
// has an enable and a disable position.

struct SpinRule {
    uint32_t enable;
    uint32_t disable;
    const char *feature; // the words that name the setting in its messages
    const char *tag;     // the name of the column in its messages
};

constexpr SpinRule kUnconfiguredSpin{26, 27, "Unconfigured Drives Spin",
                                     "CTRL_UNCONFDRIVES_SPIN_CAPAB"};
constexpr SpinRule kHotSpareSpin{24, 25, "HotSpare Drives Spin", "CTRL_HOTSPAREDRIVES_SPIN_CAPAB"};
constexpr SpinRule kConfiguredSpin{22, 23, "Configured Drives Spin", "CTRL_CONFDRIVES_SPIN_CAPAB"};
constexpr SpinRule kConfiguredIdleC{20, 21, "Configured Drives idlec Spin",
                                    "CTRL_CONFDRIVES_IDLEC_CAPAB"};

// The spin-down setting of one kind of drive: 1 enabled, 0 disabled, 99 when
// the firmware lacks the feature or the mask says neither. A failed read
// leaves no characters and answers as firmware without the feature.
template <const SpinRule &rule> int32_t spinSetting(const Cell &cell, const ColumnSpec &column)
{
    VscilDebugPrint("getCtrl: Retrieving %s\n", rule.tag);
    LocalText mask;
    const int32_t status = mask.read(cell, column.attribute);
    uint32_t setting = kNotApplicable;
    if (!mask.isSet(0)) {
        VscilDebugPrint("getCtrl: %s capablity is not supported by controller firmware\n",
                        rule.feature);
    } else {
        VscilDebugPrint("getCtrl: %s capablity is supported by controller firmware\n",
                        rule.feature);
        VscilDebugPrint("getCtrl: about to check controller prop mask for %s: %d\n", rule.tag,
                        status);
        if (mask.isSet(rule.enable)) {
            VscilDebugPrint("getCtrl: %s capablity enabled\n", rule.feature);
            setting = 1;
        } else if (mask.isSet(rule.disable)) {
            VscilDebugPrint("getCtrl: %s capablity disabled\n", rule.feature);
            setting = 0;
        } else {
            VscilDebugPrint("getCtrl: %s capablity check value is improper\n", rule.feature);
        }
    }
    answerNumber(cell, setting);
    VscilDebugPrint("getCtrl: %s: %d\n", rule.tag, static_cast<int32_t>(setting));
    return SM_SNMP_NOERROR;
}

bool allSpinDownDisabled(const LocalText &mask)
{
    return mask.isSet(21) && mask.isSet(23) && mask.isSet(25) && mask.isSet(27);
}

// The time columns mean something only while some spin-down can happen.
int32_t spinDownTime(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    mask.read(cell, kDimmerPropertyMask);
    uint32_t minutes = 0;
    const int32_t status = readNumber(cell, column.attribute, &minutes);
    // The time is read into the binding, which a successful integer read
    // leaves without a buffer, whatever is answered then.
    if (status == SM_SNMP_NOERROR) {
        cell.reply->buffer = nullptr;
    }
    if (!mask.isSet(0) || allSpinDownDisabled(mask)) {
        VscilDebugPrint("getCtrl:Spindown time interval is not valid\n");
        answerNumber(cell, kNotValid);
        return SM_SNMP_NOERROR;
    }
    if (status == SM_SNMP_NOERROR) {
        answerNumber(cell, minutes);
    }
    return status;
}

int32_t spinUpTime(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    const int32_t status = mask.read(cell, kDimmerPropertyMask);
    const char timed = mask.at(22);
    if (mask.isSet(0) && timed == '1') {
        return readText(cell, column.attribute);
    }
    if (!mask.isSet(0) || timed == '0') {
        VscilDebugPrint("getCtrl:DisableLDPSTime is not valid\n");
        return answerText(cell, kNotValidText);
    }
    // Neither '1' nor '0' where the flag belongs: nothing to answer with.
    return status;
}

int32_t spinUpInterval(const Cell &cell, const ColumnSpec &column)
{
    LocalText mask;
    mask.read(cell, kDimmerPropertyMask);
    // A failed read leaves 0 hours, which is not a valid interval either.
    // The interval is read into the binding, as column 62's time is.
    uint32_t hours = 0;
    if (readNumber(cell, column.attribute, &hours) == SM_SNMP_NOERROR) {
        cell.reply->buffer = nullptr;
    }
    if (!mask.isSet(0)) {
        VscilDebugPrint("getCtrl:DisableLDPSInterval is not valid2\n");
        hours = kNotValid;
    } else if (allSpinDownDisabled(mask)) {
        VscilDebugPrint("getCtrl:DisableLDPSInterval is not valid1\n");
        hours = kNotValid;
    } else if (hours < 1 || hours > 24) {
        hours = kNotValid;
    }
    answerNumber(cell, hours);
    return SM_SNMP_NOERROR;
}

// ---- The table ---------------------------------------------------------------
// Columns 6, 13, 14 and 17 to 36 are not served.

constexpr ColumnSpec kCtrlColumns[] = {
    {1, nullptr, kRowIndex},
    {2, "Name", kText},
    {3, nullptr, kConstText, {.text = "VORN"}},
    {4, "BusProtocol", kMapped, {.map = &kBusProtocol}},
    {5, "ObjState", kLowestBit},
    {7, "RebuildRate", kInteger},
    {8, "FirmwareVer", kText},
    {9, "CacheSize", kLow32Bits},
    // The size is read and deliberately not reported: the column is always 0.
    {10, "CacheSize", kZeroAfterRead},
    {11, nullptr, kSpecial, {.special = arrayDiskCount}},
    {12, nullptr, kSpecial, {.special = topLevelVirtualDiskCount}},
    {15, "BuffMemADAP", kShiftRight, {.number = 20}},
    {16, "BuffMemADAP", kLowBits, {.number = 0xFFFFF}},
    {37, "TreeStatus", kPlusOne},
    {38, "ObjStatus", kPlusOne},
    {39, "Nexus", kText},
    {40, "CurrentMethodMask", kSpecial, {.special = currentMethod}},
    {41, "CurrentDriverVersion", kText},
    {42, "PCISlot", kSpecial, {.special = pciSlot}},
    {43, nullptr, kSpecial, {.special = clusterCapability}},
    {44, "RequiredFirmwareVersion", kText},
    {45, "RequiredDriverVersion", kText},
    {46, "TargetID", kInteger},
    {47, "Channels", kInteger},
    {48, "ReconstructRate", kInteger},
    {49, "PatrolReadRate", kInteger},
    {50, "BGIRate", kInteger},
    {51, "CheckConsistencyRate", kInteger},
    {52, "PatrolReadMode", kSpecial, {.special = patrolReadMode}},
    {53, "PatrolReadState", kInteger},
    {54, "PatrolReadIterations", kInteger},
    {55,
     "CurrentStorPortDriverVersion",
     kText,
     {.before = "getCtrl: Retrieving CTRLSTORPORTDRIVER_VERSION_OID\n",
      .after = "getCtrl: CTRLSTORPORTDRIVER_VERSION_OID: %s\n"}},
    {56,
     "RequiredStorPortDriverVersion",
     kText,
     {.before = "getCtrl: Retrieving CTRLMIN_STORPORT_VERSION_OID\n",
      .after = "getCtrl: CTRLMIN_STORPORT_VERSION_OID: %s\n"}},
    {57, kAttributesMask, kSpecial, {.special = sedCapable}},
    {58, kAttributesMask, kSpecial, {.special = sedLockKeyPresent}},
    {59, "ChangeControllerPropertyMask", kSpecial, {.special = persistentHotSlot}},
    {60, kDimmerPropertyMask, kSpecial, {.special = spinSetting<kUnconfiguredSpin>}},
    {61, kDimmerPropertyMask, kSpecial, {.special = spinSetting<kHotSpareSpin>}},
    {62, "SpinDownTime", kSpecial, {.special = spinDownTime}},
    {63,
     "SecurityMode",
     kInteger,
     {.failure = kNotApplicableInstead,
      .failed = "getCtrl: Retrieving CTRL_SECURITY_MODE failed\n"}},
    {64, kAttributesMask, kSpecial, {.special = enhancedCache}},
    {65, kDimmerPropertyMask, kSpecial, {.special = spinSetting<kConfiguredSpin>}},
    {66, kDimmerPropertyMask, kSpecial, {.special = spinSetting<kConfiguredIdleC>}},
    {67, "DisableLDPSTime", kSpecial, {.special = spinUpTime}},
    {68, "DisableLDPSInterval", kSpecial, {.special = spinUpInterval}},
    {69, kAttributesMask, kSpecial, {.special = preservedCache}},
    {70, "CtrlPICapable", kInteger, {.failed = "getCtrl: Retrieving CTRL_PI_ENABLE failed\n"}},
    {71, "PersonalityState", kSpecial, {.special = personality}},
    {72, "CtrlStashSlot", kInteger, {.failure = kNotApplicableAndFailure}},
    {73, "CtrlStashInst", kInteger, {.failure = kNotApplicableAndFailure}},
};
static_assert(validColumns(kCtrlColumns));

constexpr TableSpec kCtrlTable{
    .list = &ctrlList, .columns = kCtrlColumns, .idLine = "getCtrl: curr ID = %d\n"};

} // namespace
} // namespace tables

int32_t getCtrl(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position)
{
    return tables::answerTableCell(tables::kCtrlTable, request, reply, position);
}
