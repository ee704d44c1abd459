// The event monitor thread: takes storage events off the event queue, at most
// one a second, drops the blocked ones, tells the refresh thread about rescans
// and changes, maps each event to a trap number by its object type and
// severity and hands it to the trap sender.
#include <cstdint>
#include <cstring>
#include <optional>

#include "events/trap.h"
#include "events/trapnumbers.h"
#include "events/workers.h"
#include "frame/state.h"
#include "platform/evtmsg.h"
#include "platform/os.h"
#include "platform/queue.h"
#include "platform/vcsif.h"
#include "platform/vcsupt.h"
#include "platform/vscil.h"
#include "store/refresh.h"
#include "store/xmlvalue.h"

namespace {

constexpr uint32_t kTickMs = 1000;
constexpr int kBlockedSlots = 10;
constexpr uint32_t kBlockedTextSize = 64;
// How long a trap about a new or changed virtual disk waits for the refresh
// thread to merge the tables, so that the trap can name the disk's row.
constexpr uint32_t kRefreshWaitMs = 360000;

// A text read like atoi: leading blanks, an optional sign, then decimal
// digits up to the first other character; 0 when there are none. Numbers past
// 32 bits wrap instead of overflowing.
uint32_t leadingNumber(const char *text)
{
    while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\r' || *text == '\v' ||
           *text == '\f') {
        ++text;
    }
    bool negative = false;
    if (*text == '-' || *text == '+') {
        negative = *text == '-';
        ++text;
    }
    uint32_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        value = value * 10u + static_cast<uint32_t>(*text - '0');
    }
    return negative ? 0u - value : value;
}

// The blocked alert list: section "vcsipe", key "BlockedAlerts", a comma
// separated list of event numbers into ten slots; slots without a number
// hold 0.
void readBlockedAlerts(int32_t (&alertID)[kBlockedSlots])
{
    for (int32_t &slot : alertID) {
        slot = 0;
    }
    // One byte past the read's size stays NUL: when the key is missing or its
    // value does not fit, nothing is written and the text is all "0".
    auto *buffer = static_cast<char *>(SMAllocMem(kBlockedTextSize + 1));
    if (buffer != nullptr) {
        std::memset(buffer, '0', kBlockedTextSize);
        buffer[kBlockedTextSize] = '\0';
        uint32_t size = kBlockedTextSize;
        const uint32_t ret = SSGetPrivateIniValue("vcsipe", "BlockedAlerts", buffer, &size);
        VscilDebugPrint("MonitorEvents:buffer:%s\t ret:%d\n", buffer, static_cast<int>(ret));
        char *rest = nullptr;
        const char *piece = strtok_r(buffer, ",", &rest);
        if (piece == nullptr) {
            SMFreeMem(buffer);
            buffer = nullptr;
            VscilDebugPrint("MonitorEvents: not able to get retreive the token\n");
        } else {
            alertID[0] = static_cast<int32_t>(leadingNumber(piece));
            for (int i = 1; i < kBlockedSlots; ++i) {
                piece = strtok_r(nullptr, ",", &rest);
                if (piece == nullptr) {
                    break;
                }
                alertID[i] = static_cast<int32_t>(leadingNumber(piece));
            }
        }
    }
    for (int i = 0; i < kBlockedSlots; ++i) {
        VscilDebugPrint("MonitorEvents: alertID[%d] is %d\n", i, alertID[i]);
    }
    SMFreeMem(buffer);
}

// The main trap of an event without a fixed number: the type's base plus the
// offset of the event's severity level.
std::optional<uint32_t> severityTrap(uint32_t eventId, uint32_t objType)
{
    char level[EVTMSG_TEXT_SIZE] = {};
    char message[EVTMSG_MESSAGE_SIZE] = {};
    evtmsg_getAlertMsg(eventId, level, message, 0, nullptr);
    VscilDebugPrint("MonitorEvents: warningLevelStr= %s", level);
    const std::optional<uint32_t> base = events::typeTrap(events::kTrapBases, objType);
    const std::optional<uint32_t> offset = events::severityOffset(leadingNumber(level));
    if (!base || !offset) {
        return std::nullopt;
    }
    return *base + *offset;
}

