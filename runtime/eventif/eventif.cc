// The event interface: the plug-in's event monitor reads the queue of storage
// events (eventif/event_queue.h) through these calls, as the reader side hands
// them out (eventif/reader.h), and reads the extended SNMP message preference
// from the ini store.
#include <cstring>

#include "eventif/event_queue.h"
#include "eventif/reader.h"
#include "queue.h"
#include "vcsif.h"

extern "C" {

// The queue keeps events from the moment the runtime is loaded, so that a
// host may queue before the plug-in loads and nothing queued earlier is lost;
// switching it on only records that a reader exists (shown by `status`).
void vcsif32_yesEventQ(void)
{
    kelp::ev::setReaderSwitchedOn();
}

// This library takes no commands from its client, so there is nothing to
// switch off. The plug-in's event monitor calls it as it starts reading, a
// read interval before its first read: from here on a swap that moves ids
// waits for that read (rescan_gate.h) instead of taking the reader for
// absent, which would leave tables built from the old model unrebuilt.
void vcsif32_noCmdQ(void)
{
    kelp::ev::noteReaderStarting();
}

// Only single events are handed out; any other count is answered null and
// leaves the queue, and the text the reader holds, as they are.
char *vcsif32_getEvent(uint32_t count)
{
    return count == 1 ? kelp::ev::readNextEvent() : nullptr;
}

void vcsif32_freeData(char *data)
{
    kelp::ev::releaseEventText(data);
}

uint32_t geteemisnmpmsgpref(uint32_t *flag)
{
    if (flag == nullptr)
        return 5;
    char value[16] = {};
    uint32_t size = sizeof value;
    // A longer value cannot be "On"; a 16 answer leaves the preference off.
    bool on = SSGetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", value, &size) == 0 &&
              std::strcmp(value, "On") == 0;
    *flag = on ? 1 : 0;
    return 0;
}

} // extern "C"
