// The calling thread's flat answer: its block, and its element table.
#include "xmlsup/flat_answer.h"

#include <sanitizer/asan_interface.h>

#include <atomic>
#include <cstring>

#include "support/answer_blocks.h"

namespace kelp::rt::xml {
namespace {

struct FlatAnswer {
    bool valid = false;
    // The block the answer was handed out in, its length without the NUL,
    // and g_answersFreed then.
    const char *block = nullptr;
    size_t length = 0;
    uint64_t freedBefore = 0;
    // The block once this thread freed it: kept as the answer's bytes, which
    // copies are compared with, and out of bounds to everyone else. Null
    // while the block is out, and when another thread freed it.
    char *kept = nullptr;
    std::vector<FlatElement> elements;

    ~FlatAnswer() { releaseKept(); }

    void releaseKept()
    {
        if (kept == nullptr)
            return;
        ASAN_UNPOISON_MEMORY_REGION(kept, length + 1);
        giveBackAnswerBlock(kept);
        kept = nullptr;
    }
};

// Per thread: an answer is read by the thread that asked for it, and no
// lock is taken on the way. The table keeps its capacity from one answer
// to the next.
thread_local FlatAnswer t_flat;

// Answers freed so far, by any thread.
std::atomic<uint64_t> g_answersFreed{0};

} // namespace

bool isFlatName(std::string_view name)
{
    if (name.empty())
        return false;
    for (char c : name) {
        switch (c) {
        case ' ':
        case '\t':
        case '\r':
        case '\n':
        case '/':
        case '<':
        case '>':
        case '!':
        case '?':
        case '"':
        case '\'':
        case '&':
        case '=':
        case '\0':
            return false;
        default:
            break;
        }
    }
    return true;
}

void rememberFlatAnswer(const char *text, size_t length, std::vector<FlatElement> *elements)
{
    FlatAnswer &flat = t_flat;
    flat.releaseKept();
    flat.elements.swap(*elements);
    flat.block = text;
    flat.length = length;
    flat.freedBefore = g_answersFreed.load(std::memory_order_acquire);
    flat.valid = true;
}

void forgetFlatAnswer()
{
    t_flat.valid = false;
    t_flat.releaseKept();
}

bool keepFlatAnswerBlock(char *block)
{
    FlatAnswer &flat = t_flat;
    // Once any answer was freed, the block this thread is handed to free
    // may be another answer's at the same address: its own was freed by
    // another thread and handed out again.
    if (!flat.valid || block != flat.block || flat.kept != nullptr ||
        flat.freedBefore != g_answersFreed.load(std::memory_order_acquire)) {
        return false;
    }
    flat.kept = block;
    ASAN_POISON_MEMORY_REGION(block, flat.length + 1);
    return true;
}

void noteAnswerFreed()
{
    g_answersFreed.fetch_add(1, std::memory_order_acq_rel);
}

IndexedLookup findInFlatAnswer(const char *xml, size_t length, std::string_view tag,
                               uint32_t occurrence)
{
    const FlatAnswer &flat = t_flat;
    if (!flat.valid || flat.length != length || tag.empty()) {
        return {};
    }
    // The block handed out holds the answer's bytes for as long as no
    // answer has been freed since: it is read without a compare, and any
    // other text is compared with it. Once the thread freed it, texts are
    // compared with the kept block; a block another thread freed may hold
    // another answer by now, and every text is scanned.
    const bool noneFreed = flat.freedBefore == g_answersFreed.load(std::memory_order_acquire);
    if (!(noneFreed && xml == flat.block)) {
        bool same = false;
        if (flat.kept != nullptr) {
            ASAN_UNPOISON_MEMORY_REGION(flat.kept, length);
            same = std::memcmp(xml, flat.kept, length) == 0;
            ASAN_POISON_MEMORY_REGION(flat.kept, length);
        } else if (noneFreed) {
            same = std::memcmp(xml, flat.block, length) == 0;
        }
        if (!same)
            return {};
    }
    uint32_t seen = 0;
    bool named = false; // tag names an element of the text
    const char first = tag.front();
    for (const FlatElement &e : flat.elements) {
        // Most names differ in length or in their first letter.
        if (e.nameSize != tag.size() || xml[e.nameStart] != first ||
            std::memcmp(xml + e.nameStart, tag.data(), tag.size()) != 0) {
            continue;
        }
        named = true;
        if (seen++ == occurrence) {
            IndexedLookup result;
            result.indexed = true;
            result.raw = std::string_view(xml + e.contentStart, e.contentSize);
            return result;
        }
    }
    // A tag that names an element is flat, as every name in the table is.
    // Any other tag is answered "none" only when it is flat: the scan may
    // match a tag holding markup (a blank, '>') in a way the table cannot.
    IndexedLookup result;
    result.indexed = named || isFlatName(tag);
    return result;
}

} // namespace kelp::rt::xml
