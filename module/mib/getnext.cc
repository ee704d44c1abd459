// GetNext resolution. The module does not sort names: it walks a fixed order
// (the root scalars, the information group, the global group, then the
// tables column by column, rows in index order) and asks getValue for each
// candidate, built in the reply's own name, until one answers.
#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <iterator>

#include "mib/mibdef.h"
#include "mib/registry.h"
#include "mib/resolve.h"
#include "platform/vcsupt.h"
#include "platform/vscil.h"

extern "C" {
int32_t getNextInfoTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                         uint32_t descend);
int32_t getNextGlobalTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                           uint32_t descend);
int32_t getNextTableValue(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                          const WalkDescriptor *descriptor);
}

namespace {

// The root's next sibling, where the walk ends after the partition table's
// column bound.
constexpr uint32_t kAfterRoot[10] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 21};

// The global group's columns that have values, in walk order.
constexpr uint32_t kGlobalWalk[] = {3, 4, 5, 6, 11, 12, 13, 14, 15};

// Sets reply's name to root followed by `count` arcs.
void setName(SMSnmpValue *reply, std::initializer_list<uint32_t> arcs)
{
    std::memcpy(reply->name.arcs, kelpMibRootArcs, sizeof kelpMibRootArcs);
    uint32_t count = kelpMibRootLength;
    for (uint32_t arc : arcs) {
        reply->name.arcs[count++] = arc;
    }
    reply->name.count = count;
}

// Names root.<arcs> in the reply and resolves it.
int32_t answer(SMSnmpValue *reply, std::initializer_list<uint32_t> arcs)
{
    setName(reply, arcs);
    return getValue(reply, reply);
}

bool hasArc(const SMSnmpValue *request, uint32_t position)
{
    return position < request->name.count;
}

// Whether the request ends right after the arc at `position`.
bool endsAt(const SMSnmpValue *request, uint32_t position)
{
    return request->name.count == position + 1;
}

const WalkDescriptor *walkEntry(uint32_t group, uint32_t table)
{
    for (uint32_t i = 0; i < kTableCount; i++) {
        if (walkTable[i].group == group && walkTable[i].table == table) {
            return &walkTable[i];
        }
    }
    return nullptr;
}

// A table without rows: its probe gave 3.
bool tableIsEmpty(int32_t status)
{
    return status == SM_SNMP_BADVALUE;
}

// Every candidate is resolved in the one reply record, and a candidate that
// fails may leave it without the caller's buffer: an integer read into the
// reply nulls the pointer, and a few columns put a buffer of the getter's
// own in its place before they fail (getters.h), which nobody else would
// free once the walk moves on. The next candidate needs the caller's buffer
// for its text, so the walk frees the getter's buffer and puts the caller's
// back.
void restoreCallersBuffer(SMSnmpValue *reply, void *callersBuffer)
{
    if (reply->buffer != callersBuffer) {
        SMFreeMem(reply->buffer);
        reply->buffer = callersBuffer;
    }
}

} // namespace

int32_t getNextValue(SMSnmpValue *request, SMSnmpValue *reply)
{
    VscilDebugPrint("getNextValue: Entry\n");
    if (reply->name.arcs == nullptr) {
        return SM_SNMP_GENERR; // the host gives no room for the answer's name
    }
    int32_t status = SM_SNMP_GENERR;
    const bool matched = kelpMibUnderRoot(request->name);
    setName(reply, {});
    if (!matched || request->name.count == kelpMibRootLength) {
        status = answer(reply, {1, 0});
    } else {
        const uint32_t a = request->name.arcs[10];
        const bool exact = endsAt(request, 10);
        const bool hasTable = hasArc(request, 11);
        const uint32_t t = hasTable ? request->name.arcs[11] : 0;
        switch (a) {
        case 1:
        case 2:
        case 3:
        case 4:
            status = answer(reply, {exact ? a : a + 1, 0});
            break;
        case 5:
            status = exact ? answer(reply, {5, 0}) : getNextInfoTable(request, reply, 11, 0);
            break;
        case 100:
            status = getNextInfoTable(request, reply, 11, 1);
            break;
        case 110:
            status = getNextGlobalTable(request, reply, 11, 1);
            break;
        case 130:
            status = hasTable && t >= 1 && t <= lastTableOf(130)
                         ? getNextTableValue(request, reply, 12, walkEntry(130, t))
                         : SM_SNMP_NOSUCHNAME;
            break;
        case 140:
            if (!hasTable) {
                status = SM_SNMP_NOSUCHNAME;
            } else if (t < 1 || t > lastTableOf(140)) {
                // status stays genErr
            } else if (t == 3 && ((hasArc(request, 12) && request->name.arcs[12] >= 2) ||
                                  (hasArc(request, 13) && request->name.arcs[13] > 6))) {
                // The bound is the partition table's column count; a request
                // past it ends the walk here, before the cache tables.
                std::memcpy(reply->name.arcs, kAfterRoot, sizeof kAfterRoot);
                reply->name.count = 10;
                status = SM_SNMP_NOSUCHNAME;
            } else {
                status = getNextTableValue(request, reply, 12, walkEntry(140, t));
            }
            break;
        default:
            status = SM_SNMP_NOSUCHNAME;
            break;
        }
    }
    VscilDebugPrint("getNextValue: exit\n");
    return status;
}

