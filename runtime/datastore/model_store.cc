// The served storage model (see model_store.h): loading, KELP_MODEL, the
// changes, and kelpRuntimeLoadModel.
//
// Read-copy-update: readers take a reference to the immutable Model under a
// short lock; a change copies the data, edits the copy, builds a new Model
// from it and only then swaps it in, so a failed change leaves nothing.
#include "datastore/model_store.h"

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <new>

#include "datastore/model.h"
#include "kelp/runtime.h"
#include "support/config.h"
#include "support/file_read.h"
#include "support/log.h"
#include "support/text.h"

namespace kelp::ds {
namespace {

// Serialises changes and the one attempt to load KELP_MODEL; taken before
// g_servedMutex, never after it.
std::mutex g_changeMutex;
std::mutex g_servedMutex;
std::shared_ptr<const Model> g_served; // guarded by g_servedMutex; written under both
// Set once a host loaded or unloaded a model, or KELP_MODEL was tried; from
// then on the environment is not consulted. Written under g_changeMutex.
std::atomic<bool> g_settled{false};

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

void publish(std::shared_ptr<const Model> model) // requires g_changeMutex
{
    std::lock_guard lock(g_servedMutex);
    g_served = std::move(model);
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
    ModelData data;
    if (!parseModelText(text, path, &data, error))
        return nullptr;
    return Model::build(std::move(data), error);
}

// The first access while no host has chosen a model loads KELP_MODEL.
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
        publish(std::move(model));
    else
        kelp::rt::logError("KELP_MODEL: %s", error.c_str());
}

// Applies edit to a copy of the served model's data and serves the result
// when it is a valid model. Memory exhaustion is a failure like any other.
template <typename Edit> bool change(std::string *error, Edit edit)
{
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
        publish(std::move(next));
        return true;
    } catch (const std::bad_alloc &) {
        return fail(error, "out of memory");
    }
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

} // namespace

std::shared_ptr<const Model> servedModel()
{
    if (!g_settled.load()) {
        std::lock_guard lock(g_changeMutex);
        settleLocked();
    }
    return snapshot();
}

bool loadModelFile(const std::string &path, std::string *error)
{
    try {
        std::shared_ptr<const Model> model = modelFromFile(path, error);
        if (model == nullptr)
            return false;
        {
            std::lock_guard lock(g_changeMutex);
            g_settled.store(true);
            publish(std::move(model));
        }
        returnFreedMemory();
        return true;
    } catch (const std::bad_alloc &) {
        return fail(error, path + ": out of memory");
    }
}

bool loadModelText(const std::string &text, const std::string &origin, std::string *error)
{
    try {
        ModelData data;
        if (!parseModelText(text, origin, &data, error))
            return false;
        std::shared_ptr<const Model> model = Model::build(std::move(data), error);
        if (model == nullptr)
            return false;
        {
            std::lock_guard lock(g_changeMutex);
            g_settled.store(true);
            publish(std::move(model));
        }
        returnFreedMemory();
        return true;
    } catch (const std::bad_alloc &) {
        return fail(error, origin + ": out of memory");
    }
}

void unloadModel()
{
    std::lock_guard lock(g_changeMutex);
    g_settled.store(true);
    publish(nullptr);
}

void resetForTesting()
{
    std::lock_guard lock(g_changeMutex);
    g_settled.store(false);
    publish(nullptr);
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
    return change(error, [&](const Model &current, ModelData &data) {
        std::optional<size_t> pos = current.find(id);
        if (!pos)
            return fail(error, noObject(id));
        setFirst(&data.objects[*pos].attributes, name, value);
        return true;
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
                                   std::to_string(current.object(children.front()).id) +
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
