// Test helper: a request and a reply as a host hands them to the module,
// with a 128-arc name buffer and a 1024-byte value buffer in the reply.
#ifndef KELP_MODULE_TESTING_REQUEST_H
#define KELP_MODULE_TESTING_REQUEST_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "mib/mibdef.h"
#include "platform/smsnmp.h"
#include "platform/vcsupt.h"

struct Exchange {
    std::vector<uint32_t> requestArcs;
    SMSnmpValue request{};
    uint32_t replyArcs[128] = {};
    char replyBuffer[1024] = {};
    SMSnmpValue reply{};

    // root followed by `below`.
    explicit Exchange(std::initializer_list<uint32_t> below, bool underRoot = true)
    {
        if (underRoot) {
            requestArcs.assign(kelpMibRootArcs, kelpMibRootArcs + kelpMibRootLength);
        }
        requestArcs.insert(requestArcs.end(), below);
        request.name = SMSnmpOID{static_cast<uint32_t>(requestArcs.size()), 0,
                                 requestArcs.empty() ? nullptr : requestArcs.data()};
        reply.name = SMSnmpOID{0, 0, replyArcs};
        reply.buffer = replyBuffer;
    }

    // A buffer the module put into the reply in place of the host's is the
    // host's to free, as the getter contract says.
    ~Exchange()
    {
        if (reply.buffer != nullptr && reply.buffer != replyBuffer) {
            SMFreeMem(reply.buffer);
        }
    }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    std::string text() const
    {
        return std::string(static_cast<const char *>(reply.buffer), reply.value);
    }

    // The reply's name below the root, dotted ("130.1.1.1.1"), or the whole
    // name when it is not under the root.
    std::string name() const
    {
        std::string dotted;
        uint32_t first = 0;
        if (reply.name.count >= kelpMibRootLength &&
            std::equal(kelpMibRootArcs, kelpMibRootArcs + kelpMibRootLength, reply.name.arcs)) {
            first = kelpMibRootLength;
        }
        for (uint32_t i = first; i < reply.name.count; i++) {
            dotted += (i > first ? "." : "") + std::to_string(reply.name.arcs[i]);
        }
        return dotted;
    }
};

#endif // KELP_MODULE_TESTING_REQUEST_H
