// The module's one export: every request of the framework arrives here as a
// numbered command with an in-buffer and an out-buffer. Each command is a row
// of its minimum buffer sizes and its handler; a command whose buffers fail
// the row's sizes is refused with genErr before anything is touched.
#include <cstring>

#include "frame/frame.h"

namespace {

using CommandHandler = uint32_t (*)(void *inBuf, void *outBuf, uint32_t outSize, uint32_t *outUsed);

struct CommandRow {
    uint32_t command;
    uint32_t minInSize;
    uint32_t minOutSize;
    CommandHandler handler;
};

uint32_t writeWord(void *outBuf, uint32_t *outUsed, uint32_t word)
{
    std::memcpy(outBuf, &word, sizeof word);
    *outUsed = sizeof word;
    return SM_SNMP_NOERROR;
}

uint32_t infoOne(void *, void *outBuf, uint32_t, uint32_t *outUsed)
{
    return writeWord(outBuf, outUsed, 1);
}

uint32_t infoZero(void *, void *outBuf, uint32_t, uint32_t *outUsed)
{
    return writeWord(outBuf, outUsed, 0);
}

uint32_t load(void *inBuf, void *, uint32_t, uint32_t *)
{
    SMLoadArgs args;
    std::memcpy(&args, inBuf, sizeof args);
    g_FrameworkServices = args.services;
    g_FrameworkHandle = args.handle;
    return MIBImplementerLoad();
}

uint32_t unload(void *, void *, uint32_t, uint32_t *)
{
    const uint32_t status = MIBImplementerUnload();
    g_FrameworkServices = nullptr;
    g_FrameworkHandle = 0;
    return status;
}

uint32_t listMib(void *, void *outBuf, uint32_t outSize, uint32_t *outUsed)
{
    return MIBImplementerListMib(outBuf, outSize, outUsed);
}

uint32_t startMonitor(void *, void *, uint32_t, uint32_t *)
{
    return MIBImplementerStartMonitor();
}

uint32_t stopMonitor(void *, void *, uint32_t, uint32_t *)
{
    return MIBImplementerStopMonitor();
}

// A request name that claims arcs but has none to read, or a reply without a
// value buffer and a name buffer to fill, is a broken buffer.
bool validRequest(const SMSnmpValue *request, const SMSnmpValue *reply)
{
    return (request->name.count == 0 || request->name.arcs != nullptr) &&
           reply->buffer != nullptr && reply->name.arcs != nullptr;
}

uint32_t answerRequest(uint32_t status, uint32_t *outUsed)
{
    if (status == SM_SNMP_NOERROR) {
        *outUsed = sizeof(SMSnmpValue);
    }
    return status;
}

uint32_t get(void *inBuf, void *outBuf, uint32_t, uint32_t *outUsed)
{
    auto *request = static_cast<SMSnmpValue *>(inBuf);
    auto *reply = static_cast<SMSnmpValue *>(outBuf);
    if (!validRequest(request, reply)) {
        return SM_SNMP_GENERR;
    }
    return answerRequest(MIBImplementerGet(request, reply), outUsed);
}

uint32_t getNext(void *inBuf, void *outBuf, uint32_t, uint32_t *outUsed)
{
    auto *request = static_cast<SMSnmpValue *>(inBuf);
    auto *reply = static_cast<SMSnmpValue *>(outBuf);
    if (!validRequest(request, reply)) {
        return SM_SNMP_GENERR;
    }
    return answerRequest(MIBImplementerGetNext(request, reply), outUsed);
}

// The MIB is read-only through this module, whatever the binding holds.
uint32_t set(void *, void *, uint32_t, uint32_t *)
{
    return SM_SNMP_READONLY;
}

constexpr uint32_t kBindingSize = sizeof(SMSnmpValue);

constexpr CommandRow kCommands[] = {
    {SM_CMD_INFO1, 0, 4, infoOne},
    {SM_CMD_INFO2, 0, 4, infoZero},
    {SM_CMD_INFO3, 0, 4, infoZero},
    {SM_CMD_LOAD, sizeof(SMLoadArgs), 0, load},
    {SM_CMD_UNLOAD, 0, 0, unload},
    // Room for the one definition this module lists, so the list never
    // overflows here.
    {SM_CMD_LIST_MIB, 0, 16, listMib},
    {SM_CMD_START_MONITOR, 0, 0, startMonitor},
    {SM_CMD_STOP_MONITOR, 0, 0, stopMonitor},
    {SM_CMD_GET, kBindingSize, kBindingSize, get},
    {SM_CMD_GETNEXT, kBindingSize, kBindingSize, getNext},
    {SM_CMD_SET1, kBindingSize, 0, set},
    {SM_CMD_SET2, kBindingSize, 0, set},
};
constexpr uint32_t kCommandCount = sizeof kCommands / sizeof kCommands[0];

constexpr bool commandsInOrder()
{
    for (uint32_t i = 0; i < kCommandCount; i++) {
        if (kCommands[i].command != i + 1) {
            return false;
        }
    }
    return true;
}
static_assert(commandsInOrder(), "row k of kCommands must be command k + 1");

uint32_t dispatch(uint32_t command, void *inBuf, uint32_t inSize, void *outBuf, uint32_t outSize,
                  uint32_t *outUsed)
{
    if (command < 1 || command > kCommandCount) {
        return SM_SNMP_GENERR;
    }
    const CommandRow &row = kCommands[command - 1];
    if (inSize < row.minInSize || outSize < row.minOutSize ||
        (row.minInSize > 0 && inBuf == nullptr) || (row.minOutSize > 0 && outBuf == nullptr)) {
        return SM_SNMP_GENERR;
    }
    return row.handler(inBuf, outBuf, outSize, outUsed);
}

} // namespace

extern "C" __attribute__((visibility("default"))) uint32_t
KELPIMP64_SMMIBImplementerDispatch(uint32_t command, void *inBuf, uint32_t inSize, void *outBuf,
                                   uint32_t outSize, uint32_t *outUsed)
{
    // Without a place for the used size the caller could not read any answer.
    if (outUsed == nullptr) {
        return SM_SNMP_GENERR;
    }
    *outUsed = 0;
    SMExportContext saved{};
    SMSetExportContext(&saved, &g_ModuleExportContext);
    const uint32_t status = dispatch(command, inBuf, inSize, outBuf, outSize, outUsed);
    SMResetExportContext(&saved);
    return status;
}
