// The framing of the requests kelpagent reads from a TCP connection
// (agent/messagebounds.h): the input's first byte sets the reader's buffer
// size, the rest is the stream, read as the agent reads it (a peek at the
// next header, then a read bounded by it). The reads must take the whole
// stream, none may be empty, and a bounded read must not run past the end
// of the message it is in, as a plain parse of the stream places it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_common.h"
#include "messagebounds.h"

namespace {

// The ends of the whole messages of `stream`, parsed one after another,
// up to the first header that is not a definite-length SEQUENCE's.
std::vector<size_t> messageEnds(const uint8_t *stream, size_t size)
{
    std::vector<size_t> ends;
    size_t at = 0;
    while (size - at >= 2 && stream[at] == 0x30) {
        size_t header = 2;
        size_t content = stream[at + 1];
        if (content >= 0x80) {
            const size_t octets = content & 0x7f;
            if (octets == 0 || octets > 4 || size - at < 2 + octets) {
                break;
            }
            content = 0;
            for (size_t i = 0; i < octets; i++) {
                content = content << 8 | stream[at + 2 + i];
            }
            header += octets;
        }
        at += header + content;
        ends.push_back(at);
        if (at >= size) {
            break;
        }
    }
    return ends;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    const size_t most = 1 + size_t(data[0]) * 17;
    const uint8_t *stream = data + 1;
    const size_t length = size - 1;
    const std::vector<size_t> ends = messageEnds(stream, length);
    kelp::agent::MessageBounds bounds;
    size_t at = 0;
    while (at < length) {
        const size_t available = length - at;
        const size_t peek = std::min(bounds.headerToPeek(), available);
        const size_t bound = bounds.nextRead(stream + at, peek);
        size_t read = std::min(most, available);
        if (bound > 0) {
            read = std::min(read, bound);
            for (const size_t end : ends) {
                if (end > at && end < at + read) {
                    fuzzcommon::fail("a bounded read runs past the end of a message");
                }
            }
        }
        if (read == 0) {
            fuzzcommon::fail("an empty read");
        }
        bounds.took(stream + at, read);
        at += read;
    }
    return 0;
}
