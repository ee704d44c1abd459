// The trap builder (module/events): one event text, as the event queue hands
// it to the monitor, made into a trap on the sample model's tables, with
// every binding the framework's trap send receives read back. The input's
// first line is "TRAP EVENT COUNT EXTENDED" (numbers; EXTENDED 1 turns on
// the extended messages), the rest is the event's XML.
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "datastore/model_store.h"
#include "events/trap.h"
#include "frame/state.h"
#include "fuzz_common.h"
#include "kelp/runtime.h"
#include "platform/queue.h"
#include "platform/smsnmp.h"
#include "plugin_session.h"
#include "store/build.h"

namespace {

void *g_services[SM_SERVICE_COUNT];
std::string g_dir;

std::string_view nextLine(std::string_view *text)
{
    const size_t end = text->find('\n');
    std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_dir = fuzzcommon::tempDir();
    kelpRuntimeSetIniPath((g_dir + "/kelp.ini").c_str());
    std::string error;
    if (!kelp::ds::loadModelFile(std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml",
                                 &error)) {
        fuzzcommon::fail(error);
    }
    FUZZ_CHECK(buildAll() == 0);
    g_services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(fuzzplugin::readTrap);
    g_FrameworkServices = g_services;
    g_FrameworkHandle = 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    std::istringstream header{std::string(nextLine(&text))};
    uint32_t trap = 0, event = 0, count = 0, extended = 0;
    header >> trap >> event >> count >> extended;
    static uint32_t lastExtended = 2;
    if ((extended & 1) != lastExtended) {
        lastExtended = extended & 1;
        std::ofstream(g_dir + "/kelp.ini")
            << "[vcsipe]\nExtendedSNMPMessages=" << (lastExtended ? "On" : "Off") << "\n";
    }
    const std::string xml(text);
    KelpmibSendTrap(trap, event, xml.c_str(), count);
    return 0;
}
