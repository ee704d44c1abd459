// The event interface: the queue of storage events the event monitor reads,
// and the extended SNMP message preference. The queue is not available yet:
// events arrive through the control socket, a later piece of work, so for now
// the queue is always empty.
#include <cstdlib>
#include <cstring>

#include "queue.h"
#include "vcsif.h"

extern "C" {

// Not available yet: nothing to switch on while no event source exists.
void vcsif32_yesEventQ(void) {}

// Not available yet: this library takes no commands at all.
void vcsif32_noCmdQ(void) {}

// Not available yet: the queue is always empty, so the answer is null.
char *vcsif32_getEvent(uint32_t /*count*/)
{
    return nullptr;
}

// Event texts are heap blocks; null is ignored.
void vcsif32_freeData(char *data)
{
    std::free(data);
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
