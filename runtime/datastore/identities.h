// What each object id named when the data store last handed it out in a
// list answer (GetObjectList, GetAssociated): its type and first Nexus. The
// plug-in keeps those ids in its tables until its next rescan; a model
// loaded or changed meanwhile may give an id to an object of another type or
// another nexus, and answering that object would put its values into the
// wrong row. A query about such an id answers for the object of the type and
// nexus it named, under whatever id the model gives it now, or as for a
// missing object when the model holds none, until a later list answer hands
// the id out again. Runtime-private.
#ifndef KELP_RUNTIME_DATASTORE_IDENTITIES_H
#define KELP_RUNTIME_DATASTORE_IDENTITIES_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace kelp::ds {

class Model; // datastore/model.h

// Guards the remembered identities. Taken after the store's change lock and
// before the lock of the served model (model_store.cc), so that a reader who
// holds it and then takes the served model sees that model together with the
// identities that go with it: a `set` of a Nexus swaps its model in and
// follows it here under this lock. Every swap of the served model takes it,
// so the model currentModel() answers stays valid while it is held.
std::mutex &identityMutex();

// Remembers the type and first Nexus of the objects at `positions` of m, as
// a list answer hands their ids out. One hash look-up per object; a string
// is copied only when the identity changed. Requires identityMutex().
void rememberHandedOut(const Model &m, const std::vector<size_t> &positions);

// The position in m of the object `id` names to the plug-in: the object
// with that id when the id was never handed out or the object is still as
// handed out; else the object of m with the type and first Nexus the id was
// handed out with (a load that gave the object another id), or nullopt when
// m holds no such object. One hash look-up when the id was asked about in
// m before and its identity has not changed since, three at most. Requires
// identityMutex().
std::optional<size_t> positionNamedBy(const Model &m, uint32_t id);

// How many answers of positionNamedBy were worked out from the model rather
// than taken from the id's last answer in that same model (for tests).
uint64_t namedPositionsWorkedOut();

// Follows a change of an object's identity made on purpose (a set Nexus):
// when the object at posBefore of `before` was still as handed out, its id is
// remembered with the identity of the object at posAfter of `after`, so that
// its row keeps answering. An id that was stale stays stale. Requires
// identityMutex().
void followIdentity(const Model &before, size_t posBefore, const Model &after, size_t posAfter);

// Forgets every remembered identity (a fresh store, for tests).
void forgetHandedOut();

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_IDENTITIES_H
