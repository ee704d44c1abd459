// The served storage model (see model_store.h): loading, KELP_MODEL, the
// changes, and kelpRuntimeLoadModel and kelpRuntimeServedModelPath.
//
// Read-copy-update: readers take a reference to the immutable Model under a
// short lock (or use it under identityMutex(), currentModel); a change
// copies the data, edits the copy, builds a new Model from it and only then
// swaps it in, so a failed change leaves nothing. A load reads, parses and
// validates its file holding no lock a reader or a change needs; only the
// swap is done under identityMutex() and g_servedMutex, and the model it
// replaces is freed after every lock is let go.
#include "datastore/model_store.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>

#include "datastore/identities.h"
#include "datastore/model.h"
#include "datastore/model_writer.h"
#include "eventif/model_swap.h"
#include "kelp/runtime.h"
#include "support/config.h"
#include "support/file_read.h"
#include "support/file_write.h"
#include "support/log.h"
#include "support/text.h"

namespace kelp::ds {
namespace {

// Serialises loads, so that the one asked for last is served last. Only
// loads take it; it is taken before g_changeMutex, never after it.
std::mutex g_loadMutex;
// Serialises changes and the one attempt to load KELP_MODEL; taken before
// identityMutex() and g_servedMutex, never after them.
std::mutex g_changeMutex;
// Guards g_served and g_servedFile; taken last, held only to copy or swap.
std::mutex g_servedMutex;
std::shared_ptr<const Model> g_served; // guarded by g_servedMutex; written under both
// g_served for the queries that hold identityMutex(): every swap writes both
// under that lock too, so such a reader uses the model without taking
// g_servedMutex or a reference. The model it names cannot be let go while
// the reader holds the lock, as the swap that replaces it needs the lock
// first. Guarded by identityMutex().
const Model *g_identityModel = nullptr;
// g_served's ready flag: kNoModel, 0 or 1. Written with g_served.
constexpr int kNoModel = -1;
std::atomic<int> g_servedReady{kNoModel};
// The file g_served was loaded from, kept through changes; empty when it was
// not loaded from a file. Guarded and written as g_served.
std::string g_servedFile;
// The most objects and links a model served since the start (or the last
// resetForTesting) held: every row of the plug-in's tables was built from
// one of them.
std::atomic<uint64_t> g_peakModelSize{0};
// Models swapped in (kelpRuntimeModelChanges); never reset.
std::atomic<uint64_t> g_modelChanges{0};
// Set once a host loaded or unloaded a model, or KELP_MODEL was tried; from
// then on the environment is not consulted. Written under g_changeMutex.
std::atomic<bool> g_settled{false};
// Set while the live source serves the store: loads and changes are refused.
// Atomic, no lock.
std::atomic<bool> g_live{false};

constexpr const char *kLiveRefusal =
    "the live source serves this machine's storage; it takes no loads or changes";

bool fail(std::string *error, const std::string &message)
{
    if (error != nullptr)
        *error = message;
    return false;
}

std::shared_ptr<const Model> snapshot()
{
    std::lock_guard lock(g_servedMutex);
    return g_served;
}

// What a load or a change hands in: the model, and its file when it replaces
// the file served (a change keeps the file it was made to).
struct Served {
    std::shared_ptr<const Model> model;
    std::optional<std::string> file;
};

// Whether a swap may leave the plug-in's rows naming other objects: then it
// is made under the plug-in's rescan lock (eventif/model_swap.h).
enum class Rows { kMayMove, kStay };

// Whether the caller of publish already holds identityMutex().
enum class Identities { kTake, kHeld };

// Swaps `next` in and answers the model it replaced, for the caller to let
// go of once it holds no lock. Requires g_changeMutex; takes identityMutex()
// unless the caller holds it (kHeld).
std::shared_ptr<const Model> publish(Served next, Rows rows = Rows::kMayMove,
                                     Identities identities = Identities::kTake)
{
    auto swap = [&next, identities] {
        std::unique_lock<std::mutex> identityLock;
        if (identities == Identities::kTake)
            identityLock = std::unique_lock(identityMutex());
        std::lock_guard lock(g_servedMutex);
        std::swap(g_served, next.model);
        g_identityModel = g_served.get();
        if (g_served != nullptr) {
            const uint64_t size = g_served->size() + g_served->links().size();
            if (size > g_peakModelSize.load(std::memory_order_relaxed))
                g_peakModelSize.store(size, std::memory_order_relaxed);
        }
        g_servedReady.store(g_served == nullptr ? kNoModel : int{g_served->ready()});
        g_modelChanges.fetch_add(1, std::memory_order_relaxed);
        if (next.file)
            g_servedFile = std::move(*next.file);
    };
    if (rows == Rows::kStay) {
        swap();
    } else {
        const std::shared_ptr<const Model> before = snapshot();
        const std::shared_ptr<const Model> after = next.model;
        ev::swapModel(before.get(), after.get(), swap);
    }
    return std::move(next.model);
}

// Frees a model that is served no more. Freeing a large model takes as long
// as a query may wait, and a query still answering from it would free it on
// the request path at the end of its answer; so the caller waits for those
// queries, which are short, and frees it itself. A holder that does not let
// go within the bound frees it when it does.
void letGo(std::shared_ptr<const Model> old)
{
    using namespace std::chrono_literals;
    constexpr auto kLongestWait = 2s;
    const auto giveUp = std::chrono::steady_clock::now() + kLongestWait;
    while (old != nullptr && old.use_count() > 1 && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(1ms);
    old.reset();
}

// Only a regular file is read (a FIFO would hang the control thread, and
// with it the host's stop, which joins that thread), and only up to the limit.
std::shared_ptr<const Model> modelFromFile(const std::string &path, std::string *error)
{
    std::string text, message;
    if (rt::readRegularFile(path, kMaxModelFileBytes, &text, &message) != rt::FileRead::kRead) {
        fail(error, message);
        return nullptr;
    }
    return readModel(text, path, error);
}

// The first access while no host has chosen a model loads KELP_MODEL. No
// model was served before, so nothing is let go of.
void settleLocked() // requires g_changeMutex
{
    if (g_settled.load())
        return;
    g_settled.store(true);
    std::string path = rt::envValue("KELP_MODEL");
    if (path.empty())
        return;
    std::string error;
    if (auto model = modelFromFile(path, &error))
        publish(Served{std::move(model), path});
    else
        kelp::rt::logError("KELP_MODEL: %s", error.c_str());
}

// What a change that keeps every identity does to the handed-out ids.
struct KeepIdentities {
    void operator()(const Model &, const Model &) const {}
};

// Applies edit to a copy of the served model's data and serves the result
// when it is a valid model. A change that gives an object another identity
// on purpose passes `follow`, which is called with the model before and
// after under identityMutex(), together with the swap, so that no reader
// sees the new model with the old identities. Memory exhaustion is a
// failure like any other.
template <typename Edit, typename Follow = KeepIdentities>
bool change(std::string *error, Edit edit, Follow follow = Follow())
{
    std::shared_ptr<const Model> replaced;
    if (g_live.load())
        return fail(error, kLiveRefusal);
    try {
        std::lock_guard lock(g_changeMutex);
        settleLocked();
        std::shared_ptr<const Model> current = snapshot();
        if (current == nullptr)
            return fail(error, "no model is served");
        ModelData copy = current->data();
        if (!edit(*current, copy))
            return false;
        std::shared_ptr<const Model> next = Model::build(std::move(copy), error);
        if (next == nullptr)
            return false;
        if constexpr (std::is_same_v<Follow, KeepIdentities>) {
            replaced = publish(Served{std::move(next), std::nullopt});
        } else {
            std::lock_guard identities(identityMutex());
            follow(*current, *next);
            replaced =
                publish(Served{std::move(next), std::nullopt}, Rows::kStay, Identities::kHeld);
        }
    } catch (const std::bad_alloc &) {
        return fail(error, "out of memory");
    }
    letGo(std::move(replaced));
    return true;
}

void setFirst(Attributes *attributes, const std::string &name, const std::string &value)
{
    for (auto &[key, old] : *attributes) {
        if (key == name) {
            old = value;
            return;
        }
    }
    attributes->emplace_back(name, value);
}

std::string noObject(uint32_t id)
{
    return "no object " + std::to_string(id);
}

// Loading a model reads the whole file and parses it into the model's own
// structures; what the parse used is freed by then, and handed back to the
// system here rather than kept as the process's size for good.
void returnFreedMemory()
{
    malloc_trim(0);
}

// Serves the model `make` reads, parses and validates, holding no lock a
// query or a change needs; `file` is where it came from ("" for a text).
template <typename Make>
bool load(std::string file, const std::string &origin, std::string *error, Make make)
{
    if (g_live.load())
        return fail(error, kLiveRefusal);
    try {
        std::lock_guard loading(g_loadMutex);
        std::shared_ptr<const Model> model = make();
        if (model == nullptr)
            return false;
        std::shared_ptr<const Model> replaced;
        {
            std::lock_guard lock(g_changeMutex);
            g_settled.store(true);
            replaced = publish(Served{std::move(model), std::move(file)});
        }
        letGo(std::move(replaced));
        returnFreedMemory();
        return true;
    } catch (const std::bad_alloc &) {
        return fail(error, origin + ": out of memory");
    }
}

} // namespace

std::shared_ptr<const Model> servedModel()
{
    settleServedModel();
    return snapshot();
}

void settleServedModel()
{
    if (!g_settled.load()) {
        std::lock_guard lock(g_changeMutex);
        settleLocked();
    }
}

std::optional<bool> servedModelReady()
{
    settleServedModel();
    const int ready = g_servedReady.load();
    if (ready == kNoModel)
        return std::nullopt;
    return ready != 0;
}

const Model *currentModel()
{
    return g_identityModel;
}

bool servedModelFile(std::string *file)
{
    servedModel(); // a model from KELP_MODEL has its file too
    std::lock_guard lock(g_servedMutex);
    if (g_served == nullptr || g_servedFile.empty())
        return false;
    *file = g_servedFile;
    return true;
}

bool loadModelFile(const std::string &path, std::string *error)
{
    return load(path, path, error, [&] { return modelFromFile(path, error); });
}

bool saveModelFile(const std::string &path, std::string *error)
{
    std::string message;
    bool saved = false;
    try {
        const std::shared_ptr<const Model> model = servedModel();
        if (model == nullptr)
            return fail(error, "no model is served");
        const std::string text = modelText(*model);
        if (text.size() > kMaxModelFileBytes) {
            return fail(error, "the model's text is " + std::to_string(text.size()) +
                                   " bytes, over the limit of a model file (" +
                                   rt::byteCountText(kMaxModelFileBytes) + ")");
        }
        saved = rt::replaceFile(path, text, 0644, &message);
    } catch (const std::bad_alloc &) {
        message = "out of memory";
    }
    return saved || fail(error, message);
}

bool loadModelText(const std::string &text, const std::string &origin, std::string *error)
{
    return load(std::string(), origin, error, [&] { return readModel(text, origin, error); });
}

void unloadModel()
{
    std::shared_ptr<const Model> replaced;
    {
        std::lock_guard lock(g_changeMutex);
        g_settled.store(true);
        // Unloading is the host's stop: no reader is left to take a rescan.
        replaced = publish(Served{nullptr, std::string()}, Rows::kStay);
    }
    letGo(std::move(replaced));
}

void serveLiveModel(std::shared_ptr<const Model> model)
{
    std::shared_ptr<const Model> replaced;
    {
        std::lock_guard loading(g_loadMutex);
        std::lock_guard lock(g_changeMutex);
        g_settled.store(true);
        g_live.store(true);
        replaced = publish(Served{std::move(model), std::string()});
    }
    letGo(std::move(replaced));
}

bool liveServed()
{
    return g_live.load();
}

void stopServingLive()
{
    g_live.store(false);
}

void resetForTesting()
{
    g_live.store(false);
    std::shared_ptr<const Model> replaced;
    {
        std::lock_guard lock(g_changeMutex);
        g_settled.store(false);
        replaced = publish(Served{nullptr, std::string()}, Rows::kStay);
    }
    letGo(std::move(replaced));
    forgetHandedOut();
    g_peakModelSize.store(0);
}

bool setReady(bool ready, std::string *error)
{
    return change(error, [&](const Model &, ModelData &data) {
        setFirst(&data.storage, "ready", ready ? "1" : "0");
        return true;
    });
}

bool setAttribute(uint32_t id, const std::string &name, const std::string &value,
                  std::string *error)
{
    std::optional<size_t> pos;
    auto edit = [&](const Model &current, ModelData &data) {
        pos = current.find(id);
        if (!pos)
            return fail(error, noObject(id));
        setFirst(&data.objects[*pos].attributes, name, value);
        // A fault the new value brings is the set's, not the file line's
        // that first gave the object.
        constexpr std::string_view kSet = "kelpctl set";
        auto origin = std::find(data.origins.begin(), data.origins.end(), kSet);
        if (origin == data.origins.end())
            origin = data.origins.insert(data.origins.end(), std::string(kSet));
        data.objects[*pos].where = Where{static_cast<uint32_t>(origin - data.origins.begin()), 0};
        return true;
    };
    if (name != "Nexus")
        return change(error, edit);
    // A set Nexus renames the object on purpose: its row keeps answering.
    // The edit moves no object, so it keeps its position.
    return change(error, edit, [&](const Model &before, const Model &after) {
        followIdentity(before, *pos, after, *pos);
    });
}

bool addObjects(const std::string &fragment, std::string *error)
{
    return change(error, [&](const Model &, ModelData &data) {
        return parseModelFragment(fragment, "added XML", &data, error);
    });
}

bool removeObject(uint32_t id, std::string *error)
{
    return change(error, [&](const Model &current, ModelData &data) {
        std::optional<size_t> pos = current.find(id);
        if (!pos)
            return fail(error, noObject(id));
        if (const auto &children = current.childrenOf(*pos); !children.empty()) {
            return fail(error, "object " + std::to_string(id) + " has children (object " +
                                   std::to_string(current.idOf(children.front())) +
                                   " first); remove them first");
        }
        data.objects.erase(data.objects.begin() + static_cast<std::ptrdiff_t>(*pos));
        std::erase_if(data.links, [id](const LinkData &l) { return l.a == id || l.b == id; });
        return true;
    });
}

} // namespace kelp::ds

extern "C" int kelpRuntimeLoadModel(const char *path, char *error, unsigned errorSize)
{
    std::string message;
    bool ok = false;
    try {
        if (path == nullptr || path[0] == '\0')
            message = "no model file named";
        else
            ok = kelp::ds::loadModelFile(path, &message);
    } catch (const std::bad_alloc &) {
        message = "out of memory";
    }
    kelp::rt::copyToBuffer(ok ? std::string_view() : message, error, errorSize);
    return ok ? 0 : 1;
}

extern "C" unsigned long kelpRuntimePeakModelSize(void)
{
    return static_cast<unsigned long>(kelp::ds::g_peakModelSize.load(std::memory_order_relaxed));
}

extern "C" unsigned long kelpRuntimeModelChanges(void)
{
    return static_cast<unsigned long>(kelp::ds::g_modelChanges.load(std::memory_order_relaxed));
}

extern "C" int kelpRuntimeServedModelPath(char *path, unsigned size)
{
    std::string file;
    bool ok = false;
    try {
        ok = path != nullptr && kelp::ds::servedModelFile(&file) && file.size() < size;
    } catch (const std::bad_alloc &) {
        ok = false;
    }
    // A path cut short would name another file: it is all or nothing.
    if (ok)
        std::memcpy(path, file.c_str(), file.size() + 1);
    else if (path != nullptr && size > 0)
        path[0] = '\0';
    return ok ? 0 : 1;
}