int32_t getNextInfoTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                         uint32_t descend)
{
    VscilDebugPrint("getNextInfoTable: entry\n");
    int32_t status = SM_SNMP_NOSUCHNAME;
    if (descend == 0 || !hasArc(request, position)) {
        status = answer(reply, {100, 1, 0});
    } else {
        const uint32_t c = request->name.arcs[position];
        const bool exact = endsAt(request, position);
        if (c == 1 || c == 2) {
            status = answer(reply, {100, exact ? c : c + 1, 0});
        } else if (c == 3) {
            status = exact ? answer(reply, {100, 3, 0})
                           : getNextGlobalTable(request, reply, position + 1, 0);
        }
    }
    VscilDebugPrint("getNextInfoTable: exit\n");
    return status;
}

int32_t getNextGlobalTable(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                           uint32_t descend)
{
    VscilDebugPrint("getNextGlobalTable: entry\n");
    int32_t status = SM_SNMP_NOSUCHNAME;
    if (descend == 0 || !hasArc(request, position)) {
        status = answer(reply, {110, kGlobalWalk[0], 0});
    } else {
        const uint32_t c = request->name.arcs[position];
        const bool exact = endsAt(request, position);
        const auto *found = std::find(std::begin(kGlobalWalk), std::end(kGlobalWalk), c);
        if (found != std::end(kGlobalWalk)) {
            if (exact) {
                status = answer(reply, {110, c, 0});
            } else if (found + 1 != std::end(kGlobalWalk)) {
                status = answer(reply, {110, *(found + 1), 0});
            } else {
                // Past the last global column: column 1, row 1 of the first
                // table (a position beyond any name starts there).
                status = getNextTableValue(request, reply, kEndMark, &walkTable[0]);
            }
        }
    }
    VscilDebugPrint("getNextGlobalTable: exit\n");
    return status;
}

int32_t getNextTableValue(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position,
                          const WalkDescriptor *descriptor)
{
    VscilDebugPrint("getNextTableValue: entry\n");
    const uint32_t n = request->name.count;
    // Before initWalkTable the table is empty: there is nothing to walk.
    if (descriptor == nullptr || descriptor->list == nullptr ||
        (n > position && request->name.arcs[position] > 1)) {
        return SM_SNMP_NOSUCHNAME;
    }
    uint32_t column = 1;
    uint32_t row = 0;
    if (n > position + 1ull) {
        column = request->name.arcs[position + 1];
        row = n > position + 2ull ? request->name.arcs[position + 2] : 0;
    }
    void *const callersBuffer = reply->buffer;
    int32_t status = answer(reply, {descriptor->group, descriptor->table, 1, column, row + 1});
    for (;;) {
        if (status != SM_SNMP_NOERROR) {
            restoreCallersBuffer(reply, callersBuffer);
        }
        if (tableIsEmpty(status)) {
            row = descriptor->list->length + 1;
            column = descriptor->columns + 1;
        } else if (status != SM_SNMP_NOSUCHNAME) {
            VscilDebugPrint("getNextTableValue: exit\n");
            return status;
        }
        if (row < descriptor->list->length) {
            row++;
        } else if (column < descriptor->columns) {
            column++;
            row = 1;
        } else {
            descriptor++;
            if (descriptor->list == nullptr) {
                return SM_SNMP_NOSUCHNAME;
            }
            column = 1;
            row = 1;
        }
        status = answer(reply, {descriptor->group, descriptor->table, 1, column, row});
    }
}
