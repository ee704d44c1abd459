// The served storage model: the one the data-store queries answer from, and
// the changes the control socket makes to it. Runtime-private (the control
// socket and the tests use it; the plug-in sees only vscil.h).
//
// Every change is all or nothing: it is applied to a copy, the copy is
// validated as a model file is, and only a valid copy replaces the served
// model. Readers never see a half-made change. All calls are safe from any
// thread.
#ifndef KELP_RUNTIME_DATASTORE_MODEL_STORE_H
#define KELP_RUNTIME_DATASTORE_MODEL_STORE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelp::ds {

class Model; // datastore/model.h
struct ModelData;

// Loads a model file and serves it. On error (unreadable, malformed,
// invalid) answers false with a message naming the file and line, and the
// served model stays as it was. The file is read, parsed and validated
// without any lock that queries or changes take, so they go on meanwhile;
// the new model is swapped in at the end, and the one it replaces is freed
// here, off the request path. Loads run one at a time.
bool loadModelFile(const std::string &path, std::string *error);

// Writes the served model as a model file at path (modelText), replacing
// the file there as one step (rt::replaceFile) with mode 0644; loading that
// file serves the same model. The model is the one served at the call; the
// text is made and written holding no lock that queries or changes take,
// so they go on meanwhile. False with a message when no model is served,
// when its text would be over the size a model file may have, or when the
// file cannot be written ("PATH: ..." as replaceFile says).
bool saveModelFile(const std::string &path, std::string *error);

// Loads a model from text; `origin` names it in error messages.
bool loadModelText(const std::string &text, const std::string &origin, std::string *error);

// The file of the model served now: the one the last successful
// loadModelFile (or KELP_MODEL) read, also after changes made to it since.
// False when no model is served or it was loaded from a text.
bool servedModelFile(std::string *file);

// Stops serving: the store then has no model (DataStoreReady answers null).
void unloadModel();

// The data store reports ready (<Code>0</Code>) or not (a non-zero code).
// False when no model is served.
bool setReady(bool ready, std::string *error);

// Sets one attribute of an object (appended when the object lacks it). A
// set "Nexus" gives the object another identity on purpose: an id still
// answered as handed out (identities.h) goes on being answered.
bool setAttribute(uint32_t id, const std::string &name, const std::string &value,
                  std::string *error);

// Adds the <object> elements and <link> elements of `fragment` (the same
// syntax as inside <storage>).
bool addObjects(const std::string &fragment, std::string *error);

// Removes an object and every link that names it. Its children would be
// left without a parent, so an object that has children is refused.
bool removeObject(uint32_t id, std::string *error);

struct ModelStatus {
    bool served = false; // a model is loaded
    std::string origin;  // the file (or origin) it came from
    bool ready = false;
    std::vector<std::pair<std::string, uint32_t>> counts; // objects per type, in type order
};
// Every type of the model format is counted, those without objects too.
ModelStatus modelStatus();

// The fields an event about object `id` carries: "ObjType" (numeric type
// code), "Nexus", "ObjStatus", "PreviousStatus", "AttributesMask" (each when
// the object has it), "ControllerName" (the "Name" of the owning controller:
// the object itself or its nearest "adapters" ancestor or linked adapter)
// and "VirtualDiskName" (the "Name" of a "vdisks" object), and in
// *insertName (when given) its eventInsertName. False when there is no such
// object.
bool eventFieldsOf(uint32_t id, std::vector<std::pair<std::string, std::string>> *fields,
                   std::string *error, std::string *insertName = nullptr);

// Numeric object type codes of the event interface ("adapters" 769, ...).
// 0 for a type without a code.
uint32_t objectTypeCode(const std::string &typeName);

// The value of an attribute of the served model's <storage> element
// ("chassisServiceTag", "baseBoardServiceTag", "url", ...). False when no
// model is served or it has no such attribute.
bool storageAttribute(const std::string &name, std::string *value);

// The model the data-store queries answer from, or null. The first call of
// any reader while no host has loaded or unloaded a model tries KELP_MODEL
// (see kelpRuntimeLoadModel). The model stays valid while the caller holds
// it, whatever changes are made meanwhile.
std::shared_ptr<const Model> servedModel();

// Whether the model servedModel() would answer is ready (its ready flag), or
// nullopt when no model is served; one atomic read once KELP_MODEL was tried.
std::optional<bool> servedModelReady();

// Tries KELP_MODEL as the first reader does, and nothing more: for a reader
// that then takes identityMutex() (identities.h), a lock that changes take
// after their own, and reads currentModel() under it.
void settleServedModel();

// The served model as servedModel() answers it once KELP_MODEL has been
// tried, without trying it: for a reader that called servedModel() or
// settleServedModel() first and now holds identityMutex(). Null when no model
// is served. No reference is taken: the model stays valid while the caller
// holds identityMutex(), since every swap takes that lock too.
const Model *currentModel();

// Serves a model the live source built (live/live_source.h), as a load
// would, and from then on refuses every load and change the control socket
// asks for: the machine is the only source of the data. The model it
// replaces is freed here once no query holds it; a caller that holds it too
// should let go first.
void serveLiveModel(std::shared_ptr<const Model> model);

// Whether the live source serves the data store: loads and changes are
// refused while it does. stopServingLive lets them in again (tests).
bool liveServed();
void stopServingLive();

// The fields of eventFieldsOf for the object at `pos` of `m`.
void eventFieldsIn(const Model &m, size_t pos,
                   std::vector<std::pair<std::string, std::string>> *fields);
// The name event texts give the object at `pos` of `m` in their first insert
// (%1): the last word of its name in the event catalogue ("0:0:3" of
// "Physical Disk 0:0:3"), else its nexus, or "" without one.
std::string eventInsertName(const Model &m, size_t pos);

// Tests only: serves nothing, forgets that KELP_MODEL was tried and every id
// handed out.
void resetForTesting();

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_MODEL_STORE_H
