// Get, GetNext and Set resolved through the plug-in's dispatch (commands 9,
// 10 and 11), turned into what an SNMP agent answers. The served tree
// (tree.h) decides which names reach the plug-in at all and from where its
// GetNext is asked, so that every name gets the answer SNMP requires. Free
// of net-snmp and of threads: the mapping is tested with a fake dispatch,
// and the same code runs on the agent's main loop and on its worker.
#ifndef KELP_AGENT_SNMP_RESOLVE_H
#define KELP_AGENT_SNMP_RESOLVE_H

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "snmp/tree.h"
#include "value.h"

namespace kelp::agent {

// The dispatch's signature (SMMIBImplementerDispatchFn), as a callable.
using Dispatch = std::function<uint32_t(uint32_t command, void *in, uint32_t inSize, void *out,
                                        uint32_t outSize, uint32_t *outUsed)>;

// A status no plug-in answers: the agent's own dispatch wrapper answers it
// in place of the plug-in's genErr when the plug-in failed because its
// tables' lock was held past the wait the caller allowed.
inline constexpr uint32_t kStatusLockTimeOut = 0x100 | 5;

enum class Outcome {
    kValue,          // name and value answered
    kNoSuchObject,   // Get: the name is no object of the tree
    kNoSuchInstance, // Get: the tree has no such instance (v1: noSuchName)
    kGenErr,         // the plug-in failed, or answered something unreadable
    kLockTimeOut,    // the plug-in's tables were locked (a rebuild): genErr
                     // to the manager, or worth a try later with more patience
    kEndOfSubtree,   // GetNext: nothing after the name in this tree; the
                     // varbind stays untouched and the agent moves on
    kNotWritable,    // Set: refused (v1: noSuchName)
};

struct Answer {
    Outcome outcome = Outcome::kGenErr;
    // The name answered (Get: the name asked), always an instance's.
    FixedName<uint64_t, kCellLength> name;
    Value value;
};

// GetNext asks again from a name the plug-in answered without a value, or
// answered before the request, at most this many times in one request.
// Every step moves forward and the tree is finite, so this only guards
// against a plug-in that answers nonsense.
inline constexpr int kMaxGetNextSteps = 1 << 18;

// Forgets the last rows that scans of tables whose row 1 went found (they
// are kept for a second, and while the served model stays): for tests that
// change a fake plug-in's rows, and for a host that loads the plug-in anew.
void forgetKeptScans();

// Get of `name` (arcs as the agent holds them, 64 bits wide). Only an
// instance of the served tree reaches the plug-in; any other name is
// kNoSuchInstance (a served object) or kNoSuchObject without a dispatch.
Answer answerGet(const Dispatch &dispatch, std::span<const uint64_t> name);

// GetNext from `name`: the first instance of the served tree that sorts
// after it (or equals it, when `inclusive`: AgentX masters ask so) and that
// the plug-in's walk answers, with its value.
Answer answerGetNext(const Dispatch &dispatch, std::span<const uint64_t> name, bool inclusive);

// The repetitions of one GETBULK varbind: up to `count` answers, each a
// GetNext from the name of the one before (the first from `name`, with
// `inclusive`). Ends early after an answer that is not a value (it is the
// last element), or after a value at or past `rangeEnd` (empty: no end).
std::vector<Answer> answerRepetitions(const Dispatch &dispatch, std::span<const uint64_t> name,
                                      bool inclusive, size_t count,
                                      std::span<const uint64_t> rangeEnd);

// Set of `name`: the plug-in sees it as command 11 (a name with an arc above
// 2^32-1 is not handed over), and whatever it answers the agent refuses:
// kNotWritable. The MIB is read-only.
Outcome answerSet(const Dispatch &dispatch, std::span<const uint64_t> name);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMP_RESOLVE_H