// Events after which a virtual disk's row is new or changed: their trap waits
// for the refresh thread's next merge.
bool waitsForTables(uint32_t eventId, uint32_t objType)
{
    if (objType != 773) {
        return false;
    }
    switch (eventId) {
    case 2393:
    case 2053:
    case 2061:
    case 2088:
    case 2127:
    case 2095:
        return true;
    default:
        return false;
    }
}

// Waits for refreshDoneEvent for up to kRefreshWaitMs, a second at a time so
// that a stop request ends the wait.
void waitForRefresh()
{
    for (uint32_t waited = 0; waited < kRefreshWaitMs; waited += kTickMs) {
        if (SMEventWait(refreshDoneEvent, kTickMs) == 0 || stopRequested != 0) {
            return;
        }
    }
}

// One event text from the queue. The text stays the caller's.
void handleEvent(char *xml, const int32_t (&alertID)[kBlockedSlots])
{
    VscilDebugPrint("MonitorEvents: eventData: *%s*\n", xml);
    // Every event marks the tables stale, a blocked one too.
    rebuildNeeded = 1;

    HeapText eventIdText(getValFromXML(xml, "EventID", 0));
    if (eventIdText == nullptr) {
        vcsif32_freeData(xml);
        return;
    }
    const uint32_t eventId = leadingNumber(eventIdText.get());

    for (int i = 0; i < kBlockedSlots; ++i) {
        VscilDebugPrint("MonitorEvents: comparing alertID[%d]:%d with %d\n", i, alertID[i],
                        static_cast<int32_t>(eventId));
        if (alertID[i] == static_cast<int32_t>(eventId)) {
            VscilDebugPrint("MonitorEvents: Event:%d has to be blocked",
                            static_cast<int32_t>(eventId));
            // The event text is not released on this path.
            return;
        }
    }

    if (eventId == 3061) {
        SMEventSet(rescanEvent);
    } else if (eventId == 3060) {
        SMEventSet(rescanDoneEvent);
    }

    if (const std::optional<uint32_t> extra = events::eventTrap(events::kExtraTraps, eventId)) {
        KelpmibSendTrap(*extra, eventId, xml, 0);
    }

    HeapText objTypeText(getValFromXML(xml, "ObjType", 0));
    uint32_t objType = 0;
    if (objTypeText != nullptr) {
        objType = leadingNumber(objTypeText.get());
        VscilDebugPrint("MonitorEvents: objectType: %d\n", static_cast<int32_t>(objType));
    } else {
        VscilDebugPrint("MonitorEvents: objectTypeString is NULL.\n");
    }

    std::optional<uint32_t> trap = events::eventTrap(events::kFixedTraps, eventId);
    if (eventId == events::kStateChangeEvent) {
        trap = events::typeTrap(events::kStateChangeTraps, objType);
    } else if (!trap) {
        trap = severityTrap(eventId, objType);
    }

    if (trap) {
        if (eventId != 2054 && waitsForTables(eventId, objType)) {
            waitForRefresh();
        }
        KelpmibSendTrap(*trap, eventId, xml, 0);
    }
    vcsif32_freeData(xml);
}

void endMonitor()
{
    SMEventSet(eMonitorEvtEnd);
    VscilDebugPrint("MonitorEvents: Just set eMonitorEvtEnd\n");
}

} // namespace

void MonitorEvents(void *)
{
    VscilDebugPrint("MonitorEvents: entry\n");
    while (!dataStoreIsReady()) {
        if (stopRequested != 0) {
            endMonitor();
            return;
        }
        Sleep(kTickMs);
    }

    int32_t alertID[kBlockedSlots];
    readBlockedAlerts(alertID);
    vcsif32_noCmdQ();

    while (stopRequested == 0) {
        Sleep(kTickMs);
        char *xml = vcsif32_getEvent(1);
        if (stopRequested != 0) {
            // Stopping: the event is dropped, its text released.
            vcsif32_freeData(xml);
            break;
        }
        VscilDebugPrint("MonitorEvents: xmlStr in hex: %x\n",
                        static_cast<unsigned>(reinterpret_cast<uintptr_t>(xml)));
        if (xml == nullptr) {
            VscilDebugPrint("MonitorEvents: xmlStr was NULL\n");
            continue;
        }
        handleEvent(xml, alertID);
    }
    endMonitor();
}
