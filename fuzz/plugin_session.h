// The plug-in as kelpagent runs it, for the fuzz targets that drive it:
// libkelpimp64.so (next to the target, in ../lib) loaded with dlopen on a
// copy of the sample model (KELP_MODEL), its monitor started and its tables
// built; stopped and unloaded at exit.
#ifndef KELP_FUZZ_PLUGIN_SESSION_H
#define KELP_FUZZ_PLUGIN_SESSION_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "fuzz_common.h"
#include "pluginhost.h"

namespace fuzzplugin {

// The MIB root: most interesting names start with it.
inline constexpr uint32_t kRoot[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
inline constexpr uint32_t kRootArcs = sizeof kRoot / sizeof kRoot[0];
// What the agent's reply record holds (agent/records.h).
inline constexpr uint32_t kReplyArcs = 128;
inline constexpr uint32_t kReplyBytes = 1024;

inline PluginHost &host()
{
    static PluginHost plugin;
    return plugin;
}

// The framework's trap send: reads every binding the way the agent copies
// it, so that ASan checks what the plug-in hands over.
inline uint32_t readTrap(uint64_t, const SMSnmpOID *enterprise, uint32_t, uint32_t, uint32_t count,
                         SMSnmpValue *bindings)
{
    volatile uint32_t sum = 0;
    for (uint32_t i = 0; i < enterprise->count; i++) {
        sum = sum + enterprise->arcs[i];
    }
    for (uint32_t i = 0; i < count; i++) {
        const SMSnmpValue &b = bindings[i];
        FUZZ_CHECK(b.name.count <= kReplyArcs);
        for (uint32_t a = 0; a < b.name.count; a++) {
            sum = sum + b.name.arcs[a];
        }
        if (b.type == SM_ASN_OCTET_STRING || b.type == SM_ASN_OPAQUE) {
            FUZZ_CHECK(b.value <= kReplyBytes);
            const auto *bytes = static_cast<const unsigned char *>(b.buffer);
            for (uint32_t c = 0; c < b.value; c++) {
                sum = sum + bytes[c];
            }
        }
    }
    return 0;
}

// Loads and starts the plug-in with its clock `timeScale` times as fast
// (KELP_TIME_SCALE); aborts when it does not come up within a minute.
inline void start(int timeScale = 100)
{
    const std::string dir = fuzzcommon::tempDir();
    std::filesystem::copy_file(std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml",
                               dir + "/model.xml");
    std::ofstream(dir + "/kelp.ini") << "[general]\nDebugSNMP=Off\n";
    setenv("KELP_MODEL", (dir + "/model.xml").c_str(), 1);
    setenv("KELP_INI", (dir + "/kelp.ini").c_str(), 1);
    setenv("KELP_TIME_SCALE", std::to_string(timeScale).c_str(), 1);
    unsetenv("KELP_DEBUG_FILE");
    if (!host().open(defaultPluginPath())) {
        fuzzcommon::fail("cannot open the plug-in: " + host().error());
    }
    static void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(readTrap);
    FUZZ_CHECK(host().load(services, 1) == 0);
    uint32_t used = 0;
    FUZZ_CHECK(host().call(SM_CMD_START_MONITOR, nullptr, 0, nullptr, 0, &used) == 0);
    // The refresh thread builds the tables; until then every Get is genErr.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        uint32_t arcs[kRootArcs];
        std::memcpy(arcs, kRoot, sizeof arcs);
        uint32_t replyArcs[kReplyArcs];
        unsigned char bytes[kReplyBytes];
        SMSnmpValue request{}, reply{};
        request.name = SMSnmpOID{kRootArcs, 0, arcs};
        reply.name = SMSnmpOID{0, 0, replyArcs};
        reply.value = kReplyBytes;
        reply.buffer = bytes;
        if (host().call(SM_CMD_GETNEXT, &request, sizeof request, &reply, sizeof reply, &used) ==
            0) {
            break;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            fuzzcommon::fail("the plug-in's tables were not built within a minute");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::atexit([] {
        uint32_t ignored = 0;
        host().call(SM_CMD_STOP_MONITOR, nullptr, 0, nullptr, 0, &ignored);
        host().unload();
        host().close();
    });
}

} // namespace fuzzplugin

#endif // KELP_FUZZ_PLUGIN_SESSION_H
