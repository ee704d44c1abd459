// The data-store queries of vscil.h, answered from the served storage model.
// Each query works on one snapshot of the model, so a change made meanwhile
// never shows half. Answers are heap blocks that freeMem releases.
//
// The ids a list answer hands out are remembered with what they named; a
// query about "this object" by an id that now names an object of another
// type or nexus answers as for a missing one (identities.h).

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datastore/identities.h"
#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/written_answers.h"
#include "support/answer_blocks.h"
#include "support/short_of_memory.h"
#include "vscil.h"
#include "xmlsup/answer_index.h"
#include "xmlsup/flat_answer.h"
#include "xmlsup/readiness_answer.h"

namespace {

using kelp::ds::Model;

enum : uint32_t { kOk = 0, kNotFound = 2, kFailure = 5 };

char *answerWith(uint32_t *status, uint32_t code)
{
    if (status != nullptr)
        *status = code;
    return nullptr;
}

// Status 5 for a query that ran out of memory, logged
// (support/short_of_memory.h).
char *shortOfMemory(uint32_t *status)
{
    kelp::rt::noteShortOfMemory(0);
    return answerWith(status, kFailure);
}

// An answer of `size` bytes that write(block) writes in place, with its
// NUL, status 0; status 5 when memory is short. The text is made in the
// block handed out (takeFirst's when it is given and has one,
// rt::answerBlock), never copied.
template <typename Write>
char *answerOf(uint32_t *status, size_t size, Write write, void *(*takeFirst)(size_t) = nullptr)
{
    auto *block = static_cast<char *>(kelp::rt::answerBlock(size + 1, takeFirst));
    if (block == nullptr) {
        kelp::rt::noteShortOfMemory(size + 1);
        return answerWith(status, kFailure);
    }
    write(block);
    block[size] = '\0';
    kelp::rt::xml::registerAnswer(block, size);
    if (status != nullptr)
        *status = kOk;
    return block;
}

// A heap copy of text with its NUL (answerOf).
char *answer(uint32_t *status, std::string_view text)
{
    return answerOf(status, text.size(),
                    [&](char *block) { std::memcpy(block, text.data(), text.size()); });
}

// The calling thread's readiness block. The plug-in asks for the readiness
// answer before every cell and frees it at once; its block is written again
// for the next answer instead of going through the kept blocks, and freeing
// it is not counted as an answer freed (noteAnswerFreed), which would cost
// every thread's flat answer its trust in its block: the block never leaves
// the thread, and only ever holds a readiness answer. freeMem keeps it only
// when no answer was freed anywhere while it was out: then nobody else freed
// it, and the address holds no other answer.
struct ReadinessBlock {
    char *block = nullptr;
    bool out = false; // handed out and not freed since
    uint64_t freedBefore = 0;
    // Set once the thread's block is freed at its end: an answer freed after
    // that takes the usual way.
    bool ended = false;

