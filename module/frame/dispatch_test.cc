// The dispatch: command numbers, buffer-size rules and the fixed answers.
#include <array>
#include <cstring>

#include "mib/mibdef.h"
#include "testing/frame_fixture.h"

namespace {

class DispatchTest : public FrameTest {};

TEST_F(DispatchTest, CommandsOutsideOneToTwelveAnswerGenErrAndUseNothing)
{
    for (uint32_t command : {0u, 13u, 0xFFFFFFFFu}) {
        uint32_t out = 0xAAAAAAAA;
        uint32_t used = 77;
        EXPECT_EQ(dispatch(command, &out, sizeof out, &out, sizeof out, &used), 5u) << command;
        EXPECT_EQ(used, 0u);
        EXPECT_EQ(out, 0xAAAAAAAAu);
    }
}

TEST_F(DispatchTest, CommandsOneToThreeAnswerOneZeroZero)
{
    const std::array<uint32_t, 3> expected{1, 0, 0};
    for (uint32_t command = 1; command <= 3; command++) {
        uint32_t out = 0xAAAAAAAA;
        uint32_t used = 0;
        EXPECT_EQ(dispatch(command, nullptr, 0, &out, sizeof out, &used), 0u);
        EXPECT_EQ(out, expected[command - 1]);
        EXPECT_EQ(used, 4u);
    }
}

TEST_F(DispatchTest, CommandsOneToThreeRefuseAShortOutBuffer)
{
    for (uint32_t command = 1; command <= 3; command++) {
        uint32_t out = 0xAAAAAAAA;
        uint32_t used = 9;
        EXPECT_EQ(dispatch(command, nullptr, 0, &out, 3, &used), 5u);
        EXPECT_EQ(out, 0xAAAAAAAAu);
        EXPECT_EQ(used, 0u);
    }
}

TEST_F(DispatchTest, GetWithA31ByteRequestIsRefusedBeforeTheDataStore)
{
    SMSnmpValue request{}, reply{};
    uint32_t used = 9;
    EXPECT_EQ(dispatch(SM_CMD_GET, &request, 31, &reply, sizeof reply, &used), 5u);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(dispatch(SM_CMD_GETNEXT, &request, 31, &reply, sizeof reply), 5u);
    EXPECT_EQ(dispatch(SM_CMD_GET, &request, sizeof request, &reply, 31), 5u);
    EXPECT_EQ(dispatch(SM_CMD_GETNEXT, &request, sizeof request, &reply, 31), 5u);
    EXPECT_EQ(fake::dataStoreReadyCalls(), 0);
}

TEST_F(DispatchTest, NullBuffersWithLargeSizesAreRefused)
{
    SMSnmpValue binding{};
    EXPECT_EQ(dispatch(SM_CMD_GET, nullptr, 32, &binding, 32), 5u);
    EXPECT_EQ(dispatch(SM_CMD_GETNEXT, &binding, 32, nullptr, 32), 5u);
    EXPECT_EQ(dispatch(SM_CMD_LOAD, nullptr, 16), 5u);
    EXPECT_EQ(dispatch(SM_CMD_LIST_MIB, nullptr, 0, nullptr, 64), 5u);
    EXPECT_EQ(dispatch(SM_CMD_INFO1, nullptr, 0, nullptr, 4), 5u);
    EXPECT_EQ(dispatch(SM_CMD_SET1, nullptr, 32), 5u);
    EXPECT_EQ(fake::dataStoreReadyCalls(), 0);
    EXPECT_EQ(dataMutex, nullptr);
}

TEST_F(DispatchTest, ANullUsedSizeIsRefused)
{
    uint32_t out = 0xAAAAAAAA;
    EXPECT_EQ(KELPIMP64_SMMIBImplementerDispatch(SM_CMD_INFO1, nullptr, 0, &out, 4, nullptr), 5u);
    EXPECT_EQ(out, 0xAAAAAAAAu);
}

TEST_F(DispatchTest, ListMibWithSixteenBytesListsTheOneDefinition)
{
    alignas(8) unsigned char out[16];
    std::memset(out, 0xAA, sizeof out);
    uint32_t used = 0;
    ASSERT_EQ(dispatch(SM_CMD_LIST_MIB, nullptr, 0, out, sizeof out, &used), 0u);
    EXPECT_EQ(used, 16u);
    uint32_t count = 0;
    std::memcpy(&count, out, 4);
    EXPECT_EQ(count, 1u);
    uint32_t padding = 0xFFFFFFFF;
    std::memcpy(&padding, out + 4, 4);
    EXPECT_EQ(padding, 0u);
    const void *pointer = nullptr;
    std::memcpy(&pointer, out + 8, 8);
    EXPECT_EQ(pointer, static_cast<const void *>(kelpMibDefinition));
}

TEST_F(DispatchTest, ListMibZeroesTheWholeOutBuffer)
{
    alignas(8) unsigned char out[64];
    std::memset(out, 0xAA, sizeof out);
    uint32_t used = 0;
    ASSERT_EQ(dispatch(SM_CMD_LIST_MIB, nullptr, 0, out, sizeof out, &used), 0u);
    EXPECT_EQ(used, 16u);
    for (size_t i = 16; i < sizeof out; i++) {
        EXPECT_EQ(out[i], 0) << i;
    }
}

TEST_F(DispatchTest, ListMibWithFifteenBytesIsRefusedUntouched)
{
    unsigned char out[15];
    std::memset(out, 0xAA, sizeof out);
    uint32_t used = 9;
    EXPECT_EQ(dispatch(SM_CMD_LIST_MIB, nullptr, 0, out, sizeof out, &used), 5u);
    EXPECT_EQ(used, 0u);
    for (unsigned char byte : out) {
        EXPECT_EQ(byte, 0xAA);
    }
}

TEST_F(DispatchTest, BothSetCommandsAnswerReadOnly)
{
    SMSnmpValue binding{};
    binding.type = SM_ASN_INTEGER;
    binding.value = 7;
    for (uint32_t command : {SM_CMD_SET1, SM_CMD_SET2}) {
        uint32_t used = 9;
        EXPECT_EQ(dispatch(command, &binding, sizeof binding, nullptr, 0, &used), 4u);
        EXPECT_EQ(used, 0u);
        EXPECT_EQ(dispatch(command, &binding, 31), 5u);
    }
}

TEST_F(DispatchTest, LoadWithAFifteenByteBufferIsRefusedAndKeepsThePointers)
{
    unsigned char in[16] = {1};
    EXPECT_EQ(dispatch(SM_CMD_LOAD, in, 15), 5u);
    EXPECT_EQ(g_FrameworkServices, nullptr);
    EXPECT_EQ(dataMutex, nullptr);
}

TEST_F(DispatchTest, LoadKeepsTheServiceTableAndHandle)
{
    void *services[SM_SERVICE_COUNT] = {};
    ASSERT_EQ(load(services, 0x1234567890ull), 0u);
    EXPECT_EQ(g_FrameworkServices, services);
    EXPECT_EQ(g_FrameworkHandle, 0x1234567890ull);
}

// The trap sender of the service table, recording its calls.
uint32_t g_trapCalls;
uint64_t g_trapHandle;
uint32_t recordTrap(uint64_t handle, const SMSnmpOID *, uint32_t, uint32_t, uint32_t, SMSnmpValue *)
{
    g_trapCalls++;
    g_trapHandle = handle;
    return 0;
}

TEST_F(DispatchTest, TrapSendGoesThroughEntrySevenWithTheHandle)
{
    g_trapCalls = 0;
    void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(recordTrap);
    ASSERT_EQ(load(services, 42), 0u);
    EXPECT_EQ(MPITrapSend(nullptr, 6, 1, 0, nullptr), 0u);
    EXPECT_EQ(g_trapCalls, 1u);
    EXPECT_EQ(g_trapHandle, 42u);
}

TEST_F(DispatchTest, UnloadClearsTheFrameworkPointersAndTrapSendThenFails)
{
    g_trapCalls = 0;
    void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(recordTrap);
    ASSERT_EQ(load(services, 42), 0u);
    uint32_t used = 9;
    EXPECT_EQ(dispatch(SM_CMD_UNLOAD, nullptr, 0, nullptr, 0, &used), 0u);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(g_FrameworkServices, nullptr);
    EXPECT_EQ(g_FrameworkHandle, 0u);
    EXPECT_EQ(MPITrapSend(nullptr, 6, 1, 0, nullptr), 5u);
    EXPECT_EQ(g_trapCalls, 0u);
}

TEST_F(DispatchTest, UnloadWithoutLoadClearsThePointers)
{
    static void *services[SM_SERVICE_COUNT] = {};
    g_FrameworkServices = services;
    g_FrameworkHandle = 7;
    EXPECT_EQ(dispatch(SM_CMD_UNLOAD), 0u);
    EXPECT_EQ(g_FrameworkServices, nullptr);
    EXPECT_EQ(g_FrameworkHandle, 0u);
    EXPECT_EQ(MPITrapSend(nullptr, 6, 1, 0, nullptr), 5u);
}

void *entryThree(void *a, void *b, void *c, void *d)
{
    return reinterpret_cast<void *>(
        reinterpret_cast<uintptr_t>(a) + reinterpret_cast<uintptr_t>(b) +
        reinterpret_cast<uintptr_t>(c) + reinterpret_cast<uintptr_t>(d));
}

TEST_F(DispatchTest, EntryThreePassesItsArgumentsAndAnswersNullWithoutATable)
{
    EXPECT_EQ(MPIFrameworkEntry3(reinterpret_cast<void *>(1), nullptr, nullptr, nullptr), nullptr);
    void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_ENTRY3] = reinterpret_cast<void *>(entryThree);
    ASSERT_EQ(load(services, 1), 0u);
    EXPECT_EQ(MPIFrameworkEntry3(reinterpret_cast<void *>(1), reinterpret_cast<void *>(2),
                                 reinterpret_cast<void *>(3), reinterpret_cast<void *>(4)),
              reinterpret_cast<void *>(10));
}

TEST_F(DispatchTest, TheModuleContextIsInstalledDuringADispatch)
{
    // The debug printer names its file after the module running the call.
    kelpRuntimeSetDebugFile("");
    writeIni("[general]\nDebugSNMP=On\nDebugPath=" + dir() + "\n");
    ASSERT_EQ(load(), 0u);
    const std::string expected = dir() + "/" + g_ModuleExportContext.moduleName + ".log";
    EXPECT_NE(std::string(g_ModuleExportContext.moduleName), "");
    EXPECT_NE(readFile(expected).find("MIBImplementerLoad: entry\n"), std::string::npos);
}

} // namespace
