// Which model swaps the plug-in must not see unlocked. The plug-in's rows
// name objects by id until its next rebuild; a swap after which an id of the
// served model names another object, or none, would show rows answering
// for the wrong object (or for none) until then. Such a swap is made under
// the plug-in's rescan lock (rescan_gate.h); any other is made at once.
// Runtime-private.
#ifndef KELP_RUNTIME_EVENTIF_MODEL_SWAP_H
#define KELP_RUNTIME_EVENTIF_MODEL_SWAP_H

#include <functional>

namespace kelp::ds {
class Model; // datastore/model.h
}

namespace kelp::ev {

// Whether some id of `before` names no object of `after`, or one of another
// type or first Nexus (what names an object to the plug-in). False with no
// model before (no row names anything yet); with none after (null), true
// when `before` has objects. One hash look-up per object of `before`.
bool idsChangeOwner(const ds::Model *before, const ds::Model *after);

// Runs swap() once: under the rescan lock (swapUnderRescan) when
// idsChangeOwner(before, after), else at once. Thread-safe; the caller
// serialises its swaps.
void swapModel(const ds::Model *before, const ds::Model *after, const std::function<void()> &swap);

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_MODEL_SWAP_H
