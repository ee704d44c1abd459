// The module's private log file "smsnmp.log" in the install directory. No
// command opens it in this build; it is kept for diagnosing a deployment by
// hand, and writes through its own mutex so threads do not interleave lines.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "frame/config.h"
#include "platform/queue.h"
#include "platform/vcsupt.h"
#include "platform/vscil.h"

const char *const kModuleLogName = "kelpimp64";
const char *const kModuleLogFileName = "kelpimp64.log";

namespace {

constexpr uint32_t kInstallPathSize = 512;
constexpr char kSNMPLogName[] = "/smsnmp.log";

// Written by openSNMPLog and closeSNMPLog at load and unload, while no
// worker thread runs; written through by writeSNMPLog under g_snmpLogMutex.
FILE *g_snmpLogFile = nullptr;
// Serialises writeSNMPLog. Created and destroyed with the file, while no
// worker thread runs.
SMMutexHandle g_snmpLogMutex = nullptr;

} // namespace

bool isDebugSNMPOn(void)
{
    char buffer[80];
    uint32_t size = sizeof buffer;
    std::memset(buffer, 0, 8);
    if (SSGetPrivateIniValue("general", "DebugSNMP", buffer, &size) != 0) {
        SSSetPrivateIniValue("general", "DebugSNMP", "Off");
    }
    size = sizeof buffer;
    std::memset(buffer, 0, 8);
    SSGetPrivateIniValue("general", "DebugSNMP", buffer, &size);
    buffer[sizeof buffer - 1] = '\0';
    return configIsOnAnyCase(buffer);
}

void openSNMPLog(void)
{
    if (!isDebugSNMPOn()) {
        return;
    }
    if (g_snmpLogMutex == nullptr) {
        g_snmpLogMutex = SMMutexCreate(0);
    }
    char path[kInstallPathSize + sizeof kSNMPLogName];
    uint32_t size = kInstallPathSize;
    if (GetInstallPath(path, &size) != 0) {
        VscilDebugPrint("getInstPath() failed \n");
        return;
    }
    path[kInstallPathSize - 1] = '\0';
    std::strcat(path, kSNMPLogName);
    if (g_snmpLogFile != nullptr) {
        std::fclose(g_snmpLogFile);
    }
    g_snmpLogFile = std::fopen(path, "w");
}

void writeSNMPLog(const char *format, ...)
{
    if (g_snmpLogFile == nullptr || SMMutexLock(g_snmpLogMutex, SM_WAIT_FOREVER) != 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(g_snmpLogFile, format, args);
    va_end(args);
    std::fflush(stdout);
    std::fflush(g_snmpLogFile);
    SMMutexUnLock(g_snmpLogMutex);
}

void closeSNMPLog()
{
    if (g_snmpLogFile != nullptr) {
        std::fclose(g_snmpLogFile);
        g_snmpLogFile = nullptr;
    }
    SMMutexDestroy(g_snmpLogMutex);
    g_snmpLogMutex = nullptr;
}
