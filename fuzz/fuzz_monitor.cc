// Event texts into the plug-in's event monitor: the input is queued on the
// runtime's event queue as one event, the running plug-in's monitor thread
// takes it through the event interface, reads its number and object type,
// picks the trap and builds it (readTrap reads every binding). The plug-in
// runs with its clock a thousand times as fast, so that the monitor's
// one-second poll is a millisecond. The monitor works on its own thread:
// each input waits until the monitor has taken it.
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "eventif/event_queue.h"
#include "fuzz_common.h"
#include "plugin_session.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzplugin::start(1000);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string xml(reinterpret_cast<const char *>(data), size);
    if (!kelp::ev::queueEvent(xml, nullptr)) {
        return 0;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (kelp::ev::queuedEvents() > 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            fuzzcommon::fail("the monitor took no event for 5 s");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return 0;
}
