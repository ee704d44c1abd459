// The calling thread's flat answer: its block, and its element table.
#include "xmlsup/flat_answer.h"

#include <malloc.h>
#include <sanitizer/asan_interface.h>

#include <array>
#include <atomic>
#include <cstring>

#include "support/answer_blocks.h"

namespace kelp::rt::xml {
namespace {

// What a look-up reads. Trivially destructible, so that a look-up reaches
// it without the first-use check of a thread_local with a destructor; the
// element storage and the kept block are owned by FlatOwner.
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
    // FlatOwner::elements' data and size.
    const FlatElement *elements = nullptr;
    size_t count = 0;
    bool distinctNames = false;
    // Where a tag was last found, by a hash of the tag (hintSlot); tried
    // first in an answer of distinct names, and kept across answers.
    std::array<uint32_t, 32> hints{};
};

// Per thread: an answer is read by the thread that asked for it, and no
// lock is taken on the way.
constinit thread_local FlatAnswer t_flat;

void releaseKept(FlatAnswer &flat)
{
    if (flat.kept == nullptr)
        return;
    ASAN_UNPOISON_MEMORY_REGION(flat.kept, flat.length + 1);
    giveBackAnswerBlock(flat.kept);
    flat.kept = nullptr;
}

// The thread's element table, which keeps its capacity from one answer to
// the next; made with the thread's first answer, and at the thread's end
// gives the kept block back. Every FlatAnswer that is valid was remembered
// through it.
struct FlatOwner {
    std::vector<FlatElement> elements;

    ~FlatOwner()
    {
        t_flat.valid = false;
        t_flat.elements = nullptr;
        t_flat.count = 0;
        releaseKept(t_flat);
    }
};

thread_local FlatOwner t_owner;

// Answers freed so far, by any thread.
std::atomic<uint64_t> g_answersFreed{0};

// A tag's place in FlatAnswer::hints: any two tags may share one, since a
// hint is checked before it is used.
size_t hintSlot(std::string_view tag)
{
    return (tag.size() * 7 + static_cast<unsigned char>(tag.back())) % 32;
}

// Whether a[0..n) and b[0..n) hold the same bytes. Names are short: up to
// 16 bytes are compared as two overlapping words from each side, without a
// call.
bool sameBytes(const char *a, const char *b, size_t n)
{
    const auto word = [](const char *p, auto zero) {
        decltype(zero) w;
        std::memcpy(&w, p, sizeof w);
        return w;
    };
    if (n >= 8 && n <= 16) {
        return ((word(a, uint64_t{}) ^ word(b, uint64_t{})) |
                (word(a + n - 8, uint64_t{}) ^ word(b + n - 8, uint64_t{}))) == 0;
    }
    if (n >= 4 && n < 8) {
        return ((word(a, uint32_t{}) ^ word(b, uint32_t{})) |
                (word(a + n - 4, uint32_t{}) ^ word(b + n - 4, uint32_t{}))) == 0;
    }
    return std::memcmp(a, b, n) == 0;
}

// Whether element e of xml is named tag.
bool named(const char *xml, const FlatElement &e, std::string_view tag)
{
    // Most names differ in length or in their first letter.
    return e.nameSize == tag.size() && xml[e.nameStart] == tag.front() &&
           sameBytes(xml + e.nameStart, tag.data(), tag.size());
}

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

void rememberFlatAnswer(const char *text, size_t length, std::vector<FlatElement> *elements,
                        bool distinctNames)
{
    FlatAnswer &flat = t_flat;
    FlatOwner &owner = t_owner;
    releaseKept(flat);
    owner.elements.swap(*elements);
    flat.elements = owner.elements.data();
    flat.count = owner.elements.size();
    flat.distinctNames = distinctNames;
    flat.block = text;
    flat.length = length;
    flat.freedBefore = g_answersFreed.load(std::memory_order_acquire);
    flat.valid = true;
}

void forgetFlatAnswer()
{
    t_flat.valid = false;
    releaseKept(t_flat);
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

void *takeFlatAnswerBlock(size_t bytes)
{
    FlatAnswer &flat = t_flat;
    char *block = flat.kept;
    // The answer of a column's next row is of about the same size: a block
    // that held the last one with its NUL holds one no longer, and the
    // heap's count is asked only for a longer one.
    if (block == nullptr || (bytes > flat.length + 1 && malloc_usable_size(block) < bytes))
        return nullptr;
    ASAN_UNPOISON_MEMORY_REGION(block, flat.length + 1);
    flat.kept = nullptr;
    flat.valid = false;
    return block;
}

void noteAnswerFreed()
{
    g_answersFreed.fetch_add(1, std::memory_order_acq_rel);
}

uint64_t answersFreed()
{
    return g_answersFreed.load(std::memory_order_acquire);
}

IndexedLookup findInFlatAnswer(const char *xml, size_t length, std::string_view tag,
                               uint32_t occurrence)
{
    FlatAnswer &flat = t_flat;
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
    const auto found = [xml](const FlatElement &e) {
        IndexedLookup result;
        result.indexed = true;
        result.raw = std::string_view(xml + e.contentStart, e.contentSize);
        return result;
    };
    // With distinct names, the one element of the tag's name is its first.
    uint32_t &hint = flat.hints[hintSlot(tag)];
    const bool hinted = flat.distinctNames && occurrence == 0;
    if (hinted && hint < flat.count && named(xml, flat.elements[hint], tag))
        return found(flat.elements[hint]);
    uint32_t seen = 0;
    bool anyNamed = false; // tag names an element of the text
    for (size_t i = 0; i < flat.count; ++i) {
        const FlatElement &e = flat.elements[i];
        if (!named(xml, e, tag))
            continue;
        anyNamed = true;
        if (seen++ == occurrence) {
            if (hinted)
                hint = static_cast<uint32_t>(i);
            return found(e);
        }
    }
    // A tag that names an element is flat, as every name in the table is.
    // Any other tag is answered "none" only when it is flat: the scan may
    // match a tag holding markup (a blank, '>') in a way the table cannot.
    IndexedLookup result;
    result.indexed = anyNamed || isFlatName(tag);
    return result;
}

} // namespace kelp::rt::xml
