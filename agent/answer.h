// Get and GetNext answered through the plug-in's dispatch (commands 9 and
// 10), turned into what an SNMP agent answers. Free of net-snmp, so that the
// mapping is tested with a fake dispatch and no sockets.
#ifndef KELP_AGENT_ANSWER_H
#define KELP_AGENT_ANSWER_H

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "value.h"

namespace kelp::agent {

// The tree the plug-in serves, registered as one subtree.
inline constexpr uint32_t kMibRoot[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};

// The dispatch's signature (SMMIBImplementerDispatchFn), as a callable.
using Dispatch = std::function<uint32_t(uint32_t command, void *in, uint32_t inSize, void *out,
                                        uint32_t outSize, uint32_t *outUsed)>;

enum class Outcome {
    kValue,          // name and value answered
    kNoSuchObject,   // Get: the name cannot be in the tree
    kNoSuchInstance, // Get: the tree has no such object (v1: noSuchName)
    kGenErr,         // the plug-in failed, or answered something unreadable
    kEndOfSubtree,   // GetNext: nothing after the name in this tree; the
                     // varbind stays untouched and the agent moves on
    kNotWritable,    // Set: refused (v1: noSuchName)
};

struct Answer {
    Outcome outcome = Outcome::kGenErr;
    std::vector<uint64_t> name; // GetNext: the name answered
    Value value;
};

// GetNext asks again from a name the plug-in answered without a value at
// most this many times in one request.
inline constexpr int kMaxGetNextSteps = 256;

// Get of `name` (arcs as the agent holds them, 64 bits wide). A name with an
// arc above 2^32-1 is noSuchObject without a dispatch.
Answer answerGet(const Dispatch &dispatch, std::span<const uint64_t> name);

// GetNext from `name`: the first name inside kMibRoot that sorts after it
// (or equals it, when `inclusive`: AgentX masters ask so), with its value.
Answer answerGetNext(const Dispatch &dispatch, std::span<const uint64_t> name, bool inclusive);

// Set of `name`: the plug-in sees it as command 11 (a name with an arc above
// 2^32-1 is not handed over), and whatever it answers the agent refuses:
// kNotWritable. The MIB is read-only.
Outcome answerSet(const Dispatch &dispatch, std::span<const uint64_t> name);

// The name from which the plug-in is asked for the successor of `name`: an
// arc above 2^32-1 and everything after it become one arc 2^32-1, which sorts
// before `name` and after everything of the plug-in's before it.
std::vector<uint32_t> nextCursor(std::span<const uint64_t> name);

// True when `name` lies in kMibRoot's subtree.
bool insideRoot(std::span<const uint32_t> name);

} // namespace kelp::agent

#endif // KELP_AGENT_ANSWER_H