    ~ReadinessBlock()
    {
        if (block != nullptr && !out) {
            ASAN_UNPOISON_MEMORY_REGION(block, kelp::rt::xml::kReadyAnswer.size() + 1);
            kelp::rt::giveBackAnswerBlock(block);
        }
        block = nullptr;
        ended = true;
    }
};

thread_local ReadinessBlock t_readiness;

// The readiness answer `text` in the thread's readiness block (answerOf).
char *readinessAnswer(uint32_t *status, std::string_view text)
{
    ReadinessBlock &own = t_readiness;
    if (own.ended)
        return answer(status, text);
    char *block = own.block;
    if (block == nullptr || own.out) {
        block = answer(status, text);
        if (block == nullptr)
            return nullptr;
    } else {
        ASAN_UNPOISON_MEMORY_REGION(block, text.size() + 1);
        std::memcpy(block, text.data(), text.size());
        block[text.size()] = '\0';
        if (status != nullptr)
            *status = kOk;
    }
    own.block = block;
    own.out = true;
    own.freedBefore = kelp::rt::xml::answersFreed();
    return block;
}

// Whether freeMem takes `xml` back as the thread's readiness block. One the
// thread handed out that comes back after some answer was freed goes the
// usual way, and the thread makes a new one. The block freed again while the
// thread keeps it is left alone: it holds no answer.
bool keepReadinessBlock(char *xml)
{
    ReadinessBlock &own = t_readiness;
    if (own.ended || xml != own.block)
        return false;
    if (!own.out)
        return true;
    own.out = false;
    if (own.freedBefore != kelp::rt::xml::answersFreed()) {
        own.block = nullptr;
        return false;
    }
    ASAN_POISON_MEMORY_REGION(xml, kelp::rt::xml::kReadyAnswer.size() + 1);
    return true;
}

// The single-object answers the data store keeps (written_answers.h):
// every row of a table of up to 2,048 rows, in a ring of 4 MiB (an answer
// with its element table is about 1.5 KB). One ring serves every thread.
constexpr size_t kKeptAnswers = 2048;
constexpr size_t kKeptAnswerBytes = size_t{4} << 20;

// The answer of the object at pos (answerOf). The plug-in reads it, and
// its copy of it, attribute by attribute: the thread remembers its element
// table (xmlsup/flat_answer.h) when the model's answers are flat texts. It
// replaces the thread's flat answer, so it is made in the block that
// answer keeps when that holds it.
// The answer is copied from the kept answers when it is there, else written
// and kept. Requires identityMutex(), which guards the kept answers: every
// query that answers an object holds it (withIdentities).
char *objectAnswer(uint32_t *status, const Model &m, size_t pos)
{
    // Never destroyed: a thread may still ask while the process exits.
    static auto &kept = *new kelp::ds::WrittenAnswers(kKeptAnswers, kKeptAnswerBytes);
    thread_local std::vector<kelp::rt::xml::FlatElement> t_elements;
    const size_t size = m.answerSize(pos);
    bool listed = m.hasFlatNames();
    char *block;
    if (const std::optional<kelp::ds::WrittenAnswer> answer = kept.find(m, pos)) {
        listed = answer->listed;
        block = answerOf(
            status, size,
            [&](char *out) {
                std::memcpy(out, answer->text.data(), size);
                if (listed) {
                    try {
                        t_elements.assign(answer->elements.begin(), answer->elements.end());
                    } catch (const std::bad_alloc &) {
                        listed = false;
                    }
                }
            },
            kelp::rt::xml::takeFlatAnswerBlock);
    } else {
        block = answerOf(
            status, size,
            [&](char *out) {
                if (listed) {
                    try {
                        m.writeAnswer(pos, out, &t_elements);
                    } catch (const std::bad_alloc &) {
                        // No room for the table: the answer is written without one.
                        listed = false;
                    }
                }
                if (!listed)
                    m.writeAnswer(pos, out);
                kept.keep(m, pos, out, size, listed, t_elements);
            },
            kelp::rt::xml::takeFlatAnswerBlock);
    }
    if (block != nullptr && listed)
        kelp::rt::xml::rememberFlatAnswer(block, size, &t_elements, m.hasDistinctNames());
    else
        kelp::rt::xml::forgetFlatAnswer();
    return block;
}

// A list answer: the runs of the objects at `positions` inside one root.
char *listAnswer(uint32_t *status, const Model &m, const std::vector<size_t> &positions)
{
    constexpr std::string_view kOpen = "<ObjList>", kClose = "</ObjList>";
    size_t size = kOpen.size() + kClose.size();
    for (size_t p : positions)
        size += m.answerSize(p);
    return answerOf(status, size, [&](char *block) {
        char *out = std::copy(kOpen.begin(), kOpen.end(), block);
        for (size_t p : positions) {
            m.writeAnswer(p, out);
            out += m.answerSize(p);
        }
        std::copy(kClose.begin(), kClose.end(), out);
    });
}

// Runs query(model) on the served model; no model answers status 7 and a
// failed allocation status 5, never an exception across the C edge.
template <typename Query> char *withModel(uint32_t *status, Query query)
{
    try {
        std::shared_ptr<const Model> m = kelp::ds::servedModel();
        if (m == nullptr)
            return answerWith(status, VSCIL_STATUS_UNAVAILABLE);
        return query(*m);
    } catch (const std::bad_alloc &) {
        return shortOfMemory(status);
    }
}

// As withModel, for the queries that hand ids out or take one: the model is
// read and the query runs under identityMutex(), so that the identities it
// checks and records go with the model it answers from.
template <typename Query> char *withIdentities(uint32_t *status, Query query)
{
    try {
        // Loads KELP_MODEL on first use, which takes a lock that is taken
        // before identityMutex(), never after it.
        kelp::ds::settleServedModel();
        std::lock_guard identities(kelp::ds::identityMutex());
        const Model *m = kelp::ds::currentModel();
        if (m == nullptr)
            return answerWith(status, VSCIL_STATUS_UNAVAILABLE);
        return query(*m);
    } catch (const std::bad_alloc &) {
        return shortOfMemory(status);
    }
}

// The object objId names to the plug-in: the one it was handed out as
// (found by type and nexus when a load gave it another id), or nullopt.
std::optional<size_t> thisObject(const Model &m, uint32_t objId)
{
    return kelp::ds::positionNamedBy(m, objId);
}

// A list answer of the objects at positions; their ids are handed out once
// the answer exists.
char *handOut(uint32_t *status, const Model &m, const std::vector<size_t> &positions)
{
    char *text = listAnswer(status, m, positions);
    if (text == nullptr)
        return nullptr;
    try {
        kelp::ds::rememberHandedOut(m, positions);
    } catch (const std::bad_alloc &) {
        freeMem(text); // an id not remembered is not handed out
        throw;
    }
    return text;
}

} // namespace

extern "C" {

// <DataStoreReady><Code>0</Code></DataStoreReady> when the model is ready,
// Code 1 when it is not; null with status 7 when no model is served.
char *DataStoreReady(uint32_t *status)
{
    // Asked before every cell: the flag is read without taking the model.
    std::optional<bool> ready;
    try {
        ready = kelp::ds::servedModelReady(); // may load KELP_MODEL
    } catch (const std::bad_alloc &) {
        return shortOfMemory(status);
    }
    if (!ready)
        return answerWith(status, VSCIL_STATUS_UNAVAILABLE);
    return readinessAnswer(status,
                           *ready ? kelp::rt::xml::kReadyAnswer : kelp::rt::xml::kNotReadyAnswer);
}

// <ObjList> with the runs of every object of the type; null with status 2
// when it has none (or is not a type of the model), 5 for a null name.
char *GetObjectList(uint32_t *status, const char *typeName)
{
    if (typeName == nullptr)
        return answerWith(status, kFailure);
    return withIdentities(status, [&](const Model &m) {
        const std::vector<size_t> &positions = m.ofType(typeName);
        if (positions.empty())
            return answerWith(status, kNotFound);
        return handOut(status, m, positions);
    });
}

// The object's run; null with status 2 when there is no such object or its
// id was handed out naming another (thisObject), 5 when `reserved` is not 0.
char *GetSingleObject(uint32_t *status, uint32_t reserved, uint32_t objId)
{
    if (reserved != 0)
        return answerWith(status, kFailure);
    return withIdentities(status, [&](const Model &m) {
        std::optional<size_t> pos = thisObject(m, objId);
        if (!pos)
            return answerWith(status, kNotFound);
        return objectAnswer(status, m, *pos);
    });
}

// <ObjList> with the runs of the objects of type `kind` related to objId
// (Model::associated); null with status 2 when there are none or objId is
// no object (thisObject), 5 for a null kind.
char *GetAssociated(uint32_t *status, const char *kind, uint32_t objId)
{
    if (kind == nullptr)
        return answerWith(status, kFailure);
    return withIdentities(status, [&](const Model &m) {
        std::optional<size_t> pos = thisObject(m, objId);
        if (!pos)
            return answerWith(status, kNotFound);
        std::vector<size_t> related = m.associated(kind, *pos);
        if (related.empty())
            return answerWith(status, kNotFound);
        return handOut(status, m, related);
    });
}

// <objectCount>N</objectCount>, N the number of objects GetAssociated would
// answer (0 included); null with status 2 when objId is no object
// (thisObject), 5 for a null kind.
char *GetAssociatedPhyDevCount(uint32_t *status, const char *kind, uint32_t objId)
{
    if (kind == nullptr)
        return answerWith(status, kFailure);
    return withIdentities(status, [&](const Model &m) {
        std::optional<size_t> pos = thisObject(m, objId);
        if (!pos)
            return answerWith(status, kNotFound);
        return answer(status, "<objectCount>" + std::to_string(m.associated(kind, *pos).size()) +
                                  "</objectCount>");
    });
}

// The model's thermalShutdown attribute; 0 when it has none or no model is
// served.
uint32_t GetSmartThermalShutdownStatus(void)
{
    try {
        std::shared_ptr<const Model> m = kelp::ds::servedModel();
        return m != nullptr ? m->thermalShutdown() : 0;
    } catch (const std::bad_alloc &) {
        return 0;
    }
}

// Answers are malloc blocks, given back to the thread's kept blocks
// (support/answer_blocks.h) or kept by its flat answer; null is ignored.
void freeMem(char *xml)
{
    if (xml == nullptr || keepReadinessBlock(xml))
        return;
    // The index and the flat answers' trust in their blocks go first: once
    // the memory is free, a new answer may be handed out at the same
    // address.
    kelp::rt::xml::forgetAnswer(xml);
    // The thread's last one-object answer is kept by its flat answer, which
    // the plug-in's copy of it is compared with.
    const bool kept = kelp::rt::xml::keepFlatAnswerBlock(xml);
    kelp::rt::xml::noteAnswerFreed();
    if (!kept)
        kelp::rt::giveBackAnswerBlock(xml);
}

} // extern "C"
